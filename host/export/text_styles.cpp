#include "export/text_styles.h"

#include <algorithm>
#include <vector>

#include "character_references.h"
#include "export/css_rules.h"

namespace ternview {
namespace {

using Kind = CssToken::Kind;

constexpr std::size_t kMostRules = 20'000;
constexpr std::size_t kMostClasses = 16;
constexpr double kFontSize = 16;

std::string lowered(std::string_view text) {
    std::string result(text);
    std::ranges::transform(result, result.begin(), [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
    return result;
}

double pixels(const CssToken& token) {
    struct Unit {
        std::string_view name;
        double pixels;
    };
    static constexpr Unit kUnits[] = {{"pt", 96.0 / 72}, {"in", 96},        {"cm", 96 / 2.54},  {"mm", 96 / 25.4},
                                      {"pc", 16},        {"em", kFontSize}, {"rem", kFontSize}, {"ex", kFontSize / 2}};
    const auto unit = std::ranges::find(kUnits, lowered(token.text), &Unit::name);
    return token.number * (unit == std::end(kUnits) ? 1 : unit->pixels);
}

/// The lengths in a value; the shorthand for four sides has one to four of them.
std::vector<double> lengths(const std::vector<CssToken>& value) {
    std::vector<double> result;
    for (const CssToken& token : value) {
        if (token.kind == Kind::kNumber || token.kind == Kind::kDimension) {
            result.push_back(pixels(token));
        }
    }
    return result;
}

void addDeclaration(TextStyle& style, const std::string& property, const std::vector<CssToken>& value) {
    const std::string word = value[0].kind == Kind::kIdent ? lowered(value[0].text) : std::string();
    const std::vector<double> sizes = lengths(value);
    if (property == "display") {
        style.isHidden = word == "none";
    } else if (property == "visibility" && (word == "hidden" || word == "collapse")) {
        style.isHidden = true;
    } else if ((property == "max-height" || property == "opacity") && !sizes.empty() && sizes[0] == 0) {
        style.isHidden = true;
    } else if (property == "white-space") {
        style.keepsBlanks = word.starts_with("pre");
    } else if (property == "list-style" || property == "list-style-type") {
        style.hasMarker = word != "none";
    } else if (property == "margin" && !sizes.empty()) {
        style.marginTop = sizes[0];
        style.marginBottom = sizes.size() > 2 ? sizes[2] : sizes[0];
    } else if (property == "margin-top" && !sizes.empty()) {
        style.marginTop = sizes[0];
    } else if (property == "margin-bottom" && !sizes.empty()) {
        style.marginBottom = sizes[0];
    }
}

TextStyle styleOf(std::string_view declarations) {
    TextStyle style;
    readDeclarations(declarations, [&style](const std::string& property, const std::vector<CssToken>& value) {
        addDeclaration(style, property, value);
    });
    return style;
}

template <typename Value>
void merge(std::optional<Value>& earlier, const std::optional<Value>& later) {
    earlier = later ? later : earlier;
}

void merge(TextStyle& earlier, const TextStyle& later) {
    merge(earlier.isHidden, later.isHidden);
    merge(earlier.keepsBlanks, later.keepsBlanks);
    merge(earlier.hasMarker, later.hasMarker);
    merge(earlier.marginTop, later.marginTop);
    merge(earlier.marginBottom, later.marginBottom);
}

/// Whether a selector is a name, "." and a class, both, or "#" and an id.
bool isPlain(std::string_view selector) {
    const std::size_t mark = selector.find_first_of(".#");
    const auto isPart = [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '_' || static_cast<unsigned char>(c) >= 0x80;
    };
    const auto isName = [&](std::string_view name) { return !name.empty() && std::ranges::all_of(name, isPart); };
    if (mark == std::string_view::npos) {
        return isName(selector);
    }
    return isName(selector.substr(mark + 1)) && (mark == 0 || (selector[mark] == '.' && isName(selector.substr(0, mark))));
}

/// Those selectors of a list that are looked up.
std::vector<std::string> plainSelectors(std::string_view list) {
    constexpr const char* kBlanks = " \t\r\n\f";
    std::vector<std::string> result;
    while (!list.empty()) {
        std::string_view selector = list.substr(0, list.find(','));
        list.remove_prefix(std::min(selector.size() + 1, list.size()));
        selector.remove_prefix(std::min(selector.find_first_not_of(kBlanks), selector.size()));
        selector = selector.substr(0, selector.find_last_not_of(kBlanks) + 1);
        std::string name = lowered(selector);
        if (isPlain(name)) {
            result.push_back(std::move(name));
        }
    }
    return result;
}

}  // namespace

void TextStyles::append(std::string_view css) {
    readRules(css, [this](std::string_view prelude, std::string_view block) {
        if (prelude.starts_with('@')) {
            return;
        }
        const TextStyle style = styleOf(block);
        for (const std::string& selector : plainSelectors(prelude)) {
            if (m_rules.size() < kMostRules || m_rules.contains(selector)) {
                merge(m_rules[selector], style);
            }
        }
    });
}

TextStyle TextStyles::of(const HtmlToken& tag) const {
    TextStyle style;
    const auto apply = [&](const std::string& selector) {
        const auto rule = m_rules.find(selector);
        if (rule != m_rules.end()) {
            merge(style, rule->second);
        }
    };
    if (!m_rules.empty()) {
        apply(tag.name);
        const std::string classes = lowered(tag.attribute("class").substr(0, 1000));
        std::size_t count = 0;
        for (std::size_t at = classes.find_first_not_of(" \t\r\n"); at != std::string::npos && count < kMostClasses; ++count) {
            const std::size_t end = std::min(classes.find_first_of(" \t\r\n", at), classes.size());
            const std::string name = '.' + classes.substr(at, end - at);
            apply(name);
            apply(tag.name + name);
            at = classes.find_first_not_of(" \t\r\n", end);
        }
        if (const std::string_view id = tag.attribute("id"); !id.empty()) {
            apply('#' + lowered(id.substr(0, 1000)));
        }
    }
    if (const std::string_view own = tag.attribute("style"); !own.empty()) {
        merge(style, styleOf(withoutReferences(own, ReferencePlace::kAttribute)));
    }
    const auto isHidden = [](const HtmlAttribute& attribute) { return attribute.name == "hidden"; };
    if (std::ranges::any_of(tag.attributes, isHidden)) {
        style.isHidden = true;
    }
    return style;
}

}  // namespace ternview
