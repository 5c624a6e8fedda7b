// Heaps, BTHs, property bags, streams and tables.
#include <gtest/gtest.h>

#include <algorithm>

#include "pstsdk/properties.h"
#include "pstsdk/streams.h"
#include "pstsdk/tables.h"
#include "store_reader.h"
#include "store_test.h"

namespace {

using namespace builder;
using pstsdk::const_table_row;
using pstsdk::heap_impl;
using pstsdk::property_bag;

constexpr NodeId kNode = 0x1000001;

class Layouts : public testing::TestWithParam<Layout> {};
INSTANTIATE_TEST_SUITE_P(Both, Layouts, testing::Values(Layout::Unicode, Layout::Ansi),
                         [](const auto& tested) { return tested.param == Layout::Unicode ? "Unicode" : "Ansi"; });

/** A store with one node of the given content. */
class NodeStore {
public:
    NodeStore(Layout layout, NodeContent content, NodeId id = kNode)
        : m_open(StoreBuilder(layout, Encoding::Cyclic).addNode(id, std::move(content))), node(m_open->lookup_node(id)) {}

private:
    OpenStore m_open;

public:
    pstsdk::node node;
};

Bytes filled(std::size_t size, std::size_t seed) {
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<std::uint8_t>(seed * 31 + i);
    }
    return bytes;
}

// ---------------------------------------------------------------------------------------------------------------- heap, BTH

TEST_P(Layouts, HeapItemsOnManyPages) {
    // Enough pages that the ninth, which carries a bitmap of fill levels in front of its items, is among them.
    HeapBuilder builder(GetParam(), HeapBuilder::kPropertyContext);
    std::vector<HeapId> ids;
    for (std::size_t i = 0; i < 80; ++i) {
        ids.push_back(builder.add(filled(i % 3 == 0 ? HeapBuilder::kMaxItem - i : 7 * i, i)));
    }
    builder.setRoot(ids[3]);
    NodeStore store(GetParam(), {builder.finish(), {}});
    ASSERT_GT(ids.back() >> 16, 9U);
    const heap_impl heap(store.node);
    EXPECT_EQ(heap.get_root_id(), ids[3]);
    for (std::size_t i = 0; i < ids.size(); ++i) {
        EXPECT_EQ(heap.read_item(ids[i]), filled(i % 3 == 0 ? HeapBuilder::kMaxItem - i : 7 * i, i)) << i;
    }
    EXPECT_EQ(heap.size(0), 0U);
    EXPECT_EQ(thrownBy([&] { heap.size(0xFFE0); }), "length_error: index > num_allocs");
    EXPECT_EQ(thrownBy([&] { heap.size(0x00010000); }), "length_error: index > num_allocs");
    EXPECT_EQ(thrownBy([&] { heap.size(0x7FFF0020); }), "out_of_range: index >= m_child_blocks.size()");
}

TEST(Heap, ReadsInsideAnItemOnly) {
    HeapBuilder builder(Layout::Unicode, 0x99);
    const HeapId item = builder.add(filled(8, 1));
    const HeapId empty = builder.add({});
    NodeStore store(Layout::Unicode, {builder.finish(), {}});
    const heap_impl heap(store.node);
    const auto read = [&](std::size_t size, HeapId id, pstsdk::ulong offset) {
        Bytes buffer(size);
        return heap.read(buffer, id, offset);
    };
    EXPECT_EQ(read(4, item, 4), 4U);
    EXPECT_EQ(read(0, item, 8), 0U);
    EXPECT_EQ(read(0, empty, 0), 0U);
    EXPECT_EQ(thrownBy([&] { read(9, item, 0); }), "length_error: buffer.size() > size()");
    EXPECT_EQ(thrownBy([&] { read(0, item, 9); }), "length_error: offset > size()");
    EXPECT_EQ(thrownBy([&] { read(4, item, 6); }), "length_error: size + offset > size()");
    EXPECT_EQ(thrownBy([&] { property_bag bag(store.node); }), "sig_mismatch: invalid client_sig");
}

