// Texts compared without regard to the case of their ASCII letters.
#pragma once

#include <algorithm>
#include <string_view>

namespace ternview {

constexpr char asciiLower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c;
}

/// @param prefix in lower case
inline bool startsWithNoCase(std::string_view text, std::string_view prefix) {
    return text.size() >= prefix.size() &&
           std::equal(prefix.begin(), prefix.end(), text.begin(), [](char a, char b) { return a == asciiLower(b); });
}

}  // namespace ternview
