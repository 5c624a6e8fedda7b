// What the entry points do around the making of a document: open the file, tell what it is, and bring an HTML document onto its
// way.
#pragma once

#include <cstdint>

#include <ternkit/records.h>
#include "common/filterdata.h"

inline constexpr std::uint32_t kOpenForReading = 256;

// An open file of the host's or of ours, closed with its scope.
class FileGuard {
public:
    explicit FileGuard(ternkit::FileHandle handle) : m_handle(handle) {}
    FileGuard(const FileGuard&) = delete;
    FileGuard& operator=(const FileGuard&) = delete;
    ~FileGuard() { close(); }

    ternkit::FileHandle handle() const { return m_handle; }
    void close();

private:
    ternkit::FileHandle m_handle;
};

/// Tells the source kind by the file's first bytes. @param source receives a SourceKind  @return 1; -7 when there are too few
ternkit::Status SniffSource(ternkit::FileHandle handle, std::uint32_t& source);

/// Asks the kernel whether documents and pictures may travel through temporary files; pictures are embedded accordingly.
void ChooseRoute(PstFilterData& record);

/// True for HTML that travels through a temporary file. Everything else goes from memory.
bool TravelsByFile(const PstFilterData& record);

/**
 * Takes what a branch has made as the document: its format, and an HTML document's temporary file when it travels by one.
 *
 * @param source source format
 * @param bodyKind the document's kind
 * @return 1 or a status of writing the file
 */
ternkit::Status FinishDocument(PstFilterData& record, std::uint32_t source, BodyKind bodyKind, bool plainTextOnly);
