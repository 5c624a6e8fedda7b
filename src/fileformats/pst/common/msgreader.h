// Reads an Outlook item ([MS-OXMSG]): a compound file in which each property of the message, and of each attachment, is a stream
// whose name tells property and type. Only the streams that a document shows are read; recipients, named properties and messages
// inside the message are not opened.
#pragma once

#include "common/filterdata.h"
#include "external/pole/pole.h"
#include "fileformats/pst/common/messagerecord.h"

// A storage of an open item. `entry` is null for the storage of a file without a directory, which holds nothing.
struct MsgStorage {
    CompoundFile& file;
    const DirectoryEntry* entry;
};

/**
 * Reads the message and embeds the pictures that its body names.
 *
 * @param record an empty record, filled; empty also after a compound file that cannot be read, which is no failure here
 * @param filterData takes the temporary files of inline pictures; null leaves the pictures alone
 * @param path NUL-terminated path of the item
 * @param facts receives the bodies and the sent time, unless it is null
 * @return 1; -14 when the file cannot be opened; -9 for a damaged rich body and for a message without any body; -1; -74
 */
ternkit::Status ReadMsgFile(MessageRecord& record, PstFilterData* filterData, const char16_t* path, MessageFacts* facts);

/**
 * Reads a text in UTF-16, which becomes UTF-8 with a closing NUL that the size counts; without one, an 8-bit text, which stays in
 * its bytes, with a NUL behind them that the size does not count.
 *
 * @param stream name without its type, and so without its last four digits
 * @param target receives the text; an empty text when there is none, and no data at all when the UTF-16 stream is empty
 * @return 1 or -1
 */
ternkit::Status ReadMsgText(const MsgStorage& storage, const char* stream, OwnedBytes& target);

/// Reads a stream, with two zero bytes behind it. The size is what the directory says, with zeros where the stream breaks off.
/// @return 1; 2 when there is no such stream; -1 without memory or for a stream that is larger than the file
ternkit::Status ReadMsgBytes(const MsgStorage& storage, const char* stream, OwnedBytes& target);

/// Reads the compressed body and expands it to RTF or HTML. A stream of another kind stays in `rawCompressedRtf`.
/// @return 1; 2 when there is none; -9; -1
ternkit::Status ReadMsgRichBody(MessageRecord& record, const MsgStorage& message);
