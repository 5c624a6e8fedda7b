// One step of UTF-8 and UTF-16, shared by the text and the code-page operations.
#pragma once

#include <cstddef>
#include <cstdint>

namespace ternbase {

inline constexpr char32_t kReplacementCharacter = 0xFFFD;
inline constexpr char32_t kInvalidUtf8 = 0xFFFFFFFF;

/// Takes one character off [position, end), which is not empty; an unpaired surrogate gives U+FFFD.
inline char32_t takeUtf16(const char16_t*& position, const char16_t* end) {
    const char32_t unit = *position++;
    if (unit < 0xD800 || unit > 0xDFFF) {
        return unit;
    }
    if (unit < 0xDC00 && position != end && *position >= 0xDC00 && *position <= 0xDFFF) {
        return 0x10000 + ((unit - 0xD800) << 10) + (static_cast<char32_t>(*position++) - 0xDC00);
    }
    return kReplacementCharacter;
}

/// Writes one character as UTF-16 to `out` (room for two units) and gives the units written.
inline std::size_t putUtf16(char32_t character, char16_t* out) {
    if (character < 0x10000) {
        out[0] = static_cast<char16_t>(character);
        return 1;
    }
    out[0] = static_cast<char16_t>(0xD800 + ((character - 0x10000) >> 10));
    out[1] = static_cast<char16_t>(0xDC00 + ((character - 0x10000) & 0x3FF));
    return 2;
}

/// Writes one character as UTF-8 to `out` (room for four bytes) and gives the bytes written.
inline std::size_t putUtf8(char32_t character, char* out) {
    if (character < 0x80) {
        out[0] = static_cast<char>(character);
        return 1;
    }
    if (character < 0x800) {
        out[0] = static_cast<char>(0xC0 | (character >> 6));
        out[1] = static_cast<char>(0x80 | (character & 0x3F));
        return 2;
    }
    if (character < 0x10000) {
        out[0] = static_cast<char>(0xE0 | (character >> 12));
        out[1] = static_cast<char>(0x80 | ((character >> 6) & 0x3F));
        out[2] = static_cast<char>(0x80 | (character & 0x3F));
        return 3;
    }
    out[0] = static_cast<char>(0xF0 | (character >> 18));
    out[1] = static_cast<char>(0x80 | ((character >> 12) & 0x3F));
    out[2] = static_cast<char>(0x80 | ((character >> 6) & 0x3F));
    out[3] = static_cast<char>(0x80 | (character & 0x3F));
    return 4;
}

/// Takes one character off [position, end), which is not empty. Ill-formed bytes give kInvalidUtf8, once for each maximal
/// beginning of a sequence (The Unicode Standard, "U+FFFD Substitution of Maximal Subparts").
inline char32_t takeUtf8(const char*& position, const char* end) {
    const auto byte = [](const char* at) { return static_cast<unsigned char>(*at); };
    const unsigned lead = byte(position++);
    if (lead < 0x80) {
        return lead;
    }
    int more = 0;
    unsigned low = 0x80;
    unsigned high = 0xBF;
    char32_t character = 0;
    if (lead >= 0xC2 && lead <= 0xDF) {
        more = 1;
        character = lead & 0x1F;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        more = 2;
        character = lead & 0x0F;
        low = lead == 0xE0 ? 0xA0 : 0x80;
        high = lead == 0xED ? 0x9F : 0xBF;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        more = 3;
        character = lead & 0x07;
        low = lead == 0xF0 ? 0x90 : 0x80;
        high = lead == 0xF4 ? 0x8F : 0xBF;
    } else {
        return kInvalidUtf8;
    }
    for (; more > 0; --more) {
        if (position == end || byte(position) < low || byte(position) > high) {
            return kInvalidUtf8;
        }
        character = (character << 6) | (byte(position++) & 0x3F);
        low = 0x80;
        high = 0xBF;
    }
    return character;
}

}  // namespace ternbase
