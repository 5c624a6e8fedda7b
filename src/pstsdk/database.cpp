// From the bytes of the file to pages and blocks: the header, look-ups, page trees, data blocks, subnode blocks.

#include "pstsdk/database.h"

#include <stdexcept>

#include "pstsdk/codec.h"
#include "pstsdk/database_impl.h"
#include "ternbase/ternbase.h"

namespace pstsdk {

namespace {

constexpr std::uint32_t open_for_reading = 256;

byte_view view_of(const std::array<byte, disk::page_size>& data) {
    return {data.data(), data.size()};
}

template <typename T>
disk::page_trailer<T> trailer_of(byte_view data) {
    return data.read<disk::page_trailer<T>>(disk::layout<T>::page_trailer_offset);
}

template <typename T>
disk::tree_page_counters counters_of(byte_view data) {
    return data.read<disk::tree_page_counters>(disk::layout<T>::page_counters_offset);
}

/// Turns the entries of a tree page into pairs of key and value.
/// @throws database_corrupt when the page says that it has more than fit
template <typename T, typename Entry, typename Pair, typename Convert>
std::vector<Pair> page_entries(byte_view data, const Convert& convert) {
    const std::size_t count = counters_of<T>(data).cEnt;
    if (count * sizeof(Entry) > disk::layout<T>::page_counters_offset) {
        throw database_corrupt("more entries than the page can hold");
    }
    std::vector<Pair> pairs;
    pairs.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
        pairs.push_back(convert(data.read<Entry>(i * sizeof(Entry))));
    }
    return pairs;
}

}  // namespace

file::file(const std::u16string& path) : m_name(path), m_handle(TbFileOpen(m_name.c_str(), 0, open_for_reading)) {
    if (m_handle == ternkit::kInvalidHandle) {
        throw std::runtime_error("fopen failed");
    }
}

file::~file() {
    TbFileClose(m_handle);
}

void file::read(ulonglong address, byte* buffer, std::size_t count) const {
    const std::int64_t position = TbFileSeek(m_handle, static_cast<std::int64_t>(address), kTbSeekStart);
    if (position < 0 || static_cast<ulonglong>(position) != address) {
        throw std::out_of_range("fseek failed");
    }
    m_bytes_read += count;
    if (TbFileRead64(m_handle, buffer, count) != count) {
        throw std::out_of_range("fread failed");
    }
}

ulonglong file::length() const {
    if (!m_length) {
        const std::int64_t end = TbFileSeek(m_handle, 0, kTbSeekEnd);
        if (end < 0) {
            throw std::out_of_range("fseek failed");
        }
        m_length = static_cast<ulonglong>(end);
    }
    return *m_length;
}

shared_db_ptr open_database(const std::u16string& path) {
    try {
        return std::make_shared<database_impl<ulong>>(path);
    } catch (const invalid_format&) {
        return std::make_shared<database_impl<ulonglong>>(path);
    }
}

template <typename T>
database_impl<T>::database_impl(const std::u16string& path) : m_file(path) {
    std::vector<byte> bytes(sizeof(disk::header<T>));
    m_file.read(0, bytes.data(), bytes.size());
    m_header = byte_view(bytes).read<disk::header<T>>(0);
    validate_header(bytes);
}

template <typename T>
void database_impl<T>::validate_header(byte_view bytes) const {
    if ((m_header.wVer >= disk::first_unicode_version) != layout::is_unicode) {
        throw invalid_format();
    }
    const ulong partial = disk::compute_crc(bytes.part(disk::header_crc_start, disk::header_partial_crc_size).data(),
                                            disk::header_partial_crc_size);
    if (partial != m_header.dwCRCPartial) {
        throw crc_fail("header dwCRCPartial failure", 0, 0, partial, m_header.dwCRCPartial);
    }
    if constexpr (layout::is_unicode) {
        const ulong full =
            disk::compute_crc(bytes.part(disk::header_crc_start, disk::header_full_crc_size).data(), disk::header_full_crc_size);
        if (full != m_header.dwCRCFull) {
            throw crc_fail("header dwCRCFull failure", 0, 0, full, m_header.dwCRCFull);
        }
    }
}

template <typename T>
node database_impl<T>::lookup_node(node_id id) {
    shared_db_ptr self = shared_from_this();
    const node_info info = lookup_node_info(id);
    return {std::move(self), info};
}

template <typename T>
node_info database_impl<T>::lookup_node_info(node_id id) {
    return read_nbt_root()->lookup(id);
}

template <typename T>
block_info database_impl<T>::lookup_block_info(block_id id) {
    if (id == 0) {
        return {};
    }
    return read_bbt_root()->lookup(id & ~block_id_reserved_bit);
}

