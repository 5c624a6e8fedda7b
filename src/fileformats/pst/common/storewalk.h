// From a page number to a message of a store. The store is not walked as a tree: every normal folder of the node B-tree is
// visited in node id order, and page n is reached by stepping through the n messages in front of it.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <utility>

#include "common/filterdata.h"
#include "fileformats/pst/common/messagerecord.h"
#include "pstsdk/database.h"
#include "pstsdk/tables.h"

// The normal folders of a store, in node id order. What the store layers throw passes through.
class StoreFolders {
public:
    explicit StoreFolders(const pstsdk::shared_db_ptr& db);

    /// The next folder; none behind the last.
    std::optional<pstsdk::node_info> next();
    /// The bytes that the entries passed so far take in the file.
    std::uint64_t cost() const { return m_cost; }

private:
    using Position = pstsdk::btree_iter<pstsdk::ulong, pstsdk::node_info>;

    std::shared_ptr<pstsdk::nbt_page> m_root;
    Position m_end;
    Position m_at;
    bool m_onFolder = false;  // m_at has been given out
    std::uint64_t m_cost = 0;
};

// The rows of all contents tables, folder by folder. A copy goes on from the same place by itself.
class StoreRows {
public:
    explicit StoreRows(const pstsdk::shared_db_ptr& db) : m_db(db) {}

    /// The next row; none at the end of the walk. A folder that cannot be opened has no rows, and damage between the folders is
    /// the end.
    std::optional<pstsdk::const_table_row> next();
    /// Gives up the rest of the folder.
    void leaveFolder() { m_contents.reset(); }
    /// What the steps so far have cost beside the reading of the file, in bytes that one could have read instead.
    std::uint64_t cost() const { return m_cost + (m_folders ? m_folders->cost() : 0); }

private:
    bool enterFolder();
    void openContents(const pstsdk::node_info& folder);

    pstsdk::shared_db_ptr m_db;
    std::optional<StoreFolders> m_folders;
    std::optional<pstsdk::table> m_contents;
    std::uint32_t m_row = 0;
    std::uint32_t m_rows = 0;
    bool m_ended = false;
    std::uint64_t m_cost = 0;
};

// What the messages in front of a page have left behind. It depends on a message's blocks alone, so rows that name one message
// again and again cost one reading of it.
class PassedMessages {
public:
    explicit PassedMessages(const pstsdk::shared_db_ptr& db) : m_db(db) {}

    /**
     * Reads the message unless it is known.
     *
     * @param bodyKind set by a message with a body
     * @return as PassStoreMessage @throws std::exception for a message that cannot be read
     */
    ternkit::Status pass(const pstsdk::node_info& message, BodyKind& bodyKind);
    /// True when the message has been read.
    bool knows(const pstsdk::node_info& message) const { return find(message) != nullptr; }
    /// True when the message has been read and takes no page.
    bool knowsPageless(const pstsdk::node_info& message) const;
    /// Enters what another reading of the message has told. @param bodyKind none for a message without a body
    void note(const pstsdk::node_info& message, ternkit::Status status, BodyKind bodyKind) {
        m_known.try_emplace({message.data_bid, message.subnode_bid}, Passed{status, bodyKind});
    }

private:
    struct Passed {
        std::optional<ternkit::Status> status;  // none: it threw
        BodyKind bodyKind = BodyKind::None;     // none: it has no body
    };

    const Passed* find(const pstsdk::node_info& message) const;

    pstsdk::shared_db_ptr m_db;
    std::map<std::pair<pstsdk::block_id, pstsdk::block_id>, Passed> m_known;  // by data and subnode block
};

/**
 * Fixes how many pages a store has: the sum of what its folders declare, "Freebusy Data" left out.
 *
 * @param count receives the number of pages
 * @return 1; -13 for a store without messages; -1 for more pages than a table can have
 * @throws what the store layers throw for a folder without a name or count, and for damage met on the way
 */
ternkit::Status CountStorePages(std::int32_t& count, const pstsdk::shared_db_ptr& db);

/// The same, with a table of the pages, each with an empty record; null on failure.
ternkit::Status CountStoreMessages(MessagePageTableOwner& table, const pstsdk::shared_db_ptr& db);

/**
 * Steps through the messages up to the wanted one and fills its record. What is damaged ends its folder, and the page numbers of
 * what follows shift.
 *
 * @param targetPage page number, below the table's count
 * @param bodyKind set by the messages on the way
 * @return 1 when the walk ended in an orderly way, which does not say that it got there; below 1 a message's failure
 */
ternkit::Status WalkStoreToPage(MessagePageTable& table, const pstsdk::shared_db_ptr& db, std::uint32_t targetPage,
                                BodyKind& bodyKind, PstFilterData& filterData);
