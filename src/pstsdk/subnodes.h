// The subnode tree of a node: a small B-tree kept in blocks ([MS-PST] 2.2.2.8.3.3).
#pragma once

#include <memory>
#include <utility>
#include <vector>

#include "pstsdk/blocks.h"
#include "pstsdk/btree_node.h"
#include "pstsdk/tree_place.h"
#include "pstsdk/types.h"

namespace pstsdk {

class subnode_block : public block, public virtual btree_node<ulong, subnode_info> {
public:
    subnode_block(const std::shared_ptr<db_context>& db, const block_info& info, ushort level, tree_place place)
        : block(db, info), m_level(level), m_place(std::move(place)) {}

    bool is_internal() const override { return true; }

    /// 0 in a leaf, 1 above.
    ushort get_level() const { return m_level; }
    /// Makes the block part of the tree of its parent.
    void set_place(const tree_place& place) { m_place = place; }

protected:
    ushort m_level;
    tree_place m_place;
};

class subnode_leaf_block : public subnode_block,
                           public btree_node_leaf<ulong, subnode_info>,
                           public std::enable_shared_from_this<subnode_leaf_block> {
public:
    subnode_leaf_block(const std::shared_ptr<db_context>& db, const block_info& info,
                       std::vector<std::pair<node_id, subnode_info>> subnodes)
        : subnode_block(db, info, 0, tree_place()), m_subnodes(std::move(subnodes)) {}

    const ulong& get_key(ulong pos) const override { return m_subnodes.at(pos).first; }
    const subnode_info& get_value(ulong pos) const override { return m_subnodes.at(pos).second; }
    ulong num_values() const override { return static_cast<ulong>(m_subnodes.size()); }

private:
    std::vector<std::pair<node_id, subnode_info>> m_subnodes;
};

class subnode_nonleaf_block : public subnode_block,
                              public btree_node_nonleaf<ulong, subnode_info>,
                              public std::enable_shared_from_this<subnode_nonleaf_block> {
public:
    /// @param place the place of a root; get_child gives a child its own
    subnode_nonleaf_block(const std::shared_ptr<db_context>& db, const block_info& info, const tree_place& place,
                          std::vector<std::pair<node_id, block_id>> children)
        : subnode_block(db, info, 1, place), m_subnode_info(std::move(children)), m_child_blocks(m_subnode_info.size()) {}

    const ulong& get_key(ulong pos) const override { return m_subnode_info.at(pos).first; }
    ulong num_values() const override { return static_cast<ulong>(m_subnode_info.size()); }
    subnode_block* get_child(ulong pos) override { return load_child(pos); }
    const subnode_block* get_child(ulong pos) const override { return load_child(pos); }

private:
    subnode_block* load_child(ulong pos) const;

    std::vector<std::pair<node_id, block_id>> m_subnode_info;
    mutable std::vector<std::shared_ptr<subnode_block>> m_child_blocks;
};

}  // namespace pstsdk
