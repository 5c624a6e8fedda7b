// The front end: from a file to a document. The exported functions stand in <ternkit/filter.h>.
#pragma once

#include <ternkit/records.h>
#include "common/filterdata.h"

/**
 * Builds the document of one message.
 *
 * @param fileName NUL-terminated path; stores and items are opened again by it
 * @param record receives the document and what goes with it
 * @param source in: SourceKind; out: source format
 * @param messageIndex 0-based; clamped for a store
 * @param bodyKind receives the document's kind
 * @param plainTextOnly a plain text document is wanted
 * @param fileHandle open file, from which Internet messages are read
 * @return 1 or the status of the source's branch; -9 for an unknown source
 */
ternkit::Status DispatchMessage(const char16_t* fileName, PstFilterData& record, std::uint32_t& source,
                                std::int32_t& messageIndex, BodyKind& bodyKind, bool plainTextOnly,
                                ternkit::FileHandle fileHandle);
