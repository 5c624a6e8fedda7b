// What keeps a walk over a damaged tree bounded.
#pragma once

#include <memory>
#include <optional>

#include "pstsdk/exceptions.h"
#include "pstsdk/types.h"

namespace pstsdk {

inline constexpr ulong max_tree_levels = 32;

/// How many bytes the holes of all data trees of an open store may have together. A hole is a child that reads as zero bytes and
/// takes no room in the file. Nobody writes many of them, and a few bytes can ask for gigabytes of them.
inline constexpr ulonglong max_bytes_in_holes = 64 << 20;

/// Where a node stands in its tree, and how many bytes of nodes the tree may still load.
///
/// The parts of a sound tree lie side by side, so together they are no larger than what they lie in. A damaged one can refer to
/// a node twice: a circle then ends at the deepest level, and a tree whose every level refers many times to the next one, which
/// a few pages can make as large as one likes, ends when it has loaded as many bytes as there are. This holds only if each node
/// is charged at least in proportion to the memory that it takes, however few bytes it says that it has.
class tree_place {
public:
    /// The place of nodes below which nothing is loaded, or nothing from the file.
    tree_place() = default;
    /// A root. @param capacity the bytes that the tree may load
    /// @param hole_bytes_left how many bytes of holes may still be made; shared by all trees of a store
    explicit tree_place(ulonglong capacity, std::shared_ptr<ulonglong> hole_bytes_left = nullptr)
        : m_budget(std::make_shared<budget>(budget{capacity, capacity, std::move(hole_bytes_left)})) {}

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
        if (m_budget) {
            take_from(m_budget->left, bytes, "tree larger than what it lies in");
        }
    }

    /// Accounts for a node that is made because there is none. @throws database_corrupt when the store has too many of them
    void take_hole(ulonglong bytes) const {
        if (m_budget && m_budget->hole_bytes_left) {
            take_from(*m_budget->hole_bytes_left, bytes, "more bytes in holes than a store may have");
        }
    }

    /// What the root was given; nothing for a place without a tree.
    std::optional<ulonglong> capacity() const { return m_budget ? std::optional<ulonglong>(m_budget->capacity) : std::nullopt; }

private:
    struct budget {
        ulonglong capacity;
        ulonglong left;
        std::shared_ptr<ulonglong> hole_bytes_left;
    };

    static void take_from(ulonglong& left, ulonglong bytes, const char* complaint) {
        if (bytes > left) {
            throw database_corrupt(complaint);
        }
        left -= bytes;
    }

    ulong m_depth = 0;
    std::shared_ptr<budget> m_budget;  // shared by all nodes of the tree
};

}  // namespace pstsdk
