// The node database: opening, look-ups in the page trees, data trees, subnodes.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <numeric>

#include "pstsdk/codec.h"
#include "store_test.h"

namespace {

using namespace builder;
namespace disk = pstsdk::disk;

constexpr NodeId kNode = 0x1000001;
constexpr NodeId kOther = 0x1000021;

/** Bytes of which no two blocks are alike. */
Bytes pattern(std::size_t size) {
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<std::uint8_t>(i * 7 + i / 4093);
    }
    return bytes;
}

// --------------------------------------------------------------------------------------------------------------------- codec

TEST(Codec, ChecksumAndSignature) {
    EXPECT_EQ(disk::compute_crc("123456789", 9), 0x2DFD2D88U);
    EXPECT_EQ(disk::compute_crc("", 0), 0U);
    EXPECT_EQ(disk::compute_crc("\0\0\0\0\0", 5), 0U);
    EXPECT_EQ(disk::compute_signature(5, 65536), 4);
    EXPECT_EQ(disk::compute_signature(0x700000000ULL, 0), 0);
}

TEST(Codec, DecodesWhatTheBuilderEncodes) {
    const Bytes plain = pattern(70000);
    EXPECT_EQ(
        [] {
            std::uint8_t zero = 0;
            disk::permute(&zero, 1);
            return zero;
        }(),
        71);
    Bytes permuted = plain;
    encode(permuted, Encoding::Permutative, 0);
    disk::permute(permuted.data(), permuted.size());
    EXPECT_EQ(permuted, plain);
    // The last key makes the running word wrap in the first bytes; 70,000 bytes make every key wrap.
    for (const std::uint32_t key : {0U, 4U, 0x00010000U, 0x12345678U, 0x0000FFFEU}) {
        Bytes bytes = plain;
        encode(bytes, Encoding::Cyclic, key);
        EXPECT_NE(bytes, plain);
        disk::cyclic(bytes.data(), bytes.size(), key);
        EXPECT_EQ(bytes, plain) << key;
    }
    // Literal results, as the builder has the same tables: the first bytes, worked out one by one, and all values of a byte.
    Bytes few = {0, 1, 2, 3, 4, 5, 6, 7};
    disk::cyclic(few.data(), few.size(), 0x1234FFFE);
    EXPECT_EQ(few, (Bytes{0x62, 0x63, 0x9E, 0x3E, 0x86, 0x6C, 0xC4, 0x8D}));
    Bytes values(256);
    std::iota(values.begin(), values.end(), std::uint8_t{0});
    Bytes cycled = values;
    disk::cyclic(cycled.data(), cycled.size(), 0x12345678);
    EXPECT_EQ(disk::compute_crc(cycled.data(), cycled.size()), 0xB2F5B135U);
    disk::permute(values.data(), values.size());
    EXPECT_EQ(disk::compute_crc(values.data(), values.size()), 0x6D4E07FEU);
    disk::cyclic(nullptr, 0, 1);
    disk::permute(nullptr, 0);
}

// ------------------------------------------------------------------------------------------------------------------- opening

struct Form {
    Layout layout;
    Encoding encoding;
    std::size_t entries;  // in a page or subnode block; 0: as many as fit
};

class StoreForms : public testing::TestWithParam<Form> {
protected:
    LayoutOptions options() const {
        LayoutOptions result{GetParam().layout, GetParam().encoding};
        result.pageEntries = GetParam().entries;
        result.subnodeEntries = GetParam().entries;
        return result;
    }
};

INSTANTIATE_TEST_SUITE_P(All, StoreForms,
                         testing::Values(Form{Layout::Unicode, Encoding::None, 0},
                                         Form{Layout::Unicode, Encoding::Permutative, 3},
                                         Form{Layout::Unicode, Encoding::Cyclic, 0}, Form{Layout::Ansi, Encoding::None, 3},
                                         Form{Layout::Ansi, Encoding::Permutative, 0}, Form{Layout::Ansi, Encoding::Cyclic, 3}));

