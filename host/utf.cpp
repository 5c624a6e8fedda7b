#include "utf.h"

#include <algorithm>

namespace ternview {
namespace {

constexpr char32_t kReplacement = 0xFFFD;

bool isHighSurrogate(char32_t unit) {
    return unit >= 0xD800 && unit <= 0xDBFF;
}
bool isLowSurrogate(char32_t unit) {
    return unit >= 0xDC00 && unit <= 0xDFFF;
}

}  // namespace

Utf8Step readUtf8(std::string_view text) {
    const auto byteAt = [text](std::size_t index) { return static_cast<unsigned char>(text[index]); };
    const unsigned char lead = byteAt(0);
    if (lead < 0x80) {
        return {lead, 1, true};
    }
    std::size_t length = 0;
    char32_t character = 0;
    // The second byte's range shuts out overlong forms, surrogates and what lies past U+10FFFF.
    unsigned char lowest = 0x80;
    unsigned char highest = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
        character = lead & 0x1Fu;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        character = lead & 0x0Fu;
        lowest = lead == 0xE0 ? 0xA0 : 0x80;
        highest = lead == 0xED ? 0x9F : 0xBF;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        character = lead & 0x07u;
        lowest = lead == 0xF0 ? 0x90 : 0x80;
        highest = lead == 0xF4 ? 0x8F : 0xBF;
    } else {
        return {kReplacement, 1, false};
    }
    for (std::size_t i = 1; i < length; ++i) {
        if (i >= text.size() || byteAt(i) < lowest || byteAt(i) > highest) {
            return {kReplacement, i, false};
        }
        character = (character << 6) | (byteAt(i) & 0x3Fu);
        lowest = 0x80;
        highest = 0xBF;
    }
    return {character, length, true};
}

bool isValidUtf8(std::string_view text) {
    while (!text.empty()) {
        const Utf8Step step = readUtf8(text);
        if (!step.valid) {
            return false;
        }
        text.remove_prefix(step.size);
    }
    return true;
}

std::string_view beginningOfUtf8(std::string_view text, std::size_t most) {
    if (text.size() <= most) {
        return text;
    }
    while (most > 0 && (static_cast<unsigned char>(text[most]) & 0xC0) == 0x80) {
        --most;
    }
    return text.substr(0, most);
}

std::string repairedUtf8(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    while (!text.empty()) {
        const Utf8Step step = readUtf8(text);
        if (step.valid) {
            out += text.substr(0, step.size);
        } else {
            appendUtf8(out, kReplacement);
        }
        text.remove_prefix(step.size);
    }
    return out;
}

bool isNoncharacter(char32_t character) {
    return (character & 0xFFFE) == 0xFFFE || (character >= 0xFDD0 && character <= 0xFDEF);
}

std::string drawableUtf8(std::string_view text) {
    constexpr char kFirstByte = '\xEF';  // of the lowest noncharacter
    const auto isHigh = [](char c) { return static_cast<unsigned char>(c) >= static_cast<unsigned char>(kFirstByte); };
    if (std::none_of(text.begin(), text.end(), isHigh) && isValidUtf8(text)) {
        return std::string(text);
    }
    std::string out;
    out.reserve(text.size());
    while (!text.empty()) {
        const Utf8Step step = readUtf8(text);
        appendUtf8(out, isNoncharacter(step.character) ? kReplacement : step.character);
        text.remove_prefix(step.size);
    }
    return out;
}

void appendUtf8(std::string& out, char32_t character) {
    const auto append = [&out](char32_t byte) { out.push_back(static_cast<char>(byte)); };
    if (character < 0x80) {
        append(character);
    } else if (character < 0x800) {
        append(0xC0 | (character >> 6));
        append(0x80 | (character & 0x3F));
    } else if (character < 0x10000) {
        append(0xE0 | (character >> 12));
        append(0x80 | ((character >> 6) & 0x3F));
        append(0x80 | (character & 0x3F));
    } else {
        append(0xF0 | (character >> 18));
        append(0x80 | ((character >> 12) & 0x3F));
        append(0x80 | ((character >> 6) & 0x3F));
        append(0x80 | (character & 0x3F));
    }
}

std::u16string utf16FromUtf8(std::string_view text) {
    std::u16string out;
    out.reserve(text.size());
    while (!text.empty()) {
        const Utf8Step step = readUtf8(text);
        if (step.character < 0x10000) {
            out.push_back(static_cast<char16_t>(step.character));
        } else {
            out.push_back(static_cast<char16_t>(0xD800 + ((step.character - 0x10000) >> 10)));
            out.push_back(static_cast<char16_t>(0xDC00 + (step.character & 0x3FF)));
        }
        text.remove_prefix(step.size);
    }
    return out;
}

std::string utf8FromUtf16(std::string_view bytes, ByteOrder order) {
    const auto unitAt = [bytes, order](std::size_t offset) -> char32_t {
        const auto first = static_cast<unsigned char>(bytes[offset]);
        const auto second = static_cast<unsigned char>(bytes[offset + 1]);
        return order == ByteOrder::kLittleEndian ? static_cast<char32_t>(first | second << 8)
                                                 : static_cast<char32_t>(first << 8 | second);
    };
    std::string out;
    out.reserve(bytes.size());
    std::size_t offset = 0;
    while (offset + 2 <= bytes.size()) {
        char32_t character = unitAt(offset);
        offset += 2;
        if (isHighSurrogate(character) && offset + 2 <= bytes.size() && isLowSurrogate(unitAt(offset))) {
            character = 0x10000 + ((character - 0xD800) << 10) + (unitAt(offset) - 0xDC00);
            offset += 2;
        } else if (isHighSurrogate(character) || isLowSurrogate(character)) {
            character = kReplacement;
        }
        appendUtf8(out, character);
    }
    if (offset < bytes.size()) {
        appendUtf8(out, kReplacement);
    }
    return out;
}

}  // namespace ternview
