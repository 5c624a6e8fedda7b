// The generic B-tree: look-up and iteration over nodes that know their keys and how to get at their children. The page trees,
// the subnode trees and the BTHs of heaps are made of it.
#pragma once

#include <utility>
#include <vector>

#include "pstsdk/exceptions.h"
#include "pstsdk/types.h"

namespace pstsdk {

template <typename K, typename V>
class btree_node_leaf;
template <typename K, typename V>
class btree_node_nonleaf;

/// A position in a tree. The pointers are valid as long as the tree's root: parents own their children.
template <typename K, typename V>
struct btree_iter {
    const btree_node_leaf<K, V>* leaf = nullptr;  // null after a step that threw
    ulong pos = 0;
    std::vector<std::pair<const btree_node_nonleaf<K, V>*, ulong>> path;  // from the root down, with the child taken

    bool operator==(const btree_iter& other) const { return leaf == other.leaf && pos == other.pos; }
};

template <typename K, typename V>
class btree_node {
public:
    static constexpr ulong not_found = 0xFFFFFFFF;

    virtual ~btree_node() = default;

    /// The value of a key, or null. @throws whatever the reading of a child throws
    virtual const V* find(const K& key) const = 0;
    /// @throws key_not_found<K>, and whatever the reading of a child throws
    const V& lookup(const K& key) const {
        const V* value = find(key);
        if (value == nullptr) {
            throw key_not_found<K>(key);
        }
        return *value;
    }
    virtual const K& get_key(ulong pos) const = 0;
    virtual ulong num_values() const = 0;
    virtual void first(btree_iter<K, V>& iter) const = 0;
    virtual void last(btree_iter<K, V>& iter) const = 0;
    virtual void next(btree_iter<K, V>& iter) const = 0;
    virtual void prev(btree_iter<K, V>& iter) const = 0;

    /// The position of the last key that is not above `key`, or not_found. On unsorted keys it misses what it does not meet.
    ulong binary_search(const K& key) const {
        ulong start = 0;
        ulong end = num_values();
        ulong mid = end / 2;
        while (mid < end) {
            const K& k = get_key(mid);
            if (k == key) {
                return mid;
            }
            if (k < key) {
                start = mid + 1;
            } else {
                end = mid;
            }
            mid = (start + end) / 2;
        }
        return mid - 1;
    }
};

template <typename K, typename V>
class btree_node_leaf : public virtual btree_node<K, V> {
public:
    const V* find(const K& key) const override {
        const ulong pos = this->binary_search(key);
        return pos != this->not_found && this->get_key(pos) == key ? &get_value(pos) : nullptr;
    }

    void first(btree_iter<K, V>& iter) const override {
        iter.leaf = this;
        iter.pos = 0;
    }

    void last(btree_iter<K, V>& iter) const override {
        iter.leaf = this;
        iter.pos = this->num_values() - 1;
    }

    void next(btree_iter<K, V>& iter) const override {
        ++iter.pos;
        if (iter.pos < this->num_values()) {
            return;
        }
        iter.pos = this->num_values();
        // A leaf without entries is stepped over, or the walk would stand on an entry that is not there.
        while (iter.pos == iter.leaf->num_values() && leads_on(iter)) {
            iter.leaf = nullptr;
            iter.path.back().first->next(iter);
        }
    }

    void prev(btree_iter<K, V>& iter) const override {
        if (iter.pos > 0) {
            --iter.pos;
            return;
        }
        // A walk that finds nothing but empty leaves in front of the first entry stays there.
        const btree_iter<K, V> start = iter;
        do {
            if (!leads_back(iter)) {
                iter = start;
                return;
            }
            iter.leaf = nullptr;
            iter.path.back().first->prev(iter);
        } while (iter.leaf->num_values() == 0);
    }

    /// @throws std::out_of_range
    virtual const V& get_value(ulong pos) const = 0;

private:
    static bool leads_on(const btree_iter<K, V>& iter) {
        for (const auto& [node, pos] : iter.path) {
            if (pos < node->num_values() - 1) {
                return true;
            }
        }
        return false;
    }

    static bool leads_back(const btree_iter<K, V>& iter) {
        for (const auto& step : iter.path) {
            if (step.second > 0) {
                return true;
            }
        }
        return false;
    }
};

template <typename K, typename V>
class btree_node_nonleaf : public virtual btree_node<K, V> {
public:
    const V* find(const K& key) const override {
        const ulong pos = this->binary_search(key);
        return pos != this->not_found ? get_child(pos)->find(key) : nullptr;
    }

    void first(btree_iter<K, V>& iter) const override {
        expect_children();
        iter.path.emplace_back(this, 0);
        get_child(0)->first(iter);
    }

    void last(btree_iter<K, V>& iter) const override {
        expect_children();
        const ulong pos = this->num_values() - 1;
        iter.path.emplace_back(this, pos);
        get_child(pos)->last(iter);
    }

    void next(btree_iter<K, V>& iter) const override {
        ulong& pos = iter.path.back().second;
        ++pos;
        if (pos != this->num_values()) {
            get_child(pos)->first(iter);
        } else if (iter.path.size() > 1) {
            iter.path.pop_back();
            iter.path.back().first->next(iter);
        }
    }

    void prev(btree_iter<K, V>& iter) const override {
        ulong& pos = iter.path.back().second;
        if (pos > 0) {
            --pos;
            get_child(pos)->last(iter);
        } else if (iter.path.size() > 1) {
            iter.path.pop_back();
            iter.path.back().first->prev(iter);
        }
    }

    /// The child at a position, read on first use and owned by this node. @throws std::out_of_range for a position outside
    virtual btree_node<K, V>* get_child(ulong pos) = 0;
    virtual const btree_node<K, V>* get_child(ulong pos) const = 0;

private:
    // Such a node is no damage until somebody walks the tree: every look-up just misses it.
    void expect_children() const {
        if (this->num_values() == 0) {
            throw database_corrupt("index node without children");
        }
    }
};

/// The first entry of a tree, or its end.
template <typename K, typename V>
btree_iter<K, V> btree_begin(const btree_node<K, V>& root) {
    btree_iter<K, V> iter;
    root.first(iter);
    if (iter.leaf->num_values() == 0) {
        iter.leaf->next(iter);
    }
    return iter;
}

/// Behind the last entry of a tree.
template <typename K, typename V>
btree_iter<K, V> btree_end(const btree_node<K, V>& root) {
    btree_iter<K, V> iter;
    root.last(iter);
    ++iter.pos;  // wraps to 0 in an empty leaf
    return iter;
}

}  // namespace pstsdk
