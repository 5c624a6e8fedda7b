#include "html_css.h"

#include <algorithm>
#include <charconv>
#include <cmath>

namespace ternview {
namespace {

constexpr double kMaxPixels = 20000;
constexpr double kMaxRelative = 1000;  // em, %, and other units that are large or multiply
constexpr std::size_t kMaxSelectorLength = 300;
constexpr std::size_t kMaxRules = 20000;
constexpr double kSelectorBudget = 2e8;      // comparisons for one selector at its worst
constexpr std::size_t kMaxCopies = 600'000;  // of declarations, one for each element that has them
constexpr double kSheetBudget = 2e7;         // elements times selectors

bool isSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f';
}
bool isDigit(char c) {
    return c >= '0' && c <= '9';
}
char lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
}
bool isWord(char c) {
    const char l = lower(c);
    return (l >= 'a' && l <= 'z') || isDigit(c) || c == '_' || c == '-' || static_cast<unsigned char>(c) >= 0x80;
}

std::string lowered(std::string_view text) {
    std::string result(text);
    std::ranges::transform(result, result.begin(), lower);
    return result;
}

std::string_view trimmed(std::string_view text) {
    while (!text.empty() && isSpace(text.front())) {
        text.remove_prefix(1);
    }
    while (!text.empty() && isSpace(text.back())) {
        text.remove_suffix(1);
    }
    return text;
}

/// Behind a string, comment or address that starts at `at`; `at` itself when none starts there.
std::size_t behindOpaque(std::string_view css, std::size_t at) {
    const char c = css[at];
    if (c == '"' || c == '\'') {
        const std::size_t end = css.find_first_of(c == '"' ? "\"\n" : "'\n", at + 1);
        return end == std::string_view::npos ? css.size() : end + 1;
    }
    if (c == '/' && css.substr(at, 2) == "/*") {
        const std::size_t end = css.find("*/", at + 2);
        return end == std::string_view::npos ? css.size() : end + 2;
    }
    if ((c == 'u' || c == 'U') && lowered(css.substr(at, 4)) == "url(" && (at == 0 || !isWord(css[at - 1]))) {
        std::size_t start = at + 4;
        while (start < css.size() && isSpace(css[start])) {
            ++start;
        }
        if (start < css.size() && (css[start] == '"' || css[start] == '\'')) {
            start = css.find(css[start], start + 1);
        }
        const std::size_t end = start == std::string_view::npos ? start : css.find(')', start);
        return end == std::string_view::npos ? css.size() : end + 1;
    }
    return at;
}

/// The first of some characters outside strings, comments and addresses.
std::size_t findOutside(std::string_view css, std::size_t at, std::string_view wanted) {
    while (at < css.size()) {
        const std::size_t behind = behindOpaque(css, at);
        if (behind > at) {
            at = behind;
        } else if (wanted.find(css[at]) != std::string_view::npos) {
            return at;
        } else {
            ++at;
        }
    }
    return css.size();
}

/// Copies CSS piece by piece.
class DeclarationWriter {
public:
    DeclarationWriter(std::string_view css, PictureAddresses& addresses) : m_css(css), m_addresses(addresses) {}

    std::string write() {
        while (m_at < m_css.size()) {
            writeNext();
        }
        return std::move(m_out);
    }

private:
    void writeNext() {
        const char c = m_css[m_at];
        const std::size_t behind = behindOpaque(m_css, m_at);
        if (behind > m_at) {
            writeOpaque(m_css.substr(m_at, behind - m_at));
            m_at = behind;
        } else if (isDigit(c) || (c == '.' && m_at + 1 < m_css.size() && isDigit(m_css[m_at + 1]))) {
            writeNumber();
        } else if (c == '-' && m_at + 1 < m_css.size() && (isDigit(m_css[m_at + 1]) || m_css[m_at + 1] == '.')) {
            m_out += c;
            ++m_at;
        } else if (isWord(c) || c == '#') {
            writeWord();
        } else {
            m_out += c == '<' || c == '{' || c == '}' || c == '\\' || static_cast<unsigned char>(c) < 0x20 ? ' ' : c;
            ++m_at;
        }
    }

