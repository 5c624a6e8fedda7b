// Arbitrary bytes as a compound file: opened, every name of its directory looked up from the root and from every storage, every
// stream read whole and in pieces. Stops when a stream delivers more than was asked for, or differs from its pieces.

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "external/pole/pole.h"
#include "ternbase/ternbase.h"

namespace {

constexpr std::uint32_t kOpenForReading = 256;
constexpr std::uint64_t kPieceSize = 1000;

void readStream(const CompoundFile& file, const DirectoryEntry& entry) {
    const std::uint64_t size = std::min(entry.size, file.fileSize);
    std::string whole(size, '\0');
    std::string pieces(size, '\0');
    const CompoundStream stream(file, entry);
    const std::uint64_t delivered = stream.read(0, whole.data(), size);
    if (delivered > size) {
        std::abort();
    }
    for (std::uint64_t at = 0; at < size; at += kPieceSize) {
        const std::uint64_t wanted = std::min(kPieceSize, size - at);
        if (stream.read(at, pieces.data() + at, wanted) > wanted) {
            std::abort();
        }
    }
    if (whole.compare(0, delivered, pieces, 0, delivered) != 0) {
        std::abort();
    }
}

void lookUpAll(CompoundFile& file) {
    const std::size_t most = std::min<std::size_t>(file.directory.size(), 64);
    for (std::size_t index = 0; index < most; ++index) {
        const std::string name(file.directory[index].text());
        file.findEntry(name);
        for (std::size_t storage = 0; storage < most; ++storage) {
            const DirectoryEntry* found = file.findEntry(&file.directory[storage], name);
            if (found != nullptr && (!found->valid || found->text() != name.substr(name.rfind('/') + 1))) {
                std::abort();
            }
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const int descriptor = memfd_create("compound", MFD_CLOEXEC);
    if (ftruncate(descriptor, 0) != 0 || pwrite(descriptor, data, size, 0) != static_cast<ssize_t>(size)) {
        return 0;
    }
    const std::string path = "/proc/self/fd/" + std::to_string(descriptor);
    const ternkit::FileHandle handle = TbFileOpen(std::u16string(path.begin(), path.end()).c_str(), 0, kOpenForReading);
    CompoundFile file(handle);
    file.open();
    if (file.opened) {
        lookUpAll(file);
        for (const DirectoryEntry& entry : file.directory) {
            if (file.claimBytes(entry.size)) {
                readStream(file, entry);
            }
        }
    }
    TbFileClose(handle);
    return 0;
}
