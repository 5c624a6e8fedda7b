// The document of an Outlook item.
#pragma once

#include "common/filterdata.h"
#include "fileformats/pst/common/messagerecord.h"

/**
 * Composes the document of an item's message.
 *
 * @param message as ReadMsgFile has filled it; its bodies are changed on the way
 * @param bodyKind receives the document's kind
 * @return 1; -9 for a message with nothing to show; -1
 */
ternkit::Status MakeMsgDocument(MessageRecord& message, BodyKind& bodyKind, bool plainTextOnly, PstFilterData& record);

/**
 * Reads the item's message and composes its document into the record.
 *
 * @param fileName NUL-terminated path of the item
 * @param record receives the document, and a failure with its attachments, which is no failure of the message
 * @param bodyKind receives the document's kind
 * @param plainTextOnly makes a text document of the plain body
 * @return 1; -14 when the file cannot be opened; -9 for a message with nothing to show; -1; a status of ReadMsgFile
 */
ternkit::Status DispatchMsgMessage(const char16_t* fileName, PstFilterData& record, BodyKind& bodyKind, bool plainTextOnly);