template <typename T>
std::shared_ptr<bbt_page> database_impl<T>::read_bbt_root() {
    if (!m_bbt_root) {
        m_bbt_root = read_bbt_page({m_header.root.BREFBBT.bid, m_header.root.BREFBBT.ib});
    }
    return m_bbt_root;
}

template <typename T>
std::shared_ptr<nbt_page> database_impl<T>::read_nbt_root() {
    if (!m_nbt_root) {
        m_nbt_root = read_nbt_page({m_header.root.BREFNBT.bid, m_header.root.BREFNBT.ib});
    }
    return m_nbt_root;
}

template <typename T>
void database_impl<T>::trim_pages() {
    constexpr ulong most_pages = 2048;
    if (m_pages_since_trim < most_pages || m_budget->trial() != 0) {
        return;
    }
    m_pages_since_trim = 0;
    if (auto* root = dynamic_cast<bbt_nonleaf_page*>(m_bbt_root.get())) {
        root->forget_pages(forget::trials_and_leaves);
    }
    // Positions of a walk stand in the node tree, in pages that were not read on trial.
    if (auto* root = dynamic_cast<nbt_nonleaf_page*>(m_nbt_root.get())) {
        root->forget_pages(forget::trials);
    }
}

template <typename T>
auto database_impl<T>::read_page_data(const page_info& info) const -> page_data {
    const ulonglong end_of_file = m_header.root.ibFileEof;
    if (info.address > end_of_file || end_of_file - info.address < disk::page_size) {
        throw unexpected_page("nonsensical page location; past eof");
    }
    if (info.address % disk::page_size != 0) {
        throw unexpected_page("nonsensical page location; not sector aligned");
    }
    page_data data;
    m_file.read(info.address, data.data(), data.size());
    ++m_pages_since_trim;
    const auto trailer = trailer_of<T>(view_of(data));
    if (trailer.bid != info.id) {
        throw unexpected_page("wrong page id");
    }
    if (trailer.ptype != trailer.ptypeRepeat) {
        throw database_corrupt("ptype != ptype repeat?");
    }
    // The CRC of pages and blocks is not tested: stores with wrong ones are in use and read well.
    const ushort signature = disk::compute_signature(info.id, info.address);
    if (trailer.wSig != signature) {
        throw sig_mismatch("page sig mismatch", info.address, info.id, signature, trailer.wSig);
    }
    return data;
}

template <typename T>
std::shared_ptr<bbt_leaf_page> database_impl<T>::make_bbt_leaf(const page_info& info, const page_data& data) {
    using entry = disk::block_entry<T>;
    using pair = std::pair<ulonglong, block_info>;
    return std::make_shared<bbt_leaf_page>(shared_from_this(), info,
                                           page_entries<T, entry, pair>(view_of(data), [](const entry& e) -> pair {
                                               return {ulonglong{e.bref.bid}, block_info{e.bref.bid, e.bref.ib, e.cb, e.cRef}};
                                           }));
}

template <typename T>
std::shared_ptr<nbt_leaf_page> database_impl<T>::make_nbt_leaf(const page_info& info, const page_data& data) {
    using entry = disk::node_entry<T>;
    using pair = std::pair<ulong, node_info>;
    return std::make_shared<nbt_leaf_page>(shared_from_this(), info,
                                           page_entries<T, entry, pair>(view_of(data), [](const entry& e) -> pair {
                                               const auto id = static_cast<node_id>(e.nid);
                                               return {id, node_info{id, e.bidData, e.bidSub, e.nidParent}};
                                           }));
}

template <typename T>
template <typename K, typename V>
std::shared_ptr<bt_nonleaf_page<K, V>> database_impl<T>::make_nonleaf(const page_info& info, const page_data& data) {
    using entry = disk::child_entry<T>;
    using pair = std::pair<K, page_info>;
    return std::make_shared<bt_nonleaf_page<K, V>>(shared_from_this(), info, counters_of<T>(view_of(data)).cLevel,
                                                   tree_place(m_file.length(), m_budget),
                                                   page_entries<T, entry, pair>(view_of(data), [](const entry& e) -> pair {
                                                       return {static_cast<K>(e.btkey), page_info{e.bref.bid, e.bref.ib}};
                                                   }));
}

