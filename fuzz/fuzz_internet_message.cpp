// Arbitrary bytes as an Internet message, through the exports, on both routes.

#include "export_harness.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::readThroughExports(data, size, {});
    return 0;
}
