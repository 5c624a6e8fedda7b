// Reads a store down to every folder, contents table, row, message bag, property and attachment bag, the way the walker does and
// further, and keeps what it saw in plain structs. What is damaged is counted and passed over, so that a test can say how much
// of a damaged store must survive.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "pstsdk/database.h"

namespace store_reader {

struct ReadProperty {
    std::uint16_t id = 0;
    std::uint16_t type = 0;
    std::vector<std::uint8_t> value;  // 4 bytes for what stands in the entry itself; a cell's own bytes, little-endian
};

struct ReadBag {
    std::uint32_t nodeId = 0;
    std::vector<ReadProperty> properties;

    const ReadProperty* find(std::uint16_t id) const;
    /// Empty when there is none.
    std::u16string text(std::uint16_t id) const;
    std::optional<std::uint32_t> number(std::uint16_t id) const;
};

struct ReadRow {
    std::uint32_t rowId = 0;
    std::vector<ReadProperty> cells;  // those that exist, by id
};

struct ReadColumn {
    std::uint16_t id = 0;
    std::uint16_t type = 0;
};

struct ReadTable {
    std::vector<ReadColumn> columns;  // by id
    std::vector<ReadRow> rows;
};

struct ReadMessage {
    ReadBag bag;
    ReadTable attachmentTable;
    std::vector<ReadBag> attachments;
};

struct ReadFolder {
    ReadBag bag;
    ReadTable contents;
    std::vector<ReadMessage> messages;
};

struct ReadStore {
    std::vector<ReadFolder> folders;  // in the order of their node ids
    std::uint64_t nodeCount = 0;      // entries of the node tree
    std::uint64_t subnodeCount = 0;
    std::uint64_t dataBytes = 0;         // content of all nodes and subnodes
    std::uint64_t streamMismatches = 0;  // streams whose bytes are not those of their property
    bool limitReached = false;
    std::map<std::string, std::uint64_t> exceptions;  // by "type: message"

    std::uint64_t messageCount() const;
    std::uint64_t exceptionCount() const;
};

/// How much is read at most; a hostile store may lead to one block by many ways.
struct ReadLimits {
    std::uint64_t bytes = std::uint64_t{4} << 30;  // content of nodes, properties and streams
    std::uint64_t entries = 20'000'000;            // nodes, subnodes, pages, rows, cells, properties
};

/// Reads the data of every node and of every subnode, nested ones included, through the pages and subnode trees.
void readAllNodes(const pstsdk::shared_db_ptr& db, ReadStore& store, const ReadLimits& limits = {});
/// Reads all folders with their tables, messages and attachments.
void readAllFolders(const pstsdk::shared_db_ptr& db, ReadStore& store, const ReadLimits& limits = {});
/// Opens a store and reads both. An exception of the opening is counted, too.
ReadStore readStore(const std::u16string& path, const ReadLimits& limits = {});

}  // namespace store_reader
