// The record through which the readers of stores and items speak to the composers: they fill it, the header block is merged into
// its bodies, and a branch makes the document of it.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include <ternkit/batch.h>
#include "internal/ternclasses_.h"

inline constexpr std::uint32_t kPropertyTypeUnicode = 0x001F;  // PtypString of [MS-OXCDATA]: UTF-16LE

// One message. Text fields are UTF-8 and may count a closing NUL; an empty one stands for a missing property.
struct MessageRecord {
    ternkit::Status attachmentStatus = ternkit::kOk;  // first failure while reading the attachments of an item
    OwnedBytes plainBody;          // of a store: the property's bytes as stored; of an item: UTF-8, or the stored 8-bit text
    ScopedBlock rawCompressedRtf;  // [MS-OXRTFCP] bytes, held only while they are being expanded
    OwnedBytes body;               // HTML or RTF in 8-bit text, in the charset that the text declares
    OwnedBytes senderName;
    OwnedBytes senderAddress;
    OwnedBytes displayTo;
    OwnedBytes subject;
    OwnedBytes sentTime;  // "%a %b %d, %Y %I:%M %p"
    OwnedBytes displayCc;
    OwnedBytes displayBcc;
    OwnedBytes representingName;
    OwnedBytes importanceText;        // a label word
    std::uint32_t plainBodyType = 0;  // property type of a store's `plainBody`: kPropertyTypeUnicode, else 8-bit text
};

// What a list of messages tells beside the header fields.
struct MessageFacts {
    std::uint32_t bodies = 0;                 // ternkit::BatchBodies
    std::uint64_t bodyBytes = 0;              // of all bodies, as they are stored
    std::optional<std::uint64_t> storedSize;  // what a store says of the message
    std::int64_t sentTime = ternkit::kBatchNoTime;
};

// All pages of a store: one record for each, at the page's number.
struct MessagePageTable {
    std::int32_t count;
    MessageRecord* records;
};

/// True when the records of `count` pages, at least one, are no larger block than the kernel gives.
bool PageTableFits(std::int32_t count);
/// Makes a table of `count` empty records, at least one. @return the table, for ReleaseMessagePageTable; null when memory is
/// short or the records would take a larger block than the kernel gives
MessagePageTable* MakeMessagePageTable(std::int32_t count);
/// Destroys the records and frees the table; null is ignored.
void ReleaseMessagePageTable(MessagePageTable* table);

struct MessagePageTableDelete {
    void operator()(MessagePageTable* table) const { ReleaseMessagePageTable(table); }
};
using MessagePageTableOwner = std::unique_ptr<MessagePageTable, MessagePageTableDelete>;
