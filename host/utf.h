// Unicode encodings, as far as file names and text documents need them.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace ternview {

/// One step through UTF-8 text.
struct Utf8Step {
    char32_t character = 0;  // U+FFFD when `valid` is false
    std::size_t size = 1;    // bytes to go on by
    bool valid = true;
};

/// Reads the character at the start of the text, which must not be empty. Of an invalid sequence the longest valid beginning
/// counts as one step, as the Unicode standard recommends for replacement.
Utf8Step readUtf8(std::string_view text);

bool isValidUtf8(std::string_view text);

/// The beginning of valid UTF-8, of at most that many bytes, that ends where a character does.
std::string_view beginningOfUtf8(std::string_view text, std::size_t most);

/// The text with U+FFFD in place of each invalid sequence.
std::string repairedUtf8(std::string_view text);

/// Whether a character is one that Unicode will never assign. The drawing library takes text with such a character for damaged.
bool isNoncharacter(char32_t character);

/// Valid UTF-8 with U+FFFD in place of each noncharacter.
std::string drawableUtf8(std::string_view text);

void appendUtf8(std::string& out, char32_t character);

/// Invalid sequences become U+FFFD.
std::u16string utf16FromUtf8(std::string_view text);

enum class ByteOrder { kLittleEndian, kBigEndian };

/// Unpaired surrogates and an odd last byte become U+FFFD.
std::string utf8FromUtf16(std::string_view bytes, ByteOrder order);

}  // namespace ternview
