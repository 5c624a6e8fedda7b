// The record of one opened file.
#pragma once

#include <cstdint>

#include <ternkit/formats.h>
#include <ternkit/statuses.h>
#include "internal/ternclasses_.h"

enum class SourceKind : std::uint32_t { Pst = 0, Msg = 1, Eml = 2, Unknown = 3 };
enum class BodyKind : std::uint32_t { Html = 0, Rtf = 1, Plain = 2, None = 3 };

inline constexpr std::uint32_t kPathUnits = 264;

// Owns the document and lists the temporary files. Made by MakeFilterData and destroyed only by DestroyFilterData.
struct PstFilterData {
    std::uint32_t tag;                 // kFilterDataTag: tells the record from other data in a host's hands
    ByteBuffer document;               // handed to the host's loaders
    std::uint32_t documentFormat = 0;  // ternkit::kFormatHtml, kFormatRtf or kFormatText
    std::uint32_t pageCount = 0;
    PointerBuffer tempFiles;                  // UTF-8 paths, blocks from TbMemAlloc
    char16_t htmlPath[kPathUnits] = {};       // empty until the file is made
    char16_t tempDirectory[kPathUnits] = {};  // with a trailing separator; empty until it is made
    std::uint32_t width = 0;                  // pixels
    std::uint32_t height = 0;                 // pixels
    std::uint32_t xResolution = 0;            // dots per inch
    std::uint32_t yResolution = 0;            // dots per inch
    std::uint8_t pageValue[8] = {};           // the loader's, given back to the host
    std::uint32_t sourceFormat = 0;
    SourceKind sourceKind = SourceKind::Unknown;
    std::uint32_t messageCount = 0;                   // of a store
    std::uint32_t useTempFiles = 0;                   // 1: documents and pictures may travel through temporary files
    ternkit::Status attachmentStatus = ternkit::kOk;  // first failure while reading attachments of an item

    PstFilterData();
};

inline constexpr std::uint32_t kFilterDataTag = 0x00545350;  // "PST" and NUL

/// Makes a record; null when memory is short.
PstFilterData* MakeFilterData();
/// Deletes the record's temporary files and the record. Null, and data without the record's tag, are left alone. @return 1
ternkit::Status DestroyFilterData(void* data);

// Owns the record of one call until the call has gone through.
class FilterDataGuard {
public:
    explicit FilterDataGuard(PstFilterData* record) : m_record(record) {}
    FilterDataGuard(const FilterDataGuard&) = delete;
    FilterDataGuard& operator=(const FilterDataGuard&) = delete;
    ~FilterDataGuard() { DestroyFilterData(m_record); }

    /// Leaves the record to whoever has it now.
    void release() { m_record = nullptr; }

private:
    PstFilterData* m_record;
};
