#include "html_css_text.h"

#include <algorithm>

namespace ternview::css {

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

std::size_t behindBrackets(std::string_view css, std::size_t at) {
    std::size_t level = 0;
    for (at = findOutside(css, at, "()"); at < css.size(); at = findOutside(css, at + 1, "()")) {
        level += css[at] == '(' ? 1 : 0;
        if (css[at] == ')' && --level == 0) {
            return at + 1;
        }
    }
    return css.size();
}

std::string_view lastPart(std::string_view selector) {
    std::size_t start = selector.size();
    for (int brackets = 0; start > 0; --start) {
        const char c = selector[start - 1];
        brackets += c == ']' || c == ')' ? 1 : c == '[' || c == '(' ? -1 : 0;
        if (brackets <= 0 && (isSpace(c) || c == '>' || c == '+' || c == '~')) {
            break;
        }
    }
    return selector.substr(start);
}

}  // namespace ternview::css
