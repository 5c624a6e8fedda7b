// Arbitrary bytes as RTF for the office suite: what is let through is one closed group without any word that could load
// something.

#include <cstddef>
#include <cstdint>
#include <string>

#include "guarded_rtf.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::checkRtfGuard("{\\rtf1" + std::string(reinterpret_cast<const char*>(data), size));
    return 0;
}
