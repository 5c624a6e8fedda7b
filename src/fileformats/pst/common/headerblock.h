// The header block of a message from a store or an item: lines with its sender, date, recipients and subject in front of its
// body, in the body's own language (HTML, RTF or plain text) and with labels in the user's. The block of an Internet message has
// a form of its own.
#pragma once

#include "common/filterdata.h"
#include "fileformats/pst/common/messagerecord.h"

/**
 * Merges the header block into the record's `body`, or for plain text into `plainBody`, which is then UTF-8. Run twice, it prints
 * the block twice. An RTF body without \pard has no place for the block and stays without it.
 *
 * @param kind what the body is
 * @return 1; -9 for HTML whose "<body" tag has no end and for RTF without fonts, see ParseRtfFonts; -13 for text that cannot be
 * escaped; -1 without memory, or another status of a buffer's account; a status of the conversion of HTML to UTF-8
 */
ternkit::Status ComposeMessageHeader(MessageRecord& record, BodyKind kind);

/// Makes a store's `plainBody` UTF-8, as its `plainBodyType` says: from UTF-16LE, of which closing NULs and an odd last byte are
/// dropped, or from the system's own code page. @return 1 or -1
ternkit::Status ConvertPlainBodyToUtf8(MessageRecord& record);

/// Writes UTF-8 text into an empty document as UTF-16LE behind its mark, FF FE. @return 1 or -1
ternkit::Status WriteUtf16Document(ByteBuffer& document, const OwnedBytes& text);
