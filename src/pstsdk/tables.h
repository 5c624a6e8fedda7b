// Table contexts ([MS-PST] 2.3.4): columns, a row index, and the row matrix in a heap item or in a subnode.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "pstsdk/heap.h"
#include "pstsdk/nodes.h"
#include "pstsdk/properties.h"
#include "pstsdk/streams.h"
#include "pstsdk/types.h"

namespace pstsdk {

namespace disk {

#pragma pack(push, 1)

// TCINFO; cCols column descriptions follow.
struct table_header {
    byte bType;
    byte cCols;
    ushort rgib[4];
    heap_id hidRowIndex;
    ulong hnidRows;
    heap_id hidIndex;
};

// TCOLDESC.
struct column_description {
    ushort wPropType;
    ushort wPropId;
    ushort ibData;
    byte cbData;
    byte iBit;
};

#pragma pack(pop)

static_assert(sizeof(table_header) == 22 && offsetof(table_header, hidRowIndex) == 10 && offsetof(table_header, hnidRows) == 14);
static_assert(sizeof(column_description) == 8 && offsetof(column_description, ibData) == 4);

inline constexpr byte table_signature = 0x7C;

// What the members of rgib are offsets of in a row: the end of its cells of 4 and 8 bytes, of 2 bytes, of 1 byte, and of its
// bitmap, which is the row's width.
enum row_offset { tci_4b = 0, tci_2b = 1, tci_1b = 2, tci_bm = 3 };

}  // namespace disk

/// An open table. It does not change; rows count from 0 in the order of the matrix.
class table_impl : public std::enable_shared_from_this<table_impl> {
public:
    table_impl() = default;
    table_impl(const table_impl&) = delete;
    table_impl& operator=(const table_impl&) = delete;
    virtual ~table_impl() = default;

    /// The number of the row with an id. @throws key_not_found<ulong>
    virtual ulong lookup_row(ulong row_id) const = 0;
    virtual const node& get_node() const = 0;
    virtual node& get_node() = 0;
    /// A cell as it stands in its row. @throws key_not_found<ushort> for a cell that does not exist, std::out_of_range for a
    /// row behind the last one, database_corrupt for a cell of no known size or outside its row
    virtual ulonglong get_cell_value(ulong row, prop_id id) const = 0;
    /// The value whose HNID stands in a cell; throws what get_cell_value and the value throw.
    virtual std::vector<byte> read_cell(ulong row, prop_id id) const = 0;
    virtual hnid_stream_device open_cell_stream(ulong row, prop_id id) const = 0;
    virtual std::vector<prop_id> column_list() const = 0;
    /// @throws key_not_found<ushort>
    virtual ushort column_type(prop_id id) const = 0;
    /// The first 4 bytes of a row. @throws std::out_of_range, database_corrupt
    virtual ulong row_id(ulong row) const = 0;
    /// @throws database_corrupt for a row width that no page can hold
    virtual ulong row_count() const = 0;
    /// False for an unknown column, whatever the row. @throws std::out_of_range, database_corrupt
    virtual bool cell_exists(ulong row, prop_id id) const = 0;
    virtual ulonglong cell_size(ulong row, prop_id id) const = 0;
    /// Gives back the memory of the rows that have been looked at; they are read again when they are needed.
    virtual void forget_rows() const = 0;
};

/// Opens a node as a table.
/// @throws not_implemented for the node 0x730, sig_mismatch, database_corrupt, and what heap and BTH throw
std::shared_ptr<table_impl> open_table(const node& n);

/// A row as an object with properties.
class const_table_row : public const_property_object {
public:
    const_table_row(ulong row, std::shared_ptr<table_impl> table) : m_row(row), m_table(std::move(table)) {}

    ulong get_row_id() const { return m_table->row_id(m_row); }

    std::vector<prop_id> list_props() const override;
    ushort prop_type(prop_id id) const override { return m_table->column_type(id); }
    bool has_prop(prop_id id) const override { return m_table->cell_exists(m_row, id); }
    ulonglong prop_size(prop_id id) const override { return m_table->cell_size(m_row, id); }
    hnid_stream_device open_prop(prop_id id) const override { return m_table->open_cell_stream(m_row, id); }
    byte read_1(prop_id id) const override { return static_cast<byte>(read_8(id)); }
    ushort read_2(prop_id id) const override { return static_cast<ushort>(read_8(id)); }
    ulong read_4(prop_id id) const override { return static_cast<ulong>(read_8(id)); }
    ulonglong read_8(prop_id id) const override { return m_table->get_cell_value(m_row, id); }
    std::vector<byte> read_bytes(prop_id id) const override { return m_table->read_cell(m_row, id); }

private:
    ulong m_row;
    std::shared_ptr<table_impl> m_table;
};

/// A position in a table: a row number, with the row count as the end.
class const_table_position {
public:
    const_table_position(ulong row, std::shared_ptr<table_impl> table) : m_row(row), m_table(std::move(table)) {}

    const_table_row operator*() const { return {m_row, m_table}; }
    const_table_position& operator++() {
        ++m_row;
        return *this;
    }
    bool operator==(const const_table_position& other) const { return m_row == other.m_row; }

private:
    ulong m_row;
    std::shared_ptr<table_impl> m_table;
};

/// The form in which folders and messages keep their tables; copies share the table.
class table {
public:
    explicit table(const node& n) : m_impl(open_table(n)) {}

    const table_impl* operator->() const { return m_impl.get(); }
    const_table_row operator[](ulong row) const { return {row, m_impl}; }
    const_table_position begin() const { return {0, m_impl}; }
    const_table_position end() const { return {m_impl->row_count(), m_impl}; }

private:
    std::shared_ptr<table_impl> m_impl;
};

}  // namespace pstsdk