    void writeOpaque(std::string_view piece) {
        if (piece.starts_with("/*")) {
            m_out += ' ';
        } else if (piece[0] == '"' || piece[0] == '\'') {
            for (const char c : piece) {
                m_out += c == '<' || c == '\\' || c == '\n' ? ' ' : c;
            }
        } else {
            std::string_view address = piece.substr(4);
            if (address.ends_with(')')) {
                address.remove_suffix(1);
            }
            address = trimmed(address);
            if (address.size() >= 2 && (address[0] == '"' || address[0] == '\'')) {
                address = address.substr(1, address.find(address[0], 1) - 1);
            }
            m_out += "url(" + m_addresses.add({std::string(address), {}, PictureAddress::Use::Background}) + ")";
        }
    }

    void writeNumber() {
        const std::size_t start = m_at;
        while (m_at < m_css.size() && (isDigit(m_css[m_at]) || m_css[m_at] == '.')) {
            ++m_at;
        }
        const std::size_t unitStart = m_at;
        while (m_at < m_css.size() && (isWord(m_css[m_at]) || m_css[m_at] == '%') && m_css[m_at] != '-') {
            ++m_at;
        }
        double value = 0;
        std::from_chars(m_css.data() + start, m_css.data() + unitStart, value);
        std::string unit = lowered(m_css.substr(unitStart, m_at - unitStart));
        if (unit == "pt") {
            value *= 96.0 / 72;
            unit = "px";
        } else if (unit == "ex") {
            value *= 0.5;
            unit = "em";
        }
        if (unit == "px") {
            value = value > 0 ? std::max(1.0, std::round(value)) : 0;
        }
        value = std::min(value, unit == "px" || unit.empty() ? kMaxPixels : kMaxRelative);
        char digits[40];
        const auto end = std::to_chars(digits, digits + sizeof digits, value, std::chars_format::fixed, unit == "px" ? 0 : 3).ptr;
        std::string_view text(digits, static_cast<std::size_t>(end - digits));
        if (text.find('.') != std::string_view::npos) {
            text = text.substr(0, text.find_last_not_of('0') + 1);
            if (text.ends_with('.')) {
                text.remove_suffix(1);
            }
        }
        m_out += text;
        m_out += unit;
    }

    void writeWord() {
        const std::size_t start = m_at++;
        while (m_at < m_css.size() && isWord(m_css[m_at])) {
            ++m_at;
        }
        const std::string_view word = m_css.substr(start, m_at - start);
        std::size_t colon = m_at;
        while (colon < m_css.size() && isSpace(m_css[colon])) {
            ++colon;
        }
        const std::string name = colon < m_css.size() && m_css[colon] == ':' ? lowered(word) : std::string();
        if (name == "display" || name == "position") {
            const std::size_t end = findOutside(m_css, colon, ";");
            const std::string value = lowered(m_css.substr(colon, end - colon));
            for (const char* unwanted : {"table", "flex", "grid", "fixed", "sticky"}) {
                if (value.find(unwanted) != std::string::npos) {
                    m_at = end;
                    return;
                }
            }
        }
        m_out += word;
    }

    std::string_view m_css;
    PictureAddresses& m_addresses;
    std::size_t m_at = 0;
    std::string m_out;
};

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

std::vector<std::string> safeSelectors(std::string_view list) {
    std::vector<std::string> result;
    while (!list.empty()) {
        const std::size_t comma = std::min(list.find(','), list.size());
        const std::string_view selector = trimmed(list.substr(0, comma));
        list.remove_prefix(std::min(comma + 1, list.size()));
        const bool plain = selector.find_first_of("<\\{}@;") == std::string_view::npos;
        if (!selector.empty() && selector.size() <= kMaxSelectorLength && plain && std::ranges::count(selector, '(') <= 1) {
            result.emplace_back(selector);
        }
    }
    return result;
}

