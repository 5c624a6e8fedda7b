#include "pstsdk/codec.h"

#include <array>
#include <cstring>

namespace pstsdk::disk {

namespace {

using byte_table = std::array<byte, 256>;

// The first two thirds of mpbbCrypt ([MS-PST] 5.1); the last third is the inverse of the first.
constexpr byte_table mpbbR = {
    65,  54,  19,  98,  168, 33,  110, 187, 244, 22,  204, 4,   127, 100, 232, 93,  30,  242, 203, 42,  116, 197, 94,  53,
    210, 149, 71,  158, 150, 45,  154, 136, 76,  125, 132, 63,  219, 172, 49,  182, 72,  95,  246, 196, 216, 57,  139, 231,
    35,  59,  56,  142, 200, 193, 223, 37,  177, 32,  165, 70,  96,  78,  156, 251, 170, 211, 86,  81,  69,  124, 85,  0,
    7,   201, 43,  157, 133, 155, 9,   160, 143, 173, 179, 15,  99,  171, 137, 75,  215, 167, 21,  90,  113, 102, 66,  191,
    38,  74,  107, 152, 250, 234, 119, 83,  178, 112, 5,   44,  253, 89,  58,  134, 126, 206, 6,   235, 130, 120, 87,  199,
    141, 67,  175, 180, 28,  212, 91,  205, 226, 233, 39,  79,  195, 8,   114, 128, 207, 176, 239, 245, 40,  109, 190, 48,
    77,  52,  146, 213, 14,  60,  34,  50,  229, 228, 249, 159, 194, 209, 10,  129, 18,  225, 238, 145, 131, 118, 227, 151,
    230, 97,  138, 23,  121, 164, 183, 220, 144, 122, 92,  140, 2,   166, 202, 105, 222, 80,  26,  17,  147, 185, 82,  135,
    88,  252, 237, 29,  55,  73,  27,  106, 224, 41,  51,  153, 189, 108, 217, 148, 243, 64,  84,  111, 240, 198, 115, 184,
    214, 62,  101, 24,  68,  31,  221, 103, 16,  241, 12,  25,  236, 174, 3,   161, 20,  123, 169, 11,  255, 248, 163, 192,
    162, 1,   247, 46,  188, 36,  104, 117, 13,  254, 186, 47,  181, 208, 218, 61};

constexpr byte_table mpbbS = {
    20,  83,  15,  86,  179, 200, 122, 156, 235, 101, 72,  23,  22,  21,  159, 2,   204, 84,  124, 131, 0,   13,  12,  11,
    162, 98,  168, 118, 219, 217, 237, 199, 197, 164, 220, 172, 133, 116, 214, 208, 167, 155, 174, 154, 150, 113, 102, 195,
    99,  153, 184, 221, 115, 146, 142, 132, 125, 165, 94,  209, 93,  147, 177, 87,  81,  80,  128, 137, 82,  148, 79,  78,
    10,  107, 188, 141, 127, 110, 71,  70,  65,  64,  68,  1,   17,  203, 3,   63,  247, 244, 225, 169, 143, 60,  58,  249,
    251, 240, 25,  48,  130, 9,   46,  201, 157, 160, 134, 73,  238, 111, 77,  109, 196, 45,  129, 52,  37,  135, 27,  136,
    170, 252, 6,   161, 18,  56,  253, 76,  66,  114, 100, 19,  55,  36,  106, 117, 119, 67,  255, 230, 180, 75,  54,  92,
    228, 216, 53,  61,  69,  185, 44,  236, 183, 49,  43,  41,  7,   104, 163, 14,  105, 123, 24,  158, 33,  57,  190, 40,
    26,  91,  120, 245, 35,  202, 42,  176, 175, 62,  254, 4,   140, 231, 229, 152, 50,  149, 211, 246, 74,  232, 166, 234,
    233, 243, 213, 47,  112, 32,  242, 31,  5,   103, 173, 85,  16,  206, 205, 227, 39,  59,  218, 186, 215, 194, 38,  212,
    145, 29,  210, 28,  34,  51,  248, 250, 241, 90,  239, 207, 144, 182, 139, 181, 189, 192, 191, 8,   151, 30,  108, 226,
    97,  224, 198, 193, 89,  171, 187, 88,  222, 95,  223, 96,  121, 126, 178, 138};

constexpr byte_table inverse_of(const byte_table& table) {
    byte_table inverse{};
    for (std::size_t i = 0; i < table.size(); ++i) {
        inverse[table[i]] = static_cast<byte>(i);
    }
    return inverse;
}

constexpr bool is_permutation(const byte_table& table) {
    const byte_table inverse = inverse_of(table);
    for (std::size_t i = 0; i < table.size(); ++i) {
        if (inverse[table[i]] != i || table[inverse[i]] != i) {
            return false;
        }
    }
    return true;
}

constexpr byte_table mpbbI = inverse_of(mpbbR);

static_assert(is_permutation(mpbbR));
static_assert(inverse_of(mpbbS) == mpbbS);
static_assert(mpbbI[0] == 71 && mpbbI[1] == 241 && mpbbI[2] == 180 && mpbbI[3] == 230 && mpbbI[255] == 236);

constexpr std::size_t crc_step = 8;  // bytes taken at once

// Table 0 is the usual one; table n holds what a byte contributes from n bytes further ahead.
constexpr std::array<std::array<ulong, 256>, crc_step> make_crc_tables() {
    std::array<std::array<ulong, 256>, crc_step> tables{};
    for (ulong i = 0; i < 256; ++i) {
        ulong value = i;
        for (int bit = 0; bit < 8; ++bit) {
            value = (value >> 1) ^ ((value & 1) != 0 ? 0xEDB88320U : 0U);
        }
        tables[0][i] = value;
    }
    for (std::size_t n = 1; n < crc_step; ++n) {
        for (std::size_t i = 0; i < 256; ++i) {
            tables[n][i] = tables[0][tables[n - 1][i] & 255] ^ (tables[n - 1][i] >> 8);
        }
    }
    return tables;
}

constexpr auto crc_tables = make_crc_tables();

static_assert(crc_tables[0][1] == 0x77073096 && crc_tables[0][255] == 0x2D02EF8D);

}  // namespace

ulong compute_crc(const void* data, std::size_t size) {
    const auto* next = static_cast<const byte*>(data);
    ulong crc = 0;
    for (; size >= crc_step; size -= crc_step, next += crc_step) {
        ulonglong bytes;
        std::memcpy(&bytes, next, sizeof(bytes));
        bytes ^= crc;
        crc = 0;
        for (std::size_t i = 0; i < crc_step; ++i) {
            crc ^= crc_tables[crc_step - 1 - i][(bytes >> (8 * i)) & 255];
        }
    }
    for (; size > 0; --size, ++next) {
        crc = crc_tables[0][(crc ^ *next) & 255] ^ (crc >> 8);
    }
    return crc;
}

ushort compute_signature(ulonglong id, ulonglong address) {
    const ulonglong x = id ^ address;
    return static_cast<ushort>((x >> 16) ^ x);
}

void permute(void* data, std::size_t size) {
    auto* bytes = static_cast<byte*>(data);
    for (std::size_t i = 0; i < size; ++i) {
        bytes[i] = mpbbI[bytes[i]];
    }
}

void cyclic(void* data, std::size_t size, ulong key) {
    auto* bytes = static_cast<byte*>(data);
    auto w = static_cast<ushort>(key ^ (key >> 16));
    for (std::size_t i = 0; i < size; ++i, ++w) {
        const auto lo = static_cast<byte>(w);
        const auto hi = static_cast<byte>(w >> 8);
        byte b = mpbbR[static_cast<byte>(bytes[i] + lo)];
        b = mpbbS[static_cast<byte>(b + hi)];
        b = mpbbI[static_cast<byte>(b - hi)];
        bytes[i] = static_cast<byte>(b - lo);
    }
}

}  // namespace pstsdk::disk