TEST_P(StoreForms, EveryNodeIsFoundByIdAndByWalking) {
    StoreBuilder store(options());
    store.addFolder("Inbox").addMessages(100, [](std::size_t i) { return MessageFields{.subject = std::to_string(i)}; });
    for (NodeId i = 0; i < 60; ++i) {
        store.addNode(kNode + i * 32, {pattern(i + 1), {}}, 0x21);
    }
    const OpenStore open(store);

    std::size_t walked = 0;
    NodeId last = 0;
    const auto root = open->read_nbt_root();
    const auto end = pstsdk::btree_end<pstsdk::ulong, pstsdk::node_info>(*root);
    for (auto at = pstsdk::btree_begin<pstsdk::ulong, pstsdk::node_info>(*root); !(at == end); at.leaf->next(at)) {
        const pstsdk::node_info& info = at.leaf->get_value(at.pos);
        EXPECT_GT(info.id, last);
        last = info.id;
        EXPECT_EQ(open->lookup_node_info(info.id).data_bid, info.data_bid);
        EXPECT_EQ(thrownBy([&] { open->lookup_node_info(info.id | 0x80000000); }), "key_not_found<ulong>");
        ++walked;
    }
    EXPECT_EQ(walked, 35U + 100U + 60U);
    for (NodeId i = 0; i < 60; ++i) {
        const pstsdk::node node = open->lookup_node(kNode + i * 32);
        EXPECT_EQ(bytesOf(node), pattern(i + 1));
        EXPECT_EQ(node.get_parent_id(), 0x21U);
    }
    // Below the first key, above the last, and the one that never is: a block 0.
    EXPECT_EQ(thrownBy([&] { open->lookup_node(0); }), "key_not_found<ulong>");
    EXPECT_EQ(thrownBy([&] { open->lookup_node(0xFFFFFFFF); }), "key_not_found<ulong>");
    EXPECT_EQ(thrownBy([&] { open->lookup_block_info(0xFFFFFFF0); }), "key_not_found<ulonglong>");
    EXPECT_EQ(open->lookup_block_info(0).size, 0);
    EXPECT_EQ(open->lookup_block_info(4 | 1).id, 4U);
}

TEST_P(StoreForms, DataTreesOfEverySize) {
    const Measures& measures = measuresOf(GetParam().layout);
    const std::size_t block = measures.maxContent;
    const std::size_t xblock = block * measures.blocksPerXblock;
    StoreBuilder store(options());
    const std::vector<std::size_t> sizes = {0, 1, block, block + 1, 3 * block, xblock, xblock + 5, 2 * xblock + 1};
    for (std::size_t i = 0; i < sizes.size(); ++i) {
        store.addNode(kNode + static_cast<NodeId>(i) * 32, {pattern(sizes[i]), {}});
    }
    const OpenStore open(store);
    for (std::size_t i = 0; i < sizes.size(); ++i) {
        SCOPED_TRACE(sizes[i]);
        const std::size_t size = sizes[i];
        const pstsdk::node node = open->lookup_node(kNode + static_cast<NodeId>(i) * 32);
        const std::size_t pages = std::max<std::size_t>(1, (size + block - 1) / block);
        EXPECT_EQ(node.size(), size);
        EXPECT_EQ(node.get_page_count(), pages);
        const bool single = pages == 1;
        EXPECT_EQ(thrownBy([&] { node.get_page_size(static_cast<pstsdk::ulong>(pages)); }),
                  single ? "out_of_range: index > 0" : "out_of_range: index >= m_child_blocks.size()");
        const Bytes expected = pattern(size);
        EXPECT_EQ(bytesOf(node), expected);

        pstsdk::data_block* data = node.ensure_data_block();
        const auto end = static_cast<pstsdk::ulong>(size);
        EXPECT_EQ(thrownBy([&] { data->read<std::uint32_t>(end); }), "out_of_range: offset >= size()");
        EXPECT_EQ(data->read_raw(nullptr, 0, end), 0U);
        if (size > block) {
            std::array<std::uint8_t, 20> across{};  // the end of one block and the start of the next
            ASSERT_EQ(data->read_raw(across.data(), across.size(), static_cast<pstsdk::ulong>(block - 10)),
                      std::min<std::size_t>(20, size - block + 10));
            EXPECT_TRUE(
                std::equal(across.begin(), across.begin() + 11, expected.begin() + static_cast<std::ptrdiff_t>(block - 10)));
            EXPECT_EQ(thrownBy([&] { data->read<std::uint32_t>(end - 3); }), "out_of_range: sizeof(T) + offset >= size()");
            EXPECT_EQ(data->read<std::uint32_t>(end - 4), getAt(expected, size - 4, 4));
            // A number of a page never crosses into the next one.
            const auto edge = static_cast<pstsdk::ulong>(block - 1);
            EXPECT_EQ(thrownBy([&] { node.read<std::uint16_t>(0, edge); }), "out_of_range: sizeof(T) + offset >= size()");
            EXPECT_EQ(node.read<std::uint8_t>(0, edge), expected[block - 1]);
        }
        if (size > xblock) {
            const auto second = static_cast<pstsdk::ulong>(GetParam().layout == Layout::Unicode ? 8347696 : 8335420);
            EXPECT_EQ(data->read<std::uint8_t>(second), expected[second]);
            EXPECT_EQ(node.read<std::uint8_t>(static_cast<pstsdk::ulong>(measures.blocksPerXblock), 0), expected[second]);
        }
    }
}

