// Entry points and dispatch.

#include "fileformats/pst/common/pst.h"

#include <algorithm>
#include <cstring>
#include <new>

#include <ternkit/filter.h>
#include "fileformats/pst/common/documentpasses.h"
#include "fileformats/pst/common/mimeheader.h"
#include "fileformats/pst/common/mimemessage.h"
#include "fileformats/pst/common/msgdocument.h"
#include "fileformats/pst/common/storedocument.h"
#include "ternbase/ternbase.h"

using ternkit::FileHandle;
using ternkit::FilterInfoRequest;
using ternkit::FilterLoadRequest;
using ternkit::HostFileInfo;
using ternkit::HostLoadOptions;
using ternkit::Status;

namespace {

constexpr std::uint32_t kOpenForReading = 256;

// Brackets a loader's work on a temporary file for the kernel.
class LoadScope {
public:
    LoadScope() = default;
    LoadScope(const LoadScope&) = delete;
    LoadScope& operator=(const LoadScope&) = delete;
    ~LoadScope() { leave(); }

    void enter() {
        // Without the kernel's consent the load goes on without a scope.
        if (m_active == 0 &&
            (m_kind == kKindPrepared || TbLoadScopePrepare(m_block, sizeof(m_block), m_kind, 0) == ternkit::kOk)) {
            TbLoadScopeSwitch(m_block, 0, 0);
            m_active = 1;
        }
    }

    void leave() {
        if (m_active != 0) {
            TbLoadScopeSwitch(m_block, 0, 0);
            m_active = 0;
        }
    }

private:
    static constexpr std::uint32_t kKindPrepared = 4;
    std::uint8_t m_block[kTbLoadScopeSize] = {};
    std::uint32_t m_kind = 3;
    std::uint32_t m_active = 0;
};

class FileGuard {
public:
    explicit FileGuard(FileHandle handle) : m_handle(handle) {}
    FileGuard(const FileGuard&) = delete;
    FileGuard& operator=(const FileGuard&) = delete;
    ~FileGuard() { close(); }

    FileHandle handle() const { return m_handle; }

