// From a message's node to a message record: the few properties that a document shows, as they stand.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "common/filterdata.h"
#include "fileformats/pst/common/messagerecord.h"
#include "pstsdk/database.h"
#include "pstsdk/properties.h"

// A message of an open store.
struct StoreMessage {
    pstsdk::shared_db_ptr db;
    pstsdk::node_info info;
};

/**
 * Reads one message of a store for the page that shows it. In a trial, what it reads beyond a message in front of the page is
 * read tentatively.
 *
 * @param record filled
 * @param bodyKind set to the kind of the last body found, and left alone by a message without any
 * @param filterData takes the temporary files of inline pictures
 * @param facts filled too, unless it is null
 * @return 1; 2 when the message takes no page; below 1 a failure that ends the walk
 * @throws what the store layers throw
 */
ternkit::Status ExtractStoreMessage(const StoreMessage& message, MessageRecord& record, BodyKind& bodyKind,
                                    PstFilterData& filterData, MessageFacts* facts);

/// Reads a message for its header fields and facts only: bodies are passed over, and are empty in the record when the message has
/// them. Status and exceptions are those of ExtractStoreMessage but for what comes of expanding a body and embedding pictures.
ternkit::Status SummarizeStoreMessage(const StoreMessage& message, MessageRecord& record, BodyKind& bodyKind,
                                      MessageFacts& facts);

/// Reads a message in front of the wanted page for its effects only: what is damaged in it ends its folder or the walk just the
/// same, but nothing of it is kept.
ternkit::Status PassStoreMessage(const StoreMessage& message, BodyKind& bodyKind);

/// Copies a text property into a field, which stays as it is when there is none. @return 1 or -1
ternkit::Status CopyPropertyToField(const pstsdk::const_property_object& bag, OwnedBytes& field, pstsdk::prop_id tag);

/// Sets a field to a text in UTF-8, without a closing NUL; an empty text frees it. @return 1 or -1
ternkit::Status SetUtf8Field(OwnedBytes& field, std::u16string_view text);

/// Seconds since 1970, UTC. @param bytes FILETIME, 8 bytes  @return none for a time that the calendar here does not reach
std::optional<std::int64_t> SentSeconds(const std::uint8_t* bytes);

/**
 * Appends a time to a field as the header block shows it, in the machine's time zone and in English.
 *
 * @param bytes FILETIME, 8 bytes
 * @return 1, also for a time that the calendar here does not reach, which leaves the field empty; -74; -1
 */
ternkit::Status FormatSentTime(const std::uint8_t* bytes, OwnedBytes& field);

/// Appends the word for a low (0) or high (2) importance to a field; any other value has none. @return 1 or -1
ternkit::Status SetImportanceText(std::uint32_t value, OwnedBytes& field);
