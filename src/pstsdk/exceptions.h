// What the store layers throw. Besides these: std::runtime_error (a file cannot be opened), std::out_of_range (positioning,
// reading, indexes and offsets), std::length_error (heap items), std::logic_error (the shape of a BTH) and std::bad_weak_ptr (a
// page or block that outlived its database has to read).
#pragma once

#include <exception>
#include <stdexcept>
#include <string>

#include "pstsdk/types.h"

namespace pstsdk {

/// The bytes of the store contradict each other.
class database_corrupt : public std::runtime_error {
public:
    explicit database_corrupt(const std::string& message) : std::runtime_error(message) {}
};

/// The file has the other layout.
class invalid_format : public database_corrupt {
public:
    invalid_format() : database_corrupt("Unexpected Database Format") {}
};

class unexpected_page : public database_corrupt {
public:
    explicit unexpected_page(const std::string& message) : database_corrupt(message) {}
};

class unexpected_block : public database_corrupt {
public:
    explicit unexpected_block(const std::string& message) : database_corrupt(message) {}
};

/// A CRC of the header does not fit; the address and the id are 0 there.
class crc_fail : public database_corrupt {
public:
    crc_fail(const std::string& message, ulonglong address, block_id id, ulong computed, ulong found)
        : database_corrupt(message), m_address(address), m_id(id), m_computed(computed), m_found(found) {}

    ulonglong address() const { return m_address; }
    block_id id() const { return m_id; }
    ulong computed() const { return m_computed; }
    ulong found() const { return m_found; }

private:
    ulonglong m_address;
    block_id m_id;
    ulong m_computed;
    ulong m_found;
};

/// A signature does not fit. Of a page or block: `first` is computed, `second` stands in the trailer. Of a heap, BTH or table:
/// the address is 0, the id is that of the node or item, `first` is the byte found and `second` the one expected.
class sig_mismatch : public database_corrupt {
public:
    sig_mismatch(const std::string& message, ulonglong address, block_id id, ulong first, ulong second)
        : database_corrupt(message), m_address(address), m_id(id), m_first(first), m_second(second) {}

    ulonglong address() const { return m_address; }
    block_id id() const { return m_id; }
    ulong first() const { return m_first; }
    ulong second() const { return m_second; }

private:
    ulonglong m_address;
    block_id m_id;
    ulong m_first;
    ulong m_second;
};

class not_implemented : public std::logic_error {
public:
    explicit not_implemented(const std::string& message) : std::logic_error(message) {}
};

class can_not_resize : public std::runtime_error {
public:
    explicit can_not_resize(const std::string& message) : std::runtime_error(message) {}
};

/// A tree, bag or table does not hold the key. Absence is no damage, hence no kind of database_corrupt; and a missing node
/// (ulong), block (ulonglong) and property (ushort) are told apart by type.
template <typename K>
class key_not_found : public std::exception {
public:
    explicit key_not_found(K key) : m_key(key) {}

    K key() const { return m_key; }
    const char* what() const noexcept override { return "key not found"; }

private:
    K m_key;
};

}  // namespace pstsdk
