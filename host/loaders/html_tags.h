// What the guard has to know of each HTML element.
#pragma once

#include <string_view>

namespace ternview {

enum class TagKind {
    Unknown,   // the tag is dropped, its content stays
    Document,  // html, head, body: written once by the guard itself
    Dropped,   // dropped with all its content
    Style,     // a style sheet
    Void,      // has no content
    Block,     // ends an open paragraph
    Paragraph,
    Heading,
    ListItem,  // ends the open one of its list
    Term,      // dt, dd
    Inline,
    Table,
    Section,  // thead, tbody, tfoot
    Row,
    Cell,
    Caption,
};

/// @param name in lower case
TagKind tagKind(std::string_view name);

}  // namespace ternview