namespace {

enum class page_level { any, leaf, nonleaf };

/// Tests the type of a page, and its level with the same words. @return whether the page is a leaf
template <typename T>
bool expect_page(byte_view data, byte type, page_level level) {
    const bool is_leaf = counters_of<T>(data).cLevel == 0;
    if (trailer_of<T>(data).ptype != type || (level == page_level::leaf && !is_leaf) ||
        (level == page_level::nonleaf && is_leaf)) {
        throw unexpected_page(type == disk::page_type_bbt ? "page_type != page_type_bbt" : "page_type != page_type_nbt");
    }
    return is_leaf;
}

}  // namespace

template <typename T>
std::shared_ptr<bbt_page> database_impl<T>::read_bbt_page(const page_info& info) {
    const page_data data = read_page_data(info);
    if (expect_page<T>(view_of(data), disk::page_type_bbt, page_level::any)) {
        return make_bbt_leaf(info, data);
    }
    return make_nonleaf<ulonglong, block_info>(info, data);
}

template <typename T>
std::shared_ptr<nbt_page> database_impl<T>::read_nbt_page(const page_info& info) {
    const page_data data = read_page_data(info);
    if (expect_page<T>(view_of(data), disk::page_type_nbt, page_level::any)) {
        return make_nbt_leaf(info, data);
    }
    return make_nonleaf<ulong, node_info>(info, data);
}

template <typename T>
std::shared_ptr<nbt_leaf_page> database_impl<T>::read_nbt_leaf_page(const page_info& info) {
    const page_data data = read_page_data(info);
    expect_page<T>(view_of(data), disk::page_type_nbt, page_level::leaf);
    return make_nbt_leaf(info, data);
}

template <typename T>
std::shared_ptr<bbt_leaf_page> database_impl<T>::read_bbt_leaf_page(const page_info& info) {
    const page_data data = read_page_data(info);
    expect_page<T>(view_of(data), disk::page_type_bbt, page_level::leaf);
    return make_bbt_leaf(info, data);
}

template <typename T>
std::shared_ptr<nbt_nonleaf_page> database_impl<T>::read_nbt_nonleaf_page(const page_info& info) {
    const page_data data = read_page_data(info);
    expect_page<T>(view_of(data), disk::page_type_nbt, page_level::nonleaf);
    return make_nonleaf<ulong, node_info>(info, data);
}

template <typename T>
std::shared_ptr<bbt_nonleaf_page> database_impl<T>::read_bbt_nonleaf_page(const page_info& info) {
    const page_data data = read_page_data(info);
    expect_page<T>(view_of(data), disk::page_type_bbt, page_level::nonleaf);
    return make_nonleaf<ulonglong, block_info>(info, data);
}

template <typename T>
block_id database_impl<T>::alloc_bid(block_kind kind) {
    const block_id id = m_header.bidNextB;
    m_header.bidNextB = static_cast<T>(m_header.bidNextB + block_id_step);
    return kind == block_kind::internal ? id | block_id_internal_bit : id;
}

namespace {

template <typename T>
extended_capacity capacity_of(ushort level) {
    using layout = disk::layout<T>;
    if (level == disk::extended_block_level) {
        return {layout::max_external_size, 1, layout::extended_child_count};
    }
    return {layout::max_extended_size, layout::extended_child_count, layout::extended_child_count};
}

/// Turns the records behind a block's header into values. @throws unexpected_block when there are fewer than announced
template <typename Entry, typename Value, typename Convert>
std::vector<Value> block_entries(byte_view data, std::size_t offset, std::size_t count, const Convert& convert) {
    if (!data.holds(offset, count * sizeof(Entry))) {
        throw unexpected_block("more entries than the block can hold");
    }
    std::vector<Value> values;
    values.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
        values.push_back(convert(data.read<Entry>(offset + i * sizeof(Entry))));
    }
    return values;
}

}  // namespace

template <typename T>
std::vector<byte> database_impl<T>::read_block_data(const block_info& info) const {
    const std::size_t size = layout::disk_size(info.size);
    if (size > disk::max_block_size) {
        throw unexpected_block("nonsensical block size");
    }
    const ulonglong end_of_file = m_header.root.ibFileEof;
    if (info.address > end_of_file || end_of_file - info.address < size) {
        throw unexpected_block("nonsensical block location; past eof");
    }
    std::vector<byte> data(size);
    m_budget->take_reading(data.size(), m_file.length());
    m_file.read(info.address, data.data(), data.size());
    const auto trailer = byte_view(data).read<disk::block_trailer<T>>(size - sizeof(disk::block_trailer<T>));
    if (trailer.bid != info.id) {
        throw unexpected_block("wrong block id");
    }
    if (trailer.cb != info.size) {
        throw unexpected_block("wrong block size");
    }
    const ushort signature = disk::compute_signature(info.id, info.address);
    if (trailer.wSig != signature) {
        throw sig_mismatch("block sig mismatch", info.address, info.id, signature, trailer.wSig);
    }
    return data;
}

