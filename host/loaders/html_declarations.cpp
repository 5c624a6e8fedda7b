// Declarations one by one: each is taken apart, what the layout engine lacks or misreads is said in other words, and what it must
// not see is left out.

#include "html_css.h"
#include "html_css_text.h"

#include "utf.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cmath>
#include <optional>
#include <vector>

namespace ternview {
namespace {

using namespace css;

constexpr double kMaxPixels = 20000;
constexpr double kMaxRelative = 1000;  // em, %, and other units that are large or multiply
constexpr std::size_t kMaxGradientLength = 2000;
constexpr std::size_t kMaxVariables = 4;   // in one value
constexpr std::size_t kMaxVariable = 300;  // what each of them may stand for
constexpr double kInvisible = 0.02;        // opacity
constexpr double kBold = 600;              // weight; few families have more than two

std::string shortNumber(double value, int decimals) {
    std::array<char, 40> digits{};
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), value, std::chars_format::fixed, decimals).ptr;
    std::string text(digits.data(), end);
    if (text.find('.') != std::string::npos) {
        text.resize(text.find_last_not_of('0') + 1);
        if (text.ends_with('.')) {
            text.pop_back();
        }
    }
    return text;
}

struct Number {
    double value = 0;
    std::string unit;      // in lower case, or empty
    std::size_t size = 0;  // in the text; 0 when there is no number
};

/// The number that a text starts with; a sign stands outside.
Number readNumber(std::string_view text) {
    std::size_t digits = 0;
    while (digits < text.size() && (isDigit(text[digits]) || text[digits] == '.')) {
        ++digits;
    }
    Number number;
    if (std::from_chars(text.data(), text.data() + digits, number.value).ec != std::errc()) {
        number.value = digits > 0 && isDigit(text[0]) ? kMaxPixels : 0;
    }
    std::size_t end = digits;
    while (end < text.size() && (isWord(text[end]) || text[end] == '%') && text[end] != '-') {
        ++end;
    }
    number.unit = lowered(text.substr(digits, end - digits));
    number.size = digits > 0 ? end : 0;
    return number;
}

/// Red, green, blue from 0 to 255 and opacity, as every engine knows them.
std::string colorText(double red, double green, double blue, double alpha) {
    const auto part = [](double value) { return std::to_string(std::lround(std::clamp(value, 0.0, 255.0))); };
    const std::string parts = part(red) + "," + part(green) + "," + part(blue);
    return alpha >= 1 ? "rgb(" + parts + ")" : "rgba(" + parts + "," + shortNumber(std::max(alpha, 0.0), 3) + ")";
}

std::string colorOfHue(double hue, double saturation, double lightness, double alpha) {
    const auto channel = [&](double n) {
        const double k = std::fmod(n + hue / 30, 12);
        return 255 *
               (lightness - saturation * std::min(lightness, 1 - lightness) * std::max(-1.0, std::min({k - 3, 9 - k, 1.0})));
    };
    return colorText(channel(0), channel(8), channel(4), alpha);
}

/// What a colour function says in its brackets, however its parts are separated; empty when it cannot be told.
std::string colorOfFunction(std::string_view name, std::string_view arguments) {
    std::array<Number, 4> parts;
    std::size_t count = 0;
    bool negative = false;
    for (std::size_t at = 0; at < arguments.size() && count < parts.size();) {
        const Number number = readNumber(arguments.substr(at));
        if (number.size == 0) {
            if (isWord(arguments[at]) && arguments[at] != '-') {
                return {};
            }
            negative = arguments[at++] == '-';
            continue;
        }
        at += number.size;
        parts[count] = number;
        parts[count++].value *= negative ? -1 : 1;
        negative = false;
    }
    if (count < 3) {
        return {};
    }
    const double alpha = count < 4 ? 1 : parts[3].unit == "%" ? parts[3].value / 100 : parts[3].value;
    if (name.starts_with("hsl")) {
        const double hue = std::fmod(std::fmod(parts[0].value, 360) + 360, 360);
        return colorOfHue(hue, std::clamp(parts[1].value / 100, 0.0, 1.0), std::clamp(parts[2].value / 100, 0.0, 1.0), alpha);
    }
    const auto channel = [](const Number& part) { return part.unit == "%" ? part.value * 2.55 : part.value; };
    return colorText(channel(parts[0]), channel(parts[1]), channel(parts[2]), alpha);
}

