// The mutator of the targets that read files: stores and compound files, also behind the byte with which some inputs begin, are
// changed by what knows their form.

#include <algorithm>
#include <array>
#include <span>

#include "mutators.h"

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t maxSize);
extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t maxSize, unsigned seed);

namespace {

constexpr std::array<std::uint8_t, 4> kStore{'!', 'B', 'D', 'N'};
constexpr std::array<std::uint8_t, 8> kCompoundFile{0xD0, 0xCF, 0x11, 0xE0, 0xA1, 0xB1, 0x1A, 0xE1};

bool startsWith(std::span<const std::uint8_t> bytes, std::span<const std::uint8_t> signature) {
    return bytes.size() >= signature.size() && std::equal(signature.begin(), signature.end(), bytes.begin());
}

}  // namespace

std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t maxSize, unsigned seed) {
    for (std::size_t prefix = 0; prefix <= 1; ++prefix) {
        if (size <= prefix) {
            break;
        }
        const std::span<const std::uint8_t> file(data + prefix, size - prefix);
        const bool isStore = startsWith(file, kStore);
        if (!isStore && !startsWith(file, kCompoundFile)) {
            continue;
        }
        if (prefix != 0 && seed % 16 == 0) {
            LLVMFuzzerMutate(data, prefix, prefix);
            return size;
        }
        const auto mutate = isStore ? fuzz::mutateStore : fuzz::mutateCompoundFile;
        return prefix + mutate(data + prefix, size - prefix, maxSize - prefix, seed);
    }
    return LLVMFuzzerMutate(data, size, maxSize);
}
