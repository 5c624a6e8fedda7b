// CRC, signature and the two encodings, in the writing direction; tables of [MS-PST] 5.1.
#include <algorithm>
#include <array>

#include "store_layout.h"

namespace builder {
namespace {

// clang-format off
constexpr std::array<std::uint8_t, 256> kPermutation = {
    65, 54, 19, 98, 168, 33, 110, 187, 244, 22, 204, 4, 127, 100, 232, 93, 30, 242, 203, 42, 116, 197, 94, 53,
    210, 149, 71, 158, 150, 45, 154, 136, 76, 125, 132, 63, 219, 172, 49, 182, 72, 95, 246, 196, 216, 57, 139, 231,
    35, 59, 56, 142, 200, 193, 223, 37, 177, 32, 165, 70, 96, 78, 156, 251, 170, 211, 86, 81, 69, 124, 85, 0,
    7, 201, 43, 157, 133, 155, 9, 160, 143, 173, 179, 15, 99, 171, 137, 75, 215, 167, 21, 90, 113, 102, 66, 191,
    38, 74, 107, 152, 250, 234, 119, 83, 178, 112, 5, 44, 253, 89, 58, 134, 126, 206, 6, 235, 130, 120, 87, 199,
    141, 67, 175, 180, 28, 212, 91, 205, 226, 233, 39, 79, 195, 8, 114, 128, 207, 176, 239, 245, 40, 109, 190, 48,
    77, 52, 146, 213, 14, 60, 34, 50, 229, 228, 249, 159, 194, 209, 10, 129, 18, 225, 238, 145, 131, 118, 227, 151,
    230, 97, 138, 23, 121, 164, 183, 220, 144, 122, 92, 140, 2, 166, 202, 105, 222, 80, 26, 17, 147, 185, 82, 135,
    88, 252, 237, 29, 55, 73, 27, 106, 224, 41, 51, 153, 189, 108, 217, 148, 243, 64, 84, 111, 240, 198, 115, 184,
    214, 62, 101, 24, 68, 31, 221, 103, 16, 241, 12, 25, 236, 174, 3, 161, 20, 123, 169, 11, 255, 248, 163, 192,
    162, 1, 247, 46, 188, 36, 104, 117, 13, 254, 186, 47, 181, 208, 218, 61,
};

// Its own inverse.
constexpr std::array<std::uint8_t, 256> kSubstitution = {
    20, 83, 15, 86, 179, 200, 122, 156, 235, 101, 72, 23, 22, 21, 159, 2, 204, 84, 124, 131, 0, 13, 12, 11,
    162, 98, 168, 118, 219, 217, 237, 199, 197, 164, 220, 172, 133, 116, 214, 208, 167, 155, 174, 154, 150, 113, 102, 195,
    99, 153, 184, 221, 115, 146, 142, 132, 125, 165, 94, 209, 93, 147, 177, 87, 81, 80, 128, 137, 82, 148, 79, 78,
    10, 107, 188, 141, 127, 110, 71, 70, 65, 64, 68, 1, 17, 203, 3, 63, 247, 244, 225, 169, 143, 60, 58, 249,
    251, 240, 25, 48, 130, 9, 46, 201, 157, 160, 134, 73, 238, 111, 77, 109, 196, 45, 129, 52, 37, 135, 27, 136,
    170, 252, 6, 161, 18, 56, 253, 76, 66, 114, 100, 19, 55, 36, 106, 117, 119, 67, 255, 230, 180, 75, 54, 92,
    228, 216, 53, 61, 69, 185, 44, 236, 183, 49, 43, 41, 7, 104, 163, 14, 105, 123, 24, 158, 33, 57, 190, 40,
    26, 91, 120, 245, 35, 202, 42, 176, 175, 62, 254, 4, 140, 231, 229, 152, 50, 149, 211, 246, 74, 232, 166, 234,
    233, 243, 213, 47, 112, 32, 242, 31, 5, 103, 173, 85, 16, 206, 205, 227, 39, 59, 218, 186, 215, 194, 38, 212,
    145, 29, 210, 28, 34, 51, 248, 250, 241, 90, 239, 207, 144, 182, 139, 181, 189, 192, 191, 8, 151, 30, 108, 226,
    97, 224, 198, 193, 89, 171, 187, 88, 222, 95, 223, 96, 121, 126, 178, 138,
};
// clang-format on

constexpr std::array<std::uint8_t, 256> inverse(const std::array<std::uint8_t, 256>& table) {
    std::array<std::uint8_t, 256> result{};
    for (std::size_t i = 0; i < table.size(); ++i) {
        result[table[i]] = static_cast<std::uint8_t>(i);
    }
    return result;
}

constexpr std::array<std::uint8_t, 256> kInversePermutation = inverse(kPermutation);
static_assert(inverse(kSubstitution) == kSubstitution);

/** Table n gives the CRC of a byte that n more bytes follow, so that eight bytes go at a time. */
constexpr std::array<std::array<std::uint32_t, 256>, 8> crcTables() {
    std::array<std::array<std::uint32_t, 256>, 8> tables{};
    for (std::uint32_t i = 0; i < 256; ++i) {
        std::uint32_t crc = i;
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc & 1) != 0 ? (crc >> 1) ^ 0xEDB88320U : crc >> 1;
        }
        tables[0][i] = crc;
    }
    for (std::size_t n = 1; n < 8; ++n) {
        for (std::size_t i = 0; i < 256; ++i) {
            tables[n][i] = (tables[n - 1][i] >> 8) ^ tables[0][tables[n - 1][i] & 255];
        }
    }
    return tables;
}

