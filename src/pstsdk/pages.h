// The pages of the block tree and the node tree: 512 bytes in the file, decoded entries in memory ([MS-PST] 2.2.2.7.7).
#pragma once

#include <memory>
#include <utility>
#include <vector>

#include "pstsdk/btree_node.h"
#include "pstsdk/tree_place.h"
#include "pstsdk/types.h"

namespace pstsdk {

class db_context;

/// A page refers to its database weakly, so that a tree does not keep the store open.
class page {
public:
    page(const std::shared_ptr<db_context>& db, const page_info& info) : m_db(db), m_pid(info) {}

protected:
    std::weak_ptr<db_context> m_db;
    page_info m_pid;
};

template <typename K, typename V>
class bt_page : public page, public virtual btree_node<K, V> {
public:
    bt_page(const std::shared_ptr<db_context>& db, const page_info& info, ushort level, tree_place place)
        : page(db, info), m_level(level), m_place(std::move(place)) {}

    ushort get_level() const { return m_level; }
    /// Makes the page part of the tree of its parent.
    void set_place(const tree_place& place) { m_place = place; }

protected:
    ushort m_level;
    tree_place m_place;
};

template <typename K, typename V>
class bt_leaf_page : public bt_page<K, V>, public btree_node_leaf<K, V>, public std::enable_shared_from_this<bt_leaf_page<K, V>> {
public:
    bt_leaf_page(const std::shared_ptr<db_context>& db, const page_info& info, std::vector<std::pair<K, V>> data)
        : bt_page<K, V>(db, info, 0, tree_place()), m_page_data(std::move(data)) {}

    const K& get_key(ulong pos) const override { return m_page_data.at(pos).first; }
    const V& get_value(ulong pos) const override { return m_page_data.at(pos).second; }
    ulong num_values() const override { return static_cast<ulong>(m_page_data.size()); }

private:
    std::vector<std::pair<K, V>> m_page_data;
};

enum class forget { trials, trials_and_leaves };

template <typename K, typename V>
class bt_nonleaf_page : public bt_page<K, V>,
                        public btree_node_nonleaf<K, V>,
                        public std::enable_shared_from_this<bt_nonleaf_page<K, V>> {
public:
    /// @param place the place of a root; get_child gives a child its own
    bt_nonleaf_page(const std::shared_ptr<db_context>& db, const page_info& info, ushort level, const tree_place& place,
                    std::vector<std::pair<K, page_info>> children)
        : bt_page<K, V>(db, info, level, place),
          m_page_info(std::move(children)),
          m_child_pages(m_page_info.size()),
          m_taken(m_page_info.size()) {}

    const K& get_key(ulong pos) const override { return m_page_info.at(pos).first; }
    ulong num_values() const override { return static_cast<ulong>(m_page_info.size()); }
    bt_page<K, V>* get_child(ulong pos) override { return load_child(pos); }
    const bt_page<K, V>* get_child(ulong pos) const override { return load_child(pos); }

    /// Gives back the pages below that only trials have read, and the leaves if they are wanted, too. What was accounted for
    /// stays so, and what is needed again is read again. Nobody may hold a position in what goes.
    void forget_pages(forget what);

private:
    bt_page<K, V>* load_child(ulong pos) const;

    std::vector<std::pair<K, page_info>> m_page_info;
    mutable std::vector<std::shared_ptr<bt_page<K, V>>> m_child_pages;
    mutable std::vector<taken_mark> m_taken;  // for each child
};

using bbt_page = bt_page<ulonglong, block_info>;
using nbt_page = bt_page<ulong, node_info>;
using bbt_leaf_page = bt_leaf_page<ulonglong, block_info>;
using nbt_leaf_page = bt_leaf_page<ulong, node_info>;
using bbt_nonleaf_page = bt_nonleaf_page<ulonglong, block_info>;
using nbt_nonleaf_page = bt_nonleaf_page<ulong, node_info>;

extern template class bt_nonleaf_page<ulonglong, block_info>;
extern template class bt_nonleaf_page<ulong, node_info>;

}  // namespace pstsdk
