// UTF-8 and UTF-16.

#include <cstring>

#include "ternbase/ternbase.h"
#include "ternbase/utf.h"

std::uint64_t TbUtf8FromWide(const char16_t* text, std::uint64_t units, char* out, std::uint64_t capacity) {
    if (text == nullptr || out == nullptr) {
        return 0;
    }
    const char16_t* end = text + units;
    std::uint64_t written = 0;
    while (text != end) {
        char bytes[4];
        const std::size_t count = ternbase::putUtf8(ternbase::takeUtf16(text, end), bytes);
        if (count > capacity - written) {
            return 0;
        }
        std::memcpy(out + written, bytes, count);
        written += count;
    }
    return written;
}

std::uint64_t TbWideFromUtf8(const char* text, std::uint64_t bytes, char16_t* out, std::uint64_t capacity) {
    if (text == nullptr || out == nullptr) {
        return 0;
    }
    const char* end = text + bytes;
    std::uint64_t written = 0;
    while (text != end) {
        const char32_t character = ternbase::takeUtf8(text, end);
        if (character == ternbase::kInvalidUtf8) {
            return 0;
        }
        char16_t units[2];
        const std::size_t count = ternbase::putUtf16(character, units);
        if (count > capacity - written) {
            return 0;
        }
        std::memcpy(out + written, units, count * sizeof(char16_t));
        written += count;
    }
    return written;
}

const char16_t* TbNextChar(const char16_t* position, std::uint64_t units) {
    if (units != 0) {
        ternbase::takeUtf16(position, position + units);
    }
    return position;
}
