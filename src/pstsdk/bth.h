// The BTH ([MS-PST] 2.3.2): a B-tree in the items of a heap. Property contexts map ids to values with it, table contexts have it
// as their row index.
#pragma once

#include <algorithm>
#include <boost/core/noncopyable.hpp>
#include <cstddef>
#include <memory>
#include <stdexcept>
#include <utility>
#include <vector>

#include "pstsdk/btree_node.h"
#include "pstsdk/byte_view.h"
#include "pstsdk/heap.h"
#include "pstsdk/tree_place.h"
#include "pstsdk/types.h"

namespace pstsdk {

namespace disk {

#pragma pack(push, 1)

// BTHHEADER.
struct bth_header {
    byte bType;
    byte cbKey;
    byte cbEnt;
    byte bIdxLevels;
    heap_id hidRoot;
};

// The items are plain arrays of records: in a leaf of keys with their values, above it of lowest keys with the item of the next
// level.
template <typename K, typename V>
struct bth_record {
    K key;
    V value;
};

// A value of a property context; the id is its key.
struct prop_entry {
    ushort wPropType;
    ulong dwValueHnid;
};

#pragma pack(pop)

static_assert(sizeof(bth_header) == 8 && offsetof(bth_header, hidRoot) == 4);
static_assert(sizeof(prop_entry) == 6);
static_assert(sizeof(bth_record<ushort, prop_entry>) == 8 && sizeof(bth_record<ulong, ushort>) == 6);
static_assert(sizeof(bth_record<ushort, heap_id>) == 6 && sizeof(bth_record<ulong, heap_id>) == 8);

inline constexpr byte bth_signature = 0xB5;

// What loading a node costs its tree: the memory of a node of few records, or twice and more that of its records. A node of the
// smallest kind, one record of 6 bytes, takes 16 bytes of its heap: the record, 2 in the page map and 8 in the node above; so a
// sound tree costs less than 16 times its heap.
inline constexpr std::size_t bth_node_cost = 184;
inline constexpr std::size_t bth_item_byte_cost = 8;
inline constexpr ulonglong bth_cost_per_heap_byte = 16;

}  // namespace disk

/// A node of a tree. It shares the heap, and has read its records when it is made.
template <typename K, typename V>
class bth_node : public virtual btree_node<K, V>, private boost::noncopyable {
public:
    bth_node(std::shared_ptr<heap_impl> heap, heap_id id, ushort level) : m_heap(std::move(heap)), m_id(id), m_level(level) {}

    /// Opens the tree whose header is the item `hid`; the caller owns the root.
    /// @throws sig_mismatch, std::logic_error for other key or value sizes, database_corrupt for a tree that is too deep
    static std::unique_ptr<bth_node> open_root(const std::shared_ptr<heap_impl>& heap, heap_id hid);

    const std::shared_ptr<heap_impl>& get_heap() const { return m_heap; }
    heap_id get_id() const { return m_id; }
    /// 0 for a leaf.
    ushort get_level() const { return m_level; }

protected:
    static std::unique_ptr<bth_node> open_node(const std::shared_ptr<heap_impl>& heap, heap_id id, ushort level,
                                               const tree_place& place);

    /// Turns the records of an item into pairs, in the order of the file; an incomplete one at the end is none.
    template <typename Value>
    static std::vector<std::pair<K, Value>> read_records(const heap_impl& heap, heap_id id, const tree_place& place) {
        using record = disk::bth_record<K, Value>;
        const std::vector<byte> item = heap.read_item(id);
        place.take(std::max(disk::bth_node_cost, disk::bth_item_byte_cost * item.size()));
        const byte_view bytes(item);
        std::vector<std::pair<K, Value>> records(item.size() / sizeof(record));
        for (std::size_t i = 0; i < records.size(); ++i) {
            const auto [key, value] = bytes.read<record>(i * sizeof(record));
            records[i] = std::pair<K, Value>(K{key}, Value{value});
        }
        return records;
    }

private:
    std::shared_ptr<heap_impl> m_heap;
    heap_id m_id;
    ushort m_level;
};

template <typename K, typename V>
class bth_leaf_node : public bth_node<K, V>, public btree_node_leaf<K, V> {
public:
    bth_leaf_node(const std::shared_ptr<heap_impl>& heap, heap_id id, const tree_place& place)
        : bth_node<K, V>(heap, id, 0), m_records(this->template read_records<V>(*heap, id, place)) {}