/// How many elements a selector can apply to, by the class or name in its last part.
std::size_t possibleMatches(std::string_view selector, const ElementCounts& counts, std::size_t elements) {
    if (selector.find_first_of("\"'") != std::string_view::npos) {
        return elements;
    }
    std::size_t start = selector.size();
    for (int brackets = 0; start > 0; --start) {
        const char c = selector[start - 1];
        brackets += c == ']' || c == ')' ? 1 : c == '[' || c == '(' ? -1 : 0;
        if (brackets <= 0 && (isSpace(c) || c == '>' || c == '+' || c == '~')) {
            break;
        }
    }
    std::string_view subject = selector.substr(start);
    subject = subject.substr(0, subject.find_first_of(":[("));
    if (const std::size_t dot = subject.find('.'); dot != std::string_view::npos) {
        subject.remove_prefix(dot);
    }
    std::size_t end = subject.starts_with('.') ? 1 : 0;
    while (end < subject.size() && isWord(subject[end])) {
        ++end;
    }
    const std::string name = lowered(subject.substr(0, end));
    if (name == "html" || name == "body") {
        return 1;
    }
    const auto found = counts.find(name);
    if (found != counts.end()) {
        return found->second;
    }
    return name.empty() || name == "." || counts.size() >= kMaxElementCounts ? elements : 0;
}

std::string withoutComments(std::string_view css) {
    std::string result;
    for (std::size_t at = 0; at < css.size();) {
        const std::size_t start = std::min(css.find("/*", at), css.size());
        result += css.substr(at, start - at);
        const std::size_t end = start == css.size() ? start : css.find("*/", start + 2);
        at = end >= css.size() ? css.size() : end + 2;
    }
    return result;
}

}  // namespace

std::string safeDeclarations(std::string_view css, PictureAddresses& addresses) {
    return DeclarationWriter(css, addresses).write();
}

void SafeStyleSheet::append(std::string_view css, PictureAddresses& addresses) {
    appendRules(css, {}, addresses);
}

void SafeStyleSheet::appendRules(std::string_view css, const std::string& media, PictureAddresses& addresses) {
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
            m_rules.push_back({media, safeSelectors(start), safeDeclarations(body, addresses)});
        } else if (media.empty() && lowered(start.substr(0, 6)) == "@media" && start.size() < kMaxSelectorLength &&
                   start.find_first_of("<\\") == std::string_view::npos) {
            appendRules(body, std::string(start), addresses);
        }
    }
}

std::string SafeStyleSheet::text(std::size_t elements, std::size_t depth, const ElementCounts& counts) const {
    std::string result;
    std::string media;
    double spent = 0;
    std::size_t copies = 0;
    for (const Rule& rule : m_rules) {
        std::string selectors;
        const auto declarations = static_cast<std::size_t>(std::ranges::count(rule.declarations, ';')) + 1;
        for (const std::string& selector : rule.selectors) {
            const double cost = static_cast<double>(elements) * worstComparisons(countParts(selector), depth);
            const std::size_t copied = declarations * std::min(elements, possibleMatches(selector, counts, elements));
            if (cost <= kSelectorBudget && spent + static_cast<double>(elements) <= kSheetBudget &&
                copies + copied <= kMaxCopies) {
                copies += copied;
                spent += static_cast<double>(elements);
                selectors += (selectors.empty() ? "" : ",") + selector;
            }
        }
        if (selectors.empty()) {
            continue;
        }
        if (rule.media != media) {
            result += (media.empty() ? "" : "}\n") + (rule.media.empty() ? std::string() : rule.media + "{\n");
            media = rule.media;
        }
        result += selectors + "{" + rule.declarations + "}\n";
    }
    return result + (media.empty() ? "" : "}\n");
}

}  // namespace ternview