TEST(Heap, NodesThatAreNone) {
    const auto outcome = [](Bytes data) {
        NodeStore store(Layout::Ansi, {std::move(data), {}});
        return thrownBy([&] { heap_impl heap(store.node); });
    };
    EXPECT_EQ(outcome({}), "out_of_range: offset >= size()");
    EXPECT_EQ(outcome(Bytes(11, 0xEC)), "out_of_range: sizeof(T) + offset >= size()");
    EXPECT_EQ(outcome(Bytes(12, 0xED)), "sig_mismatch: invalid heap_sig");
    EXPECT_EQ(outcome(Bytes(12, 0xEC)), "nothing");
}

TEST_P(Layouts, BthOfEveryDepth) {
    struct Case {
        std::size_t records;
        std::size_t itemBytes;
        pstsdk::ushort level;
    };
    for (const Case& test :
         {Case{0, 3580, 0}, Case{1, 8, 0}, Case{400, 3580, 0}, Case{500, 3580, 1}, Case{60, 40, 2}, Case{100, 16, 6}}) {
        SCOPED_TRACE(test.records);
        HeapBuilder builder(GetParam(), HeapBuilder::kTableContext);
        std::vector<BthRecord> records;
        for (std::size_t i = 0; i < test.records; ++i) {
            put(records.emplace_back(BthRecord{i * 3 + 5, {}}).value, i, 4);
        }
        const HeapId header = addBth(builder, 4, 4, records, test.itemBytes);
        NodeStore store(GetParam(), {builder.finish(), {}});
        const auto heap = std::make_shared<heap_impl>(store.node);
        const auto root = heap->open_bth<pstsdk::ulong, pstsdk::ulong>(header);
        EXPECT_EQ(root->get_level(), test.level);
        for (pstsdk::ulong i = 0; i < test.records; ++i) {
            ASSERT_EQ(root->lookup(i * 3 + 5), i);
            ASSERT_EQ(thrownBy([&] { root->lookup(i * 3 + 6); }), "key_not_found<ulong>");
        }
        EXPECT_EQ(thrownBy([&] { root->lookup(4); }), "key_not_found<ulong>");
        EXPECT_EQ(thrownBy([&] { heap->open_bth<pstsdk::ulong, pstsdk::ushort>(header); }), "logic_error: invalid entry size");
        EXPECT_EQ(thrownBy([&] { heap->open_bth<pstsdk::ushort, pstsdk::disk::prop_entry>(header); }),
                  "logic_error: invalid key size");
    }
}

// --------------------------------------------------------------------------------------------------------- bags and streams

TEST_P(Layouts, PropertiesOfEveryType) {
    const Bytes big = filled(20000, 4);
    PropertyList list(GetParam());
    list.property(0x3001, "a\xC3\xA9").property(0x3602, 0xFFFFFFFEU).property(0x360A, true).time(0x0039, 0x0102030405060708);
    list.property(0x0E33, std::uint64_t{0x8877665544332211}).property(0x0FF9, filled(3580, 1)).property(0x1013, big);
    list.property(0x0037, kString8, {0x41, 0xE9, 0})
        .property(0x1000, kString, {0x41, 0, 0x42, 0, 0x43})
        .property(0x0102, Bytes{});
    list.property(0x6805, kMultipleInteger32, {1, 0, 0, 0}).property(0x0100, kInteger16, {0x34, 0x12});
    NodeStore store(GetParam(), propertyContext(GetParam(), list.properties(), 16));
    const property_bag bag(store.node);

    std::vector<pstsdk::prop_id> ids;
    for (const auto& [id, property] : list.properties()) {
        ids.push_back(id);
        EXPECT_EQ(bag.prop_type(id), property.type);
        if (fixedSize(property.type) == 0 || fixedSize(property.type) == 8) {
            EXPECT_EQ(bag.read_bytes(id), property.value) << id;
            EXPECT_EQ(bag.prop_size(id), property.value.size());
        }
    }
    EXPECT_EQ(bag.list_props(), ids);
    EXPECT_EQ(bag.read_4(0x3602), 0xFFFFFFFEU);
    EXPECT_EQ(bag.read_2(0x0100), 0x1234);
    EXPECT_EQ(bag.read_1(0x360A), 1);
    EXPECT_EQ(bag.read_8(0x0E33), 0x8877665544332211U);
    EXPECT_EQ(bag.read_8(0x0039), 0x0102030405060708U);
    EXPECT_EQ(bag.read_text(0x3001), GetParam() == Layout::Unicode ? u"a\u00E9" : u"a\uFFE9");  // 8-bit text is sign-extended
    EXPECT_EQ(bag.read_text(0x0037), std::u16string(u"A\uFFE9\0", 3));
    EXPECT_EQ(bag.read_text(0x1000), u"AB");
    EXPECT_TRUE(bag.has_prop(0x0102));
    EXPECT_FALSE(bag.has_prop(0x0103));
    EXPECT_EQ(thrownBy([&] { bag.read_4(0x0103); }), "key_not_found<ushort>");
    EXPECT_EQ(thrownBy([&] { bag.open_prop(0x0103); }), "key_not_found<ushort>");
    EXPECT_EQ(property_bag(bag).read_bytes(0x1013), big);
}

