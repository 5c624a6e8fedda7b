// Finding one's way through the text of style sheets, whatever it is: always forward, never failing.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace ternview::css {

inline bool isSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f';
}
inline bool isDigit(char c) {
    return c >= '0' && c <= '9';
}
inline char lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
}
/// A character of names.
inline bool isWord(char c) {
    const char l = lower(c);
    return (l >= 'a' && l <= 'z') || isDigit(c) || c == '_' || c == '-' || static_cast<unsigned char>(c) >= 0x80;
}

std::string lowered(std::string_view text);
std::string_view trimmed(std::string_view text);
std::string withoutComments(std::string_view css);

/// Behind a string, comment or address that starts at `at`; `at` itself when none starts there.
std::size_t behindOpaque(std::string_view css, std::size_t at);

/// The first of some characters outside strings, comments and addresses; the text's size when there is none.
std::size_t findOutside(std::string_view css, std::size_t at, std::string_view wanted);

/// Behind the bracket that closes the one at `at`; the text's size when none does.
std::size_t behindBrackets(std::string_view css, std::size_t at);

/// What a selector says of the elements themselves that it is for, without those around and in front of them.
std::string_view lastPart(std::string_view selector);

}  // namespace ternview::css