/// Of "#rgba" and "#rrggbbaa"; empty for all else.
std::string colorOfDigits(std::string_view digits) {
    if ((digits.size() != 4 && digits.size() != 8) ||
        !std::ranges::all_of(digits, [](unsigned char c) { return std::isxdigit(c); })) {
        return {};
    }
    const std::size_t width = digits.size() / 4;
    std::array<double, 4> parts{};
    for (std::size_t i = 0; i < parts.size(); ++i) {
        unsigned value = 0;
        std::from_chars(digits.data() + i * width, digits.data() + (i + 1) * width, value, 16);
        parts[i] = width == 1 ? value * 17 : value;
    }
    return colorText(parts[0], parts[1], parts[2], parts[3] / 255);
}

/// Copies the value of one declaration piece by piece.
class ValueWriter {
public:
    ValueWriter(std::string_view css, bool wholePixels, PictureAddresses& addresses)
        : m_css(css), m_wholePixels(wholePixels), m_addresses(addresses) {}

    std::string write() {
        while (m_at < m_css.size()) {
            writeNext();
        }
        return std::string(trimmed(m_out));
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
            writeString(piece);
        } else {
            std::string_view address = piece.substr(4);
            if (address.ends_with(')')) {
                address.remove_suffix(1);
            }
            address = trimmed(address);
            if (address.size() >= 2 && (address[0] == '"' || address[0] == '\'')) {
                address = address.substr(1, address.find(address[0], 1) - 1);
            }
            writeAddress(address);
        }
    }

    /// With escaped characters as they are, except for those that would end the string or an element. The engine looks for
    /// comments and the ends of rules in strings as well.
    void writeString(std::string_view piece) {
        constexpr std::string_view kUnsafe = "<{}\n";
        constexpr std::size_t kMostDigits = 6;
        const char mark = piece[0];
        const bool closed = piece.size() > 1 && piece.back() == mark;
        piece.remove_suffix(closed ? 1 : 0);
        for (std::size_t at = 0; at < piece.size(); ++at) {
            if (piece[at] != '\\') {
                m_out += kUnsafe.find(piece[at]) != std::string_view::npos || (piece[at] == '*' && m_out.ends_with('/'))
                             ? ' '
                             : piece[at];
                continue;
            }
            std::size_t end = at + 1;
            while (end < piece.size() && end <= at + kMostDigits && std::isxdigit(static_cast<unsigned char>(piece[end])) != 0) {
                ++end;
            }
            unsigned code = 0;
            std::from_chars(piece.data() + at + 1, piece.data() + end, code, 16);
            if (code >= 0x80) {
                const bool isCharacter = code <= 0x10FFFF && (code < 0xD800 || code > 0xDFFF) && !isNoncharacter(code);
                appendUtf8(m_out, isCharacter ? code : 0xFFFD);
                end += end < piece.size() && isSpace(piece[end]) ? 1 : 0;
            } else {
                m_out += ' ';
                end = at + 1;
            }
            at = end - 1;
        }
        m_out += mark;
    }

    void writeAddress(std::string_view address) {
        m_out += "url(" + m_addresses.add({std::string(address), {}, PictureAddress::Use::Background}) + ")";
    }

    void writeNumber() {
        Number number = readNumber(m_css.substr(m_at));
        m_at += number.size;
        if (number.unit == "pt") {
            number.value *= 96.0 / 72;
            number.unit = "px";
        } else if (number.unit == "ex") {
            number.value *= 0.5;
            number.unit = "em";
        } else if (number.unit == "rem") {
            number.value *= 16;
            number.unit = "px";
        }
        const bool pixels = number.unit == "px";
        if (pixels && m_wholePixels) {
            number.value = number.value > 0 ? std::max(1.0, std::round(number.value)) : 0;
        }
        m_out += shortNumber(std::min(number.value, pixels || number.unit.empty() ? kMaxPixels : kMaxRelative), 3);
        m_out += number.unit;
    }

    void writeWord() {
        const std::size_t start = m_at++;
        while (m_at < m_css.size() && isWord(m_css[m_at])) {
            ++m_at;
        }
        const std::string_view word = m_css.substr(start, m_at - start);
        const std::string color = word[0] == '#' ? colorOfDigits(word.substr(1)) : std::string();
        if (!color.empty()) {
            m_out += color;
        } else if (m_at < m_css.size() && m_css[m_at] == '(') {
            writeFunction(word);
        } else {
            m_out += word;
        }
    }

    void writeFunction(std::string_view word) {
        const std::string name = lowered(word);
        const bool gradient = name == "linear-gradient" || name == "radial-gradient";
        const bool color = name == "rgb" || name == "rgba" || name == "hsl" || name == "hsla";
        if (!color && !name.ends_with("gradient")) {
            m_out += word;
            return;
        }
        const std::size_t end = behindBrackets(m_css, m_at);
        std::string_view arguments = m_css.substr(m_at + 1, end - m_at - 1);
        arguments.remove_suffix(arguments.ends_with(')') ? 1 : 0);
        m_at = end;
        if (color) {
            m_out += colorOfFunction(name, arguments);
        } else if (gradient && arguments.size() <= kMaxGradientLength) {
            writeAddress(name + "(" + lowered(ValueWriter(arguments, false, m_addresses).write()) + ")");
        }
    }

    std::string_view m_css;
    bool m_wholePixels;
    PictureAddresses& m_addresses;
    std::size_t m_at = 0;
    std::string m_out;
};

