// From one row of a folder's contents table to a message record: the few properties that a document shows, as they stand.
#pragma once

#include <cstdint>

#include "common/filterdata.h"
#include "fileformats/pst/common/messagerecord.h"
#include "pstsdk/database.h"
#include "pstsdk/tables.h"

// A message in front of the wanted page is read for its effects only: what is damaged in it ends its folder or the walk just the
// same, but nothing of it is kept.
enum class MessageRole { InFront, Target };

// A position in a contents table of an open store.
struct StoreRow {
    pstsdk::shared_db_ptr db;
    pstsdk::const_table_row row;
};

/**
 * Reads one message.
 *
 * @param record the target's record, filled; that of a message in front stays as it is
 * @param bodyKind set to the kind of the last body found, and left alone by a message without any
 * @param filterData takes the temporary files of inline pictures
 * @return 1; 2 when the message takes no page; below 1 a failure that ends the walk
 * @throws what the store layers throw
 */
ternkit::Status ExtractStoreMessage(const StoreRow& row, MessageRecord& record, BodyKind& bodyKind, MessageRole role,
                                    PstFilterData& filterData);

/// Copies a text property into a field, which stays as it is when there is none. @return 1 or -1
ternkit::Status CopyPropertyToField(const pstsdk::const_property_object& bag, OwnedBytes& field, pstsdk::prop_id tag);

/// Sets a field to a text in UTF-8, without a closing NUL; an empty text frees it. @return 1 or -1
ternkit::Status SetUtf8Field(OwnedBytes& field, std::u16string_view text);

/**
 * Appends a time to a field as the header block shows it, in the machine's time zone and in English.
 *
 * @param bytes FILETIME, 8 bytes
 * @return 1, also for a time that the calendar here does not reach, which leaves the field empty; -74; -1
 */
ternkit::Status FormatSentTime(const std::uint8_t* bytes, OwnedBytes& field);

/// Appends the word for a low (0) or high (2) importance to a field; any other value has none. @return 1 or -1
ternkit::Status SetImportanceText(std::uint32_t value, OwnedBytes& field);
