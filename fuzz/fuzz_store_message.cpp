// A store and a message number, through the exports, on both routes: the first byte is the number, with bit 7 asking for plain
// text, and the store follows.

#include "export_harness.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    constexpr std::uint8_t kPlainText = 0x80;
    if (size != 0) {
        const fuzz::Request request{data[0] & ~kPlainText, (data[0] & kPlainText) != 0 ? 1U : 0U};
        fuzz::readThroughExports(data + 1, size - 1, request);
    }
    return 0;
}
