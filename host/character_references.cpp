#include "character_references.h"

#include <libxml/HTMLparser.h>

#include <algorithm>
#include <array>

#include "utf.h"

namespace ternview {
namespace {

constexpr std::size_t kLongestName = 8;  // "thetasym"
constexpr char32_t kReplacement = 0xFFFD;
constexpr char32_t kLastLatin1 = 0xFF;

// What 128 to 159 stand for.
constexpr std::array<char16_t, 32> kWindows1252{
    0x20AC, 0x0081, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160,
    0x2039, 0x0152, 0x008D, 0x017D, 0x008F, 0x0090, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022,
    0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x009D, 0x017E, 0x0178,
};

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}
bool isLetter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

struct Reference {
    char32_t character = 0;
    std::size_t size = 0;  // in the text, 0: none begins there
};

int digitValue(char c, unsigned base) {
    if (isDigit(c)) {
        return c - '0';
    }
    const char lower = static_cast<char>(c | 0x20);
    return base == 16 && lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

/// @param text begins with "&#"
Reference readNumber(std::string_view text) {
    const bool isHex = text.size() > 2 && (text[2] == 'x' || text[2] == 'X');
    const unsigned base = isHex ? 16 : 10;
    const std::size_t digits = isHex ? 3 : 2;
    std::size_t at = digits;
    char32_t value = 0;
    for (; at < text.size() && digitValue(text[at], base) >= 0; ++at) {
        value = std::min<char32_t>(value * base + static_cast<char32_t>(digitValue(text[at], base)), 0x110000);
    }
    if (at == digits) {
        return {};
    }
    if (value >= 0x80 && value < 0xA0) {
        value = kWindows1252[value - 0x80];
    } else if (value == 0 || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) {
        value = kReplacement;
    }
    return {value, at < text.size() && text[at] == ';' ? at + 1 : at};
}

/// @param text begins with "&" and a letter
Reference readName(std::string_view text, ReferencePlace place) {
    std::size_t end = 1;
    while (end < text.size() && end <= kLongestName && (isLetter(text[end]) || isDigit(text[end]))) {
        ++end;
    }
    const std::string name(text.substr(1, end - 1));
    const htmlEntityDesc* entity = htmlEntityLookup(reinterpret_cast<const xmlChar*>(name.c_str()));
    if (entity == nullptr) {
        return {};
    }
    if (end < text.size() && text[end] == ';') {
        return {entity->value, end + 1};
    }
    const bool goesOn = end < text.size() && (isLetter(text[end]) || isDigit(text[end]));
    const bool isValue = place == ReferencePlace::kAttribute && end < text.size() && text[end] == '=';
    return goesOn || isValue || entity->value > kLastLatin1 ? Reference() : Reference{entity->value, end};
}

}  // namespace

std::string withoutReferences(std::string_view text, ReferencePlace place) {
    std::string result;
    result.reserve(text.size());
    while (!text.empty()) {
        const std::size_t ampersand = std::min(text.find('&'), text.size());
        result += text.substr(0, ampersand);
        text.remove_prefix(ampersand);
        if (text.empty()) {
            break;
        }
        Reference reference;
        if (text.size() > 1 && text[1] == '#') {
            reference = readNumber(text);
        } else if (text.size() > 1 && isLetter(text[1])) {
            reference = readName(text, place);
        }
        if (reference.size == 0) {
            result += '&';
            text.remove_prefix(1);
        } else {
            appendUtf8(result, reference.character);
            text.remove_prefix(reference.size);
        }
    }
    return result;
}

}  // namespace ternview
