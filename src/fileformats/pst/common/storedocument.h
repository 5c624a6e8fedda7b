// The document of one message of a Personal Folders store.
#pragma once

#include <cstdint>

#include "common/filterdata.h"
#include "fileformats/pst/common/messagerecord.h"

/**
 * Composes the document of a message that has been read.
 *
 * @param message its bodies are changed on the way
 * @param bodyKind in and out: the kind of the last body found, then the document's
 * @param plainTextOnly makes a UTF-16 text document of the plain body
 * @return 1; -9 for a message with nothing to show; -1
 */
ternkit::Status MakeStoreDocument(MessageRecord& message, BodyKind& bodyKind, bool plainTextOnly, PstFilterData& record);

/**
 * Opens a store, reaches the wanted message, and composes its document into the record.
 *
 * @param fileName NUL-terminated path of the store
 * @param messageIndex in and out: 0-based, brought into the range of the store's messages
 * @param bodyKind receives the document's kind
 * @param plainTextOnly makes a UTF-16 text document of the plain body
 * @return 1; -13 for a store without messages; -9 for a message with nothing to show; -1; a failure of the walk
 * @throws what the store layers throw while the store is opened and its messages are counted
 */
ternkit::Status DispatchStoreMessage(const char16_t* fileName, PstFilterData& record, std::int32_t& messageIndex,
                                     BodyKind& bodyKind, bool plainTextOnly);
