// What the mutators share.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <random>
#include <span>
#include <vector>

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t maxSize);

namespace fuzz {

class Dice {
public:
    explicit Dice(unsigned seed) : m_engine(seed) { m_engine.discard(2); }

    /// @param count at least 1 @return a number below it
    std::size_t below(std::size_t count) { return m_engine() % count; }
    bool oneIn(std::size_t count) { return below(count) == 0; }
    template <typename Values>
    auto& of(Values&& values) {
        return values[below(values.size())];
    }

private:
    std::minstd_rand m_engine;
};

/// Overwrites one number of two, four or eight bytes with one that stands elsewhere in the bytes, is a neighbour of the old one,
/// or an extreme.
inline void mutateNumber(std::span<std::uint8_t> bytes, Dice& dice) {
    static constexpr std::array<std::size_t, 4> kWidths{2, 2, 4, 8};
    const std::size_t width = dice.of(kWidths);
    if (bytes.size() < width) {
        return;
    }
    const std::size_t places = (bytes.size() - width) / 2 + 1;
    std::uint8_t* place = bytes.data() + 2 * dice.below(places);
    std::uint64_t value = 0;
    std::memcpy(&value, place, width);
    switch (dice.below(6)) {
        case 0:
            value = 0;
            break;
        case 1:
            value = ~std::uint64_t{0} >> dice.below(64);
            break;
        case 2:
            value = bytes.size() + dice.below(5) - 2;
            break;
        case 3:
            value += dice.below(65) - 32;
            break;
        case 4:
            value ^= std::uint64_t{1} << dice.below(8 * width);
            break;
        default:
            std::memcpy(&value, bytes.data() + 2 * dice.below(places), width);
    }
    std::memcpy(place, &value, width);
}

/// Changes bytes as the fuzzer does, in a window of them or in all. @param capacity that they may grow to
inline void mutateBytes(std::vector<std::uint8_t>& bytes, std::size_t capacity, Dice& dice) {
    constexpr std::size_t kWindow = 64;
    if (bytes.size() > kWindow && !dice.oneIn(3)) {
        const std::size_t size = 1 + dice.below(kWindow);
        LLVMFuzzerMutate(bytes.data() + dice.below(bytes.size() - size + 1), size, size);
        return;
    }
    const std::size_t size = bytes.size();
    bytes.resize(std::max(capacity, size));
    bytes.resize(bytes.empty() ? 0 : LLVMFuzzerMutate(bytes.data(), size, bytes.size()));
}

}  // namespace fuzz