/// Values of `display` and `position` for which the engine has nothing, or on which its repair of tables fails.
bool isForeignLayout(std::string_view value) {
    return std::ranges::any_of(std::array<std::string_view, 5>{"table", "flex", "grid", "fixed", "sticky"},
                               [value](std::string_view word) { return value.find(word) != std::string_view::npos; });
}

bool isZero(std::string_view text) {
    const Number number = readNumber(text);
    return number.size > 0 && number.value == 0;
}

/// Whether the font size in a "font" shorthand is 0.
bool hasZeroSize(std::string_view font) {
    for (std::size_t at = 0; at < font.size(); ++at) {
        if (isDigit(font[at]) && (at == 0 || isSpace(font[at - 1]))) {
            const Number number = readNumber(font.substr(at));
            if (number.value < 100 || !number.unit.empty()) {
                return number.value == 0;
            }
            at += number.size;
        }
    }
    return false;
}

/// Of several layers the lowest one that has a picture, with the colour of the last: the engine draws one.
std::string oneLayer(std::string_view value) {
    std::vector<std::string_view> layers;
    std::size_t start = 0;
    for (std::size_t at = 0; at <= value.size();) {
        const std::size_t end = at == value.size() ? at : findOutside(value, at, ",(");
        if (end < value.size() && value[end] == '(') {
            at = behindBrackets(value, end);
            continue;
        }
        layers.push_back(value.substr(start, end - start));
        at = start = end + 1;
    }
    if (layers.size() < 2) {
        return std::string(value);
    }
    const auto hasPicture = [](std::string_view layer) {
        const std::string text = lowered(layer);
        return text.find("url(") != std::string::npos || text.find("gradient(") != std::string::npos;
    };
    const auto found = std::ranges::find_if(layers.rbegin(), layers.rend(), hasPicture);
    if (found == layers.rend()) {
        return std::string(layers.back());
    }
    return std::string(*found) + (hasPicture(layers.back()) ? std::string() : " " + std::string(layers.back()));
}

bool isLength(std::string_view name) {
    return name.ends_with("width") || name.ends_with("height") || name.starts_with("margin") || name.starts_with("padding");
}

struct Declaration {
    std::string name;   // in lower case
    std::string value;  // without comments
    bool important = false;
};

std::optional<Declaration> readDeclaration(std::string_view css) {
    const std::size_t colon = findOutside(css, 0, ":");
    if (colon == css.size()) {
        return std::nullopt;
    }
    Declaration result;
    result.name = lowered(trimmed(withoutComments(css.substr(0, colon))));
    const std::string_view value = trimmed(css.substr(colon + 1));
    const std::size_t mark = findOutside(value, 0, "!");
    result.important = lowered(trimmed(value.substr(std::min(mark + 1, value.size())))).starts_with("important");
    result.value = trimmed(value.substr(0, mark));
    const bool custom = result.name.starts_with("--");
    const bool known = std::ranges::all_of(result.name, isWord) && !result.name.starts_with("mso-") &&
                       !result.name.starts_with('_') && (custom || !result.name.starts_with('-'));
    return result.name.empty() || result.value.empty() || !known ? std::nullopt : std::optional(result);
}

/// How many variables a value may be made of.
std::size_t countVariables(std::string_view value) {
    std::size_t count = 0;
    for (std::size_t at = value.find("--"); at != std::string_view::npos; at = value.find("--", at + 2)) {
        ++count;
    }
    return count;
}

