#include "store_reader.h"

#include <algorithm>
#include <boost/core/demangle.hpp>
#include <typeinfo>

#include "pstsdk/properties.h"
#include "pstsdk/streams.h"
#include "pstsdk/tables.h"

namespace store_reader {

// One by one: the C library has a ulong and a ushort of its own.
using pstsdk::block_id;
using pstsdk::btree_begin;
using pstsdk::btree_end;
using pstsdk::byte;
using pstsdk::byte_view;
using pstsdk::hnid_stream;
using pstsdk::key_not_found;
using pstsdk::node;
using pstsdk::node_id;
using pstsdk::node_info;
using pstsdk::node_type_mask;
using pstsdk::open_database;
using pstsdk::prop_id;
using pstsdk::prop_type_string8;
using pstsdk::property_bag;
using pstsdk::shared_db_ptr;
using pstsdk::subnode_info;
using pstsdk::table;
using pstsdk::ulong;
using pstsdk::ulonglong;
using pstsdk::ushort;

namespace {

constexpr ulong typeNormalFolder = 0x02;
constexpr ulong typeContentsTable = 0x0E;
constexpr node_id attachmentTableId = 0x671;
constexpr unsigned maxSubnodeDepth = 8;
constexpr prop_id streamedProperties[] = {0x1000, 0x1009, 0x1013, 0x3701};

struct LimitReached {};

class Reader {
public:
    Reader(shared_db_ptr database, ReadStore& result, const ReadLimits& readLimits)
        : db(std::move(database)), store(result), limits(readLimits) {}

    void allNodes();
    void allFolders();

private:
    /// Runs a step and counts what it throws; the steps behind it go on.
    template <typename Step>
    void attempt(const Step& step) {
        try {
            step();
        } catch (const std::bad_alloc&) {
            throw;
        } catch (const std::exception& e) {
            ++store.exceptions[boost::core::demangle(typeid(e).name()) + ": " + e.what()];
        }
    }

    template <typename Visit>
    void eachNode(const Visit& visit);

    void entry() {
        if (++entries > limits.entries) {
            throw LimitReached();
        }
    }
    void content(ulonglong count) {
        bytes += count;
        if (bytes > limits.bytes) {
            throw LimitReached();
        }
    }

    void data(const node& n);
    void subnodes(block_id top, unsigned depth);
    ReadBag bag(const property_bag& source);
    ReadProperty property(const property_bag& source, prop_id id);
    void stream(const property_bag& source, const ReadProperty& property);
    ReadTable readTable(const table& source);
    ReadRow row(const table& source, ulong number, const std::vector<ReadColumn>& columns);
    ReadFolder folder(const node_info& info);
    ReadMessage message(const node& n);

