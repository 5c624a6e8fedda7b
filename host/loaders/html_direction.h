// Which way text runs.
#pragma once

#include "html_scanner.h"

#include <string_view>

namespace ternview {

/// Whether a character belongs to a script that is written from right to left.
bool isRightToLeftLetter(char32_t character);

/// Whether a text (UTF-8, with character references) has a letter of such a script.
bool hasRightToLeftLetter(std::string_view text);

/// Whether a start tag says that its element runs from right to left.
bool isRightToLeft(const HtmlToken& token);

}  // namespace ternview