    const K& get_key(ulong pos) const override { return m_records.at(pos).first; }
    const V& get_value(ulong pos) const override { return m_records.at(pos).second; }
    ulong num_values() const override { return static_cast<ulong>(m_records.size()); }

private:
    std::vector<std::pair<K, V>> m_records;
};

template <typename K, typename V>
class bth_nonleaf_node : public bth_node<K, V>, public btree_node_nonleaf<K, V> {
public:
    bth_nonleaf_node(const std::shared_ptr<heap_impl>& heap, heap_id id, ushort level, const tree_place& place)
        : bth_node<K, V>(heap, id, level),
          m_records(this->template read_records<heap_id>(*heap, id, place)),
          m_children(m_records.size()),
          m_place(place) {}

    const K& get_key(ulong pos) const override { return m_records.at(pos).first; }
    ulong num_values() const override { return static_cast<ulong>(m_records.size()); }
    bth_node<K, V>* get_child(ulong pos) override { return load_child(pos); }
    const bth_node<K, V>* get_child(ulong pos) const override { return load_child(pos); }

private:
    bth_node<K, V>* load_child(ulong pos) const {
        std::unique_ptr<bth_node<K, V>>& slot = m_children.at(pos);
        if (!slot) {
            slot = this->open_node(this->get_heap(), m_records[pos].second, static_cast<ushort>(this->get_level() - 1),
                                   m_place.child());
        }
        return slot.get();
    }

    std::vector<std::pair<K, heap_id>> m_records;
    mutable std::vector<std::unique_ptr<bth_node<K, V>>> m_children;
    tree_place m_place;
};

template <typename K, typename V>
std::unique_ptr<bth_node<K, V>> bth_node<K, V>::open_root(const std::shared_ptr<heap_impl>& heap, heap_id hid) {
    std::vector<byte> bytes(sizeof(disk::bth_header));
    heap->read(bytes, hid, 0);
    const auto header = byte_view(bytes).read<disk::bth_header>(0);
    if (header.bType != disk::bth_signature) {
        throw sig_mismatch("bth_signature expected", 0, hid, header.bType, disk::bth_signature);
    }
    if (header.cbKey != sizeof(K)) {
        throw std::logic_error("invalid key size");
    }
    if (header.cbEnt != sizeof(V)) {
        throw std::logic_error("invalid entry size");
    }
    if (header.bIdxLevels >= max_tree_levels) {
        throw database_corrupt("tree deeper than 32 levels");
    }
    const ulonglong capacity = disk::bth_cost_per_heap_byte * heap->get_node().ensure_data_block()->get_room();
    return open_node(heap, header.hidRoot, header.bIdxLevels, tree_place(capacity));
}

template <typename K, typename V>
std::unique_ptr<bth_node<K, V>> bth_node<K, V>::open_node(const std::shared_ptr<heap_impl>& heap, heap_id id, ushort level,
                                                          const tree_place& place) {
    if (level == 0) {
        return std::make_unique<bth_leaf_node<K, V>>(heap, id, place);
    }
    return std::make_unique<bth_nonleaf_node<K, V>>(heap, id, level, place);
}

template <typename K, typename V>
std::unique_ptr<bth_node<K, V>> heap_impl::open_bth(heap_id hid) {
    return bth_node<K, V>::open_root(shared_from_this(), hid);
}

}  // namespace pstsdk
