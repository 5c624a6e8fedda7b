// An open store: the one object through which its pages and blocks are reached. It belongs to one thread at a time.
#pragma once

#include <memory>
#include <string>

#include "pstsdk/blocks.h"
#include "pstsdk/nodes.h"
#include "pstsdk/pages.h"
#include "pstsdk/types.h"

namespace pstsdk {

class db_context;
using shared_db_ptr = std::shared_ptr<db_context>;

/// Whether a block holds structure or a node's bytes.
enum class block_kind : bool { external = false, internal = true };

/// Opens a store of either layout; of the file only the header is read.
///
/// @param path UTF-16, as the host gave it
/// @throws std::runtime_error "fopen failed", std::out_of_range for a file shorter than the header, crc_fail
shared_db_ptr open_database(const std::u16string& path);

/// Reads are lazy; what was read is kept by the object that refers to it, and a read that throws is tried anew at the next
/// access. The `db` of an operation is the owner that what is made will refer to, weakly.
class db_context : public std::enable_shared_from_this<db_context> {
public:
    virtual ~db_context() = default;

    /// @throws key_not_found<ulong>
    virtual node lookup_node(node_id id) = 0;
    virtual node_info lookup_node_info(node_id id) = 0;
    /// All zero for the id 0, which stands for "no block". @throws key_not_found<ulonglong>
    virtual block_info lookup_block_info(block_id id) = 0;

    virtual std::shared_ptr<bbt_page> read_bbt_root() = 0;
    virtual std::shared_ptr<nbt_page> read_nbt_root() = 0;
    virtual std::shared_ptr<bbt_page> read_bbt_page(const page_info& info) = 0;
    virtual std::shared_ptr<nbt_page> read_nbt_page(const page_info& info) = 0;
    virtual std::shared_ptr<nbt_leaf_page> read_nbt_leaf_page(const page_info& info) = 0;
    virtual std::shared_ptr<bbt_leaf_page> read_bbt_leaf_page(const page_info& info) = 0;
    virtual std::shared_ptr<nbt_nonleaf_page> read_nbt_nonleaf_page(const page_info& info) = 0;
    virtual std::shared_ptr<bbt_nonleaf_page> read_bbt_nonleaf_page(const page_info& info) = 0;

    /// A block of either family.
    virtual std::shared_ptr<block> read_block(const shared_db_ptr& db, const block_info& info) = 0;
    virtual std::shared_ptr<block> read_block(const shared_db_ptr& db, block_id id) = 0;
    /// An external or an extended block, as the id says.
    virtual std::shared_ptr<data_block> read_data_block(const shared_db_ptr& db, const block_info& info) = 0;
    virtual std::shared_ptr<data_block> read_data_block(const shared_db_ptr& db, block_id id) = 0;
    virtual std::shared_ptr<extended_block> read_extended_block(const shared_db_ptr& db, const block_info& info) = 0;
    virtual std::shared_ptr<extended_block> read_extended_block(const shared_db_ptr& db, block_id id) = 0;
    virtual std::shared_ptr<external_block> read_external_block(const shared_db_ptr& db, const block_info& info) = 0;
    virtual std::shared_ptr<external_block> read_external_block(const shared_db_ptr& db, block_id id) = 0;
    virtual std::shared_ptr<subnode_block> read_subnode_block(const shared_db_ptr& db, const block_info& info) = 0;
    virtual std::shared_ptr<subnode_block> read_subnode_block(const shared_db_ptr& db, block_id id) = 0;
    virtual std::shared_ptr<subnode_leaf_block> read_subnode_leaf_block(const shared_db_ptr& db, const block_info& info) = 0;
    virtual std::shared_ptr<subnode_leaf_block> read_subnode_leaf_block(const shared_db_ptr& db, block_id id) = 0;
    virtual std::shared_ptr<subnode_nonleaf_block> read_subnode_nonleaf_block(const shared_db_ptr& db,
                                                                              const block_info& info) = 0;
    virtual std::shared_ptr<subnode_nonleaf_block> read_subnode_nonleaf_block(const shared_db_ptr& db, block_id id) = 0;

    /// Blocks that exist in memory only. @param size bytes of content, all zero
    virtual std::shared_ptr<external_block> create_external_block(const shared_db_ptr& db, std::size_t size) = 0;
    virtual std::shared_ptr<extended_block> create_extended_block(const shared_db_ptr& db, std::size_t size) = 0;
    /// An extended block above one child.
    virtual std::shared_ptr<extended_block> create_extended_block(const shared_db_ptr& db,
                                                                  const std::shared_ptr<extended_block>& child) = 0;
    virtual std::shared_ptr<extended_block> create_extended_block(const shared_db_ptr& db,
                                                                  const std::shared_ptr<external_block>& child) = 0;
    /// An id for a block in memory; the file's own counter is not changed.
    virtual block_id alloc_bid(block_kind kind) = 0;

    /// Bytes in the file.
    virtual ulonglong length() const = 0;
    /// Bytes read from the file so far.
    virtual ulonglong bytes_read() const = 0;
    /// What the trees of the store account for together.
    store_budget& budget() { return *m_budget; }
    /// Gives back memory of the page trees when they have grown: for somebody who walks through the whole store, between two
    /// steps. Nobody may hold a position in the block tree. In a trial it does nothing.
    virtual void trim_pages() = 0;

    // The same with this database as the owner. @throws std::bad_weak_ptr when nothing owns it any more
    std::shared_ptr<data_block> read_data_block(block_id id) { return read_data_block(shared_from_this(), id); }
    std::shared_ptr<subnode_block> read_subnode_block(block_id id) { return read_subnode_block(shared_from_this(), id); }
    std::shared_ptr<extended_block> create_extended_block(const std::shared_ptr<extended_block>& child) {
        return create_extended_block(shared_from_this(), child);
    }
    std::shared_ptr<extended_block> create_extended_block(const std::shared_ptr<external_block>& child) {
        return create_extended_block(shared_from_this(), child);
    }

protected:
    std::shared_ptr<store_budget> m_budget = std::make_shared<store_budget>();
};

}  // namespace pstsdk
