// Style sheets and style attributes made safe for the layout engine, and mended where it reads them differently from browsers.
#pragma once

#include "html_addresses.h"
#include "html_boxes.h"
#include "html_demands.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace ternview {

/**
 * The declarations of a style attribute or a rule, each with a semicolon behind it. Addresses and gradients become short names;
 * lengths become whole pixels where the engine would cut off their fractions, and none is beyond what a page can need; `display`
 * values that make tables of other elements are left out, as the engine's repair of incomplete tables fails on some of them.
 */
std::string safeDeclarations(std::string_view css, PictureAddresses& addresses);

/// What declarations ask for that the engine does not have.
HtmlDemands demandsOf(std::string_view css);

/// How many elements of a document have a name, and a class, which is counted under "." and its name; all in lower case.
using ElementCounts = std::unordered_map<std::string, std::size_t>;
constexpr std::size_t kMaxElementCounts = 20'000;  // when there are as many, not all names are counted

/// Collects the style sheets of a document.
class SafeStyleSheet {
public:
    /// @param media the media attribute of the style sheet, empty for all
    void append(std::string_view css, std::string_view media, PictureAddresses& addresses);
    void append(std::string_view css, PictureAddresses& addresses) { append(css, {}, addresses); }
    /**
     * The rules that can be afforded, in their order.
     *
     * @param elements the number of elements, each of which is compared with each selector
     * @param depth how deep elements are nested: a selector of n parts may be compared with each choice of n - 1 ancestors
     * @param counts of the elements to which rules may apply, each of which gets a copy of their declarations
     * @param floats how many of them may float
     */
    std::string text(std::size_t elements, std::size_t depth, const ElementCounts& counts, std::size_t floats) const;
    /// The elements that the rules may make boxes of which are as wide as their content.
    BoxSelectors boxes() const;
    /// What the rules ask for that apply to any element.
    HtmlDemands demands(std::size_t elements, const ElementCounts& counts) const;

private:
    struct Rule {
        std::vector<std::string> selectors;
        std::string declarations;
        HtmlDemands demands;
    };
    /// @param nesting how many more conditions may stand around each other
    void appendRules(std::string_view css, int nesting, PictureAddresses& addresses);

    std::vector<Rule> m_rules;
};

}  // namespace ternview
