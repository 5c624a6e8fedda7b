// The few properties of style sheets that decide how a document reads as plain text.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "loaders/html_scanner.h"

namespace ternview {

struct TextStyle {
    std::optional<bool> isHidden;
    std::optional<bool> keepsBlanks;
    std::optional<bool> hasMarker;    // of list items
    std::optional<double> marginTop;  // in CSS pixels, with a guess for what depends on fonts
    std::optional<double> marginBottom;
};

/// Of style sheets those rules count whose selectors are nothing but the name, class or id of an element, or a name and a class.
class TextStyles {
public:
    void append(std::string_view css);

    /// The rules for an element, and what its style attribute says.
    TextStyle of(const HtmlToken& tag) const;

private:
    std::unordered_map<std::string, TextStyle> m_rules;  // by selector, in lower case
};

}  // namespace ternview
