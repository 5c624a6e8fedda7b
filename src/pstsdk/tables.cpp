#include "pstsdk/tables.h"

#include <algorithm>
#include <array>
#include <optional>
#include <stdexcept>
#include <unordered_map>

#include "pstsdk/bth.h"

namespace pstsdk {

namespace {

// [MS-PST] does not describe the table of this node; it is refused before its heap is looked at.
constexpr node_id gust_table_id = 0x730;

disk::table_header header_of(byte_view root) {
    return root.read<disk::table_header>(0);
}

/// A table whose row index has entries of type T.
template <typename T>
class basic_table final : public table_impl {
public:
    explicit basic_table(const node& n);

    ulong lookup_row(ulong row_id) const override { return m_row_index->lookup(row_id); }
    const node& get_node() const override { return m_row_index->get_heap()->get_node(); }
    node& get_node() override { return m_row_index->get_heap()->get_node(); }
    ulonglong get_cell_value(ulong row, prop_id id) const override;
    std::vector<byte> read_cell(ulong row, prop_id id) const override { return value(row, id).read(); }
    hnid_stream_device open_cell_stream(ulong row, prop_id id) const override { return value(row, id).open(); }
    std::vector<prop_id> column_list() const override;
    ushort column_type(prop_id id) const override { return column(id).wPropType; }
    ulong row_id(ulong row) const override { return read_row<ulong>(row, 0); }
    ulong row_count() const override;
    bool cell_exists(ulong row, prop_id id) const override;
    ulonglong cell_size(ulong row, prop_id id) const override { return value(row, id).size(); }
    void forget_rows() const override {
        if (m_row_node) {
            m_row_node->ensure_data_block()->forget_blocks();
        }
    }

private:
    const disk::column_description& column(prop_id id) const;
    hnid_value value(ulong row, prop_id id) const;
    std::size_t row_width() const;
    ulong rows_per_page() const;
    template <typename Cell>
    Cell read_row(ulong row, std::size_t offset) const;

