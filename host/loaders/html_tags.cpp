#include "html_tags.h"

#include <algorithm>
#include <initializer_list>
#include <string>
#include <unordered_map>

namespace ternview {
namespace {

using Table = std::unordered_map<std::string_view, TagKind>;

Table makeTable() {
    struct Group {
        TagKind kind;
        std::initializer_list<std::string_view> names;
    };
    static const Group kGroups[] = {
        {TagKind::Document, {"html", "head", "body"}},
        {TagKind::Dropped,
         {"script", "iframe", "title", "xml", "svg", "math", "template", "noframes", "noembed", "select", "textarea"}},
        {TagKind::Style, {"style"}},
        {TagKind::Void, {"br", "hr", "img"}},
        {TagKind::Block, {"address",  "article",    "aside",  "blockquote", "center",  "details", "dir",    "div",     "dl",
                          "fieldset", "figcaption", "figure", "footer",     "form",    "header",  "hgroup", "legend",  "main",
                          "menu",     "nav",        "ol",     "pre",        "section", "summary", "ul",     "listing", "xmp"}},
        {TagKind::Paragraph, {"p"}},
        {TagKind::Heading, {"h1", "h2", "h3", "h4", "h5", "h6"}},
        {TagKind::ListItem, {"li"}},
        {TagKind::Term, {"dt", "dd"}},
        {TagKind::Inline, {"a",    "abbr",  "acronym", "b",      "bdi",    "bdo", "big",   "button", "cite", "code", "del",
                           "dfn",  "em",    "font",    "i",      "ins",    "kbd", "label", "mark",   "nobr", "q",    "s",
                           "samp", "small", "span",    "strike", "strong", "sub", "sup",   "time",   "tt",   "u",    "var"}},
        {TagKind::Table, {"table"}},
        {TagKind::Section, {"thead", "tbody", "tfoot"}},
        {TagKind::Row, {"tr"}},
        {TagKind::Cell, {"td", "th"}},
        {TagKind::Caption, {"caption"}},
    };
    Table table;
    for (const Group& group : kGroups) {
        for (const std::string_view name : group.names) {
            table.emplace(name, group.kind);
        }
    }
    return table;
}

}  // namespace

TagKind tagKind(std::string_view name) {
    static const Table table = makeTable();
    const auto found = table.find(name);
    return found == table.end() ? TagKind::Unknown : found->second;
}

}  // namespace ternview
