// What keeps a walk over a damaged tree bounded.
#pragma once

#include <memory>

#include "pstsdk/exceptions.h"
#include "pstsdk/types.h"

namespace pstsdk {

inline constexpr ulong max_tree_levels = 32;

/// Where a node stands in its tree, and how many bytes of nodes the tree may still load.
///
/// The parts of a sound tree lie side by side, so together they are no larger than what they lie in. A damaged one can refer to
/// a node twice: a circle then ends at the deepest level, and a tree whose every level refers many times to the next one, which
/// a few pages can make as large as one likes, ends when it has loaded as many bytes as there are.
class tree_place {
public:
    /// The place of nodes below which nothing is loaded.
    tree_place() = default;
    /// A root. @param capacity bytes of what the tree lies in
    explicit tree_place(ulonglong capacity) : m_left(std::make_shared<ulonglong>(capacity)) {}

    /// The place of a child. @throws database_corrupt at the deepest level
    tree_place child() const {
        if (m_depth + 1 >= max_tree_levels) {
            throw database_corrupt("tree deeper than 32 levels");
        }
        tree_place place(*this);
        ++place.m_depth;
        return place;
    }

    /// Accounts for a node that was loaded. @throws database_corrupt when the tree outgrows its capacity
    void take(ulonglong bytes) const {
        if (m_left) {
            if (bytes > *m_left) {
                throw database_corrupt("tree larger than what it lies in");
            }
            *m_left -= bytes;
        }
    }

private:
    ulong m_depth = 0;
    std::shared_ptr<ulonglong> m_left;  // shared by all nodes of the tree
};

}  // namespace pstsdk
