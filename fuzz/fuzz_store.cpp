// Arbitrary bytes as a Personal Folders store: opened, and everything reachable read. What the layers throw is what they promise
// to throw; anything else, and any use of memory or time beyond the limits, is a finding.

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "pstsdk/codec.h"
#include "pstsdk/disk.h"
#include "store_reader.h"

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t maxSize);

namespace {

/// Mends the checksums of the header, which are all that stands between a changed header and the rest of the reader: the
/// signatures of pages and blocks follow from their ids and places alone.
void mendHeader(std::uint8_t* data, std::size_t size) {
    using pstsdk::disk::compute_crc;
    using Header = pstsdk::disk::header<pstsdk::ulonglong>;  // the ANSI layout has the first of the two, at the same place
    const std::uint8_t* covered = data + pstsdk::disk::header_crc_start;
    if (size >= sizeof(Header)) {
        const pstsdk::ulong full = compute_crc(covered, pstsdk::disk::header_full_crc_size);
        std::memcpy(data + offsetof(Header, dwCRCFull), &full, sizeof(full));
    }
    if (size >= pstsdk::disk::header_crc_start + pstsdk::disk::header_partial_crc_size) {
        const pstsdk::ulong partial = compute_crc(covered, pstsdk::disk::header_partial_crc_size);
        std::memcpy(data + offsetof(Header, dwCRCPartial), &partial, sizeof(partial));
    }
}

}  // namespace

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t maxSize, unsigned seed) {
    constexpr unsigned mendedOutOf = 16;  // one in so many keeps its wrong checksum
    const std::size_t mutated = LLVMFuzzerMutate(data, size, maxSize);
    if (seed % mendedOutOf != 0) {
        mendHeader(data, mutated);
    }
    return mutated;
}

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