    void close() {
        if (m_handle != ternkit::kInvalidHandle) {
            TbFileClose(m_handle);
            m_handle = ternkit::kInvalidHandle;
        }
    }

private:
    FileHandle m_handle;
};

/// Tells the source kind by the file's first bytes. @return 1; -7 when there are too few
Status sniff(FileHandle handle, std::uint32_t& source) {
    static constexpr unsigned char kStore[] = {0x21, 0x42, 0x44, 0x4E};
    static constexpr unsigned char kCompoundFile[] = {0xD0, 0xCF, 0x11, 0xE0, 0xA1, 0xB1, 0x1A, 0xE1};
    unsigned char signature[kSignatureSize] = {};
    TbFileSeek(handle, 0, kTbSeekStart);
    if (TbFileRead(handle, signature, sizeof(signature)) != sizeof(signature)) {
        return ternkit::kShortRead;
    }
    SourceKind kind = SourceKind::Eml;
    if (std::memcmp(signature, kStore, sizeof(kStore)) == 0) {
        kind = SourceKind::Pst;
    } else if (std::memcmp(signature, kCompoundFile, sizeof(kCompoundFile)) == 0) {
        kind = SourceKind::Msg;
    }
    source = static_cast<std::uint32_t>(kind);
    return ternkit::kOk;
}

std::uint32_t documentFormat(BodyKind bodyKind, bool plainTextOnly) {
    if (plainTextOnly) {
        return ternkit::kFormatText;
    }
    switch (bodyKind) {
        case BodyKind::Html:
            return ternkit::kFormatHtml;
        case BodyKind::Rtf:
            return ternkit::kFormatRtf;
        default:
            return ternkit::kFormatText;
    }
}

/// HTML travels through a temporary file when that is allowed; everything else goes from memory.
bool travelsByFile(const PstFilterData& record) {
    return record.documentFormat == ternkit::kFormatHtml && record.useTempFiles == 1;
}

Status writeHtmlFile(PstFilterData& record) {
    const char16_t* directory = record.tempDirectory[0] != 0 ? record.tempDirectory : nullptr;
    const Status status = TbTempName(directory, record.htmlPath, kPathUnits, 1, u"pst", u"html");
    if (status != ternkit::kOk) {
        return status;
    }
    ByteBuffer& document = record.document;
    while (document.size != 0 && document.data[document.size - 1] == '\0') {
        --document.size;
    }
    const FileHandle file = TbFileCreate(record.htmlPath, 0);
    if (file == ternkit::kInvalidHandle) {
        return TbMapError(ternkit::kCannotCreate);
    }
    const std::uint64_t written = document.size != 0 ? TbFileWrite(file, document.data, document.size, 0) : 0;
    TbFileCreatedClose(file, 0);
    return written == document.size ? ternkit::kOk : TbMapError(ternkit::kShortWrite);
}

/// Sniffs, dispatches, and writes the HTML file: what both entry points do before a loader is called.
Status prepareDocument(const char16_t* fileName, FileHandle handle, PstFilterData& record, std::uint32_t source,
                       std::int32_t& messageIndex, bool plainTextOnly) {
    record.useTempFiles = TbLoadModeQuery() == kTbLoadModeMemoryOnly ? 0 : 1;
    BodyKind bodyKind = BodyKind::None;
    const Status status = DispatchMessage(fileName, record, source, messageIndex, bodyKind, plainTextOnly, handle);
    if (status != ternkit::kOk) {
        return status;
    }
    record.sourceFormat = source;
    // Known before the file is made, so that the file goes with the record whatever happens next.
    record.documentFormat = documentFormat(bodyKind, plainTextOnly);
    return travelsByFile(record) ? writeHtmlFile(record) : ternkit::kOk;
}

HostLoadOptions localOptions(const HostLoadOptions* options) {
    HostLoadOptions local{};
    if (options != nullptr) {
        local = *options;
    }
    local.structSize = ternkit::kHostLoadOptionsSize;
    return local;
}

Status callInfoLoader(const FilterInfoRequest& request, PstFilterData& record, HostFileInfo& info, HostLoadOptions& options) {
    const std::uint32_t flags = request.cacheSlot == nullptr ? ternkit::kInfoWithoutCache : ternkit::kInfoWithCache;
    if (travelsByFile(record)) {
        LoadScope scope;
        scope.enter();
        const auto loader = request.loadInfoFromFile;
        return loader != nullptr ? loader(record.htmlPath, &info, ternkit::kHostFileInfoSize, flags, &options)
                                 : ternkit::kNullPointer;
    }
    const auto loader = request.loadInfoFromMemory;
    return loader != nullptr
               ? loader(record.document.data, &info, ternkit::kHostFileInfoSize, record.document.size, flags, &options)
               : ternkit::kNullPointer;
}

Status callLoader(const FilterLoadRequest& request, PstFilterData& record, HostFileInfo& info, HostLoadOptions& options) {
    const bool alternative = request.targetObject != nullptr && request.targetObject->kind() == ternkit::kTargetKindAlternative;
    if (travelsByFile(record)) {
        LoadScope scope;
        scope.enter();
        if (alternative) {
            const auto loader = request.alternativeLoadFromFile;
            return loader != nullptr ? loader(record.htmlPath, request.alternativeTarget, &options, &info)
                                     : ternkit::kNullPointer;
        }
        const auto loader = request.loadFromFile;
        return loader != nullptr ? loader(record.htmlPath, request.bitmap, ternkit::kBitmapRecordSize,
                                          ternkit::kDocumentBitsPerPixel, ternkit::kLoadArgumentOne,
                                          ternkit::kLoadArgumentThirtyTwo, request.callback, request.userData, &options, &info)
                                 : ternkit::kNullPointer;
    }
    const char* document = record.document.data;
    const std::uint64_t size = record.document.size;
    if (alternative) {
        const auto loader = request.alternativeLoadFromMemory;
        return loader != nullptr ? loader(document, request.alternativeTarget, size, &options, &info) : ternkit::kNullPointer;
    }
    const auto loader = request.loadFromMemory;
    return loader != nullptr ? loader(document, request.bitmap, ternkit::kBitmapRecordSize, ternkit::kDocumentBitsPerPixel,
                                      ternkit::kLoadArgumentOne, ternkit::kLoadArgumentThirtyTwo, request.callback,
                                      request.userData, size, &options, &info)
                             : ternkit::kNullPointer;
}

std::uint32_t scaled(std::uint32_t requested, std::uint32_t pixels, std::uint32_t resolution) {
    return static_cast<std::uint32_t>((static_cast<std::uint64_t>(requested) * pixels + resolution / 2) / resolution);
}

/// One direction of the page's size. A requested resolution scales the pixels, and only the record learns the new resolution.
template <typename SetPixels, typename SetResolution>
void fillExtent(std::uint32_t requested, std::uint32_t& recordPixels, std::uint32_t& recordResolution, SetPixels setPixels,
                SetResolution setResolution) {
    if (requested != 0 && requested != recordResolution && recordResolution != 0) {
        recordPixels = scaled(requested, recordPixels, recordResolution);
        recordResolution = requested;
        setPixels(recordPixels);
    } else {
        setPixels(recordPixels);
        setResolution(recordResolution);
    }
}

double wholeUnits(std::uint32_t pixels, std::uint32_t resolution) {
    return resolution != 0 ? static_cast<double>(pixels / resolution) : 0.0;
}

void fillResult(FilterInfoRequest& request, PstFilterData& record, std::int32_t messageIndex) {
    HostFileInfo& info = *request.fileInfo;
    request.messageNumber = messageIndex;
    info.format = record.sourceFormat;
    info.documentFlag = 1;
    info.documentUnit = 1;
    // These read what the caller's record held before the call.
    info.documentWidth = wholeUnits(info.width, record.xResolution);
    info.documentHeight = wholeUnits(info.height, record.yResolution);
    const std::int32_t page = request.options != nullptr ? request.options->pageNumber : 1;
    info.pageNumber = static_cast<std::int32_t>(std::min(static_cast<std::uint32_t>(std::max(page, 1)), record.pageCount));
    info.totalPages = record.pageCount;
    if (record.sourceFormat == ternkit::kFormatPst) {
        info.messageCount = record.messageCount;
    }
    info.pageFlag = 1;
    info.bitsPerPixel = ternkit::kDocumentBitsPerPixel;
    fillExtent(
        request.requestedXResolution, record.width, record.xResolution, [&](std::uint32_t value) { info.width = value; },
        [&](std::uint32_t value) { info.xResolution = value; });
    fillExtent(
        request.requestedYResolution, record.height, record.yResolution, [&](std::uint32_t value) { info.height = value; },
        [&](std::uint32_t value) { info.yResolution = value; });
    std::memcpy(info.pageValue, record.pageValue, sizeof(record.pageValue));
}

/// The Internet-message branch.
Status dispatchInternetMessage(PstFilterData& record, BodyKind& bodyKind, FileHandle fileHandle) {
    MimeMessage message;
    Status status = ParseMimeMessage(message, fileHandle, record);
    if (status < ternkit::kOk) {
        return status;
    }
    if (message.body.data == nullptr) {
        return ternkit::kUnusable;
    }
    status = ComposeMimeHeader(message);
    if (status != ternkit::kOk) {
        return status;
    }
    CleanDocument(message.body.data, message.body.size);
    bodyKind = message.bodyFormat;
    message.body.giveTo(record.document);
    InsertCharsetMeta(record.document);  // a document without the declaration is still a document
    record.sourceKind = SourceKind::Eml;
    return ternkit::kOk;
}

}  // namespace