template <typename T>
std::shared_ptr<block> database_impl<T>::read_block(const shared_db_ptr& db, const block_info& info) {
    try {
        return read_data_block(db, info);
    } catch (const unexpected_block&) {
        return read_subnode_block(db, info);
    }
}

template <typename T>
std::shared_ptr<data_block> database_impl<T>::read_data_block(const shared_db_ptr& db, const block_info& info) {
    if (!is_internal_block(info.id)) {
        return read_external_block(db, info);
    }
    // The id does not tell an extended block from a subnode block, the first byte does.
    std::array<byte, layout::block_trailer_size> start{};
    m_file.read(info.address, start.data(), start.size());
    if (byte_view(start.data(), start.size()).read<byte>(offsetof(disk::extended_block_header, btype)) !=
        disk::block_type_extended) {
        throw unexpected_block("extended block expected");
    }
    return read_extended_block(db, info);
}

template <typename T>
std::shared_ptr<external_block> database_impl<T>::read_external_block(const shared_db_ptr& db, const block_info& info) {
    if (info.id == 0) {
        return std::make_shared<external_block>(db, block_info{}, layout::max_external_size, std::vector<byte>());
    }
    if (is_internal_block(info.id)) {
        throw unexpected_block("External BID expected");
    }
    std::vector<byte> data = read_block_data(info);
    switch (static_cast<disk::crypt_method>(m_header.bCryptMethod)) {
        case disk::crypt_method::permute:
            disk::permute(data.data(), info.size);
            break;
        case disk::crypt_method::cyclic:
            disk::cyclic(data.data(), info.size, static_cast<ulong>(info.id));
            break;
        case disk::crypt_method::none:
        default:
            break;
    }
    return std::make_shared<external_block>(db, info, layout::max_external_size, std::move(data));
}

template <typename T>
std::shared_ptr<extended_block> database_impl<T>::read_extended_block(const shared_db_ptr& db, const block_info& info) {
    if (!is_internal_block(info.id)) {
        throw unexpected_block("internal bid expected");
    }
    const std::vector<byte> data = read_block_data(info);
    const byte_view room = byte_view(data).part(0, data.size() - layout::block_trailer_size);
    const auto header = room.read<disk::extended_block_header>(0);
    return std::make_shared<extended_block>(
        db, info, capacity_of<T>(header.cLevel), header.cLevel, header.lcbTotal,
        block_entries<T, block_id>(room, sizeof(header), header.cEnt, [](T id) { return block_id{id}; }),
        tree_place(m_file.length(), m_budget));
}

template <typename T>
std::shared_ptr<subnode_block> database_impl<T>::read_subnode_block(const shared_db_ptr& db, const block_info& info) {
    if (info.id == 0) {
        return std::make_shared<subnode_leaf_block>(db, block_info{}, std::vector<std::pair<node_id, subnode_info>>());
    }
    const std::vector<byte> data = read_block_data(info);
    if (byte_view(data).read<disk::subnode_block_header<T>>(0).cLevel != 0) {
        return make_subnode_nonleaf(db, info, data);
    }
    return make_subnode_leaf(db, info, data);
}

template <typename T>
std::shared_ptr<subnode_leaf_block> database_impl<T>::read_subnode_leaf_block(const shared_db_ptr& db, const block_info& info) {
    const std::vector<byte> data = read_block_data(info);
    if (byte_view(data).read<disk::subnode_block_header<T>>(0).cLevel != 0) {
        throw unexpected_block("psub->level != 0");
    }
    return make_subnode_leaf(db, info, data);
}

template <typename T>
std::shared_ptr<subnode_nonleaf_block> database_impl<T>::read_subnode_nonleaf_block(const shared_db_ptr& db,
                                                                                    const block_info& info) {
    const std::vector<byte> data = read_block_data(info);
    if (byte_view(data).read<disk::subnode_block_header<T>>(0).cLevel == 0) {
        throw unexpected_block("psub->level == 1");
    }
    return make_subnode_nonleaf(db, info, data);
}

template <typename T>
std::shared_ptr<subnode_leaf_block> database_impl<T>::make_subnode_leaf(const shared_db_ptr& db, const block_info& info,
                                                                        byte_view data) {
    using entry = disk::subnode_leaf_entry<T>;
    using pair = std::pair<node_id, subnode_info>;
    const byte_view room = data.part(0, data.size() - layout::block_trailer_size);
    const auto header = room.read<disk::subnode_block_header<T>>(0);
    return std::make_shared<subnode_leaf_block>(
        db, info, block_entries<entry, pair>(room, sizeof(header), header.cEnt, [](const entry& e) -> pair {
            const auto id = static_cast<node_id>(e.nid);
            return {id, subnode_info{id, e.bidData, e.bidSub}};
        }));
}

