// Arbitrary bytes as a Personal Folders store: opened, and everything reachable read. What the layers throw is what they promise
// to throw; anything else, and any use of memory or time beyond the limits, is a finding.

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <string>

#include "store_reader.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const int file = memfd_create("store", MFD_CLOEXEC);
    if (ftruncate(file, 0) != 0 || pwrite(file, data, size, 0) != static_cast<ssize_t>(size)) {
        return 0;
    }
    const std::string path = "/proc/self/fd/" + std::to_string(file);
    store_reader::ReadLimits limits;
    limits.bytes = 16U << 20;
    limits.entries = 100'000;
    store_reader::readStore(std::u16string(path.begin(), path.end()), limits);
    return 0;
}
