#include "html_css.h"

#include "html_budget.h"
#include "html_css_text.h"
#include "html_media.h"

#include <algorithm>
#include <array>

namespace ternview {
namespace {

using namespace css;

constexpr std::string_view kMedia = "@media";
constexpr int kMaxMediaNesting = 2;
constexpr std::size_t kMaxSelectorLength = 300;
constexpr std::size_t kMaxRules = 20000;
constexpr double kSelectorBudget = 2e8;        // comparisons for one selector at its worst
constexpr double kComparisonBudget = 4e7;      // of all selectors, by what their parts can apply to
constexpr double kConditionCost = 8;           // of one on an attribute, in comparisons of names
constexpr double kClassCost = 24;              // of each class but the first, as many as an element may have
constexpr double kCountedSiblingCost = 0.1;    // of one that is only counted
constexpr std::size_t kMaxCopies = 1'500'000;  // of properties, one for each element that has them
constexpr std::size_t kMaxCopiedBytes = std::size_t{64} << 20;
constexpr double kSheetBudget = 2e7;      // elements times selectors
constexpr double kMaxContents = 100'000;  // pieces of text that rules put in front of elements and behind them
constexpr double kPiecesPerContent = 6;   // what its element holds, and each picture in it, in pieces of text

/// The comparisons that one element may cost at worst: the choices of `parts` - 1 out of `depth` ancestors.
double worstComparisons(std::size_t parts, std::size_t depth) {
    double result = 1;
    for (std::size_t i = 1; i < parts; ++i) {
        result *= static_cast<double>(depth > i ? depth - i + 1 : 1) / static_cast<double>(i);
    }
    return result;
}

std::size_t countParts(std::string_view selector) {
    std::size_t parts = 0;
    bool inside = false;
    for (const char c : selector) {
        const bool separator = isSpace(c) || c == '>' || c == '+' || c == '~';
        parts += !separator && !inside ? 1 : 0;
        inside = !separator;
    }
    return parts;
}

/// Says a condition on a class or an id in the usual way: the engine takes any class for the one that "[class=...]" names.
std::string plainCondition(std::string_view condition) {
    const std::size_t equals = condition.find('=');
    std::string_view name = trimmed(condition.substr(0, equals));
    std::string_view value = equals == std::string_view::npos ? std::string_view() : trimmed(condition.substr(equals + 1));
    if (value.size() >= 2 && (value[0] == '"' || value[0] == '\'')) {
        value = trimmed(value.substr(1, value.size() - 2));
    }
    name.remove_suffix(name.ends_with('~') ? 1 : 0);
    const std::string wanted = lowered(name);
    if ((wanted != "class" && wanted != "id") || !std::ranges::all_of(value, [](char c) { return isWord(c) || isSpace(c); })) {
        return "[" + std::string(condition) + "]";
    }
    std::string result;
    for (std::size_t at = 0; at < value.size();) {
        const std::size_t end = std::min(value.find_first_of(" \t\r\n\f", at), value.size());
        result += end > at ? (wanted == "id" ? "#" : ".") + std::string(value.substr(at, end - at)) : std::string();
        at = end + 1;
    }
    return result.empty() ? "[" + std::string(condition) + "]" : result;
}

std::string plainSelector(std::string_view selector) {
    std::string result;
    for (std::size_t at = 0; at < selector.size();) {
        const std::size_t open = std::min(selector.find('[', at), selector.size());
        const std::size_t close = selector.find(']', open);
        result += selector.substr(at, open - at);
        if (close == std::string_view::npos) {
            return result + std::string(selector.substr(open));
        }
        result += plainCondition(selector.substr(open + 1, close - open - 1));
        at = close + 1;
    }
    return result;
}

std::vector<std::string> safeSelectors(std::string_view list) {
    std::vector<std::string> result;
    while (!list.empty()) {
        const std::size_t comma = std::min(list.find(','), list.size());
        const std::string_view selector = trimmed(list.substr(0, comma));
        list.remove_prefix(std::min(comma + 1, list.size()));
        const bool plain =
            selector.find_first_of("<\\{}@;") == std::string_view::npos && selector.find("/*") == std::string_view::npos;
        if (!selector.empty() && selector.size() <= kMaxSelectorLength && plain && std::ranges::count(selector, '(') <= 1) {
            result.push_back(plainSelector(selector));
        }
    }
    return result;
}

/// Calls `each` for the declarations of a rule, which are safe already.
template <typename Each>
void forEachDeclaration(std::string_view declarations, Each each) {
    for (std::size_t at = 0; at < declarations.size();) {
        const std::size_t end = std::min(findOutside(declarations, at, ";") + 1, declarations.size());
        each(declarations.substr(at, end - at));
        at = end;
    }
}

bool isFloat(std::string_view declaration) {
    const std::string text = lowered(declaration);
    return text.starts_with("float:") && !text.starts_with("float:none");
}

/// Declarations without those that make elements float.
std::string withoutFloats(std::string_view declarations) {
    std::string result;
    forEachDeclaration(declarations, [&result](std::string_view declaration) {
        result += isFloat(declaration) ? std::string_view() : declaration;
    });
    return result;
}

/// How many elements a selector can apply to, by the class or name in its last part.
std::size_t possibleMatches(std::string_view selector, const ElementCounts& counts, std::size_t elements) {
    if (selector.find_first_of("\"'") != std::string_view::npos) {
        return elements;
    }
    std::string_view subject = lastPart(selector);
    subject = subject.substr(0, subject.find_first_of(":[("));
    if (const std::size_t dot = subject.find('.'); dot != std::string_view::npos) {
        subject.remove_prefix(dot);
    }
    std::size_t end = subject.starts_with('.') ? 1 : 0;
    while (end < subject.size() && isWord(subject[end])) {
        ++end;
    }
    const std::string name = lowered(subject.substr(0, end));
    const bool sure = end == subject.size() || subject[end] == '.' || subject[end] == '#';
    if (!sure || name.empty() || name == ".") {
        return elements;
    }
    if (name == "html" || name == "body") {
        return 1;
    }
    const auto countOf = [&](const std::string& wanted) {
        const auto found = counts.find(wanted);
        return found != counts.end() ? found->second : counts.size() >= kMaxElementCounts ? elements : 0;
    };
    return countOf(name) + (name == "tbody" ? countOf("table") : 0);  // the parser adds one to a table that has none
}

/// How many properties the engine makes of declarations.
std::size_t countProperties(std::string_view declarations) {
    struct Shorthand {
        std::string_view start;
        std::size_t properties;
    };
    static constexpr std::array<Shorthand, 9> kShorthands{{{"border:", 12},
                                                           {"border-radius:", 8},
                                                           {"border-", 4},
                                                           {"background:", 8},
                                                           {"font:", 6},
                                                           {"margin:", 4},
                                                           {"padding:", 4},
                                                           {"list-style:", 3},
                                                           {"", 1}}};
    std::size_t count = 0;
    forEachDeclaration(declarations, [&count](std::string_view declaration) {
        count += std::ranges::find_if(kShorthands, [declaration](const Shorthand& shorthand) {
                     return declaration.starts_with(shorthand.start);
                 })->properties;
    });
    return count;
}

/// How many pieces of text a rule puts in front of an element or behind it, with what holds them.
double contentPieces(std::string_view declarations) {
    constexpr std::string_view kContent = "content:";
    double pieces = kPiecesPerContent;
    forEachDeclaration(declarations, [&](std::string_view declaration) {
        if (declaration.starts_with(kContent)) {
            const auto pictures = static_cast<double>(std::ranges::count(declaration, '('));
            pieces += HtmlBudget::pieces(declaration.substr(kContent.size())) + pictures * kPiecesPerContent;
        }
    });
    return pieces;
}

bool hasContent(std::string_view selector) {
    const std::string text = lowered(selector);
    return text.find(":before") != std::string::npos || text.find(":after") != std::string::npos;
}

struct SelectorPart {
    std::string_view text;
    char combinator;  // in front of it: ' ', '>', '+' or '~'
};

/// @return nothing when brackets or quotes are not in pairs
std::vector<SelectorPart> partsOf(std::string_view selector) {
    std::vector<SelectorPart> parts;
    char combinator = ' ';
    std::size_t start = std::string_view::npos;
    int brackets = 0;
    for (std::size_t at = 0; at <= selector.size(); ++at) {
        const char c = at < selector.size() ? selector[at] : ' ';
        const bool divides = brackets == 0 && (isSpace(c) || c == '>' || c == '+' || c == '~');
        if (!divides) {
            start = std::min(start, at);
            brackets += c == '[' || c == '(' ? 1 : c == ']' || c == ')' ? -1 : 0;
            if (c == '"' || c == '\'') {
                at = selector.find(c, at + 1);
                if (at == std::string_view::npos) {
                    return {};
                }
            }
            continue;
        }
        if (start != std::string_view::npos) {
            parts.push_back({selector.substr(start, at - start), combinator});
            start = std::string_view::npos;
            combinator = ' ';
        }
        combinator = isSpace(c) ? combinator : c;
    }
    return brackets == 0 ? parts : std::vector<SelectorPart>();
}

/// What the engine does for a selector beyond comparing each element with its last part: it tries each ancestor or sibling that a
/// part in front may mean, and behind each one that fits, those of the part in front of that.
double comparisons(std::string_view selector, const ElementCounts& counts, std::size_t elements, std::size_t depth) {
    const std::vector<SelectorPart> parts = partsOf(selector);
    if (parts.empty()) {
        return kComparisonBudget + 1;
    }
    const auto matches = [&](const SelectorPart& part) {
        return static_cast<double>(std::max<std::size_t>(std::min(possibleMatches(part.text, counts, elements), elements), 1));
    };
    double paths = matches(parts.back());
    double result = 0;
    double chosen = 0;  // ancestors or siblings, in a row
    for (std::size_t at = parts.size(); at-- > 0;) {
        const SelectorPart& part = parts[at];
        const auto conditions = static_cast<double>(std::ranges::count(part.text, '['));
        const double classes = std::max(0.0, static_cast<double>(std::ranges::count(part.text, '.') - 1));
        const std::string text = lowered(part.text);
        const bool countsSiblings = text.find("-child") != std::string::npos || text.find("-of-") != std::string::npos;
        const double siblings = countsSiblings ? static_cast<double>(elements) * kCountedSiblingCost : 0;
        result += paths * (conditions * kConditionCost + classes * kClassCost + siblings);
        if (at == 0) {
            break;
        }
        const bool isNeighbour = part.combinator == '>' || part.combinator == '+';
        const auto reach = static_cast<double>(isNeighbour ? 1 : part.combinator == '~' ? elements : depth);
        // The engine looks for the neighbour in front among all siblings.
        result += paths * (part.combinator == '+' ? static_cast<double>(elements) * kCountedSiblingCost : reach);
        chosen = isNeighbour ? 0 : chosen + 1;
        paths *= std::max(1.0, std::min(reach, matches(parts[at - 1])) / std::max(chosen, 1.0));
    }
    return result;
}

}  // namespace

void SafeStyleSheet::append(std::string_view css, std::string_view media, PictureAddresses& addresses) {
    if (mediaApply(media)) {
        appendRules(css, kMaxMediaNesting, addresses);
    }
}

void SafeStyleSheet::appendRules(std::string_view css, int nesting, PictureAddresses& addresses) {
    for (std::size_t at = 0; at < css.size() && m_rules.size() < kMaxRules;) {
        if (css.substr(at).starts_with("<!--") || css.substr(at).starts_with("-->")) {
            at += css[at] == '<' ? 4 : 3;
            continue;
        }
        if (isSpace(css[at])) {
            ++at;
            continue;
        }
        const std::size_t brace = findOutside(css, at, "{};");
        if (brace == css.size() || css[brace] != '{') {
            at = brace + 1;
            continue;
        }
        const std::string prelude = withoutComments(css.substr(at, brace - at));
        std::size_t end = brace + 1;
        for (std::size_t level = 1; level > 0 && end < css.size(); ++end) {
            end = findOutside(css, end, trimmed(prelude).starts_with('@') ? "{}" : "}");
            level = end < css.size() && css[end] == '{' ? level + 1 : level - 1;
        }
        end = std::min(end, css.size());
        std::string_view body = css.substr(brace + 1, end - brace - 1);
        if (body.ends_with('}')) {
            body.remove_suffix(1);
        }
        at = end;
        const std::string_view start = trimmed(prelude);
        if (!start.starts_with('@')) {
            m_rules.push_back({safeSelectors(start), safeDeclarations(body, addresses), demandsOf(body)});
        } else if (nesting > 0 && lowered(start.substr(0, kMedia.size())) == kMedia && mediaApply(start.substr(kMedia.size()))) {
            appendRules(body, nesting - 1, addresses);
        }
    }
}

std::string SafeStyleSheet::text(std::size_t elements, std::size_t depth, const ElementCounts& counts, std::size_t floats) const {
    std::string result;
    double spent = 0;
    double compared = 0;
    std::size_t copies = 0;
    std::size_t bytes = 0;
    double contents = 0;
    for (const Rule& rule : m_rules) {
        std::string selectors;
        std::string ofTooMany;  // selectors of what cannot float
        const std::string staying = withoutFloats(rule.declarations);
        const bool floating = staying.size() < rule.declarations.size();
        const double content = contentPieces(rule.declarations);
        const std::size_t properties = countProperties(rule.declarations);
        for (const std::string& selector : rule.selectors) {
            const double cost = static_cast<double>(elements) * worstComparisons(countParts(selector), depth);
            const std::size_t matches = std::min(elements, possibleMatches(selector, counts, elements));
            const std::size_t copied = properties * matches;
            const std::size_t copiedBytes = rule.declarations.size() * matches;
            const double further = comparisons(selector, counts, elements, depth);
            const double added = hasContent(selector) ? content * static_cast<double>(matches) : 0;
            if (cost <= kSelectorBudget && spent + static_cast<double>(elements) <= kSheetBudget &&
                compared + further <= kComparisonBudget && copies + copied <= kMaxCopies &&
                bytes + copiedBytes <= kMaxCopiedBytes && contents + added <= kMaxContents) {
                contents += added;
                copies += copied;
                bytes += copiedBytes;
                compared += further;
                spent += static_cast<double>(elements);
                const bool grounded = floating && matches > floats;
                floats -= floating && !grounded ? matches : 0;
                std::string& list = grounded ? ofTooMany : selectors;
                list += (list.empty() ? "" : ",") + selector;
            }
        }
        if (!selectors.empty()) {
            result += selectors + "{" + rule.declarations + "}\n";
        }
        if (!ofTooMany.empty()) {
            result += ofTooMany + "{" + staying + "}\n";
        }
    }
    return result;
}

BoxSelectors SafeStyleSheet::boxes() const {
    BoxSelectors result;
    for (const Rule& rule : m_rules) {
        if (makeBox(lowered(rule.declarations))) {
            for (const std::string& selector : rule.selectors) {
                result.add(selector);
            }
        }
    }
    return result;
}

HtmlDemands SafeStyleSheet::demands(std::size_t elements, const ElementCounts& counts) const {
    HtmlDemands result;
    for (const Rule& rule : m_rules) {
        const bool used = rule.demands.any() && std::ranges::any_of(rule.selectors, [&](const std::string& selector) {
                              return possibleMatches(selector, counts, elements) > 0;
                          });
        result.rightToLeft = result.rightToLeft || (used && rule.demands.rightToLeft);
        result.flexLayout = result.flexLayout || (used && rule.demands.flexLayout);
    }
    return result;
}

}  // namespace ternview