template <typename T>
std::shared_ptr<subnode_nonleaf_block> database_impl<T>::make_subnode_nonleaf(const shared_db_ptr& db, const block_info& info,
                                                                              byte_view data) {
    using entry = disk::subnode_child_entry<T>;
    using pair = std::pair<node_id, block_id>;
    const byte_view room = data.part(0, data.size() - layout::block_trailer_size);
    const auto header = room.read<disk::subnode_block_header<T>>(0);
    return std::make_shared<subnode_nonleaf_block>(
        db, info, tree_place(m_file.length()),
        block_entries<entry, pair>(room, sizeof(header), header.cEnt, [](const entry& e) -> pair {
            return {static_cast<node_id>(e.nid), block_id{e.bid}};
        }));
}

template <typename T>
std::shared_ptr<external_block> database_impl<T>::create_external_block(const shared_db_ptr& db, std::size_t size) {
    auto created = std::make_shared<external_block>(db, block_info{}, layout::max_external_size, std::vector<byte>(size), size);
    created->touch();
    return created;
}

template <typename T>
std::shared_ptr<extended_block> database_impl<T>::create_extended_block(const shared_db_ptr& db, std::size_t size) {
    const auto level =
        static_cast<ushort>(size <= layout::max_extended_size ? disk::extended_block_level : disk::extended_block_level + 1);
    const extended_capacity capacity = capacity_of<T>(level);
    const std::size_t children =
        static_cast<std::size_t>((size + capacity.child_max_total_size - 1) / capacity.child_max_total_size);
    auto created = std::make_shared<extended_block>(db, block_info{}, capacity, level, size, std::vector<block_id>(children));
    created->touch();
    return created;
}

namespace {

template <typename T, typename Child>
std::shared_ptr<extended_block> extended_block_above(const shared_db_ptr& db, const std::shared_ptr<Child>& child, ushort level) {
    auto created = std::make_shared<extended_block>(db, block_info{}, capacity_of<T>(level), level, child->get_total_size(),
                                                    std::vector<block_id>{child->get_id()});
    created->set_child_block(0, child);
    created->touch();
    return created;
}

}  // namespace

template <typename T>
std::shared_ptr<extended_block> database_impl<T>::create_extended_block(const shared_db_ptr& db,
                                                                        const std::shared_ptr<extended_block>& child) {
    return extended_block_above<T>(db, child, disk::extended_block_level + 1);
}

template <typename T>
std::shared_ptr<extended_block> database_impl<T>::create_extended_block(const shared_db_ptr& db,
                                                                        const std::shared_ptr<external_block>& child) {
    return extended_block_above<T>(db, child, disk::extended_block_level);
}

// An overload that takes an id looks the block up and goes on with what the block tree says.

template <typename T>
std::shared_ptr<block> database_impl<T>::read_block(const shared_db_ptr& db, block_id id) {
    return read_block(db, lookup_block_info(id));
}

template <typename T>
std::shared_ptr<data_block> database_impl<T>::read_data_block(const shared_db_ptr& db, block_id id) {
    return read_data_block(db, lookup_block_info(id));
}

template <typename T>
std::shared_ptr<extended_block> database_impl<T>::read_extended_block(const shared_db_ptr& db, block_id id) {
    return read_extended_block(db, lookup_block_info(id));
}

template <typename T>
std::shared_ptr<external_block> database_impl<T>::read_external_block(const shared_db_ptr& db, block_id id) {
    return read_external_block(db, lookup_block_info(id));
}

template <typename T>
std::shared_ptr<subnode_block> database_impl<T>::read_subnode_block(const shared_db_ptr& db, block_id id) {
    return read_subnode_block(db, lookup_block_info(id));
}

template <typename T>
std::shared_ptr<subnode_leaf_block> database_impl<T>::read_subnode_leaf_block(const shared_db_ptr& db, block_id id) {
    return read_subnode_leaf_block(db, lookup_block_info(id));
}

template <typename T>
std::shared_ptr<subnode_nonleaf_block> database_impl<T>::read_subnode_nonleaf_block(const shared_db_ptr& db, block_id id) {
    return read_subnode_nonleaf_block(db, lookup_block_info(id));
}

template class database_impl<ulong>;
template class database_impl<ulonglong>;

}  // namespace pstsdk
