// Entry points and dispatch.

#include "fileformats/pst/common/pst.h"

#include <algorithm>
#include <cstring>
#include <new>

#include <ternkit/filter.h>
#include <ternkit/load_cache.h>
#include "common/loadcache.h"
#include "fileformats/pst/common/entrysteps.h"
#include "fileformats/pst/common/mimedocument.h"
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

constexpr std::int32_t kCachedPageSlot = 1;  // of a message out of the host's slot, whatever number the request names

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

/// Dispatches and writes the HTML file: what both entry points do before a loader is called.
Status prepareDocument(const char16_t* fileName, FileHandle handle, PstFilterData& record, std::uint32_t source,
                       std::int32_t& messageIndex, bool plainTextOnly) {
    ChooseRoute(record);
    BodyKind bodyKind = BodyKind::None;
    const Status status = DispatchMessage(fileName, record, source, messageIndex, bodyKind, plainTextOnly, handle);
    return status == ternkit::kOk ? FinishDocument(record, source, bodyKind, plainTextOnly) : status;
}

/// @param messageNumber 1-based; any number is taken
std::int32_t messageIndexOf(std::int32_t messageNumber) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(messageNumber) - 1);
}

/// The place of a message's data in the host's slot; negative when it has none.
std::int32_t pageSlotOf(std::int32_t messageIndex) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(messageIndex) + 1);
}

/// A copy of the caller's options, with what the loader asked to keep for this message.
HostLoadOptions localOptions(const HostLoadOptions* options, const ternkit::LoadCacheSlot* slot, std::int32_t pageSlot) {
    HostLoadOptions local{};
    if (options != nullptr) {
        local = *options;
    }
    local.structSize = ternkit::kHostLoadOptionsSize;
    ternkit::MultiLoadEntry kept{};
    if (FindLoaderData(slot, pageSlot, &kept)) {
        local.flags |= ternkit::kLoaderDataGiven;
        local.filterData = kept.data;
        local.filterDataSize = kept.dataSize;
        local.filterDataTag = kept.dataTag;
    }
    return local;
}

Status callInfoLoader(const FilterInfoRequest& request, PstFilterData& record, HostFileInfo& info, HostLoadOptions& options) {
    const std::uint32_t flags = request.cacheSlot == nullptr ? ternkit::kInfoWithoutCache : ternkit::kInfoWithCache;
    if (TravelsByFile(record)) {
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
    if (TravelsByFile(record)) {
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

/// Has the loader describe the document, and keeps its answer in the record and what it wants kept in the host's slot.
Status describeDocument(FilterInfoRequest& request, PstFilterData& record, std::int32_t pageSlot) {
    HostFileInfo info{};
    info.loadFlags = ternkit::kInfoLoadFlags;
    info.structSize = ternkit::kHostFileInfoSize;
    info.format = record.documentFormat;
    HostLoadOptions options = localOptions(request.options, request.cacheSlot, pageSlot);
    const Status status = callInfoLoader(request, record, info, options);
    if (status != ternkit::kOk) {
        request.loaderStatus = status;
        return ternkit::kLoaderFailed;
    }
    StoreInSlot(request.cacheSlot, pageSlot, info.loaderData, info.loaderDataSize, info.loaderDataTag);
    record.pageCount = info.totalPages;
    record.width = info.width;
    record.height = info.height;
    record.xResolution = info.xResolution;
    record.yResolution = info.yResolution;
    std::memcpy(record.pageValue, info.pageValue, sizeof(record.pageValue));
    return ternkit::kOk;
}

/// Hands the document to the loader of the request. @return the loader's status
Status loadDocument(FilterLoadRequest& request, PstFilterData& record, std::int32_t pageSlot) {
    HostFileInfo info{};
    if (request.fileInfo != nullptr) {
        info = *request.fileInfo;
    }
    info.structSize = ternkit::kHostFileInfoSize;
    info.format = record.documentFormat;
    info.loadFlags &= ~ternkit::kLoadFlagClearedOnLoad;
    HostLoadOptions options = localOptions(request.options, request.cacheSlot, pageSlot);
    if (record.attachmentStatus != ternkit::kOk && request.resultStatus == ternkit::kOk) {
        request.resultStatus = record.attachmentStatus;
    }
    return callLoader(request, record, info, options);
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
                return DispatchMimeMessage(record, bodyKind, fileHandle);
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
    Status status = SniffSource(request->fileHandle, source);
    if (status != ternkit::kOk) {
        return status;
    }
    std::int32_t messageIndex = messageIndexOf(request->messageNumber);
    PstFilterData* cached = nullptr;
    if (FindFilterData(request->cacheSlot, &cached) == ternkit::kOk) {
        if (static_cast<std::uint32_t>(cached->sourceKind) != source) {
            return ternkit::kUnusable;
        }
        fillResult(*request, *cached, messageIndex);
        return ternkit::kOk;
    }
    PstFilterData* record = MakeFilterData();
    if (record == nullptr) {
        return ternkit::kNoMemory;
    }
    FilterDataGuard guard(record);
    status = prepareDocument(request->fileName, request->fileHandle, *record, source, messageIndex, request->plainTextOnly == 1);
    if (status != ternkit::kOk) {
        return status;
    }
    status = describeDocument(*request, *record, pageSlotOf(messageIndex));
    if (status != ternkit::kOk) {
        return status;
    }
    // A record that the slot cannot take dies with the call.
    if (StoreInSlot(request->cacheSlot, ternkit::kFilterDataEntry, record, 0, ternkit::kDefaultDataTag) == ternkit::kOk) {
        guard.release();
    }
    fillResult(*request, *record, messageIndex);
    return ternkit::kOk;
}

extern "C" Status fltLoad(FilterLoadRequest* request) {
    if (request == nullptr) {
        return ternkit::kBadArgument;
    }
    PstFilterData* cached = nullptr;
    if (FindFilterData(request->cacheSlot, &cached) == ternkit::kOk) {
        return loadDocument(*request, *cached, kCachedPageSlot);
    }
    FileGuard file(TbFileOpen(request->fileName, 0, kOpenForReading));
    if (file.handle() == ternkit::kInvalidHandle) {
        return ternkit::kCannotOpen;
    }
    std::uint32_t source = 0;
    Status status = SniffSource(file.handle(), source);
    if (status != ternkit::kOk) {
        return status;
    }
    PstFilterData* record = MakeFilterData();
    if (record == nullptr) {
        return ternkit::kNoMemory;
    }
    const FilterDataGuard guard(record);
    std::int32_t messageIndex = messageIndexOf(request->messageNumber);
    status = prepareDocument(request->fileName, file.handle(), *record, source, messageIndex, request->plainTextOnly == 1);
    if (status != ternkit::kOk) {
        return status;
    }
    file.close();
    return loadDocument(*request, *record, pageSlotOf(messageIndex));
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
