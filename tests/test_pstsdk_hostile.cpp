// Damaged and hostile stores: each case says what was changed in a sound store and which exception names it.
#include <gtest/gtest.h>

#include "pstsdk/properties.h"
#include "pstsdk/streams.h"
#include "pstsdk/tables.h"
#include "store_reader.h"
#include "store_test.h"

namespace {

using namespace builder;

constexpr NodeId kNode = 0x1000001;
constexpr NodeId kOther = 0x1000021;
constexpr NodeId kSub = 0x801F;
constexpr std::uint32_t kGigabytes = 0xFFFFFFF0;

/** A store with small pages and subnode blocks, so that its trees have levels: kNode has three blocks and 12 subnodes. */
StoreImage soundImage(Layout layout = Layout::Unicode) {
    LayoutOptions options{layout, Encoding::Permutative};
    options.pageEntries = 4;
    options.subnodeEntries = 4;
    StoreBuilder store(options);
    NodeContent content{Bytes(20000, 0x55), {}};
    for (NodeId i = 0; i < 12; ++i) {
        content.subnodes.emplace(kSub + i * 32, NodeContent{Bytes(100, 0x66), {}});
    }
    store.addNode(kNode, content).addNode(kOther, {Bytes(100, 0x77), {}});
    store.addFolder("Inbox").addMessage({.subject = "Hello", .plainBody = std::string(9000, 'x')});
    return store.image();
}

struct Field {
    std::string place;
    std::size_t offset;
};

/** Finds the entry of a key in the leaf pages of a Unicode store's tree. */
Field entryOf(const StoreImage& image, const std::string& tree, std::size_t stride, std::uint64_t key) {
    for (std::size_t leaf = 0;; ++leaf) {
        const std::string name = tree + " leaf " + std::to_string(leaf);
        const Bytes page = image.content(name);  // ends the search with an exception behind the last leaf
        for (std::size_t i = 0; i < page[488]; ++i) {
            if (getAt(page, i * stride, 8) == key) {
                return {name, i * stride};
            }
        }
    }
}

Field blockEntry(const StoreImage& image, const std::string& block) {
    return entryOf(image, "bbt", 24, image.place(block).id);
}

Field nodeEntry(const StoreImage& image, NodeId id) {
    return entryOf(image, "nbt", 32, id);
}

void damageAt(StoreImage& image, const Field& field, std::size_t offset, std::uint64_t value, std::size_t width) {
    image.damageNumber(field.place, field.offset + offset, value, width);
}

/** Looks all nodes up and reads all their bytes, and those of kNode's subnodes. */
void readNodes(pstsdk::db_context& db) {
    for (const NodeId id : {NodeId{0x21}, kNode, kOther}) {
        bytesOf(db.lookup_node(id));
    }
    const pstsdk::node node = db.lookup_node(kNode);
    for (NodeId i = 0; i < 12; ++i) {
        bytesOf(node.lookup(kSub + i * 32));
    }
}

/** What a walk over a damaged store still finds: all nodes and messages, all nodes but no message, no node, or something else. */
enum class Survivors { All, Nodes, None, Other };

struct Case {
    const char* what;
    std::function<void(StoreImage&)> damage;
    /** What is thrown, or how it begins where only the class is settled. */
    const char* outcome;
    std::function<void(pstsdk::db_context&)> read = readNodes;
};

void check(const std::vector<Case>& cases, const StoreImage& sound = soundImage(), Survivors expected = Survivors::All) {
    const OpenStore soundStore(sound);
    const store_reader::ReadStore all = store_reader::readStore(soundStore.file.widePath());
    for (const Case& test : cases) {
        SCOPED_TRACE(test.what);
        StoreImage image = sound;
        test.damage(image);
        const OpenStore open(image);
        const std::string outcome = thrownBy([&] { test.read(*open.db); });
        EXPECT_EQ(outcome.substr(0, std::string(test.outcome).size()), test.outcome) << outcome;
        const store_reader::ReadStore left = store_reader::readStore(open.file.widePath());
        const Survivors survivors = left.nodeCount == 0 ? Survivors::None
                                    : left.nodeCount == all.nodeCount && left.messageCount() == all.messageCount()
                                        ? Survivors::All
                                    : left.nodeCount == all.nodeCount && left.messageCount() == 0 ? Survivors::Nodes
                                                                                                  : Survivors::Other;
        EXPECT_EQ(survivors, expected) << left.nodeCount << " nodes, " << left.messageCount() << " messages";
    }
}

constexpr std::size_t kRootOfNodes = 216;  // BREFNBT in the Unicode header: id, offset
constexpr std::size_t kEndOfFile = 184;    // ibFileEof
constexpr std::size_t kPageCount = 488;

TEST(Corruption, Pages) {
    check({
        {"nothing", [](StoreImage&) {}, "nothing"},
        {"checksum of the root page", [](StoreImage& i) { i.damageNumber("trailer of nbt root", 4, 0, 4); }, "nothing"},
        {"maximum and size of entries",
         [](StoreImage& i) {
             i.damage("nbt root", kPageCount + 1, {0, 1});
         },
         "nothing"},
        {"high half of a node id, which does not count",
         [](StoreImage& i) { damageAt(i, nodeEntry(i, kNode), 4, 0xFFFFFFFF, 4); }, "nothing"},
        {"one entry more than a leaf of blocks holds", [](StoreImage& i) { i.damageNumber("bbt leaf 0", kPageCount, 21, 1); },
         "database_corrupt"},
        {"a block tree in a circle",
         [](StoreImage& i) {
             const Place root = i.place("bbt root");
             i.damageNumber("bbt level 1 page 0", 8, root.id, 8).damageNumber("bbt level 1 page 0", 16, root.address, 8);
         },
         "database_corrupt"},
    });
    check(
        {
            {"a page of nodes as the root of the blocks",
             [](StoreImage& i) {
                 i.damage("trailer of bbt root", 0, {0x81, 0x81});
             },
             "unexpected_page: page_type != page_type_bbt"},
            {"root in the last bytes of the file",
             [](StoreImage& i) { i.damageNumber("header", kEndOfFile, i.place("nbt root").address + 512, 8); }, "nothing",
             [](pstsdk::db_context& db) { db.read_nbt_root(); }},
        },
        soundImage(), Survivors::Nodes);
    check(
        {
            {"page id", [](StoreImage& i) { i.damageNumber("trailer of nbt root", 8, 9999, 8); },
             "unexpected_page: wrong page id"},
            {"second type byte", [](StoreImage& i) { i.damage("trailer of nbt root", 1, {0x80}); },
             "database_corrupt: ptype != ptype repeat?"},
            {"a page of blocks as the root of the nodes",
             [](StoreImage& i) {
                 i.damage("trailer of nbt root", 0, {0x80, 0x80});
             },
             "unexpected_page: page_type != page_type_nbt"},
            {"signature",
             [](StoreImage& i) {
                 i.damage("trailer of nbt root", 2, {1, 2});
             },
             "sig_mismatch: page sig mismatch"},
            {"root at the end of the file",
             [](StoreImage& i) { i.damageNumber("header", kRootOfNodes + 8, i.bytes().size() - 511, 8); },
             "unexpected_page: nonsensical page location; past eof"},
            {"root one byte over the end of the file",
             [](StoreImage& i) { i.damageNumber("header", kEndOfFile, i.place("nbt root").address + 511, 8); },
             "unexpected_page: nonsensical page location; past eof", [](pstsdk::db_context& db) { db.read_nbt_root(); }},
            {"root at an offset that wraps", [](StoreImage& i) { i.damageNumber("header", kRootOfNodes + 8, ~0ULL - 100, 8); },
             "unexpected_page: nonsensical page location; past eof"},
            {"root between two sectors", [](StoreImage& i) { i.damageNumber("header", kRootOfNodes + 8, 0x4410, 8); },
             "unexpected_page: nonsensical page location; not sector aligned"},
            {"end of the file as announced lies behind its real end",
             [](StoreImage& i) {
                 const std::size_t end = i.bytes().size();
                 i.damageNumber("header", kEndOfFile, 1ULL << 40, 8).damageNumber("header", kRootOfNodes + 8, end, 8);
             },
             "out_of_range: fread failed"},
            {"one entry more than a leaf of nodes holds",
             [](StoreImage& i) { i.damageNumber(nodeEntry(i, kNode).place, kPageCount, 16, 1); }, "database_corrupt"},
            {"255 children", [](StoreImage& i) { i.damageNumber("nbt root", kPageCount, 255, 1); }, "database_corrupt"},
            {"no children", [](StoreImage& i) { i.damageNumber("nbt root", kPageCount, 0, 1); }, "key_not_found<ulong>"},
            {"a root page that is its own child",
             [](StoreImage& i) {
                 const Place root = i.place("nbt root");
                 i.damageNumber("nbt root", 8, root.id, 8).damageNumber("nbt root", 16, root.address, 8);
             },
             "database_corrupt"},
        },
        soundImage(), Survivors::None);
}

TEST(Corruption, Blocks) {
    const std::string block = "block 1 of node 0x1000001";
    const std::string xblock = "extended block of node 0x1000001";
    const std::string small = "block of node 0x1000021";
    check({
        {"checksum", [&](StoreImage& i) { i.damageNumber("trailer of " + block, 4, 0, 4); }, "nothing"},
        {"id", [&](StoreImage& i) { i.damageNumber("trailer of " + block, 8, 4, 8); }, "unexpected_block: wrong block id"},
        {"size", [&](StoreImage& i) { i.damageNumber("trailer of " + block, 0, 8175, 2); }, "unexpected_block: wrong block size"},
        {"signature",
         [&](StoreImage& i) {
             i.damage("trailer of " + block, 2, {1, 2});
         },
         "sig_mismatch: block sig mismatch"},
        {"size in the tree above 8176", [&](StoreImage& i) { damageAt(i, blockEntry(i, small), 16, 8177, 2); },
         "unexpected_block: nonsensical block size"},
        {"largest size", [&](StoreImage& i) { damageAt(i, blockEntry(i, small), 16, 0xFFFF, 2); },
         "unexpected_block: nonsensical block size"},
        {"offset behind the end of the file",
         [&](StoreImage& i) { damageAt(i, blockEntry(i, small), 8, i.bytes().size() - 127, 8); },
         "unexpected_block: nonsensical block location; past eof"},
        {"offset that wraps", [&](StoreImage& i) { damageAt(i, blockEntry(i, small), 8, ~0ULL, 8); },
         "unexpected_block: nonsensical block location; past eof"},
        {"block that the tree does not hold", [&](StoreImage& i) { damageAt(i, nodeEntry(i, kNode), 8, 0xFFFFF0, 8); },
         "key_not_found<ulonglong>"},
        {"subnode block as data",
         [&](StoreImage& i) { damageAt(i, nodeEntry(i, kNode), 8, i.place("subnodes of node 0x1000001").id, 8); },
         "unexpected_block: extended block expected"},
        {"type of the extended block", [&](StoreImage& i) { i.damage(xblock, 0, {3}); },
         "unexpected_block: extended block expected"},
        {"more children than the block holds", [&](StoreImage& i) { i.damageNumber(xblock, 2, 0xFFFF, 2); }, "unexpected_block"},
        {"fewer children than bytes", [&](StoreImage& i) { i.damageNumber(xblock, 2, 2, 2); },
         "out_of_range: index >= m_child_blocks.size()"},
        {"an extended block among its own children",
         [&](StoreImage& i) { i.damageNumber(xblock, 8, i.place(xblock).id, 8).damage(xblock, 1, {2}); }, "database_corrupt"},
        {"a short child in the middle", [&](StoreImage& i) { i.damageNumber(xblock, 16, i.place(small).id, 8); },
         "unexpected_block"},
        {"fewer bytes than the children hold", [&](StoreImage& i) { i.damageNumber(xblock, 4, 10, 4); }, "nothing"},
        {"gigabytes in three blocks", [&](StoreImage& i) { i.damageNumber(xblock, 4, kGigabytes, 4); }, "unexpected_block"},
        {"gigabytes, of which the first page is read", [&](StoreImage& i) { i.damageNumber(xblock, 4, kGigabytes, 4); },
         "nothing", [](pstsdk::db_context& db) { EXPECT_EQ(db.lookup_node(kNode).get_page_size(0), 8176U); }},
        {"more bytes than the children hold", [&](StoreImage& i) { i.damageNumber(xblock, 4, 24529, 4); }, "unexpected_block"},
    });
}

TEST(Corruption, AnsiPagesAndBlocks) {
    const std::string block = "block 1 of node 0x1000001";
    constexpr std::size_t pageCount = 496;
    check(
        {
            {"nothing", [](StoreImage&) {}, "nothing"},
            {"checksums",
             [&](StoreImage& i) { i.damageNumber("trailer of " + block, 8, 0, 4).damageNumber("trailer of nbt root", 8, 0, 4); },
             "nothing"},
            {"one entry more than a leaf of blocks holds", [](StoreImage& i) { i.damageNumber("bbt leaf 0", pageCount, 42, 1); },
             "database_corrupt"},
            {"block id", [&](StoreImage& i) { i.damageNumber("trailer of " + block, 4, 4, 4); },
             "unexpected_block: wrong block id"},
            {"block size", [&](StoreImage& i) { i.damageNumber("trailer of " + block, 0, 1, 2); },
             "unexpected_block: wrong block size"},
            {"more subnodes than a leaf holds",
             [](StoreImage& i) { i.damageNumber("subnode leaf 0 of node 0x1000001", 2, 682, 2); }, "unexpected_block"},
        },
        soundImage(Layout::Ansi));
    check(
        {
            {"page id", [](StoreImage& i) { i.damageNumber("trailer of nbt root", 4, 9999, 4); },
             "unexpected_page: wrong page id"},
            {"page signature",
             [](StoreImage& i) {
                 i.damage("trailer of nbt root", 2, {1, 2});
             },
             "sig_mismatch: page sig mismatch"},
            {"one entry more than a leaf of nodes holds", [](StoreImage& i) { i.damageNumber("nbt leaf 0", pageCount, 32, 1); },
             "database_corrupt"},
        },
        soundImage(Layout::Ansi), Survivors::None);
}

TEST(Corruption, Subnodes) {
    const std::string top = "subnodes of node 0x1000001";
    const std::string leaf = "subnode leaf 0 of node 0x1000001";
    const auto family = [](auto read) { return [read](pstsdk::db_context& db) { read(db, db.lookup_node_info(kNode)); }; };
    const auto nothing = [](StoreImage&) {};
    const auto self = [](pstsdk::db_context& db) { return db.shared_from_this(); };
    check({
        {"type byte, which is not tested", [&](StoreImage& i) { i.damage(top, 0, {9}); }, "nothing"},
        {"more entries than a leaf holds", [&](StoreImage& i) { i.damageNumber(leaf, 2, 400, 2); }, "unexpected_block"},
        {"more entries than an index holds", [&](StoreImage& i) { i.damageNumber(top, 2, 0xFFFF, 2); }, "unexpected_block"},
        {"no entries", [&](StoreImage& i) { i.damageNumber(top, 2, 0, 2); }, "key_not_found<ulong>"},
        {"an index that is its own child", [&](StoreImage& i) { i.damageNumber(top, 16, i.place(top).id, 8); },
         "database_corrupt"},
        {"a leaf that is missing", [&](StoreImage& i) { i.damageNumber(top, 16, 0xFFFFF2, 8); }, "key_not_found<ulonglong>"},
        {"data of a subnode that is missing", [&](StoreImage& i) { i.damageNumber(leaf, 16, 0xFFFFF0, 8); },
         "key_not_found<ulonglong>"},
        {"an index read as a leaf", nothing, "unexpected_block: psub->level != 0",
         family([&](auto& db, auto info) { db.read_subnode_leaf_block(self(db), info.subnode_bid); })},
        {"a leaf read as an index", nothing, "unexpected_block: psub->level == 1",
         family([&](auto& db, auto) { db.read_subnode_nonleaf_block(self(db), soundImage().place(leaf).id); })},
        {"structure read as content", nothing, "unexpected_block: External BID expected",
         family([&](auto& db, auto info) { db.read_external_block(self(db), info.subnode_bid); })},
        {"content read as structure", nothing, "unexpected_block: internal bid expected",
         family([&](auto& db, auto) { db.read_extended_block(self(db), db.lookup_node_info(kOther).data_bid); })},
        {"a block of either family", nothing, "nothing", family([&](auto& db, auto info) {
             EXPECT_TRUE(db.read_block(self(db), info.subnode_bid)->is_internal());
             EXPECT_FALSE(db.read_block(self(db), db.lookup_node_info(kOther).data_bid)->is_internal());
         })},
    });
}

// ------------------------------------------------------------------------------------------------------- heaps, bags, tables

constexpr const char* kHeap = "block of node 0x1000001";

/** A store whose kNode is the given heap. Damage goes to offsets of its first page. */
StoreImage imageOf(NodeContent content) {
    return StoreBuilder(Layout::Unicode, Encoding::Cyclic).addNode(kNode, std::move(content)).image();
}

Field item(const StoreImage& image, HeapId id) {
    return {kHeap, heapItemOffset(image.content(kHeap), id, Layout::Unicode)};
}

Field rootItem(const StoreImage& image) {
    return item(image, static_cast<HeapId>(getAt(image.content(kHeap), 4, 4)));
}

std::size_t mapOffset(const StoreImage& image) {
    return getAt(image.content(kHeap), 0, 2);
}

void readBag(pstsdk::db_context& db) {
    const pstsdk::property_bag bag(db.lookup_node(kNode));
    for (const pstsdk::prop_id id : bag.list_props()) {
        bag.read_bytes(id);
    }
}

TEST(Corruption, HeapsAndBags) {
    PropertyList list(Layout::Unicode);
    for (std::uint16_t id = 0x3001; id < 0x3011; ++id) {
        list.property(id, Bytes(id - 0x3000U, 1));
    }
    const StoreImage sound = imageOf(propertyContext(Layout::Unicode, list.properties(), 32));
    const std::size_t end = sound.content(kHeap).size();
    const auto root = [](const StoreImage& i) {  // the index item above the leaves
        return item(i, static_cast<HeapId>(getAt(i.content(kHeap), rootItem(i).offset + 4, 4)));
    };
    check(
        {
            {"nothing", [](StoreImage&) {}, "nothing", readBag},
            {"heap signature", [](StoreImage& i) { i.damage(kHeap, 2, {0xED}); }, "sig_mismatch: invalid heap_sig", readBag},
            {"client signature", [](StoreImage& i) { i.damage(kHeap, 3, {0x7C}); }, "sig_mismatch: invalid client_sig", readBag},
            {"map behind its page", [&](StoreImage& i) { i.damageNumber(kHeap, 0, end + 1, 2); },
             "length_error: page_map_offset > node size", readBag},
            {"map at the very end of its page", [&](StoreImage& i) { i.damageNumber(kHeap, 0, end, 2); }, "length_error",
             readBag},
            {"map cut by the end of its page", [&](StoreImage& i) { i.damageNumber(kHeap, 0, end - 6, 2); }, "length_error",
             readBag},
            {"more items than the map holds", [](StoreImage& i) { i.damageNumber(kHeap, mapOffset(i), 0xFFFF, 2); },
             "length_error", readBag},
            {"fewer items than ids", [](StoreImage& i) { i.damageNumber(kHeap, mapOffset(i), 1, 2); },
             "length_error: index > num_allocs", readBag},
            {"an item that ends before it starts", [](StoreImage& i) { i.damageNumber(kHeap, mapOffset(i) + 4, 300, 2); },
             "length_error", readBag},
            {"an item that ends behind its page", [](StoreImage& i) { i.damageNumber(kHeap, mapOffset(i) + 6, 0xFFF0, 2); },
             "length_error", readBag},
            {"root on a page that is not there", [](StoreImage& i) { i.damageNumber(kHeap, 4, 0x00100020, 4); },
             "out_of_range: index > 0", readBag},
            {"no root", [](StoreImage& i) { i.damageNumber(kHeap, 4, 0, 4); }, "length_error: buffer.size() > size()", readBag},
            {"signature of the tree", [](StoreImage& i) { damageAt(i, rootItem(i), 0, 0xB6, 1); },
             "sig_mismatch: bth_signature expected", readBag},
            {"key size", [](StoreImage& i) { damageAt(i, rootItem(i), 1, 4, 1); }, "logic_error: invalid key size", readBag},
            {"entry size", [](StoreImage& i) { damageAt(i, rootItem(i), 2, 0, 1); }, "logic_error: invalid entry size", readBag},
            {"255 levels", [](StoreImage& i) { damageAt(i, rootItem(i), 3, 255, 1); }, "database_corrupt", readBag},
            {"an index item that is its own child, 30 levels up",
             [&](StoreImage& i) {
                 const std::uint64_t id = getAt(i.content(kHeap), rootItem(i).offset + 4, 4);
                 for (std::size_t record = 0; record < 2; ++record) {
                     damageAt(i, root(i), record * 6 + 2, id, 4);
                 }
                 damageAt(i, rootItem(i), 3, 30, 1);
             },
             "database_corrupt", readBag},
        },
        sound);
}

void readTable(pstsdk::db_context& db) {
    const pstsdk::table table(db.lookup_node(kNode));
    for (const pstsdk::const_table_row row : table) {
        row.get_row_id();
        for (const pstsdk::prop_id id : row.list_props()) {
            row.read_8(id);
        }
    }
}

TEST(Corruption, Tables) {
    constexpr std::size_t rowWidth = 8;
    constexpr std::size_t bitmapStart = 6;
    constexpr std::size_t matrix = 14;
    constexpr std::size_t firstColumn = 22;
    std::vector<TableRow> rows;
    for (std::uint32_t i = 0; i < 20; ++i) {
        rows.push_back({i + 1, {{0x3602, {kInteger32, {1, 2, 3, 4}}}}});
    }
    const std::vector<Column> columns = {{0x3602, kInteger32}};
    using Matrix = TableOptions::Matrix;
    for (const Matrix where : {Matrix::WhereItFits, Matrix::Subnode}) {
        const bool inHeap = where == Matrix::WhereItFits;
        const auto set = [](std::size_t offset, std::uint64_t value, std::size_t width) {
            return [=](StoreImage& i) { damageAt(i, rootItem(i), offset, value, width); };
        };
        check(
            {
                {"nothing", [](StoreImage&) {}, "nothing", readTable},
                {"signature", set(0, 0x7D, 1), "sig_mismatch: heap_sig_tc expected", readTable},
                {"row width of 0", set(rowWidth, 0, 2), "database_corrupt: row without room for its id", readTable},
                {"row wider than the matrix", set(rowWidth, 0xFFFF, 2), inHeap ? "nothing" : "database_corrupt", readTable},
                {"row without room for its id", set(rowWidth, 3, 2), "database_corrupt: row without room for its id", readTable},
                {"bitmap behind the row", set(bitmapStart, 0xFFF0, 2), "database_corrupt", readTable},
                {"more columns than described", set(1, 255, 1), "database_corrupt", readTable},
                {"cell behind the row", set(firstColumn + 4, 0xFFFC, 2), "database_corrupt", readTable},
                {"cell over the end of the row", set(firstColumn + 4, 10, 2), "database_corrupt", readTable},
                {"cell of 3 bytes", set(firstColumn + 6, 3, 1), "database_corrupt: get_cell_value: invalid cell size", readTable},
                {"bit behind the bitmap", set(firstColumn + 7, 255, 1), "database_corrupt", readTable},
                {"no matrix", set(matrix, 0, 4), "nothing", readTable},
                {"matrix in a subnode that is missing", set(matrix, 0x9999F, 4), "key_not_found<ulong>", readTable},
                {"matrix in an item that is missing", set(matrix, 0xFFE0, 4), "length_error: index > num_allocs", readTable},
                {"matrix on a page that is missing", set(matrix, 0xFFFF0020, 4), "out_of_range: index > 0", readTable},
                {"no row index", set(10, 0, 4), "length_error: buffer.size() > size()", readTable},
                {"row index of 8-byte entries",
                 [](StoreImage& i) {
                     const auto index = static_cast<HeapId>(getAt(i.content(kHeap), rootItem(i).offset + 10, 4));
                     damageAt(i, item(i, index), 2, 8, 1);
                 },
                 "logic_error: invalid entry size", readTable},
            },
            imageOf(tableContext(Layout::Unicode, columns, rows, {where, HeapBuilder::kMaxItem, 0})));
    }
}

TEST(Corruption, AStreamPassesOnWhatTheStoreThrows) {
    StoreImage image = imageOf(propertyContext(Layout::Unicode, {{0x1000, {kBinary, Bytes(20000, 1)}}}));
    image.damage("trailer of block 1 of subnode 0x801F of node 0x1000001", 2, {1, 2});
    const OpenStore open(image);
    const pstsdk::property_bag bag(open->lookup_node(kNode));
    pstsdk::hnid_stream stream(bag.open_prop(0x1000));
    Bytes bytes(20000);
    EXPECT_EQ(thrownBy([&] { stream.read(reinterpret_cast<char*>(bytes.data()), 20000); }), "sig_mismatch: block sig mismatch");
}

/**
 * What a few kilobytes can ask for: trees that share their branches, blocks and records that repeat, holes. The size of the file
 * bounds what is loaded, so each of these ends at once, and the sanitized run would not survive most of them otherwise.
 */
class SmallStores : public testing::Test {
protected:
    using Make = std::function<StoreWriter::Written(StoreWriter&)>;
    static constexpr std::uint32_t kFullXblock = 1021 * 8176;

