#include "html_words.h"

#include <glib.h>

#include <string>
#include <string_view>

namespace ternview {
namespace {

constexpr std::size_t kLongWord = 32;       // characters; longer words may be broken, as addresses must be
constexpr std::size_t kLongWordPiece = 10;  // characters that stay together
constexpr std::size_t kLongestPiece = 100;  // characters in one piece at most, whatever they are

bool isSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f';
}

/// The first character of valid UTF-8, and its length in bytes.
char32_t decodeFirst(std::string_view text, std::size_t& length) {
    const gunichar character = g_utf8_get_char_validated(text.data(), static_cast<gssize>(text.size()));
    if (character == static_cast<gunichar>(-1) || character == static_cast<gunichar>(-2)) {
        length = 1;
        return 0xFFFD;
    }
    length = static_cast<std::size_t>(g_utf8_next_char(text.data()) - text.data());
    return character;
}

/// Characters between which a line may end without a space; Korean ends its lines at spaces.
bool isEastAsian(char32_t c) {
    return (c >= 0x2E80 && c < 0xA000) || (c >= 0xF900 && c <= 0xFAFF) || (c >= 0xFE30 && c <= 0xFE4F) ||
           (c >= 0xFF00 && c <= 0xFFEF) || (c >= 0x20000 && c <= 0x3FFFF);
}

/// Characters that do not start a line: closing punctuation and small kana; combining marks never leave their base.
bool staysWithPrevious(char32_t c) {
    static constexpr std::u32string_view kClosing =
        U"、。，．・：；？！）］｝〉》」』】〕〗〙〛’”…‥ー々ぁぃぅぇぉっゃゅょゎァィゥェォッャュョヮヵヶ゛゜％"
        U",.:;?!)]}%";
    const GUnicodeType type = g_unichar_type(c);
    return kClosing.find(c) != std::u32string_view::npos || type == G_UNICODE_NON_SPACING_MARK ||
           type == G_UNICODE_ENCLOSING_MARK || type == G_UNICODE_SPACING_MARK || c == 0x200D || (c >= 0xFE00 && c <= 0xFE0F) ||
           (c >= 0x1F3FB && c <= 0x1F3FF);
}

bool staysWithNext(char32_t c) {
    static constexpr std::u32string_view kOpening = U"（［｛〈《「『【〔〖〘〚‘“￥＄([{";
    return kOpening.find(c) != std::u32string_view::npos || c == 0x200D;
}

void splitWord(std::string_view word, const std::function<void(const char*)>& onWord) {
    const bool breakable =
        word.size() > kLongWord && g_utf8_strlen(word.data(), static_cast<gssize>(word.size())) > static_cast<glong>(kLongWord);
    std::string piece;
    std::size_t characters = 0;
    char32_t previous = 0;
    while (!word.empty()) {
        std::size_t length = 0;
        const char32_t current = decodeFirst(word, length);
        const bool between = isEastAsian(previous) || isEastAsian(current) || (breakable && characters >= kLongWordPiece);
        const bool allowed = between && !staysWithPrevious(current) && !staysWithNext(previous);
        if (!piece.empty() && (allowed || characters >= kLongestPiece)) {
            onWord(piece.c_str());
            piece.clear();
            characters = 0;
        }
        piece += word.substr(0, length);
        ++characters;
        previous = current;
        word.remove_prefix(length);
    }
    onWord(piece.c_str());
}

}  // namespace

void splitIntoPieces(const char* text, const std::function<void(const char*)>& onWord,
                     const std::function<void(const char*)>& onSpace) {
    std::string_view rest(text);
    while (!rest.empty()) {
        if (isSpace(rest.front())) {
            onSpace(std::string(1, rest.front()).c_str());
            rest.remove_prefix(1);
            continue;
        }
        std::size_t length = 0;
        while (length < rest.size() && !isSpace(rest[length])) {
            ++length;
        }
        splitWord(rest.substr(0, length), onWord);
        rest.remove_prefix(length);
    }
}

}  // namespace ternview
