// Messages of a store through fltInfo: what page n costs, against a plain read of the bytes in front of it.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <string>

#include "bench_stores.h"

namespace {

constexpr std::int32_t kMessages = bench::kMixedMessages;

void StoreMessage(benchmark::State& state) {
    const bench::File& file = bench::mixedStore();
    const std::int32_t number = static_cast<std::int32_t>(state.range(0));
    const double share = static_cast<double>(number) / kMessages;
    const double plainRead = bench::plainReadSeconds(file) * share;
    const double bytesInFront = static_cast<double>(file.size()) * share;
    const double seconds = bench::measured(state, [&] {
        if (bench::callInfo(file, number) != ternkit::kOk) {
            state.SkipWithError("the message was refused");
        }
    });
    const bench::Cost cost = bench::costOfInfo(file, number);
    state.counters["x_plain_read"] = seconds / plainRead;
    state.counters["x_bytes_read"] = static_cast<double>(cost.bytesRead) / bytesInFront;
    state.counters["peak_MiB"] = static_cast<double>(cost.peakBytes) / (1 << 20);
}
BENCHMARK(StoreMessage)->Arg(1)->Arg(1'000)->Arg(kMessages)->Unit(benchmark::kMillisecond);

/// What a host does with a message: fltInfo, then fltLoad.
void describeAndLoad(benchmark::State& state, ternkit::LoadCacheSlot* slot) {
    constexpr std::int32_t kNumber = 1'000;
    const double plainRead = bench::plainReadSeconds(bench::mixedStore()) * kNumber / kMessages;
    const double seconds = bench::measured(state, [&] {
        if (bench::callInfo(bench::mixedStore(), kNumber, slot) != ternkit::kOk ||
            bench::callLoad(bench::mixedStore(), kNumber, slot) != ternkit::kOk) {
            state.SkipWithError("the message was refused");
        }
        if (slot != nullptr && slot->data != nullptr) {
            fltFreeData(slot->data, 0);
            slot->data = nullptr;
        }
    });
    state.counters["x_plain_read"] = seconds / plainRead;
}

void StoreMessageInfoAndLoad(benchmark::State& state) {
    describeAndLoad(state, nullptr);
}
BENCHMARK(StoreMessageInfoAndLoad)->Unit(benchmark::kMillisecond);

void StoreMessageInfoAndLoadWithSlot(benchmark::State& state) {
    ternkit::LoadCacheSlot slot{};
    describeAndLoad(state, &slot);
}
BENCHMARK(StoreMessageInfoAndLoadWithSlot)->Unit(benchmark::kMillisecond);

}  // namespace
