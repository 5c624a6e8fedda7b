// All messages of a store, an item or an Internet message in one pass, on both routes: the first byte says what is wanted of them
// (bit 0 their summaries, bit 1 plain text), and the file follows.

#include <cstdlib>
#include <cstring>
#include <string>

#include <ternkit/batch.h>
#include <ternkit/ternbase.h>
#include "export_harness.h"

namespace {

constexpr std::uint32_t kMemoryOnly = 3;
constexpr std::uint32_t kMostVisits = 200;  // a few bytes can name a message very often

struct Taken {
    ternkit::BatchWish wish;
    std::uint32_t visits = 0;
    std::uint64_t bytes = 0;
};

ternkit::BatchWish wishFor(void* userData, std::uint32_t /*index*/, std::uint32_t /*count*/) {
    return static_cast<const Taken*>(userData)->wish;
}

/// Reads every byte that it is given, so that the sanitizer sees one that is not there.
std::int32_t take(void* userData, const ternkit::BatchMessage* message) {
    Taken& taken = *static_cast<Taken*>(userData);
    for (const char* text : {message->subject, message->senderName, message->senderAddress, message->displayTo,
                             message->displayCc, message->displayBcc, message->date}) {
        taken.bytes += std::strlen(text);
    }
    for (std::uint64_t at = 0; at < message->documentSize; ++at) {
        taken.bytes += static_cast<unsigned char>(message->document[at]);
    }
    for (std::uint64_t at = 0; at < message->tempFileCount; ++at) {
        taken.bytes += std::strlen(message->tempFiles[at]);
    }
    if (message->run == 0 || message->run > message->messageCount - message->messageIndex) {
        std::abort();
    }
    return ++taken.visits < kMostVisits ? 1 : 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    constexpr std::uint8_t kSummaries = 1;
    constexpr std::uint8_t kPlainText = 2;
    if (size == 0) {
        return 0;
    }
    const std::u16string path = fuzz::fileOf(data + 1, size - 1);
    for (const std::uint32_t mode : {kMemoryOnly, 0U}) {
        TbHostSetLoadMode(mode);
        Taken taken{(data[0] & kSummaries) != 0 ? ternkit::BatchWish::kSummary : ternkit::BatchWish::kDocument};
        const ternkit::BatchRequest request{
            sizeof(ternkit::BatchRequest), path.c_str(), (data[0] & kPlainText) != 0 ? 1U : 0U, &taken, wishFor, take};
        TernVisitMessages(&request);
    }
    fuzz::expectNothingLeft();
    return 0;
}
