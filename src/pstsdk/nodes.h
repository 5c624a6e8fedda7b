// A node: an id, a stream of bytes in data pages, and a private tree of subnodes, each of which is again a node. This is what
// heaps, property bags and tables are built on. A page means one external block here.
#pragma once

#include <memory>
#include <type_traits>
#include <vector>

#include "pstsdk/blocks.h"
#include "pstsdk/subnodes.h"
#include "pstsdk/types.h"

namespace pstsdk {

class node;

/// Holds its database, and a subnode its container, so that a node can always be read to the end.
class node_impl : public std::enable_shared_from_this<node_impl> {
public:
    node_impl(std::shared_ptr<db_context> db, const node_info& info);
    node_impl(std::shared_ptr<node_impl> container, const subnode_info& info);
    /// Shares what the other has loaded so far.
    node_impl(const node_impl& other) = default;
    node_impl& operator=(const node_impl&) = delete;
    ~node_impl();

    node_id get_id() const { return m_id; }
    node_id get_parent_id() const { return m_parent_id; }
    data_block* ensure_data_block();
    node lookup(node_id id);

private:
    node_id m_id;
    block_id m_data_bid;
    block_id m_sub_bid;
    std::shared_ptr<data_block> m_data;
    std::shared_ptr<subnode_block> m_subnodes;
    node_id m_parent_id;
    std::shared_ptr<node_impl> m_container;
    std::shared_ptr<db_context> m_db;
};

/// Making a node reads nothing; its data and its subnode tree are read when they are first asked for and kept.
class node {
public:
    node(std::shared_ptr<db_context> db, const node_info& info) : m_impl(std::make_shared<node_impl>(std::move(db), info)) {}
    node(std::shared_ptr<node_impl> container, const subnode_info& info)
        : m_impl(std::make_shared<node_impl>(std::move(container), info)) {}
    /// A second node on the same data: it shares what the other has loaded so far, and nothing that either loads later.
    node(const node& other) : m_impl(std::make_shared<node_impl>(*other.m_impl)) {}
    node(node&& other) noexcept = default;
    node& operator=(const node&) = delete;
    node& operator=(node&&) noexcept = default;
    ~node() = default;

    node_id get_id() const { return m_impl->get_id(); }
    /// 0 for a subnode.
    node_id get_parent_id() const { return m_impl->get_parent_id(); }
    /// The whole stream of bytes; owned by the node.
    data_block* ensure_data_block() const { return m_impl->ensure_data_block(); }
    ulonglong size() const { return ensure_data_block()->get_total_size(); }
    ulong get_page_count() const { return ensure_data_block()->get_page_count(); }
    ulonglong get_page_size(ulong page) const { return ensure_data_block()->get_page(page)->get_total_size(); }

    /// Fills the buffer from a page, at most to the page's end. @return the bytes read
    /// @throws std::out_of_range for a page or, unless the buffer is empty, an offset outside
    std::size_t read(std::vector<byte>& buffer, ulong page, ulong offset) const;

    /// A number at an offset of a page. @throws std::out_of_range
    template <typename T>
    T read(ulong page, ulong offset) const {
        static_assert(std::is_unsigned_v<T>);
        return ensure_data_block()->get_page(page)->read<T>(offset);
    }

    /// A subnode; each call gives a new one. @throws key_not_found<ulong> when there is none
    node lookup(node_id id) const { return m_impl->lookup(id); }

private:
    std::shared_ptr<node_impl> m_impl;
};

}  // namespace pstsdk
