#include "fileformats/pst/common/entrysteps.h"

#include <cstring>

#include "ternbase/ternbase.h"

using ternkit::FileHandle;
using ternkit::Status;

namespace {

constexpr std::uint32_t kSignatureSize = 12;  // a shorter file is refused

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

}  // namespace

void FileGuard::close() {
    if (m_handle != ternkit::kInvalidHandle) {
        TbFileClose(m_handle);
        m_handle = ternkit::kInvalidHandle;
    }
}

Status SniffSource(FileHandle handle, std::uint32_t& source) {
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

void ChooseRoute(PstFilterData& record) {
    record.useTempFiles = TbLoadModeQuery() == kTbLoadModeMemoryOnly ? 0 : 1;
}

bool TravelsByFile(const PstFilterData& record) {
    return record.documentFormat == ternkit::kFormatHtml && record.useTempFiles == 1;
}

Status FinishDocument(PstFilterData& record, std::uint32_t source, BodyKind bodyKind, bool plainTextOnly) {
    record.sourceFormat = source;
    // Known before the file is made, so that the file goes with the record whatever happens next.
    record.documentFormat = documentFormat(bodyKind, plainTextOnly);
    return TravelsByFile(record) ? writeHtmlFile(record) : ternkit::kOk;
}
