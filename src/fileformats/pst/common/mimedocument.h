// The document of an Internet message.
#pragma once

#include <ternkit/records.h>
#include "common/filterdata.h"
#include "fileformats/pst/common/mimemessage.h"

/**
 * Composes the document of a message that has been parsed.
 *
 * @param message its body is taken from it
 * @param bodyKind receives the document's kind
 * @return 1; -9 for a message with nothing to show; -1
 */
ternkit::Status MakeMimeDocument(MimeMessage& message, BodyKind& bodyKind, PstFilterData& record);

/**
 * Reads an Internet message and composes its document into the record.
 *
 * @param bodyKind receives the document's kind
 * @param fileHandle open file, the caller's
 * @return 1; a status below 1 of ParseMimeMessage or MakeMimeDocument
 */
ternkit::Status DispatchMimeMessage(PstFilterData& record, BodyKind& bodyKind, ternkit::FileHandle fileHandle);
