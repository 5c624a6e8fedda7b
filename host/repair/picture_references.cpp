#include "repair/picture_references.h"

#include <algorithm>
#include <cstring>

#include "repair/ascii_case.h"

namespace ternview {
namespace {

constexpr std::string_view kSpaces = " \t\r\n\f";
constexpr std::size_t kLongestValue = 2048;  // one that has no end must not be looked for through the whole text

bool isSameNoCase(std::string_view text, std::string_view lower) {
    return text.size() == lower.size() && startsWithNoCase(text, lower);
}

bool isOfName(char c) {
    return (asciiLower(c) >= 'a' && asciiLower(c) <= 'z') || c == '-' || c == ':';
}

}  // namespace

bool isContentId(std::string_view value) {
    return startsWithNoCase(value, "cid:");
}

std::optional<PictureReference> PictureReferences::next() {
    for (; at_ < html_.size(); ++at_) {
        const char c = html_[at_];
        if (c == '<' || c == '>') {
            isInTag_ = c == '<';
        } else if (c == '=' || c == '(') {
            if (const std::optional<PictureReference> reference = referenceBehind(at_)) {
                at_ = reference->end;
                return reference;
            }
        }
    }
    return std::nullopt;
}

std::optional<PictureReference> PictureReferences::referenceBehind(std::size_t sign) const {
    const std::size_t begin = html_.find_first_not_of(kSpaces, sign + 1);
    if (begin == std::string_view::npos) {
        return std::nullopt;
    }
    const bool isInDoubleQuotes = html_[begin] == '"';
    const bool isQuoted = isInDoubleQuotes || html_[begin] == '\'';
    if (!isInDoubleQuotes && (html_[sign] == '(' || !isInTag_)) {
        return std::nullopt;
    }
    const std::string_view rest = html_.substr(begin + (isQuoted ? 1 : 0), kLongestValue);
    if (html_[sign] == '(') {
        if (sign < 3 || !isSameNoCase(html_.substr(sign - 3, 3), "url")) {
            return std::nullopt;
        }
    } else if (const std::string_view name = attributeBefore(sign);
               name.empty() || (!isContentId(rest) && !isSameNoCase(name, "src") && !isSameNoCase(name, "background"))) {
        return std::nullopt;
    }
    const std::size_t length = isQuoted ? rest.find(html_[begin]) : rest.find_first_of(" \t\r\n\f>\"'");
    if (length == std::string_view::npos) {
        return std::nullopt;
    }
    std::string_view value = rest.substr(0, length);
    if (!isQuoted && rest[length] == '>' && value.ends_with('/')) {
        value.remove_suffix(1);  // of a tag as XML closes it
    }
    const std::size_t quotes = isQuoted ? 2 : 0;
    return PictureReference{begin, begin + quotes + value.size(), value, isInDoubleQuotes};
}

/// Empty when it is no attribute of an element, but a parameter in an address.
std::string_view PictureReferences::attributeBefore(std::size_t sign) const {
    std::size_t end = sign;
    while (end > 0 && kSpaces.find(html_[end - 1]) != std::string_view::npos) {
        --end;
    }
    std::size_t begin = end;
    while (begin > 0 && isOfName(html_[begin - 1])) {
        --begin;
    }
    const bool isAttribute = begin > 0 && (kSpaces.find(html_[begin - 1]) != std::string_view::npos || html_[begin - 1] == '"' ||
                                           html_[begin - 1] == '\'' || html_[begin - 1] == '/');
    return isAttribute ? html_.substr(begin, end - begin) : std::string_view();
}

std::size_t findText(std::string_view html, std::string_view text, std::size_t from) {
    const std::string_view rest = html.substr(from);
    const void* found = memmem(rest.data(), rest.size(), text.data(), text.size());
    return found != nullptr ? static_cast<std::size_t>(static_cast<const char*>(found) - html.data()) : std::string_view::npos;
}

bool standsOutsideValues(std::string_view html, std::string_view text) {
    for (std::size_t at = findText(html, text); at != std::string_view::npos; at = findText(html, text, at)) {
        const std::size_t first = at - std::min(at, kLongestValue);
        const std::size_t mark = html.substr(first, at - first).find_last_of("\"<>");
        if (mark == std::string_view::npos || html[first + mark] != '"') {
            return true;
        }
        const std::size_t before = html.substr(0, first + mark).find_last_not_of(kSpaces);
        const std::size_t end = html.find('"', at);
        if (before == std::string_view::npos || (html[before] != '=' && html[before] != '(') || end == std::string_view::npos) {
            return true;
        }
        at = end + 1;
    }
    return false;
}

}  // namespace ternview