TEST(Properties, AValueInAMissingSubnode) {
    PropertyList list(Layout::Unicode);
    list.property(0x1013, filled(5000, 1)).property(0x0FF9, filled(3, 1));
    NodeContent content = propertyContext(Layout::Unicode, list.properties());
    content.subnodes.clear();
    NodeStore store(Layout::Unicode, content);
    const property_bag bag(store.node);
    EXPECT_EQ(thrownBy([&] { bag.open_prop(0x1013); }), "key_not_found<ulong>");
    EXPECT_EQ(thrownBy([&] { bag.prop_size(0x1013); }), "key_not_found<ulong>");
    EXPECT_EQ(thrownBy([&] { bag.read_8(0x0FF9); }).substr(0, 16), "database_corrupt");
}

TEST_P(Layouts, StreamsSeekAndRead) {
    PropertyList list(GetParam());
    for (const std::size_t size : {0U, 100U, 3580U, 3581U, 30000U}) {
        list.property(static_cast<std::uint16_t>(size), filled(size, size));
    }
    NodeStore store(GetParam(), propertyContext(GetParam(), list.properties()));
    const property_bag bag(store.node);
    for (const auto& [id, property] : list.properties()) {
        SCOPED_TRACE(id);
        const auto size = static_cast<std::int64_t>(property.value.size());
        pstsdk::hnid_stream_device device = bag.open_prop(id);
        EXPECT_EQ(device.seek(0, std::ios_base::end), size);
        EXPECT_EQ(device.seek(1, std::ios_base::cur), size);
        EXPECT_EQ(device.seek(-size - 1, std::ios_base::cur), 0);
        EXPECT_EQ(device.seek(size + 1000, std::ios_base::beg), size);
        char byte = 0;
        EXPECT_EQ(device.read(&byte, 1), -1);

        pstsdk::hnid_stream stream(bag.open_prop(id));
        stream.seekg(0, std::ios_base::end);
        EXPECT_EQ(static_cast<std::int64_t>(stream.tellg()), size);
        stream.seekg(0);
        Bytes read(property.value.size());
        stream.read(reinterpret_cast<char*>(read.data()), size);
        EXPECT_EQ(stream.gcount(), size);
        EXPECT_EQ(read, property.value);
    }
}

// -------------------------------------------------------------------------------------------------------------------- tables

const std::vector<Column> kColumns = {{0x3001, kString},  {0x3602, kInteger32}, {0x0100, kInteger16},
                                      {0x0101, kBoolean}, {0x0039, kTime},      {0x1013, kBinary}};

