#include "pstsdk/nodes.h"

#include <utility>

#include "pstsdk/database.h"

namespace pstsdk {

subnode_block* subnode_nonleaf_block::load_child(ulong pos) const {
    std::shared_ptr<subnode_block>& slot = m_child_blocks.at(pos);
    if (!slot) {
        const std::shared_ptr<db_context> db = get_db();
        const tree_place place = m_place.child();
        std::shared_ptr<subnode_block> child = db->read_subnode_block(m_subnode_info[pos].second);
        place.take(child->load_cost());
        child->set_place(place);
        slot = std::move(child);
    }
    return slot.get();
}

node_impl::node_impl(std::shared_ptr<db_context> db, const node_info& info)
    : m_id(info.id), m_data_bid(info.data_bid), m_sub_bid(info.subnode_bid), m_parent_id(info.parent_id), m_db(std::move(db)) {}

node_impl::node_impl(std::shared_ptr<node_impl> container, const subnode_info& info)
    : m_id(info.id),
      m_data_bid(info.data_bid),
      m_sub_bid(info.subnode_bid),
      m_parent_id(0),
      m_container(std::move(container)),
      m_db(m_container->m_db) {}

// A long chain of containers goes link by link: left to the members it would be as deep a recursion.
node_impl::~node_impl() {
    std::shared_ptr<node_impl> link = std::move(m_container);
    while (link && link.use_count() == 1) {
        std::shared_ptr<node_impl> outer = std::move(link->m_container);
        link = std::move(outer);
    }
}

data_block* node_impl::ensure_data_block() {
    if (!m_data) {
        m_data = m_db->read_data_block(m_data_bid);
    }
    return m_data.get();
}

node node_impl::lookup(node_id id) {
    if (!m_subnodes) {
        m_subnodes = m_db->read_subnode_block(m_sub_bid);
    }
    return {shared_from_this(), m_subnodes->lookup(id)};
}

std::size_t node::read(std::vector<byte>& buffer, ulong page, ulong offset) const {
    const std::shared_ptr<external_block> block = ensure_data_block()->get_page(page);
    if (buffer.empty()) {
        return 0;
    }
    block->check_range(offset, 1);
    return block->read_raw(buffer.data(), buffer.size(), offset);
}

}  // namespace pstsdk
