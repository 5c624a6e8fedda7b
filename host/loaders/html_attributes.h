// Attributes of HTML elements: which go on to the layout engine, and which become styles because the engine does not know them.
#pragma once

#include "html_addresses.h"
#include "html_scanner.h"

#include <optional>
#include <string>
#include <string_view>

namespace ternview {

enum class ChildAlignment { Default, Center, Left, Right };

/// What a table passes on to its rows and cells.
struct TableAttributes {
    std::string cellPadding;  // a declaration, or empty
    std::string cellBorder;   // a declaration, or empty
    std::string rowAlign;     // declaration of the current row's valign, or empty
};

/// The number in an attribute such as colspan, between `least` and `most`; nothing when it is no number.
std::optional<int> attributeNumber(std::string_view value, int least, int most);

/// How the align attribute (or the element itself) places tables inside.
ChildAlignment childAlignment(const HtmlToken& token, ChildAlignment inherited);

/// The colour that a body's link attribute gives to links, as an attribute of theirs behind a space; empty for none.
std::string linkHint(const HtmlToken& body);

/// How a row aligns its cells, as a declaration; empty when it does not.
std::string rowAlignment(const HtmlToken& token);

/// The style of a box to put around a table that its style attribute places in a line; empty for all other elements.
std::string lineBoxStyle(const HtmlToken& token);

/// Whether the style attribute makes a box of an element that is inline by itself.
bool hasDisplayStyle(const HtmlToken& token);

/**
 * The attributes of a start tag as text, each behind a space.
 *
 * @param surrounding how the surroundings place tables
 * @param table the table that a row or cell stands in; null for all other elements
 */
std::string safeAttributes(const HtmlToken& token, ChildAlignment surrounding, const TableAttributes* table,
                           PictureAddresses& pictures);

/**
 * The value of an attribute in a start tag, or in its attributes alone, as they go on to the engine.
 *
 * @return a part of the tag, with references for quotes and the like; nothing when the attribute is not there
 */
std::optional<std::string_view> writtenAttribute(std::string_view tag, std::string_view name);

}  // namespace ternview