TEST_P(StoreForms, SubnodesOfSeveralLevelsNest) {
    NodeContent content{pattern(10), {}};
    for (NodeId i = 0; i < 800; ++i) {
        content.subnodes.emplace(0x8000 + i * 32 + 31, NodeContent{pattern(i % 90), {}});
    }
    content.subnodes.at(0x801F).subnodes.emplace(0x671, NodeContent{pattern(9000), {{0x692, {pattern(3), {}}}}});
    StoreBuilder store(options());
    store.addNode(kNode, content).addNode(kOther, {pattern(5), {}});
    OpenStore open(store);
    const pstsdk::node node = open->lookup_node(kNode);
    const pstsdk::node without = open->lookup_node(kOther);
    for (NodeId i = 0; i < 800; ++i) {
        ASSERT_EQ(bytesOf(node.lookup(0x8000 + i * 32 + 31)), pattern(i % 90)) << i;
    }
    EXPECT_EQ(thrownBy([&] { node.lookup(0x8000); }), "key_not_found<ulong>");
    EXPECT_EQ(thrownBy([&] { node.lookup(0x801E + 32); }), "key_not_found<ulong>");
    EXPECT_EQ(thrownBy([&] { without.lookup(0x801F); }), "key_not_found<ulong>");

    // The innermost node keeps everything it needs alive, the database included.
    const pstsdk::node inner = open->lookup_node(kNode).lookup(0x801F).lookup(0x671).lookup(0x692);
    const pstsdk::node middle = open->lookup_node(kNode).lookup(0x801F).lookup(0x671);
    open.db.reset();
    EXPECT_EQ(bytesOf(inner), pattern(3));
    EXPECT_EQ(bytesOf(middle), pattern(9000));
    EXPECT_EQ(middle.get_parent_id(), 0U);
}

TEST(Nodes, ACopySharesWhatWasLoadedBefore) {
    StoreBuilder store(Layout::Unicode, Encoding::Permutative);
    store.addNode(kNode, {pattern(9000), {{0x801F, {pattern(3), {}}}}});
    const OpenStore open(store);
    const pstsdk::node node = open->lookup_node(kNode);
    const pstsdk::node before(node);  // NOLINT(performance-unnecessary-copy-initialization)
    pstsdk::data_block* data = node.ensure_data_block();
    const pstsdk::node after(node);  // NOLINT(performance-unnecessary-copy-initialization)
    EXPECT_EQ(after.ensure_data_block(), data);
    EXPECT_NE(before.ensure_data_block(), data);
    EXPECT_EQ(bytesOf(before), pattern(9000));
    EXPECT_EQ(bytesOf(before.lookup(0x801F)), pattern(3));
}

TEST(Trees, WalksGoBothWaysOverEmptyLeaves) {
    BlockId top = 0;
    StoreBuilder store(Layout::Unicode, Encoding::None);
    store.beforeTrees([&](StoreWriter& writer) {
        // Leaves of 0, 2, 0, 0, 1 and 0 entries; the entries are numbered from 1.
        Bytes index = {2, 1, 6, 0, 0, 0, 0, 0};
        std::uint64_t key = 1;
        for (const std::uint8_t count : Bytes{0, 2, 0, 0, 1, 0}) {
            Bytes leaf = {2, 0, count, 0, 0, 0, 0, 0};
            put(index, key, 8);
            for (std::uint8_t i = 0; i < count; ++i) {
                put(leaf, key++, 8);
                put(leaf, 0, 16);
            }
            put(index, writer.addInternalBlock(leaf), 8);
        }
        top = writer.addInternalBlock(index);
    });
    const OpenStore open(store);
    const auto root = open->read_subnode_block(top);
    std::vector<pstsdk::node_id> met;
    auto at = pstsdk::btree_begin<pstsdk::ulong, pstsdk::subnode_info>(*root);
    const auto first = at;
    const auto end = pstsdk::btree_end<pstsdk::ulong, pstsdk::subnode_info>(*root);
    for (; !(at == end); at.leaf->next(at)) {
        met.push_back(at.leaf->get_key(at.pos));
    }
    while (!(at == first)) {
        at.leaf->prev(at);
        met.push_back(at.leaf->get_key(at.pos));
    }
    EXPECT_EQ(met, (std::vector<pstsdk::node_id>{1, 2, 3, 3, 2, 1}));
    at.leaf->prev(at);  // in front of the first entry there is nothing to step to
    EXPECT_TRUE(at == first);
}