Status DispatchMessage(const char16_t* fileName, PstFilterData& record, std::uint32_t& source, std::int32_t& messageIndex,
                       BodyKind& bodyKind, bool plainTextOnly, FileHandle fileHandle) {
    // No exception leaves the module: the branch in which one arises turns it into a status.
    try {
        switch (static_cast<SourceKind>(source)) {
            case SourceKind::Pst:
                source = ternkit::kFormatPst;
                return DispatchStoreMessage(fileName, record, messageIndex, bodyKind, plainTextOnly);
            case SourceKind::Msg:
                source = ternkit::kFormatMsg;
                return DispatchMsgMessage(fileName, record, bodyKind, plainTextOnly);
            case SourceKind::Eml:
                source = ternkit::kFormatEml;
                return dispatchInternetMessage(record, bodyKind, fileHandle);
            default:
                return ternkit::kUnusable;
        }
    } catch (const std::bad_alloc&) {
        return ternkit::kNoMemory;
    } catch (...) {
        return ternkit::kUnusable;
    }
}

extern "C" Status fltInfo(FilterInfoRequest* request) {
    if (request == nullptr || request->fileInfo == nullptr) {
        return ternkit::kBadArgument;
    }
    std::uint32_t source = 0;
    Status status = sniff(request->fileHandle, source);
    if (status != ternkit::kOk) {
        return status;
    }
    PstFilterData* record = MakeFilterData();
    if (record == nullptr) {
        return ternkit::kNoMemory;
    }
    const FilterDataGuard guard(record);
    std::int32_t messageIndex = static_cast<std::int32_t>(static_cast<std::uint32_t>(request->messageNumber) - 1);
    status = prepareDocument(request->fileName, request->fileHandle, *record, source, messageIndex, request->plainTextOnly == 1);
    if (status != ternkit::kOk) {
        return status;
    }
    HostFileInfo info{};
    info.loadFlags = ternkit::kInfoLoadFlags;
    info.structSize = ternkit::kHostFileInfoSize;
    info.format = record->documentFormat;
    HostLoadOptions options = localOptions(request->options);
    status = callInfoLoader(*request, *record, info, options);
    if (status != ternkit::kOk) {
        request->loaderStatus = status;
        return ternkit::kLoaderFailed;
    }
    record->pageCount = info.totalPages;
    record->width = info.width;
    record->height = info.height;
    record->xResolution = info.xResolution;
    record->yResolution = info.yResolution;
    std::memcpy(record->pageValue, info.pageValue, sizeof(record->pageValue));
    fillResult(*request, *record, messageIndex);
    return ternkit::kOk;
}

