// Messages of a store through fltInfo: what page n costs, against a plain read of the bytes in front of it.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <string>

#include "bench_support.h"
#include "rtf_compressor.h"
#include "store_builder.h"

namespace {

constexpr std::int32_t kMessages = 10'000;
constexpr std::size_t kRtfSize = 8 * 1024;
constexpr std::size_t kHtmlSize = 30 * 1024;
constexpr std::size_t kPictureSize = 4 * 1024;

std::string text(std::size_t size, std::int32_t number) {
    const std::string sentence = "Message " + std::to_string(number) + " tells of the terns on the bar, and of the tide. ";
    std::string result;
    while (result.size() < size) {
        result += sentence;
    }
    return result;
}

/// Every second message has an RTF body, the others HTML with two pictures.
bench::File mixedStore() {
    builder::StoreBuilder store(builder::Layout::Unicode, builder::Encoding::Permutative);
    builder::Folder& inbox = store.addFolder("Inbox");
    for (std::int32_t number = 0; number < kMessages; ++number) {
        builder::MessageFields fields;
        fields.subject = "Message " + std::to_string(number);
        if (number % 2 == 0) {
            const std::string block =
                rtf::Compressed("{\\rtf1\\ansi{\\fonttbl{\\f0 Arial;}}\\pard " + text(kRtfSize, number) + "\\par}");
            fields.rtfCompressed = builder::Bytes(block.begin(), block.end());
            inbox.addMessage(fields);
            continue;
        }
        fields.htmlBody =
            "<html><body>" + text(kHtmlSize, number) + "<img src=\"cid:a.png\"><img src=\"cid:b.png\"></body></html>";
        builder::Message& message = inbox.addMessage(fields);
        message.attach({.name = "a.png", .longName = "a.png", .data = builder::Bytes(kPictureSize, 0x5A)});
        message.attach({.name = "b.png", .longName = "b.png", .data = builder::Bytes(kPictureSize, 0xA5)});
    }
    return bench::File("mixed.pst", [&](const std::string& path) { store.write(path); });
}

void StoreMessage(benchmark::State& state) {
    static const bench::File file = mixedStore();
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

}  // namespace