constexpr auto kCrc = crcTables();

std::uint8_t low8(unsigned value) {
    return static_cast<std::uint8_t>(value & 255);
}

/** Encoding and decoding in one: the middle step is its own inverse, and the steps around it mirror each other. */
void cyclic(std::span<std::uint8_t> content, std::uint32_t key) {
    unsigned w = (key ^ (key >> 16)) & 0xFFFF;
    for (std::uint8_t& byte : content) {
        const unsigned lo = w & 255;
        const unsigned hi = w >> 8;
        const unsigned substituted = kSubstitution[low8(kPermutation[low8(byte + lo)] + hi)];
        byte = low8(kInversePermutation[low8(substituted - hi)] - lo);
        w = (w + 1) & 0xFFFF;
    }
}

void translate(std::span<std::uint8_t> content, const std::array<std::uint8_t, 256>& table) {
    std::transform(content.begin(), content.end(), content.begin(), [&](std::uint8_t byte) { return table[byte]; });
}

}  // namespace

std::uint32_t crcOf(ByteSpan bytes) {
    std::uint32_t crc = 0;
    std::size_t i = 0;
    for (; i + 8 <= bytes.size(); i += 8) {
        const auto next = static_cast<std::uint32_t>(getAt(bytes, i, 4)) ^ crc;
        crc = kCrc[7][next & 255] ^ kCrc[6][(next >> 8) & 255] ^ kCrc[5][(next >> 16) & 255] ^ kCrc[4][next >> 24] ^
              kCrc[3][bytes[i + 4]] ^ kCrc[2][bytes[i + 5]] ^ kCrc[1][bytes[i + 6]] ^ kCrc[0][bytes[i + 7]];
    }
    for (; i < bytes.size(); ++i) {
        crc = kCrc[0][(crc ^ bytes[i]) & 255] ^ (crc >> 8);
    }
    return crc;
}

std::uint16_t signatureOf(std::uint64_t id, std::uint64_t address) {
    const std::uint64_t mixed = id ^ address;
    return static_cast<std::uint16_t>((mixed >> 16) ^ mixed);
}

void encode(std::span<std::uint8_t> content, Encoding encoding, BlockId id) {
    if (encoding == Encoding::Permutative) {
        translate(content, kPermutation);
    } else if (encoding == Encoding::Cyclic) {
        cyclic(content, static_cast<std::uint32_t>(id));
    }
}

void decode(std::span<std::uint8_t> content, Encoding encoding, BlockId id) {
    if (encoding == Encoding::Permutative) {
        translate(content, kInversePermutation);
    } else if (encoding == Encoding::Cyclic) {
        cyclic(content, static_cast<std::uint32_t>(id));
    }
}

}  // namespace builder
