// The one class that exists for each layout, and the only one that reads the records of the file.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include <ternkit/ternbase.h>

#include "pstsdk/database.h"
#include "pstsdk/disk.h"

namespace pstsdk {

/// The file of an open store; closed with its owner.
class file {
public:
    /// @throws std::runtime_error "fopen failed"
    explicit file(const std::u16string& path);
    file(const file&) = delete;
    file& operator=(const file&) = delete;
    ~file();

    /// Reads exactly `count` bytes. @throws std::out_of_range "fseek failed" or "fread failed"
    void read(ulonglong address, byte* buffer, std::size_t count) const;
    /// Bytes in the file, asked for once.
    ulonglong length() const;
    ulonglong bytes_read() const { return m_bytes_read; }

private:
    std::u16string m_name;
    ternkit::FileHandle m_handle;
    mutable std::optional<ulonglong> m_length;
    mutable ulonglong m_bytes_read = 0;
};

/// @tparam T ulong for the ANSI layout, ulonglong for the Unicode layout
template <typename T>
class database_impl final : public db_context {
public:
    /// @throws invalid_format for a file of the other layout, crc_fail, and what the file throws
    explicit database_impl(const std::u16string& path);

    using db_context::create_extended_block;
    using db_context::read_data_block;
    using db_context::read_subnode_block;

    node lookup_node(node_id id) override;
    node_info lookup_node_info(node_id id) override;
    block_info lookup_block_info(block_id id) override;

    std::shared_ptr<bbt_page> read_bbt_root() override;
    std::shared_ptr<nbt_page> read_nbt_root() override;
    std::shared_ptr<bbt_page> read_bbt_page(const page_info& info) override;
    std::shared_ptr<nbt_page> read_nbt_page(const page_info& info) override;
    std::shared_ptr<nbt_leaf_page> read_nbt_leaf_page(const page_info& info) override;
    std::shared_ptr<bbt_leaf_page> read_bbt_leaf_page(const page_info& info) override;
    std::shared_ptr<nbt_nonleaf_page> read_nbt_nonleaf_page(const page_info& info) override;
    std::shared_ptr<bbt_nonleaf_page> read_bbt_nonleaf_page(const page_info& info) override;

    std::shared_ptr<block> read_block(const shared_db_ptr& db, const block_info& info) override;
    std::shared_ptr<block> read_block(const shared_db_ptr& db, block_id id) override;
    std::shared_ptr<data_block> read_data_block(const shared_db_ptr& db, const block_info& info) override;
    std::shared_ptr<data_block> read_data_block(const shared_db_ptr& db, block_id id) override;
    std::shared_ptr<extended_block> read_extended_block(const shared_db_ptr& db, const block_info& info) override;
    std::shared_ptr<extended_block> read_extended_block(const shared_db_ptr& db, block_id id) override;
    std::shared_ptr<external_block> read_external_block(const shared_db_ptr& db, const block_info& info) override;
    std::shared_ptr<external_block> read_external_block(const shared_db_ptr& db, block_id id) override;
    std::shared_ptr<subnode_block> read_subnode_block(const shared_db_ptr& db, const block_info& info) override;
    std::shared_ptr<subnode_block> read_subnode_block(const shared_db_ptr& db, block_id id) override;
    std::shared_ptr<subnode_leaf_block> read_subnode_leaf_block(const shared_db_ptr& db, const block_info& info) override;
    std::shared_ptr<subnode_leaf_block> read_subnode_leaf_block(const shared_db_ptr& db, block_id id) override;
    std::shared_ptr<subnode_nonleaf_block> read_subnode_nonleaf_block(const shared_db_ptr& db, const block_info& info) override;
    std::shared_ptr<subnode_nonleaf_block> read_subnode_nonleaf_block(const shared_db_ptr& db, block_id id) override;

    std::shared_ptr<external_block> create_external_block(const shared_db_ptr& db, std::size_t size) override;
    std::shared_ptr<extended_block> create_extended_block(const shared_db_ptr& db, std::size_t size) override;
    std::shared_ptr<extended_block> create_extended_block(const shared_db_ptr& db,
                                                          const std::shared_ptr<extended_block>& child) override;
    std::shared_ptr<extended_block> create_extended_block(const shared_db_ptr& db,
                                                          const std::shared_ptr<external_block>& child) override;
    block_id alloc_bid(block_kind kind) override;

    ulonglong length() const override { return m_file.length(); }
    ulonglong bytes_read() const override { return m_file.bytes_read(); }
    void trim_pages() override;

private:
    using layout = disk::layout<T>;
    using page_data = std::array<byte, disk::page_size>;

    void validate_header(byte_view bytes) const;

    page_data read_page_data(const page_info& info) const;
    std::shared_ptr<bbt_leaf_page> make_bbt_leaf(const page_info& info, const page_data& data);
    std::shared_ptr<nbt_leaf_page> make_nbt_leaf(const page_info& info, const page_data& data);
    template <typename K, typename V>
    std::shared_ptr<bt_nonleaf_page<K, V>> make_nonleaf(const page_info& info, const page_data& data);

    std::vector<byte> read_block_data(const block_info& info) const;
    std::shared_ptr<subnode_leaf_block> make_subnode_leaf(const shared_db_ptr& db, const block_info& info, byte_view data);
    std::shared_ptr<subnode_nonleaf_block> make_subnode_nonleaf(const shared_db_ptr& db, const block_info& info, byte_view data);

    file m_file;
    disk::header<T> m_header;
    mutable ulong m_pages_since_trim = 0;
    std::shared_ptr<bbt_page> m_bbt_root;
    std::shared_ptr<nbt_page> m_nbt_root;
};

extern template class database_impl<ulong>;
extern template class database_impl<ulonglong>;

}  // namespace pstsdk