extern "C" Status fltLoad(FilterLoadRequest* request) {
    if (request == nullptr) {
        return ternkit::kBadArgument;
    }
    FileGuard file(TbFileOpen(request->fileName, 0, kOpenForReading));
    if (file.handle() == ternkit::kInvalidHandle) {
        return ternkit::kCannotOpen;
    }
    std::uint32_t source = 0;
    Status status = sniff(file.handle(), source);
    if (status != ternkit::kOk) {
        return status;
    }
    PstFilterData* record = MakeFilterData();
    if (record == nullptr) {
        return ternkit::kNoMemory;
    }
    const FilterDataGuard guard(record);
    std::int32_t messageIndex = static_cast<std::int32_t>(static_cast<std::uint32_t>(request->messageNumber) - 1);
    status = prepareDocument(request->fileName, file.handle(), *record, source, messageIndex, request->plainTextOnly == 1);
    if (status != ternkit::kOk) {
        return status;
    }
    file.close();
    HostFileInfo info{};
    if (request->fileInfo != nullptr) {
        info = *request->fileInfo;
    }
    info.structSize = ternkit::kHostFileInfoSize;
    info.format = record->documentFormat;
    info.loadFlags &= ~ternkit::kLoadFlagClearedOnLoad;
    HostLoadOptions options = localOptions(request->options);
    if (record->attachmentStatus != ternkit::kOk && request->resultStatus == ternkit::kOk) {
        request->resultStatus = record->attachmentStatus;
    }
    return callLoader(*request, *record, info, options);
}

extern "C" Status fltFreeData(void* data, std::int32_t keep) {
    if (data == nullptr) {
        return ternkit::kBadArgument;
    }
    return keep == 0 ? DestroyFilterData(data) : ternkit::kOk;
}

extern "C" Status TERN_Load(ternkit::TernModule* module) {
    return TbModuleLoad(reinterpret_cast<const void*>(&TERN_Load), module);
}
