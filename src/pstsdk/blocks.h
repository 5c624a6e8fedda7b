// The bytes of a node: one external block, or a tree of extended blocks above external ones ([MS-PST] 2.2.2.8.3).
//
// A block read from the file never changes in practice. The operations that change a tree work in memory, copy a block that
// somebody else shares before they change it, and have no way to the file.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "pstsdk/byte_view.h"
#include "pstsdk/tree_place.h"
#include "pstsdk/types.h"

namespace pstsdk {

class db_context;
class external_block;

class block {
public:
    block(const std::shared_ptr<db_context>& db, const block_info& info)
        : m_size(info.size), m_id(info.id), m_address(info.address), m_db(db) {}
    virtual ~block() = default;

    virtual bool is_internal() const = 0;
    /// Place for giving back what can be read again; no block does.
    virtual void trim() {}

    block_id get_id() const { return m_id; }
    /// What loading the block costs its tree: its bytes in the file, without the trailer, but never nothing, as also a block
    /// that has no content takes a unit of the file and can have entries in its padding. In memory a block is at most six times
    /// as large, all overheads included: an XBLOCK of 4-byte ids keeps an id of 8 bytes and a pointer of 16 for each.
    ulonglong load_cost() const;

    /// Makes the block one of memory, with an id of its own. @throws std::bad_weak_ptr
    void touch();

protected:
    block(const block& other);
    block& operator=(const block&) = delete;

    std::shared_ptr<db_context> get_db() const { return std::shared_ptr<db_context>(m_db); }

    bool m_modified = false;
    ulonglong m_size;  // bytes of content of this block in the file
    block_id m_id;
    ulonglong m_address;

private:
    std::weak_ptr<db_context> m_db;
};

/// A block with content of a node in it or below it.
class data_block : public block {
public:
    data_block(const std::shared_ptr<db_context>& db, const block_info& info, ulonglong total_size)
        : block(db, info), m_total_size(total_size) {}

    /// Copies up to `size` bytes from `offset`, which must not lie above the total size. @return the bytes copied
    /// @throws unexpected_block for a child with fewer bytes than its place implies, and what the reading of a child throws
    virtual std::size_t read_raw(byte* dst, std::size_t size, ulong offset) const = 0;
    /// Changes up to `size` bytes from `offset` on; `result` becomes the block that holds the change. @return the bytes written
    virtual std::size_t write_raw(const byte* src, std::size_t size, ulong offset, std::shared_ptr<data_block>& result) = 0;
    /// The number of external blocks that the tree spans.
    virtual ulong get_page_count() const = 0;
    /// @throws std::out_of_range for an index behind the last page
    virtual std::shared_ptr<external_block> get_page(ulong index) = 0;
    /// Grows or cuts the content; `result` becomes the block that holds the change. @return the new size
    /// @throws can_not_resize
    virtual std::size_t resize(std::size_t size, std::shared_ptr<data_block>& result) = 0;

    ulonglong get_total_size() const { return m_total_size; }
    /// The bytes that the tree can lie in. An extended block may announce anything: where memory or work is sized by its total
    /// size, that is first compared with this. Holes are not counted, as they take no room in the file.
    virtual ulonglong get_room() const { return m_total_size; }
    /// Gives back blocks below that can be read again. What they cost their tree stays accounted for.
    virtual void forget_blocks() {}
    /// The whole content. The memory grows with what could be read, so that an announced size alone costs nothing.
    std::vector<byte> read_all() const;

    /// A number at an offset of the content. @throws std::out_of_range
    template <typename T>
    T read(ulong offset) const {
        check_range(offset, sizeof(T));
        T value;
        read_raw(reinterpret_cast<byte*>(&value), sizeof(T), offset);
        return value;
    }

    /// @throws std::out_of_range unless `size` bytes, at least one, lie at the offset
    void check_range(ulong offset, std::size_t size) const;

protected:
    data_block(const data_block&) = default;