    shared_db_ptr db;
    ReadStore& store;
    ReadLimits limits;
    ulonglong entries = 0;
    ulonglong bytes = 0;
};

template <typename Visit>
void Reader::eachNode(const Visit& visit) {
    attempt([&] {
        const auto root = db->read_nbt_root();
        const auto end = btree_end<ulong, node_info>(*root);
        for (auto at = btree_begin<ulong, node_info>(*root); !(at == end); at.leaf->next(at)) {
            entry();
            visit(at.leaf->get_value(at.pos));
        }
    });
}

void Reader::data(const node& n) {
    std::vector<byte> page;
    const ulong count = n.get_page_count();
    for (ulong i = 0; i < count; ++i) {
        entry();
        page.resize(static_cast<std::size_t>(n.get_page_size(i)));
        content(page.size());
        store.dataBytes += n.read(page, i, 0);
    }
}

void Reader::subnodes(block_id top, unsigned depth) {
    if (top == 0 || depth == maxSubnodeDepth) {
        return;
    }
    const auto root = db->read_subnode_block(top);
    const auto end = btree_end<ulong, subnode_info>(*root);
    for (auto at = btree_begin<ulong, subnode_info>(*root); !(at == end); at.leaf->next(at)) {
        entry();
        ++store.subnodeCount;
        const subnode_info info = at.leaf->get_value(at.pos);
        attempt([&] {
            attempt([&] { data(node(db, node_info{info.id, info.data_bid, info.subnode_bid, 0})); });
            subnodes(info.subnode_bid, depth + 1);
        });
    }
}

void Reader::allNodes() {
    eachNode([&](const node_info& info) {
        ++store.nodeCount;
        attempt([&] { data(node(db, info)); });
        attempt([&] { subnodes(info.subnode_bid, 0); });
    });
}

bool standsInEntry(ushort type) {
    switch (type) {
        case 0x0002:  // PtypInteger16
        case 0x0003:  // PtypInteger32
        case 0x0004:  // PtypFloating32
        case 0x000A:  // PtypErrorCode
        case 0x000B:  // PtypBoolean
            return true;
        default:
            return false;
    }
}

std::vector<std::uint8_t> littleEndian(ulonglong number, std::size_t size) {
    std::vector<std::uint8_t> result(size);
    for (std::size_t i = 0; i < size; ++i) {
        result[i] = static_cast<std::uint8_t>(number >> (8 * i));
    }
    return result;
}

void Reader::stream(const property_bag& source, const ReadProperty& property) {
    hnid_stream in(source.open_prop(property.id));
    in.seekg(0, std::ios_base::end);
    const std::streamoff size = in.tellg();
    in.seekg(0, std::ios_base::beg);
    content(static_cast<ulonglong>(size));
    std::vector<std::uint8_t> streamed(static_cast<std::size_t>(size));
    in.read(reinterpret_cast<char*>(streamed.data()), size);
    if (in.gcount() != size || streamed != property.value) {
        ++store.streamMismatches;
    }
}

ReadProperty Reader::property(const property_bag& source, prop_id id) {
    ReadProperty result{id, source.prop_type(id), {}};
    if (standsInEntry(result.type)) {
        result.value = littleEndian(source.read_4(id), 4);
        return result;
    }
    content(source.prop_size(id));
    result.value = source.read_bytes(id);
    if (std::find(std::begin(streamedProperties), std::end(streamedProperties), id) != std::end(streamedProperties)) {
        attempt([&] { stream(source, result); });
    }
    return result;
}

ReadBag Reader::bag(const property_bag& source) {
    ReadBag result{source.get_node().get_id(), {}};
    attempt([&] {
        for (const prop_id id : source.list_props()) {
            entry();
            attempt([&] { result.properties.push_back(property(source, id)); });
        }
    });
    return result;
}

ReadRow Reader::row(const table& source, ulong number, const std::vector<ReadColumn>& columns) {
    ReadRow result{source->row_id(number), {}};
    for (const ReadColumn& column : columns) {
        entry();
        attempt([&] {
            if (!source->cell_exists(number, column.id)) {
                return;
            }
            ReadProperty cell{column.id, column.type, littleEndian(source->get_cell_value(number, column.id), 8)};
            // The cells of these types hold a reference to their text or bytes.
            if (column.type == 0x001E || column.type == 0x001F || column.type == 0x0102) {
                content(source->cell_size(number, column.id));
                cell.value = source->read_cell(number, column.id);
            }
            result.cells.push_back(std::move(cell));
        });
    }
    return result;
}

ReadTable Reader::readTable(const table& source) {
    ReadTable result;
    for (const prop_id id : source->column_list()) {
        result.columns.push_back({id, source->column_type(id)});
    }
    std::sort(result.columns.begin(), result.columns.end(), [](const ReadColumn& a, const ReadColumn& b) { return a.id < b.id; });
    const ulong count = source->row_count();
    for (ulong number = 0; number < count; ++number) {
        entry();
        attempt([&] { result.rows.push_back(row(source, number, result.columns)); });
    }
    return result;
}

ReadMessage Reader::message(const node& n) {
    ReadMessage result;
    result.bag = bag(property_bag(n));
    attempt([&] {
        try {
            result.attachmentTable = readTable(table(n.lookup(attachmentTableId)));
        } catch (const key_not_found<ulong>&) {
            return;  // no attachments
        }
        for (const ReadRow& row : result.attachmentTable.rows) {
            attempt([&] { result.attachments.push_back(bag(property_bag(n.lookup(row.rowId)))); });
        }
    });
    return result;
}

ReadFolder Reader::folder(const node_info& info) {
    ReadFolder result;
    attempt([&] { result.bag = bag(property_bag(node(db, info))); });
    attempt([&] {
        const node_id contentsId = (info.id & ~node_type_mask) | typeContentsTable;
        result.contents = readTable(table(db->lookup_node(contentsId)));
    });
    for (const ReadRow& row : result.contents.rows) {
        attempt([&] { result.messages.push_back(message(db->lookup_node(row.rowId))); });
    }
    return result;
}

void Reader::allFolders() {
    eachNode([&](const node_info& info) {
        if ((info.id & node_type_mask) == typeNormalFolder) {
            store.folders.push_back(folder(info));
        }
    });
}

}  // namespace

const ReadProperty* ReadBag::find(std::uint16_t id) const {
    const auto found = std::find_if(properties.begin(), properties.end(), [id](const ReadProperty& p) { return p.id == id; });
    return found == properties.end() ? nullptr : &*found;
}

std::u16string ReadBag::text(std::uint16_t id) const {
    std::u16string result;
    if (const ReadProperty* property = find(id)) {
        const std::vector<std::uint8_t>& value = property->value;
        const std::size_t unit = property->type == prop_type_string8 ? 1 : 2;
        for (std::size_t i = 0; i + unit <= value.size(); i += unit) {
            result.push_back(static_cast<char16_t>(unit == 1 ? value[i] : value[i] | value[i + 1] << 8));
        }
    }
    return result;
}

std::optional<std::uint32_t> ReadBag::number(std::uint16_t id) const {
    const ReadProperty* property = find(id);
    if (property == nullptr || property->value.size() != 4) {
        return std::nullopt;
    }
    return byte_view(property->value).read<ulong>(0);
}

std::uint64_t ReadStore::messageCount() const {
    std::uint64_t count = 0;
    for (const ReadFolder& folder : folders) {
        count += folder.messages.size();
    }
    return count;
}

std::uint64_t ReadStore::exceptionCount() const {
    std::uint64_t count = 0;
    for (const auto& exception : exceptions) {
        count += exception.second;
    }
    return count;
}

void readAllNodes(const shared_db_ptr& db, ReadStore& store, const ReadLimits& limits) {
    try {
        Reader(db, store, limits).allNodes();
    } catch (const LimitReached&) {
        store.limitReached = true;
    }
}

void readAllFolders(const shared_db_ptr& db, ReadStore& store, const ReadLimits& limits) {
    try {
        Reader(db, store, limits).allFolders();
    } catch (const LimitReached&) {
        store.limitReached = true;
    }
}

ReadStore readStore(const std::u16string& path, const ReadLimits& limits) {
    ReadStore store;
    try {
        const shared_db_ptr db = open_database(path);
        readAllNodes(db, store, limits);
        readAllFolders(db, store, limits);
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception& e) {
        ++store.exceptions[boost::core::demangle(typeid(e).name()) + ": " + e.what()];
    }
    return store;
}

}  // namespace store_reader