    /** A store of kNode alone. */
    static OpenStore storeOf(const Make& make) {
        LayoutOptions options;
        options.allocationMaps = AllocationMaps::None;
        StoreBuilder store(options);
        store.beforeTrees([&](StoreWriter& writer) { writer.addNode(kNode, make(writer), 0); });
        return OpenStore(store);
    }
    static std::string classThrownBy(const std::function<void()>& action) {
        const std::string thrown = thrownBy(action);
        return thrown.substr(0, thrown.find(':'));
    }
    /** XBLOCKs on one another, each with 1021 times the next one, above one block of a page. */
    static BlockId tower(StoreWriter& writer, int levels, std::uint32_t announced) {
        BlockId block = writer.addExternalBlock(Bytes(8176, 1));
        for (int level = 0; level < levels; ++level) {
            block = writer.addExtendedBlock(1, std::vector<BlockId>(1021, block), kFullXblock);
        }
        return writer.addExtendedBlock(2, std::vector<BlockId>(600, block), announced);
    }
};

TEST_F(SmallStores, DataTreesThatAreLargerThanTheirFile) {
    struct Tree {
        const char* what;
        std::function<BlockId(StoreWriter&)> make;
        std::uint32_t size;
        const char* outcome;
    };
    for (const Tree& test : {
             Tree{"holes", [](StoreWriter& w) { return w.addExtendedBlock(2, std::vector<BlockId>(600, 0), kGigabytes); },
                  kGigabytes, "database_corrupt"},
             Tree{"one block again and again", [](StoreWriter& w) { return tower(w, 1, kGigabytes); }, kGigabytes,
                  "database_corrupt"},
             Tree{"many levels", [](StoreWriter& w) { return tower(w, 29, kGigabytes); }, kGigabytes, "database_corrupt"},
             Tree{"no children", [](StoreWriter& w) { return w.addExtendedBlock(1, {}, kGigabytes); }, kGigabytes,
                  "out_of_range"},
             Tree{"few holes, which are no damage",
                  [](StoreWriter& w) {
                      return w.addExtendedBlock(2, {0, 0}, 2 * kFullXblock);
                  },
                  2 * kFullXblock, "nothing"},
         }) {
        SCOPED_TRACE(test.what);
        const NodeContent bag = propertyContext(Layout::Unicode, {{0x1000, {kBinary, Bytes(4000, 1)}}});
        const OpenStore open = storeOf([&](StoreWriter& writer) {
            const BlockId heap = writer.addDataTree(bag.data, "bag");
            return StoreWriter::Written{heap, writer.addSubnodeTree({{kSub, test.make(writer), 0}}, "bag")};
        });
        const pstsdk::property_bag read(open->lookup_node(kNode));
        // The size is told as it stands. Only where memory would be taken for it, it is held against the file.
        EXPECT_EQ(read.prop_size(0x1000), test.size);
        Bytes bytes;
        EXPECT_EQ(classThrownBy([&] { bytes = read.read_bytes(0x1000); }), test.outcome);
        pstsdk::hnid_stream_device stream = read.open_prop(0x1000);
        if (test.size == kGigabytes) {
            EXPECT_EQ(classThrownBy([&] { stream.seek(0, std::ios_base::end); }), "unexpected_block");
        } else {
            EXPECT_EQ(stream.seek(0, std::ios_base::end), test.size);
            EXPECT_EQ(bytes, Bytes(test.size, 0));
        }
    }
}

TEST_F(SmallStores, PagesBehindTheAnnouncedSize) {
    const OpenStore open = storeOf([](StoreWriter& writer) { return StoreWriter::Written{tower(writer, 1, 8176), 0}; });
    const pstsdk::node node = open->lookup_node(kNode);
    EXPECT_EQ(node.get_page_size(0), 8176U);  // what lies in front of the damage survives
    EXPECT_EQ(classThrownBy([&] {
                  for (pstsdk::ulong page = 1; page < 1000; ++page) {
                      node.get_page_size(page);
                  }
              }),
              "database_corrupt");
}

TEST_F(SmallStores, HolesOfManyNodes) {
    LayoutOptions options;
    options.allocationMaps = AllocationMaps::None;
    StoreBuilder store(options);
    store.beforeTrees([](StoreWriter& writer) {
        const BlockId holes = writer.addExtendedBlock(2, std::vector<BlockId>(4, 0), 4 * kFullXblock);
        for (NodeId i = 0; i < 50; ++i) {
            writer.addNode(kNode + 32 * i, {holes, 0}, 0);
        }
    });
    const OpenStore open(store);
    const store_reader::ReadStore read = store_reader::readStore(open.file.widePath());
    EXPECT_GE(read.dataBytes, 32U << 20);
    EXPECT_LE(read.dataBytes, 64U << 20);
    EXPECT_EQ(read.exceptions.at("pstsdk::database_corrupt: more bytes in holes than a store may have"), 48U);
}

TEST_F(SmallStores, SubnodeBlocksWithoutASizeInATreeOfThirtyLevels) {
    // The entries stand in the padding of blocks that say they have no content, so that no size adds up.
    std::vector<BlockId> ids;
    LayoutOptions options;
    options.allocationMaps = AllocationMaps::None;
    options.pageEntries = 20;
    StoreBuilder store(options);
    store.beforeTrees([&](StoreWriter& writer) {
        const auto add = [&](std::uint8_t level, std::uint64_t child) {
            Bytes block = {2, level, static_cast<std::uint8_t>(level == 0 ? 0 : 2), 0, 0, 0, 0, 0};
            for (std::uint64_t key = 0; level != 0 && key < 2; ++key) {
                put(block, key, 8);
                put(block, child, 8);
            }
            block.resize(40);
            ids.push_back(writer.addInternalBlock(block));
        };
        ids.clear();
        add(0, 0);
        for (int level = 0; level < 30; ++level) {
            add(1, ids.back());
        }
        writer.addNode(kNode, {0, ids.back()}, 0);
    });
    StoreImage image = store.image();
    for (const BlockId id : ids) {
        const Field entry = entryOf(image, "bbt", 24, id);
        const std::uint64_t trailer = getAt(image.content(entry.place), entry.offset + 8, 8) + 48;
        damageAt(image, entry, 16, 0, 2);
        image.overwrite(trailer, 0, 2);
    }
    const OpenStore open(image);
    EXPECT_EQ(thrownBy([&] {
                  const auto root = open->read_subnode_block(ids.back());
                  const auto end = pstsdk::btree_end<pstsdk::ulong, pstsdk::subnode_info>(*root);
                  for (auto at = pstsdk::btree_begin<pstsdk::ulong, pstsdk::subnode_info>(*root); !(at == end);
                       at.leaf->next(at)) {
                  }
              }),
              "database_corrupt: tree larger than what it lies in");
}

TEST_F(SmallStores, EmptyHeapRecordsWithoutEnd) {
    // Three levels, each of one item of 440 records that all lead to the next; the last ones lead to no item at all.
    constexpr std::size_t records = 440;
    HeapBuilder heap(Layout::Unicode, HeapBuilder::kPropertyContext);
    HeapId below = 0;
    for (int level = 0; level < 3; ++level) {
        Bytes item;
        for (std::size_t key = 0; key < records; ++key) {
            put(item, key, 2);
            put(item, below, 4);
        }
        below = heap.add(item);
    }
    Bytes header = {0xB5, 2, 6, 3};
    put(header, below, 4);
    heap.setRoot(heap.add(header));
    const OpenStore open = storeOf([&](StoreWriter& writer) {
        const BlockId page = writer.addDataTree(heap.finish(), "heap");
        return StoreWriter::Written{writer.addExtendedBlock(1, {page}, 32U << 20), 0};
    });
    const pstsdk::property_bag bag(open->lookup_node(kNode));
    EXPECT_EQ(thrownBy([&] { bag.prop_type(5); }), "key_not_found<ushort>");
    EXPECT_EQ(thrownBy([&] { bag.list_props(); }), "database_corrupt: tree larger than what it lies in");
}

TEST_F(SmallStores, RowsInHoles) {
    const NodeContent table = tableContext(Layout::Unicode, {{0x3602, kInteger32}}, {{1, {}}},
                                           {TableOptions::Matrix::Subnode, HeapBuilder::kMaxItem, 0});
    const OpenStore open = storeOf([&](StoreWriter& writer) {
        const BlockId holes = writer.addExtendedBlock(2, std::vector<BlockId>(4, 0), 4 * kFullXblock);
        const BlockId heap = writer.addDataTree(table.data, "table");
        return StoreWriter::Written{heap, writer.addSubnodeTree({{table.subnodes.begin()->first, holes, 0}}, "table")};
    });
    const pstsdk::table read(open->lookup_node(kNode));
    EXPECT_EQ(thrownBy([&] { read->row_count(); }), "database_corrupt: more rows than the file can hold");
}

}  // namespace