TEST(Nodes, ReadsStayInTheirPage) {
    StoreBuilder store(Layout::Unicode, Encoding::Permutative);
    store.addNode(kNode, {pattern(8180), {}});
    const OpenStore open(store);
    const pstsdk::node node = open->lookup_node(kNode);
    Bytes buffer(10);
    EXPECT_EQ(node.read(buffer, 0, 8170), 6U);
    EXPECT_EQ(node.read(buffer, 1, 0), 4U);
    EXPECT_EQ(thrownBy([&] { node.read(buffer, 1, 4); }), "out_of_range: offset >= size()");
    buffer.clear();
    EXPECT_EQ(node.read(buffer, 1, 4000), 0U);
    EXPECT_EQ(thrownBy([&] { node.read(buffer, 2, 0); }), "out_of_range: index >= m_child_blocks.size()");
}

TEST(DataTrees, AnIdOfZeroIsAHoleOfZeroBytes) {
    StoreBuilder store(Layout::Unicode, Encoding::Cyclic);
    store.beforeTrees([](StoreWriter& writer) {
        const BlockId block = writer.addExternalBlock(pattern(8176));
        writer.addNode(kNode, {writer.addExtendedBlock(1, {0, block}, 2 * 8176), 0}, 0);
    });
    const OpenStore open(store);
    Bytes expected(8176, 0);
    const Bytes second = pattern(8176);
    expected.insert(expected.end(), second.begin(), second.end());
    EXPECT_EQ(bytesOf(open->lookup_node(kNode)), expected);
}

/** Blocks of an open store can be changed in memory: the changed tree is a new one as long as somebody holds the old. */
TEST_P(StoreForms, ChangedTreesLeaveTheOldOnesAlone) {
    const Measures& measures = measuresOf(GetParam().layout);
    const std::size_t block = measures.maxContent;
    const std::size_t xblock = block * measures.blocksPerXblock;
    StoreBuilder store(options());
    store.addNode(kNode, {pattern(20000), {}}).addNode(kOther, {pattern(100), {}});
    const OpenStore open(store);
    for (const NodeId id : {kNode, kOther}) {
        const Bytes old = bytesOf(open->lookup_node(id));
        for (const std::size_t size : {std::size_t{0}, std::size_t{50}, block, block + 1, 2 * block, xblock, xblock + 1}) {
            SCOPED_TRACE(testing::Message() << old.size() << " to " << size);
            const auto held = open->read_data_block(open->lookup_node_info(id).data_bid);
            std::shared_ptr<pstsdk::data_block> changed = held;
            EXPECT_EQ(held->resize(size, changed), size);
            EXPECT_NE(changed->get_id(), held->get_id());
            EXPECT_EQ(pstsdk::is_internal_block(changed->get_id()), size > block);
            EXPECT_EQ(changed->get_total_size(), size);
            EXPECT_EQ(changed->get_page_count(), std::max<std::size_t>(1, (size + block - 1) / block));
            // What is gained is zero, also where the old last block ended; a whole XBLOCK of it reads through holes.
            Bytes expected = old;
            expected.resize(size);
            EXPECT_TRUE(changed->read_all() == expected);
            if (size > block) {
                const Bytes twos(20, 2);  // 10 bytes on either side of the end of the first block, or up to the end
                std::shared_ptr<pstsdk::data_block> written = changed;
                const std::size_t count = std::min<std::size_t>(twos.size(), size - block + 10);
                EXPECT_EQ(changed->write_raw(twos.data(), twos.size(), static_cast<pstsdk::ulong>(block - 10), written), count);
                EXPECT_TRUE(changed->read_all() == expected);
                std::fill_n(expected.begin() + static_cast<std::ptrdiff_t>(block - 10), count, std::uint8_t{2});
                EXPECT_TRUE(written->read_all() == expected);
            }
            EXPECT_EQ(held->read_all(), old);
        }
        const auto held = open->read_data_block(open->lookup_node_info(id).data_bid);
        std::shared_ptr<pstsdk::data_block> changed = held;
        EXPECT_EQ(thrownBy([&] { held->resize(xblock * (measures.blocksPerXblock + 1), changed); }),
                  "runtime_error: size > max_size");
    }
}