/** Every third row lacks the cell 0x3602; the ids come in no order. */
std::vector<TableRow> rowsOf(Layout layout, std::size_t count) {
    std::vector<TableRow> rows;
    for (std::size_t i = 0; i < count; ++i) {
        PropertyList cells(layout);
        cells.property(0x3001, "row " + std::to_string(i)).property(0x0100, kInteger16, {7, static_cast<std::uint8_t>(i)});
        cells.property(0x0101, i % 2 == 0).time(0x0039, 0x1122334455667788 + i);
        if (i % 3 != 0) {
            cells.property(0x3602, static_cast<std::uint32_t>(i));
        }
        if (i == 5) {
            cells.property(0x1013, filled(9000, i));
        }
        rows.push_back({static_cast<std::uint32_t>(i * 7919 % 65521 * 4 + 4), cells.properties()});
    }
    return rows;
}

TEST_P(Layouts, TablesOfEverySize) {
    using Matrix = TableOptions::Matrix;
    struct Case {
        std::size_t rows;
        TableOptions options;
    };
    // In a heap item, in a subnode of one page, in one of many pages, with the row index of the other layout.
    for (const Case& test : {Case{0, {}}, Case{1, {}}, Case{50, {}}, Case{50, {Matrix::Subnode, 3580, 0}}, Case{2000, {}},
                             Case{900, {Matrix::Subnode, 24, 2}}, Case{900, {Matrix::WhereItFits, 24, 4}}}) {
        SCOPED_TRACE(test.rows);
        const std::vector<TableRow> rows = rowsOf(GetParam(), test.rows);
        NodeStore store(GetParam(), tableContext(GetParam(), kColumns, rows, test.options));
        const pstsdk::table table(store.node);
        ASSERT_EQ(table->row_count(), rows.size());
        EXPECT_EQ(table->column_list().size(), kColumns.size() + 2);
        for (pstsdk::ulong i = 0; i < rows.size(); ++i) {
            const const_table_row row = table[i];
            ASSERT_EQ(row.get_row_id(), rows[i].id);
            ASSERT_EQ(table->lookup_row(rows[i].id), i);
            ASSERT_EQ(row.read_bytes(0x3001), rows[i].cells.at(0x3001).value);
            ASSERT_EQ(row.read_2(0x0100), 7 | (i & 255) << 8);
            ASSERT_EQ(row.read_1(0x0101), i % 2 == 0 ? 1 : 0);
            ASSERT_EQ(row.read_8(0x0039), 0x1122334455667788 + i);
            ASSERT_EQ(row.has_prop(0x3602), i % 3 != 0);
            ASSERT_EQ(row.has_prop(0x1013), i == 5);
        }
        const auto last = static_cast<pstsdk::ulong>(rows.size());
        EXPECT_EQ(thrownBy([&] { table->row_id(last); }), "out_of_range: row >= size()");
        EXPECT_EQ(thrownBy([&] { table->cell_exists(last, 0x3602); }), "out_of_range: row >= size()");
        EXPECT_FALSE(table->cell_exists(last, 0x7777));
        EXPECT_EQ(thrownBy([&] { table->lookup_row(3); }), "key_not_found<ulong>");
        EXPECT_EQ(thrownBy([&] { table->column_type(0x7777); }), "key_not_found<ushort>");
        if (rows.size() > 5) {
            EXPECT_EQ(thrownBy([&] { table->get_cell_value(0, 0x3602); }), "key_not_found<ushort>");
            EXPECT_EQ(table[5].read_bytes(0x1013), filled(9000, 5));
            EXPECT_EQ(table[5].prop_size(0x1013), 9000U);
            EXPECT_EQ(table[5].list_props().size(), kColumns.size() + 2);
            EXPECT_EQ(table[6].list_props().size(), kColumns.size());
        }
    }
}