    ulonglong m_total_size;
};

class external_block : public data_block, public std::enable_shared_from_this<external_block> {
public:
    /// @param max_size largest content in bytes
    /// @param buffer the content and what lies behind it in the file
    external_block(const std::shared_ptr<db_context>& db, const block_info& info, std::size_t max_size, std::vector<byte> buffer)
        : external_block(db, info, max_size, std::move(buffer), info.size) {}
    /// @param total_size bytes of content at the start of `buffer`
    external_block(const std::shared_ptr<db_context>& db, const block_info& info, std::size_t max_size, std::vector<byte> buffer,
                   std::size_t total_size)
        : data_block(db, info, total_size), m_max_size(max_size), m_buffer(std::move(buffer)) {}
    external_block(const external_block&) = default;

    bool is_internal() const override { return false; }
    std::size_t read_raw(byte* dst, std::size_t size, ulong offset) const override;
    std::size_t write_raw(const byte* src, std::size_t size, ulong offset, std::shared_ptr<data_block>& result) override;
    ulong get_page_count() const override { return 1; }
    std::shared_ptr<external_block> get_page(ulong index) override;
    std::size_t resize(std::size_t size, std::shared_ptr<data_block>& result) override;

    /// The content, without a copy; valid as long as the block.
    byte_view content() const { return {m_buffer.data(), static_cast<std::size_t>(m_total_size)}; }

private:
    ulonglong m_max_size;
    std::vector<byte> m_buffer;
};

/// How the children of an extended block share its content.
struct extended_capacity {
    ulonglong child_max_total_size;  // bytes in a full child
    ulong child_max_page_count;      // external blocks in a full child
    ulong max_page_count;            // children of a full block
};

class extended_block : public data_block, public std::enable_shared_from_this<extended_block> {
public:
    /// @param level 1 above external blocks, anything else above extended blocks
    /// @param place the place of a root; load_child gives a child its own
    extended_block(const std::shared_ptr<db_context>& db, const block_info& info, const extended_capacity& capacity, ushort level,
                   ulonglong total_size, std::vector<block_id> children, tree_place place = {})
        : data_block(db, info, total_size),
          m_child_max_total_size(capacity.child_max_total_size),
          m_child_max_page_count(capacity.child_max_page_count),
          m_max_page_count(capacity.max_page_count),
          m_level(level),
          m_block_info(std::move(children)),
          m_child_blocks(m_block_info.size()),
          m_taken(m_block_info.size()),
          m_place(std::move(place)) {}
    extended_block(const extended_block&) = default;

    bool is_internal() const override { return true; }
    std::size_t read_raw(byte* dst, std::size_t size, ulong offset) const override;
    std::size_t write_raw(const byte* src, std::size_t size, ulong offset, std::shared_ptr<data_block>& result) override;
    ulong get_page_count() const override;
    std::shared_ptr<external_block> get_page(ulong index) override;
    std::size_t resize(std::size_t size, std::shared_ptr<data_block>& result) override;

    void forget_blocks() override;
    ulonglong get_room() const override { return m_place.capacity().value_or(m_total_size); }

    ushort get_level() const { return m_level; }
    /// A child, loaded on first use. The id 0 is a hole: a child of zero bytes that is made in memory.
    /// @throws std::out_of_range, database_corrupt below the deepest level, in a tree that outgrows the file and in a store of
    /// too many holes, and what its reading throws
    std::shared_ptr<data_block> get_child_block(ulong index) const { return load_child(index); }
    /// Puts a loaded child in its slot.
    void set_child_block(ulong index, std::shared_ptr<data_block> child) { m_child_blocks.at(index) = std::move(child); }

private:
    std::shared_ptr<data_block>& load_child(ulong index) const;
    std::shared_ptr<data_block> make_hole(const std::shared_ptr<db_context>& db, const tree_place& place) const;

    ulonglong m_child_max_total_size;
    ulong m_child_max_page_count;
    ulong m_max_page_count;
    ushort m_level;
    std::vector<block_id> m_block_info;
    mutable std::vector<std::shared_ptr<data_block>> m_child_blocks;
    mutable std::vector<bool> m_taken;  // the child is accounted for
    tree_place m_place;
};

}  // namespace pstsdk
