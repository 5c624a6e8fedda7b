#include "browser/color_glyphs.h"

#include <algorithm>
#include <array>

#include "utf.h"

namespace ternview {
namespace {

constexpr std::size_t kMostRuns = 2000;  // each costs a picture
// A filter that changes nothing, as only a picture can be filtered.
constexpr std::string_view kBegin = "<span style=\"filter:opacity(1)\">";
constexpr std::string_view kEnd = "</span>";

constexpr char32_t kColorVariant = 0xFE0F;

struct Range {
    char32_t first;
    char32_t last;
};

// What is shown in colour by itself (Emoji_Presentation of the Unicode character database), rounded to blocks.
constexpr std::array kEmoji{
    Range{0x231A, 0x231B},   Range{0x23E9, 0x23EC},   Range{0x23F0, 0x23F0},   Range{0x23F3, 0x23F3},   Range{0x25FD, 0x25FE},
    Range{0x2614, 0x2615},   Range{0x2648, 0x2653},   Range{0x267F, 0x267F},   Range{0x2693, 0x2693},   Range{0x26A1, 0x26A1},
    Range{0x26AA, 0x26AB},   Range{0x26BD, 0x26BE},   Range{0x26C4, 0x26C5},   Range{0x26CE, 0x26CE},   Range{0x26D4, 0x26D4},
    Range{0x26EA, 0x26EA},   Range{0x26F2, 0x26F3},   Range{0x26F5, 0x26F5},   Range{0x26FA, 0x26FA},   Range{0x26FD, 0x26FD},
    Range{0x2705, 0x2705},   Range{0x270A, 0x270B},   Range{0x2728, 0x2728},   Range{0x274C, 0x274C},   Range{0x274E, 0x274E},
    Range{0x2753, 0x2755},   Range{0x2757, 0x2757},   Range{0x2795, 0x2797},   Range{0x27B0, 0x27B0},   Range{0x27BF, 0x27BF},
    Range{0x2B1B, 0x2B1C},   Range{0x2B50, 0x2B50},   Range{0x2B55, 0x2B55},   Range{0x1F004, 0x1F004}, Range{0x1F0CF, 0x1F0CF},
    Range{0x1F18E, 0x1F18E}, Range{0x1F191, 0x1F19A}, Range{0x1F1E6, 0x1F1FF}, Range{0x1F201, 0x1F64F}, Range{0x1F680, 0x1F6FF},
    Range{0x1F7E0, 0x1F7F0}, Range{0x1F90C, 0x1F9FF}, Range{0x1FA70, 0x1FAFF},
};
// What belongs to the emoji in front of it: joiner, keycap, variant, tags of flags.
constexpr std::array kAttached{Range{0x200D, 0x200D}, Range{0x20E3, 0x20E3}, Range{kColorVariant, kColorVariant},
                               Range{0xE0020, 0xE007F}};

template <std::size_t Size>
bool isIn(const std::array<Range, Size>& ranges, char32_t character) {
    const auto after = std::upper_bound(ranges.begin(), ranges.end(), character,
                                        [](char32_t value, const Range& range) { return value < range.first; });
    return after != ranges.begin() && character <= std::prev(after)->last;
}

/// Whether the mark of the colour variant behind a character makes an emoji of it.
bool hasVariants(char32_t character) {
    return character >= 0x80 || (character >= U'0' && character <= U'9') || character == U'#' || character == U'*';
}

/// How many bytes at the start of a text are emoji, one after the other.
std::size_t emojiRun(std::string_view text) {
    std::size_t size = 0;
    while (size < text.size()) {
        const Utf8Step step = readUtf8(text.substr(size));
        const bool isAttached = size > 0 && isIn(kAttached, step.character);
        bool isEmoji = isIn(kEmoji, step.character);
        if (!isEmoji && !isAttached && hasVariants(step.character)) {
            const std::string_view rest = text.substr(size + step.size);
            isEmoji = !rest.empty() && readUtf8(rest).character == kColorVariant;
        }
        if (!isEmoji && !isAttached) {
            break;
        }
        size += step.size;
    }
    return size;
}

/// The end of a tag, and of the element's content where that is no text of the page.
std::size_t endOfMarkup(std::string_view html, std::size_t start) {
    char quote = '\0';
    std::size_t end = start;
    while (end < html.size() && (quote != '\0' || html[end] != '>')) {
        const char c = html[end++];
        if (quote != '\0' ? c == quote : c == '"' || c == '\'') {
            quote = quote != '\0' ? '\0' : c;
        }
    }
    for (const std::string_view name : {"style", "title"}) {
        if (html.substr(start + 1).starts_with(name)) {
            const std::size_t close = html.find("</" + std::string(name), end);
            return std::min(close, html.size());
        }
    }
    return std::min(end + 1, html.size());
}

}  // namespace

std::string withPaintedEmoji(std::string_view html) {
    std::string result;
    std::size_t runs = 0;
    std::size_t copied = 0;
    std::size_t at = 0;
    while (at < html.size() && runs < kMostRuns) {
        if (html[at] == '<') {
            at = endOfMarkup(html, at);
            continue;
        }
        const std::size_t size = emojiRun(html.substr(at));
        if (size == 0) {
            at += readUtf8(html.substr(at)).size;
            continue;
        }
        result += html.substr(copied, at - copied);
        result.append(kBegin).append(html.substr(at, size)).append(kEnd);
        at += size;
        copied = at;
        ++runs;
    }
    return result.append(html.substr(copied));
}

}  // namespace ternview