TEST(Tables, RowsDoNotCrossPages) {
    const std::vector<Column> columns = {{0x0039, kTime}, {0x0100, kInteger16}, {0x0101, kBoolean}};
    NodeContent content = tableContext(Layout::Unicode, columns, rowsOf(Layout::Unicode, 821));
    Bytes& matrix = content.subnodes.begin()->second.data;
    ASSERT_EQ(matrix.size(), 8176U + 8176U + 100U);  // 408 rows of 20 bytes, the same again, 5 rows
    putAt(matrix, 8176 + 20, 0xABCDEF, 4);
    NodeStore store(Layout::Unicode, content);
    const pstsdk::table table(store.node);
    EXPECT_EQ(table->row_count(), 821U);
    EXPECT_EQ(table->row_id(409), 0xABCDEFU);
}

TEST(Tables, KindsThatAreRefused) {
    const NodeContent sound = tableContext(Layout::Unicode, kColumns, {});
    NodeStore gust(Layout::Unicode, sound, 0x730);
    EXPECT_EQ(thrownBy([&] { pstsdk::open_table(gust.node); }), "not_implemented: gust table");
    NodeStore bag(Layout::Unicode, propertyContext(Layout::Unicode, {{0x3001, {kInteger32, {1, 2, 3, 4}}}}));
    EXPECT_EQ(thrownBy([&] { pstsdk::open_table(bag.node); }), "sig_mismatch: invalid client_sig");
    NodeContent without = tableContext(Layout::Unicode, kColumns, rowsOf(Layout::Unicode, 300));
    without.subnodes.clear();
    NodeStore store(Layout::Unicode, without);
    EXPECT_EQ(thrownBy([&] { pstsdk::open_table(store.node); }), "key_not_found<ulong>");
}

// -------------------------------------------------------------------------------------------------------------- whole stores

TEST_P(Layouts, MessagesDownToTheirAttachments) {
    StoreBuilder builder(GetParam(), Encoding::Permutative);
    Folder& inbox = builder.addFolder("Inbox");
    Folder& inner = inbox.addFolder("Inner");
    Message& mail = inbox.addMessage({.subject = "Hello",
                                      .subjectPrefix = "RE: ",
                                      .plainBody = std::string(9000, 'x'),
                                      .htmlBody = "<p>hi",
                                      .to = "A; B",
                                      .cc = "C",
                                      .importance = 2U});
    mail.attach({.name = "a.png", .longName = "long.png", .contentId = "id", .data = filled(9000, 9)});
    mail.attach({.name = "b.msg"}).embed({.subject = "inner", .plainBody = "body"});
    inner.addMessages(30, [](std::size_t i) { return MessageFields{.subject = "m" + std::to_string(i)}; });
    const OpenStore open(builder);

    const store_reader::ReadStore contents = store_reader::readStore(open.file.widePath());
    EXPECT_EQ(contents.exceptionCount(), 0U);
    EXPECT_EQ(contents.streamMismatches, 0U);
    EXPECT_EQ(contents.folders.size(), 6U);
    EXPECT_EQ(contents.messageCount(), 31U);

    const pstsdk::node node = open->lookup_node(mail.id());
    EXPECT_EQ(node.get_parent_id(), inbox.id());
    const property_bag bag(node);
    EXPECT_EQ(bag.read_text(0x0037), u"\1\5RE: Hello");
    EXPECT_EQ(bag.read_text(0x1000), std::u16string(9000, u'x'));
    EXPECT_EQ(bag.read_4(0x0017), 2U);
    EXPECT_EQ(pstsdk::table(node.lookup(0x692))->row_count(), 3U);
    const pstsdk::table attachments(node.lookup(0x671));
    const property_bag picture(node.lookup(attachments[0].get_row_id()));
    EXPECT_EQ(picture.read_bytes(0x3701), filled(9000, 9));
    EXPECT_EQ(picture.read_text(0x3707), u"long.png");
    const pstsdk::node item = node.lookup(attachments[1].get_row_id());
    const Bytes object = property_bag(item).read_bytes(0x3701);
    EXPECT_EQ(property_bag(item.lookup(static_cast<NodeId>(getAt(object, 0, 4)))).read_text(0x0037), u"inner");
}

}  // namespace
