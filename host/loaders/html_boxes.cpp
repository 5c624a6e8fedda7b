#include "html_boxes.h"

#include "html_attributes.h"
#include "html_budget.h"
#include "html_css_text.h"

#include <algorithm>

namespace ternview {
namespace {

using namespace css;

constexpr double kMaxBoxLayouts = 1e7;  // of words, beyond what the same text costs in other blocks
constexpr double kLayoutsPerBox = 2;
constexpr double kLayoutsPerTable = 1.5;  // in boxes, beyond what all tables are charged for
constexpr double kCostOfDepth = 0.1;      // of what a word costs without any
constexpr std::size_t kNone = static_cast<std::size_t>(-1);

struct Element {
    std::size_t tag = 0;  // where its start tag stands
    std::size_t tagEnd = 0;
    std::size_t parent = kNone;
    double words = 0;  // in it, each as often as its tables lay it out
    double layouts = 1;
    bool box = false;
};

std::string_view nameOf(std::string_view tag) {
    std::size_t end = 1;
    while (end < tag.size() && isWord(tag[end])) {
        ++end;
    }
    return tag.substr(1, end - 1);
}

/// Behind the tag that starts at `at`.
std::size_t behindTag(std::string_view body, std::size_t at) {
    bool quoted = false;
    for (; at < body.size(); ++at) {
        quoted = quoted != (body[at] == '"');
        if (!quoted && body[at] == '>') {
            return at + 1;
        }
    }
    return at;
}

bool isVoid(std::string_view name) {
    return name == "br" || name == "hr" || name == "img";
}

/// The elements in the order of their start tags.
std::vector<Element> elementsOf(std::string_view body, const BoxSelectors& selectors) {
    std::vector<Element> elements;
    std::vector<double> outside;  // what a word costs around each open table
    double layouts = 1;
    std::size_t open = kNone;
    std::size_t depth = 0;
    const auto pay = [&](double words) {
        if (open != kNone) {
            elements[open].words += words * layouts * std::max(1.0, static_cast<double>(depth) * kCostOfDepth);
        }
    };
    for (std::size_t at = 0; at < body.size();) {
        if (body[at] != '<') {
            const std::size_t end = std::min(body.find('<', at), body.size());
            pay(HtmlBudget::pieces(body.substr(at, end - at)));
            at = end;
            continue;
        }
        const std::size_t end = behindTag(body, at);
        const bool closing = body.substr(at).starts_with("</");
        const std::string tag = lowered(body.substr(at, end - at));
        const std::string_view name = nameOf(closing ? std::string_view(tag).substr(1) : tag);
        if (closing && open != kNone) {
            const Element closed = elements[open];
            if (name == "table" && !outside.empty()) {
                layouts = outside.back();
                outside.pop_back();
            }
            open = closed.parent;
            --depth;
            if (open != kNone) {
                elements[open].words += closed.words;
            }
        } else if (!closing) {
            pay(HtmlBudget::kWordsPerElement);
            if (!isVoid(name)) {
                Element element{at, end, open};
                // A table finds its width by itself.
                element.box = name != "table" && (name == "button" || makeBox(tag) || selectors.fit(tag));
                elements.push_back(element);
                open = elements.size() - 1;
                ++depth;
            }
            if (name == "table") {
                outside.push_back(layouts);
                layouts *= kLayoutsPerTable;
            }
        }
        at = end;
    }
    for (; open != kNone; open = elements[open].parent) {
        if (elements[open].parent != kNone) {
            elements[elements[open].parent].words += elements[open].words;
        }
    }
    return elements;
}

/// A start tag whose element is no such box, whatever style sheets say.
std::string asBlock(std::string_view tag) {
    const std::string_view name = nameOf(tag);
    const bool tablePart = name == "td" || name == "th" || name == "tr" || name == "caption" || name.ends_with("body") ||
                           name == "thead" || name == "tfoot";
    const bool lineBox = lowered(tag).find("display:inline-") != std::string::npos;
    const std::string style = std::string("float:none!important;") + (tablePart && !lineBox ? "" : "display:block!important;");
    std::string result(tag);
    if (const auto written = writtenAttribute(tag, "style")) {
        const auto end = static_cast<std::size_t>(written->data() + written->size() - tag.data());
        result.insert(end, (written->empty() || written->ends_with(';') ? "" : ";") + style);
    } else {
        result.insert(result.size() - 1, " style=\"" + style + "\"");
    }
    return result;
}

}  // namespace

void BoxSelectors::add(std::string_view selector) {
    const std::string subject = lowered(lastPart(selector));
    const std::string_view plain = std::string_view(subject).substr(0, subject.find_first_of("[:("));
    const std::size_t mark = plain.find_last_of(".#");
    const std::string_view name = mark == std::string_view::npos ? plain : plain.substr(mark + 1);
    const bool conditional = mark == std::string_view::npos && subject.find('[') != std::string::npos;
    if (!name.empty() && std::ranges::all_of(name, isWord) && !conditional) {
        m_names.insert(std::string(mark == std::string_view::npos ? plain : plain.substr(mark)));
        return;
    }
    const std::size_t bracket = subject.find('[');
    const std::size_t close = subject.find(']', bracket);
    if (bracket == std::string::npos || close == std::string::npos ||
        subject.substr(0, bracket).find_first_of(":(") != std::string::npos || m_conditions.size() >= kMaxConditions) {
        m_any = true;
        return;
    }
    const std::string_view condition = trimmed(std::string_view(subject).substr(bracket + 1, close - bracket - 1));
    const std::size_t equals = condition.find('=');
    std::string_view attribute = trimmed(condition.substr(0, equals));
    while (!attribute.empty() && !isWord(attribute.back())) {
        attribute.remove_suffix(1);
    }
    std::string_view value = equals == std::string_view::npos ? std::string_view() : trimmed(condition.substr(equals + 1));
    if (value.size() >= 2 && (value[0] == '"' || value[0] == '\'')) {
        value = value.substr(1, value.size() - 2);
    }
    const bool sure = std::ranges::all_of(value, [](char c) { return isWord(c) || isSpace(c); });
    const std::string element(plain == "*" || !std::ranges::all_of(plain, isWord) ? std::string_view() : plain);
    m_conditions.push_back({element, std::string(attribute), std::string(sure ? value : std::string_view())});
}

bool BoxSelectors::fit(std::string_view tag) const {
    if (m_any) {
        return true;
    }
    const std::string_view name = nameOf(tag);
    if (!m_names.empty()) {
        const auto id = writtenAttribute(tag, "id");
        if (m_names.contains(std::string(name)) || (id && m_names.contains("#" + std::string(*id)))) {
            return true;
        }
        const std::string_view classes = writtenAttribute(tag, "class").value_or(std::string_view());
        for (std::size_t at = 0; at < classes.size();) {
            const std::size_t end = std::min(classes.find_first_of(" \t\r\n\f", at), classes.size());
            if (end > at && m_names.contains("." + std::string(classes.substr(at, end - at)))) {
                return true;
            }
            at = end + 1;
        }
    }
    return std::ranges::any_of(m_conditions, [&](const Condition& condition) {
        return (condition.element.empty() || condition.element == name) &&
               tag.find(" " + condition.attribute) != std::string_view::npos &&
               tag.find(condition.value) != std::string_view::npos;
    });
}

bool makeBox(std::string_view declarations) {
    constexpr std::string_view kFloat = "float:";
    for (std::size_t at = declarations.find(kFloat); at != std::string_view::npos; at = declarations.find(kFloat, at + 1)) {
        if (!declarations.substr(at + kFloat.size()).starts_with("none")) {
            return true;
        }
    }
    return declarations.find("display:inline-") != std::string_view::npos;
}

std::string withAffordableBoxes(std::string_view body, const BoxSelectors& selectors) {
    std::vector<Element> elements = elementsOf(body, selectors);
    std::string result;
    double spent = 0;
    std::size_t written = 0;
    for (Element& element : elements) {
        element.layouts = element.parent == kNone ? 1 : elements[element.parent].layouts;
        if (!element.box) {
            continue;
        }
        const double cost = element.words * element.layouts * (kLayoutsPerBox - 1);
        if (spent + cost <= kMaxBoxLayouts) {
            spent += cost;
            element.layouts *= kLayoutsPerBox;
        } else {
            result += body.substr(written, element.tag - written);
            result += asBlock(body.substr(element.tag, element.tagEnd - element.tag));
            written = element.tagEnd;
        }
    }
    return result + std::string(body.substr(written));
}

}  // namespace ternview
