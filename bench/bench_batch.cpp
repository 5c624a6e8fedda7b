// All messages of a store in one pass, against a plain read of the store: a listing of them, and the document of each.

#include <benchmark/benchmark.h>

#include <string>

#include <ternkit/batch.h>
#include <ternkit/ternbase.h>
#include "bench_stores.h"

namespace {

constexpr std::uint32_t kMemoryOnly = 3;

ternkit::BatchWish wishFor(void* userData, std::uint32_t /*index*/, std::uint32_t /*count*/) {
    return *static_cast<const ternkit::BatchWish*>(userData);
}

std::int32_t take(void* /*userData*/, const ternkit::BatchMessage* message) {
    benchmark::DoNotOptimize(message->subject);
    return message->status == ternkit::kOk && message->run == 1 ? 1 : 0;
}

bool visitAll(const bench::File& file, ternkit::BatchWish wish, bool plainTextOnly) {
    const std::u16string path = file.widePath();
    const ternkit::BatchRequest request{
        sizeof(ternkit::BatchRequest), path.c_str(), plainTextOnly ? 1U : 0U, &wish, wishFor, take};
    return TernVisitMessages(&request) == ternkit::kOk;
}

void run(benchmark::State& state, const bench::File& file, std::int32_t messages, ternkit::BatchWish wish, bool plainTextOnly) {
    TbHostSetLoadMode(kMemoryOnly);
    const double plainRead = bench::plainReadSeconds(file);
    const double seconds = bench::measured(state, [&] {
        if (!visitAll(file, wish, plainTextOnly)) {
            state.SkipWithError("the store was refused");
        }
    });
    const bench::Cost cost = bench::costOf([&] { visitAll(file, wish, plainTextOnly); });
    TbHostSetLoadMode(0);
    state.counters["messages_per_s"] = messages / seconds;
    state.counters["x_plain_read"] = seconds / plainRead;
    state.counters["x_bytes_read"] = static_cast<double>(cost.bytesRead) / static_cast<double>(file.size());
    state.counters["peak_MiB"] = static_cast<double>(cost.peakBytes) / (1 << 20);
    state.counters["bytes_per_message"] = static_cast<double>(cost.peakBytes) / messages;
}

void ListMessages(benchmark::State& state) {
    run(state, bench::mixedStore(), bench::kMixedMessages, ternkit::BatchWish::kSummary, false);
}
BENCHMARK(ListMessages)->Unit(benchmark::kMillisecond);

void AllDocuments(benchmark::State& state) {
    run(state, bench::mixedStore(), bench::kMixedMessages, ternkit::BatchWish::kDocument, false);
}
BENCHMARK(AllDocuments)->Unit(benchmark::kMillisecond);

void ListSmallMessages(benchmark::State& state) {
    const auto messages = static_cast<std::int32_t>(state.range(0));
    run(state, bench::smallStore(messages), messages, ternkit::BatchWish::kSummary, true);
}
BENCHMARK(ListSmallMessages)->Arg(10'000)->Arg(40'000)->Unit(benchmark::kMillisecond);

}  // namespace
