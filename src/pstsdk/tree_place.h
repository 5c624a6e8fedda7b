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

/// How often the bytes of an open store may be read from its blocks, and how many may be in any case. Who reads all messages
/// reads each byte a few times; a store whose messages or attachments share what they have could be read for ever.
struct reading_limit {
    ulonglong readings_of_a_byte;
    ulonglong bytes_anyway;
};
inline constexpr reading_limit max_reading_for_good{16, 64 << 20};
inline constexpr reading_limit max_tentative_reading{64, 320 << 20};

/// What the trees of an open store account for together: the bytes read and in holes, and what was taken on trial.
///
/// A walk over all messages reads more of some of them than a walk to a message behind them does, and must find there what that
/// one finds. It reads in a trial: what is taken tentatively counts until the trial ends, and then as if it had not been taken.
class store_budget {
public:
    enum class taking { for_good, tentative };

    /// Begins a trial; there is one at a time.
    void begin_trial(taking mode) {
        ++m_last_trial;
        m_trial = m_last_trial;
        m_mode = mode;
        m_hole_bytes_before = m_hole_bytes_left;
        m_tentative_hole_bytes = 0;
    }
    /// What holes have taken for good counts no longer: whoever begins anew takes it once more.
    void take_back_holes() { m_hole_bytes_left = m_hole_bytes_before; }
    void end_trial() {
        m_trial = 0;
        m_mode = taking::for_good;
        m_tentative_hole_bytes = 0;
    }

    /// The number of the trial, above 0, or 0 outside one.
    ulong trial() const { return m_trial; }
    bool is_tentative() const { return m_mode == taking::tentative; }

    /// @throws database_corrupt when the store has too many holes
    void take_hole(ulonglong bytes) {
        if (bytes > m_hole_bytes_left - m_tentative_hole_bytes) {
            throw database_corrupt("more bytes in holes than a store may have");
        }
        (is_tentative() ? m_tentative_hole_bytes += bytes : m_hole_bytes_left -= bytes);
    }

    /// @throws database_corrupt when far more was read than the store has bytes
    void take_reading(ulonglong bytes, ulonglong length) {
        const reading_limit& limit = is_tentative() ? max_tentative_reading : max_reading_for_good;
        ulonglong& read = is_tentative() ? m_bytes_read_tentatively : m_bytes_read;
        read += bytes;
        if (read > limit.bytes_anyway && (read - limit.bytes_anyway) / limit.readings_of_a_byte > length) {
            throw database_corrupt("the same bytes are read again and again");
        }
    }

private:
    friend class tentative_reading;

    ulonglong m_bytes_read = 0;
    ulonglong m_bytes_read_tentatively = 0;
    ulong m_last_trial = 0;
    ulong m_trial = 0;
    taking m_mode = taking::for_good;
    ulonglong m_hole_bytes_left = max_bytes_in_holes;
    ulonglong m_hole_bytes_before = 0;
    ulonglong m_tentative_hole_bytes = 0;  // never more than are left
};

/// A part of a trial that counts tentatively. Outside a trial it is a reading like any other.
class tentative_reading {
public:
    explicit tentative_reading(store_budget& budget) : m_budget(budget), m_mode(budget.m_mode) {
        if (budget.trial() != 0) {
            budget.m_mode = store_budget::taking::tentative;
        }
    }
    tentative_reading(const tentative_reading&) = delete;
    tentative_reading& operator=(const tentative_reading&) = delete;
    ~tentative_reading() { m_budget.m_mode = m_mode; }

private:
    store_budget& m_budget;
    store_budget::taking m_mode;
};

/// What a node of a page tree has been taken as.
class taken_mark {
public:
    bool is_for_good() const { return m_mark == for_good; }

private:
    friend class tree_place;
    static constexpr ulong for_good = 0xFFFFFFFF;

    ulong m_mark = 0;  // or the number of the trial that took it tentatively
};

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
    /// @param store what it shares with the other trees of the store
    explicit tree_place(ulonglong capacity, std::shared_ptr<store_budget> store = nullptr)
        : m_budget(std::make_shared<budget>(budget{capacity, capacity, std::move(store)})) {}

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
            expect_room(bytes);
            m_budget->left -= bytes;
        }
    }

    /// Accounts for a node of a tree that outlives a trial, unless the mark tells that this was done. In a trial that reads
    /// tentatively it is done until the end of the trial. @throws database_corrupt as take()
    void take_once(ulonglong bytes, taken_mark& mark) const {
        if (!m_budget || mark.is_for_good()) {
            return;
        }
        const ulong trial = m_budget->store ? m_budget->store->trial() : 0;
        if (m_budget->trial != trial) {
            m_budget->trial = trial;
            m_budget->tentative = 0;
        }
        const bool is_tentative = trial != 0 && m_budget->store->is_tentative();
        if (trial == 0 || mark.m_mark != trial) {
            expect_room(bytes);
            m_budget->tentative += bytes;
            mark.m_mark = trial;
        }
        if (!is_tentative) {
            m_budget->tentative -= bytes;
            m_budget->left -= bytes;
            mark.m_mark = taken_mark::for_good;
        }
    }

    /// Accounts for a node that is made because there is none. @throws database_corrupt when the store has too many of them
    void take_hole(ulonglong bytes) const {
        if (m_budget && m_budget->store) {
            m_budget->store->take_hole(bytes);
        }
    }

    /// What the root was given; nothing for a place without a tree.
    std::optional<ulonglong> capacity() const { return m_budget ? std::optional<ulonglong>(m_budget->capacity) : std::nullopt; }

private:
    struct budget {
        ulonglong capacity;
        ulonglong left;
        std::shared_ptr<store_budget> store;
        ulong trial = 0;          // to which `tentative` belongs
        ulonglong tentative = 0;  // bytes; never more than are left
    };

    void expect_room(ulonglong bytes) const {
        if (bytes > m_budget->left - m_budget->tentative) {
            throw database_corrupt("tree larger than what it lies in");
        }
    }

    ulong m_depth = 0;
    std::shared_ptr<budget> m_budget;  // shared by all nodes of the tree
};

}  // namespace pstsdk