    std::shared_ptr<bth_node<ulong, T>> m_row_index;
    std::vector<byte> m_row_bytes;
    std::shared_ptr<node> m_row_node;
    std::unordered_map<prop_id, disk::column_description> m_columns;
    std::array<ushort, 4> m_offsets{};
};

template <typename T>
basic_table<T>::basic_table(const node& n) {
    const auto heap = std::make_shared<heap_impl>(n, disk::heap_client_table);
    const std::vector<byte> root = heap->read_item(heap->get_root_id());
    const byte_view view(root);
    const auto signature = view.read<byte>(offsetof(disk::table_header, bType));
    if (signature != disk::table_signature) {
        throw sig_mismatch("heap_sig_tc expected", 0, n.get_id(), signature, disk::table_signature);
    }
    const disk::table_header header = header_of(view);
    m_row_index = heap->open_bth<ulong, T>(header.hidRowIndex);
    for (std::size_t i = 0; i < header.cCols; ++i) {
        const auto description =
            view.read<disk::column_description>(sizeof(disk::table_header) + i * sizeof(disk::column_description));
        m_columns[description.wPropId] = description;
    }
    std::copy(std::begin(header.rgib), std::end(header.rgib), m_offsets.begin());
    if ((header.hnidRows & hid_type_mask) != 0) {
        m_row_node = std::make_shared<node>(heap->get_node().lookup(header.hnidRows));
    } else {
        m_row_bytes = heap->read_item(header.hnidRows);
    }
}

template <typename T>
const disk::column_description& basic_table<T>::column(prop_id id) const {
    const auto found = m_columns.find(id);
    if (found == m_columns.end()) {
        throw key_not_found<prop_id>(id);
    }
    return found->second;
}

template <typename T>
std::vector<prop_id> basic_table<T>::column_list() const {
    std::vector<prop_id> ids;
    ids.reserve(m_columns.size());
    for (const auto& entry : m_columns) {
        ids.push_back(entry.first);
    }
    return ids;
}

template <typename T>
std::size_t basic_table<T>::row_width() const {
    const std::size_t width = m_offsets[disk::tci_bm];
    if (width < sizeof(ulong)) {
        throw database_corrupt("row without room for its id");
    }
    return width;
}

template <typename T>
ulong basic_table<T>::rows_per_page() const {
    const auto rows = static_cast<ulong>(m_row_node->get_page_size(0) / row_width());
    if (rows == 0) {
        throw database_corrupt("row wider than its page");
    }
    return rows;
}

template <typename T>
ulong basic_table<T>::row_count() const {
    if (!m_row_node) {
        return m_row_bytes.empty() ? 0 : static_cast<ulong>(m_row_bytes.size() / row_width());
    }
    const data_block* data = m_row_node->ensure_data_block();
    if (data->get_total_size() == 0) {
        return 0;
    }
    // Callers walk over as many rows as there are said to be. Rows stand in the file, never in holes.
    if (data->get_total_size() > data->get_room()) {
        throw database_corrupt("more rows than the file can hold");
    }
    const ulong last_page = m_row_node->get_page_count() - 1;
    return static_cast<ulong>(last_page * rows_per_page() + m_row_node->get_page_size(last_page) / row_width());
}

/// A number of a row. @throws std::out_of_range for a row behind the last one, database_corrupt for bytes outside the row
template <typename T>
template <typename Cell>
Cell basic_table<T>::read_row(ulong row, std::size_t offset) const {
    if (row >= row_count()) {
        throw std::out_of_range("row >= size()");
    }
    const std::size_t width = row_width();
    if (offset + sizeof(Cell) > width) {
        throw database_corrupt("cell outside its row");
    }
    if (!m_row_node) {
        return byte_view(m_row_bytes).read<Cell>(row * width + offset);
    }
    const ulong per_page = rows_per_page();
    return m_row_node->read<Cell>(row / per_page, static_cast<ulong>(row % per_page * width + offset));
}

template <typename T>
bool basic_table<T>::cell_exists(ulong row, prop_id id) const {
    const auto found = m_columns.find(id);
    if (found == m_columns.end()) {
        return false;
    }
    const unsigned bit = found->second.iBit;
    const auto bits = read_row<byte>(row, m_offsets[disk::tci_1b] + (bit >> 3U));
    return (bits & (0x80U >> (bit & 7U))) != 0;
}

template <typename T>
ulonglong basic_table<T>::get_cell_value(ulong row, prop_id id) const {
    if (!cell_exists(row, id)) {
        throw key_not_found<prop_id>(id);
    }
    const disk::column_description& description = column(id);
    switch (description.cbData) {
        case 1:
            return read_row<byte>(row, description.ibData);
        case 2:
            return read_row<ushort>(row, description.ibData);
        case 4:
            return read_row<ulong>(row, description.ibData);
        case 8:
            return read_row<ulonglong>(row, description.ibData);
        default:
            throw database_corrupt("get_cell_value: invalid cell size");
    }
}

template <typename T>
hnid_value basic_table<T>::value(ulong row, prop_id id) const {
    return {m_row_index->get_heap(), static_cast<ulong>(get_cell_value(row, id))};
}

/// The entry size of a table's row index; nothing when the table is too short to tell, which its constructor reports better.
std::optional<byte> row_index_entry_size(const node& n) {
    const heap_impl heap(n);
    const std::vector<byte> root = heap.read_item(heap.get_root_id());
    if (root.size() < sizeof(disk::table_header)) {
        return std::nullopt;
    }
    const std::vector<byte> index = heap.read_item(header_of(root).hidRowIndex);
    const std::size_t at = offsetof(disk::bth_header, cbEnt);
    return index.size() > at ? std::optional<byte>(index[at]) : std::nullopt;
}

}  // namespace

std::shared_ptr<table_impl> open_table(const node& n) {
    if (n.get_id() == gust_table_id) {
        throw not_implemented("gust table");
    }
    // A heap's own node shares what is loaded here, so both heaps that the opening takes read the data once.
    n.ensure_data_block();
    if (row_index_entry_size(n) == sizeof(ulong)) {
        return std::make_shared<basic_table<ulong>>(n);
    }
    return std::make_shared<basic_table<ushort>>(n);
}

std::vector<prop_id> const_table_row::list_props() const {
    std::vector<prop_id> ids = m_table->column_list();
    std::erase_if(ids, [this](prop_id id) { return !has_prop(id); });
    return ids;
}

}  // namespace pstsdk
