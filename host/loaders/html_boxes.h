// Boxes that are as wide as what stands in them, which floats and boxes in lines are: the layout engine lays out each of them
// twice, and what stands in some of them twice for each.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

namespace ternview {

/// Which elements style sheets may make such boxes of.
class BoxSelectors {
public:
    void add(std::string_view selector);
    /// @param tag a start tag with its attributes, in lower case
    bool fit(std::string_view tag) const;

private:
    struct Condition {
        std::string element;  // its name, or empty
        std::string attribute;
        std::string value;  // a part of it, or empty
    };
    static constexpr std::size_t kMaxConditions = 20;

    std::unordered_set<std::string> m_names;  // of elements, of classes behind ".", and ids behind "#"
    std::vector<Condition> m_conditions;
    bool m_any = false;
};

/// Whether declarations, as they go on to the engine and in lower case, make such a box.
bool makeBox(std::string_view declarations);

/// A well nested body, in which such boxes that cost too much in the place where they stand are blocks like others.
std::string withAffordableBoxes(std::string_view body, const BoxSelectors& selectors);

}  // namespace ternview
