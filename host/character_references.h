// Character references of HTML, as browsers read them.
#pragma once

#include <string>
#include <string_view>

namespace ternview {

enum class ReferencePlace { kText, kAttribute };  // in an attribute, "&copy=1" belongs to an address

/**
 * The text with all its character references replaced: named ones of HTML 4, those of Latin-1 without their semicolon too, and
 * numbers, of which 128 to 159 mean the characters of windows-1252. What is no reference stays. Never longer than the text by
 * more than half.
 */
std::string withoutReferences(std::string_view text, ReferencePlace place);

}  // namespace ternview