TEST(DataTrees, BeyondFourGigabytesOfFile) {
    LayoutOptions options;
    options.allocationMaps = AllocationMaps::UsedUnits;
    StoreBuilder store(options);
    const Bytes data = pattern(20000);
    store.addNode(kNode, {data, {{0x801F, {data, {}}}}}).placeNode(kNode, 5ULL << 30);
    const OpenStore open(store);
    const pstsdk::node node = open->lookup_node(kNode);
    EXPECT_GT(open->lookup_block_info(open->lookup_node_info(kNode).data_bid).address, 5ULL << 30);
    EXPECT_EQ(bytesOf(node), data);
    EXPECT_EQ(bytesOf(node.lookup(0x801F)), data);
}

TEST(DataTrees, BlocksOutliveTheirDatabaseOnlyAsFarAsTheyAreLoaded) {
    StoreBuilder store(Layout::Ansi, Encoding::Permutative);
    store.addNode(kNode, {pattern(20000), {}});
    OpenStore open(store);
    const auto block = open->read_data_block(open->lookup_node_info(kNode).data_bid);
    EXPECT_EQ(block->read<std::uint8_t>(5), pattern(6)[5]);
    open.db.reset();
    EXPECT_EQ(block->read<std::uint8_t>(6), pattern(7)[6]);
    EXPECT_EQ(thrownBy([&] { block->read<std::uint8_t>(9000); }), "exception: bad_weak_ptr");
}

// ----------------------------------------------------------------------------------------------------------- what is refused

struct HeaderCase {
    const char* what;
    std::size_t offset;
    Bytes replacement;
    StoreImage::Crc crc;
    const char* outcome;
};

TEST(OpenDatabase, JudgesTheHeader) {
    const auto check = [](Layout layout, const std::vector<HeaderCase>& cases) {
        const StoreImage sound = StoreBuilder(layout, Encoding::None).image();
        for (const HeaderCase& test : cases) {
            StoreImage image = sound;
            image.damage("header", test.offset, test.replacement, test.crc);
            EXPECT_EQ(thrownBy([&] { OpenStore open(image); }), test.outcome) << test.what;
        }
    };
    using enum StoreImage::Crc;
    check(Layout::Unicode, {
                               {"another client magic", 8, {'X', 'X'}, Mend, "nothing"},
                               {"version 20", 10, {20}, Mend, "nothing"},
                               {"version of no known program", 10, {0xFF, 0x7F}, Mend, "nothing"},
                               {"sentinel", 512, {0}, Mend, "nothing"},
                               {"unknown encoding", 513, {0x10}, Mend, "nothing"},
                               {"roots that lie nowhere", 216, Bytes(32, 0xEE), Mend, "nothing"},
                               {"a byte of both checksums' range", 40, {9}, Leave, "crc_fail: header dwCRCPartial failure"},
                               {"a byte of the full checksum's range", 513, {9}, Leave, "crc_fail: header dwCRCFull failure"},
                               {"a byte behind both", 530, {9}, Leave, "nothing"},
                           });
    check(Layout::Ansi, {
                            {"version 19", 10, {19}, Mend, "nothing"},
                            {"checksum", 40, {9}, Leave, "crc_fail: header dwCRCPartial failure"},
                            {"behind the checksum's range", 500, {9}, Leave, "nothing"},
                            {"version of the other layout", 10, {23}, Mend, "crc_fail: header dwCRCFull failure"},
                        });
}

TEST(OpenDatabase, FilesThatAreTooShortOrMissing) {
    const auto outcome = [](Layout layout, std::size_t size) {
        StoreImage image = StoreBuilder(layout, Encoding::None).image();
        image.resize(size);
        return thrownBy([&] { OpenStore open(image); });
    };
    EXPECT_EQ(outcome(Layout::Unicode, 0), "out_of_range: fread failed");
    EXPECT_EQ(outcome(Layout::Unicode, 512), "out_of_range: fread failed");
    EXPECT_EQ(outcome(Layout::Unicode, 567), "out_of_range: fread failed");
    EXPECT_EQ(outcome(Layout::Unicode, 568), "nothing");
    EXPECT_EQ(outcome(Layout::Ansi, 511), "out_of_range: fread failed");
    EXPECT_EQ(outcome(Layout::Ansi, 512), "nothing");
    const TemporaryFile none;
    EXPECT_EQ(thrownBy([&] { pstsdk::open_database(none.widePath()); }), "runtime_error: fopen failed");
}

}  // namespace