/// The engine goes through a whole document for each level that anything in it stands on, so there are few: one below the text,
/// and those that are far up count as the same when they are near each other.
std::string coarseLevel(std::string_view value) {
    constexpr double kFine = 10;
    constexpr double kHighest = 2147483647;  // as for browsers
    if (value.starts_with('-')) {
        return "-1";
    }
    const double level = std::min(readNumber(value).value, kHighest);
    return shortNumber(std::floor(level <= kFine ? level : kFine + std::log10(level / kFine)), 0);
}

/// Says in words of the engine what it would misunderstand; false when there are none.
bool mend(Declaration& declaration) {
    std::string& name = declaration.name;
    std::string& value = declaration.value;
    const bool varies = lowered(value).find("var(") != std::string::npos;
    if (name.starts_with("--")) {
        // The engine would resolve for ever a variable that is made of itself, whatever others are between.
        return !varies && countVariables(value) == 0 && value.size() <= kMaxVariable;
    }
    if (varies && countVariables(value) > kMaxVariables) {
        return false;
    }
    if (name == "display" || name == "position") {
        return !varies && !isForeignLayout(lowered(value));
    }
    if (name == "z-index") {
        value = value == "auto" ? value : coarseLevel(value);
    } else if (name == "content" && (varies || lowered(value).find("attr(") != std::string::npos)) {
        value = "\"\"";  // of its attributes an element has none left that are to be read
    }
    if (name == "font-size" && isZero(value)) {
        value = "1px";  // the engine takes 0 for the default size; text of one pixel is not drawn
    } else if (name == "font" && hasZeroSize(value)) {
        name = "font-size";
        value = "1px";
    } else if (name == "opacity") {
        const bool negative = value.starts_with('-');
        const Number number = readNumber(std::string_view(value).substr(negative ? 1 : 0));
        const double opacity = negative ? 0 : number.value / (number.unit == "%" ? 100 : 1);
        if (number.size == 0) {
            return false;  // a word or a variable, for which the engine has nothing
        }
        if (opacity < kInvisible) {
            name = "visibility";
            value = "hidden";
        } else {
            value = shortNumber(opacity, 3);
        }
    } else if (name == "background" || name == "background-image") {
        value = oneLayer(value);
    } else if (name == "font-weight" && readNumber(value).size > 0) {
        value = readNumber(value).value >= kBold ? "bold" : "normal";
    } else if (name == "text-align") {
        const std::string word = lowered(value);
        value = word.ends_with("center") ? "center" : word == "end" || word.ends_with("right") ? "right" : value;
    } else if (name == "text-decoration-line") {
        name = "text-decoration";
    } else if (isLength(name) && value.find('(') != std::string::npos && value.find("var(") == std::string::npos) {
        return false;  // a calculation
    }
    return true;
}

}  // namespace

std::string safeDeclarations(std::string_view css, PictureAddresses& addresses) {
    std::string result;
    for (std::size_t at = 0; at < css.size();) {
        const std::size_t end = findOutside(css, at, ";");
        std::optional<Declaration> declaration = readDeclaration(css.substr(at, end - at));
        at = end + 1;
        if (!declaration || !mend(*declaration)) {
            continue;
        }
        const bool exact = declaration->name == "letter-spacing" || declaration->name == "font-size";
        std::string value = ValueWriter(declaration->value, !exact, addresses).write();
        if (declaration->name == "content" && value.find('"') == std::string::npos) {
            std::ranges::replace(value, '\'', '"');  // the only quotes that the engine knows here
        }
        if (!value.empty()) {
            result += declaration->name + ":" + value + (declaration->important ? "!important;" : ";");
        }
    }
    return result;
}

HtmlDemands demandsOf(std::string_view css) {
    HtmlDemands result;
    for (std::size_t at = 0; at < css.size();) {
        const std::size_t end = findOutside(css, at, ";");
        const std::string_view declaration = css.substr(at, end - at);
        at = end + 1;
        if (lowered(trimmed(declaration).substr(0, 3)) != "dis" && lowered(trimmed(declaration).substr(0, 3)) != "dir") {
            continue;
        }
        const std::optional<Declaration> known = readDeclaration(declaration);
        const std::string value = known ? lowered(known->value) : std::string();
        const bool flexible = value.find("flex") != std::string::npos || value.find("grid") != std::string::npos;
        result.flexLayout = result.flexLayout || (flexible && known->name == "display");
        result.rightToLeft = result.rightToLeft || (value == "rtl" && known->name == "direction");
    }
    return result;
}

}  // namespace ternview
