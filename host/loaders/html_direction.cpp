#include "html_direction.h"

#include "character_references.h"

#include <glib.h>

#include <string>

namespace ternview {
namespace {

constexpr std::size_t kLongestReference = 11;

/// The first byte of what may be a right-to-left letter in UTF-8.
bool mayStart(unsigned char c) {
    return (c >= 0xD6 && c <= 0xDF) || c == 0xE0 || c == 0xEF || c == 0xF0;
}

}  // namespace

bool isRightToLeftLetter(char32_t c) {
    return (c >= 0x0590 && c <= 0x08FF) || (c >= 0xFB1D && c <= 0xFDFF) || (c >= 0xFE70 && c <= 0xFEFC) ||
           (c >= 0x10800 && c <= 0x10FFF) || (c >= 0x1E800 && c <= 0x1EFFF);
}

bool hasRightToLeftLetter(std::string_view text) {
    for (std::size_t at = 0; at < text.size(); ++at) {
        const auto c = static_cast<unsigned char>(text[at]);
        if (mayStart(c)) {
            const gunichar character = g_utf8_get_char_validated(text.data() + at, static_cast<gssize>(text.size() - at));
            if (character < 0x80000000U && isRightToLeftLetter(character)) {
                return true;
            }
        } else if (c == '&' && text.substr(at + 1, 1) == "#") {
            const std::string_view reference = text.substr(at, kLongestReference);
            const std::string resolved = withoutReferences(reference.substr(0, reference.find(';') + 1), ReferencePlace::kText);
            if (!resolved.starts_with('&') && hasRightToLeftLetter(resolved)) {
                return true;
            }
        }
    }
    return false;
}

bool isRightToLeft(const HtmlToken& token) {
    const std::string_view direction = token.attribute("dir");
    return direction.size() == 3 && g_ascii_strncasecmp(direction.data(), "rtl", 3) == 0;
}

}  // namespace ternview
