// Personal Folders stores: everything read, look-ups, and the decoding of blocks.

#include <benchmark/benchmark.h>
#include <sys/stat.h>

#include <cstdint>
#include <ctime>
#include <random>
#include <string>
#include <vector>

#include "bench_support.h"
#include "pstsdk/codec.h"
#include "pstsdk/database.h"
#include "pstsdk/nodes.h"
#include "pstsdk/pages.h"
#include "store_builder.h"

namespace {

using builder::Encoding;
using builder::Layout;

constexpr std::size_t kMessages = 10'000;
constexpr std::size_t kBodySize = 8 * 1024;

bench::File storeOfTenThousand(Encoding encoding) {
    builder::StoreBuilder store(Layout::Unicode, encoding);
    store.addFolder("Inbox").addMessages(kMessages, [](std::size_t number) {
        builder::MessageFields fields;
        fields.subject = "Message " + std::to_string(number);
        fields.plainBody = std::string(kBodySize / 2, static_cast<char>('a' + number % 26));
        return fields;
    });
    return bench::File("store-" + std::to_string(static_cast<int>(encoding)) + ".pst",
                       [&](const std::string& path) { store.write(path); });
}

const bench::File& permutativeStore() {
    static const bench::File file = storeOfTenThousand(Encoding::Permutative);
    return file;
}

const bench::File& cyclicStore() {
    static const bench::File file = storeOfTenThousand(Encoding::Cyclic);
    return file;
}

void permuteBlock(std::vector<std::uint8_t>& block) {
    pstsdk::disk::permute(block.data(), block.size());
}

void cycleBlock(std::vector<std::uint8_t>& block) {
    pstsdk::disk::cyclic(block.data(), block.size(), 0x12345678);
}

/// A store whose node tree has three levels.
const bench::File& storeOfThreeLevels() {
    static const bench::File file("store-three-levels.pst", [](const std::string& path) {
        builder::StoreBuilder store(Layout::Unicode, Encoding::Permutative);
        store.addFolder("Inbox").addMessages(5'000, [](std::size_t) { return builder::MessageFields{}; });
        store.write(path);
    });
    return file;
}

/// The data of every node of the tree and of its subnodes.
std::uint64_t readAllNodes(const bench::File& file) {
    const pstsdk::shared_db_ptr db = pstsdk::open_database(file.widePath());
    const auto root = db->read_nbt_root();
    const auto end = pstsdk::btree_end<pstsdk::ulong, pstsdk::node_info>(*root);
    std::uint64_t bytes = 0;
    std::vector<pstsdk::byte> page;
    const auto readData = [&](const pstsdk::node& node) {
        for (pstsdk::ulong at = 0; at < node.get_page_count(); ++at) {
            page.resize(node.get_page_size(at));
            bytes += node.read(page, at, 0);
        }
    };
    for (auto at = pstsdk::btree_begin<pstsdk::ulong, pstsdk::node_info>(*root); !(at == end); at.leaf->next(at)) {
        const pstsdk::node_info& info = at.leaf->get_value(at.pos);
        readData(pstsdk::node(db, info));
        const auto subnodes = db->read_subnode_block(info.subnode_bid);
        const auto subnodesEnd = pstsdk::btree_end<pstsdk::ulong, pstsdk::subnode_info>(*subnodes);
        for (auto sub = pstsdk::btree_begin<pstsdk::ulong, pstsdk::subnode_info>(*subnodes); !(sub == subnodesEnd);
             sub.leaf->next(sub)) {
            const pstsdk::subnode_info inner = sub.leaf->get_value(sub.pos);
            readData(pstsdk::node(db, {inner.id, inner.data_bid, inner.subnode_bid, 0}));
        }
    }
    return bytes;
}

/// Processor seconds for decoding as many bytes as the file has, block by block.
template <typename Decode>
double decodeSeconds(const bench::File& file, const Decode& decode) {
    std::vector<std::uint8_t> block(8176, 0x5A);
    const std::clock_t start = std::clock();
    for (std::uint64_t done = 0; done < file.size(); done += block.size()) {
        decode(block);
        benchmark::ClobberMemory();
    }
    return static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC;
}

/// @param decode decodes a block of the file's encoding
template <typename Decode>
void readStore(benchmark::State& state, const bench::File& file, const Decode& decode) {
    const double plainRead = bench::plainReadSeconds(file);
    const double leastWork = plainRead + decodeSeconds(file, decode);
    std::uint64_t bytes = 0;
    const double seconds = bench::measured(state, [&] { bytes = readAllNodes(file); });
    state.SetBytesProcessed(static_cast<std::int64_t>(file.size()) * static_cast<std::int64_t>(state.iterations()));
    state.counters["x_plain_read"] = seconds / plainRead;
    state.counters["x_read_and_decode"] = seconds / leastWork;
    state.counters["node_bytes"] = static_cast<double>(bytes);
}

void StoreReadAllPermutative(benchmark::State& state) {
    readStore(state, permutativeStore(), permuteBlock);
}
BENCHMARK(StoreReadAllPermutative)->Unit(benchmark::kMillisecond);

void StoreReadAllCyclic(benchmark::State& state) {
    readStore(state, cyclicStore(), cycleBlock);
}
BENCHMARK(StoreReadAllCyclic)->Unit(benchmark::kMillisecond);

void StoreLookUps(benchmark::State& state) {
    const pstsdk::shared_db_ptr db = pstsdk::open_database(storeOfThreeLevels().widePath());
    std::vector<pstsdk::node_id> ids;
    const auto root = db->read_nbt_root();
    const auto end = pstsdk::btree_end<pstsdk::ulong, pstsdk::node_info>(*root);
    for (auto at = pstsdk::btree_begin<pstsdk::ulong, pstsdk::node_info>(*root); !(at == end); at.leaf->next(at)) {
        ids.push_back(at.leaf->get_value(at.pos).id);
    }
    std::mt19937 random(1);
    for (auto _ : state) {
        benchmark::DoNotOptimize(db->lookup_node_info(ids[random() % ids.size()]));
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
    state.counters["tree_levels"] = root->get_level() + 1;
}
BENCHMARK(StoreLookUps);

template <typename Decode>
void decodeBlock(benchmark::State& state, const Decode& decode) {
    std::vector<std::uint8_t> block(8176, 0x5A);
    for (auto _ : state) {
        decode(block);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(block.size()) * static_cast<std::int64_t>(state.iterations()));
}

void DecodePermutative(benchmark::State& state) {
    decodeBlock(state, permuteBlock);
}
BENCHMARK(DecodePermutative);

void DecodeCyclic(benchmark::State& state) {
    decodeBlock(state, cycleBlock);
}
BENCHMARK(DecodeCyclic);

}  // namespace
