// Arbitrary bytes behind a compound file's signature as an item, through the exports, on both routes. A file of odd size is asked
// for as plain text.

#include <algorithm>
#include <iterator>

#include "export_harness.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static constexpr std::uint8_t kSignature[] = {0xD0, 0xCF, 0x11, 0xE0, 0xA1, 0xB1, 0x1A, 0xE1};
    if (size < sizeof(kSignature) || !std::equal(std::begin(kSignature), std::end(kSignature), data)) {
        return -1;
    }
    fuzz::readThroughExports(data, size, {.plainTextOnly = static_cast<std::uint32_t>(size % 2)});
    return 0;
}
