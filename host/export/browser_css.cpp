#include "export/browser_css.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <optional>
#include <span>

#include "export/css_rules.h"

namespace ternview {
namespace {

using Kind = CssToken::Kind;
using Value = std::span<const CssToken>;

constexpr std::size_t kMostDeclarations = 500;  // of one style attribute or rule
constexpr std::size_t kDeepestFunctions = 16;
constexpr std::size_t kMostSelectorParts = 8;  // with combinators between them, which a browser may have to try one by one
constexpr std::size_t kMostRules = 20'000;
constexpr std::size_t kMostSourceBytes = std::size_t{2} << 20;  // of style sheets, without which most of the look remains
constexpr double kMostComparisons = 2e7;                        // of elements with selectors
// Sizes beyond what a page can need cost browsers memory and minutes.
constexpr double kLargestLength = 20'000;
constexpr double kLargestRelative = 1000;  // em, %, and other units that are large or multiply
constexpr double kLargestShadow = 100;
constexpr double kMostGridTracks = 100;

std::string lowered(std::string_view text) {
    std::string result(text);
    std::ranges::transform(result, result.begin(), [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
    return result;
}

bool isOneOf(std::string_view name, const auto& names) {
    return std::ranges::find(names, name) != std::ranges::end(names);
}

// ---- declarations

// Properties of which all relatives ("margin-left") are harmless too.
constexpr std::string_view kFamilies[] = {
    "align",  "background", "border", "break",   "counter",  "flex",    "font", "grid", "justify", "list",
    "margin", "max",        "min",    "outline", "overflow", "padding", "row",  "text", "word",
};
constexpr std::string_view kProperties[] = {
    "aspect-ratio",
    "box-shadow",
    "box-sizing",
    "caption-side",
    "clear",
    "color",
    "column-gap",
    "content",
    "direction",
    "display",
    "empty-cells",
    "float",
    "gap",
    "height",
    "hyphens",
    "letter-spacing",
    "line-break",
    "line-height",
    "object-fit",
    "object-position",
    "opacity",
    "order",
    "orphans",
    "page-break-after",
    "page-break-before",
    "page-break-inside",
    "place-content",
    "place-items",
    "place-self",
    "position",
    "quotes",
    "tab-size",
    "table-layout",
    "unicode-bidi",
    "vertical-align",
    "visibility",
    "white-space",
    "widows",
    "width",
    "writing-mode",
};
constexpr std::string_view kFunctions[] = {
    "rgb",
    "rgba",
    "hsl",
    "hsla",
    "hwb",
    "lab",
    "lch",
    "oklab",
    "oklch",
    "calc",
    "min",
    "max",
    "clamp",
    "counter",
    "counters",
    "linear-gradient",
    "radial-gradient",
    "conic-gradient",
    "repeating-linear-gradient",
    "repeating-radial-gradient",
    "repeating-conic-gradient",
    "repeat",
    "minmax",
    "fit-content",
};
constexpr std::string_view kPictureProperties[] = {
    "background", "background-image", "content", "list-style", "list-style-image",
};
constexpr std::string_view kInFlow[] = {
    "static", "relative", "initial", "inherit", "unset",
};
constexpr std::string_view kUnits[] = {
    "px",   "pt",   "pc",  "in",  "cm",  "mm",  "q",   "em",  "ex", "rem", "ch",  "lh",   "rlh",  "vw",   "vh",
    "vmin", "vmax", "svw", "svh", "lvw", "lvh", "dvw", "dvh", "fr", "deg", "rad", "grad", "turn", "dppx",
};

bool isHarmless(std::string_view property) {
    return isOneOf(property.substr(0, property.find('-')), kFamilies) || isOneOf(property, kProperties);
}

double largest(std::string_view property, const CssToken& token, std::string_view unit) {
    if (token.kind == Kind::kNumber) {
        return property.starts_with("grid") ? kMostGridTracks : kLargestRelative;
    }
    if (property.ends_with("shadow")) {
        return kLargestShadow;
    }
    return unit == "px" || unit == "pt" || unit == "deg" ? kLargestLength : kLargestRelative;
}

std::string numberText(double number) {
    std::array<char, 64> digits;
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), number, std::chars_format::fixed, 4).ptr;
    std::string_view text(digits.data(), static_cast<std::size_t>(end - digits.data()));
    text = text.substr(0, text.find_last_not_of('0') + 1);
    return std::string(text.ends_with('.') ? text.substr(0, text.size() - 1) : text);
}

/// Whether a number would become part of what stands in front of it, for want of the "+" that it had.
bool wouldJoin(std::string_view before, std::string_view number) {
    return !number.starts_with('-') && !before.empty() &&
           std::string_view(" (,/*+-").find(before.back()) == std::string_view::npos;
}

/// Writes the value of one declaration anew.
class ValueWriter {
public:
    ValueWriter(std::string_view property, const PictureUri& pictureUri)
        : m_property(property), m_pictureUri(pictureUri), m_takesPictures(isOneOf(property, kPictureProperties)) {}

    /// @return nothing when some part of it is not known to be harmless
    std::optional<std::string> write(Value value) {
        for (const CssToken& token : value) {
            if (!writeToken(token)) {
                return std::nullopt;
            }
        }
        m_out.append(m_depth, ')');
        return std::move(m_out);
    }

private:
    bool writeToken(const CssToken& token) {
        switch (token.kind) {
            case Kind::kWhitespace:
                m_out += ' ';
                return true;
            case Kind::kIdent:
                m_out += cssName(token.text);
                return true;
            case Kind::kHash:
                m_out += '#' + cssHash(token.text);
                return true;
            case Kind::kString:
                m_out += cssString(token.text);
                return true;
            case Kind::kFunction:
                return writeFunction(token);
            case Kind::kUrl:
                return writePicture(token);
            case Kind::kNumber:
            case Kind::kPercentage:
            case Kind::kDimension:
                return writeNumber(token);
            case Kind::kMark:
                return writeMark(token.text[0]);
            default:
                return false;
        }
    }

    bool writeFunction(const CssToken& token) {
        const std::string name = lowered(token.text);
        m_out += name + '(';
        return ++m_depth <= kDeepestFunctions && isOneOf(name, kFunctions);
    }

    bool writePicture(const CssToken& token) {
        const std::string uri = m_takesPictures ? m_pictureUri(token.text) : std::string();
        m_out += uri.empty() ? "none" : "url(" + uri + ")";
        return m_takesPictures;
    }

    bool writeNumber(const CssToken& token) {
        const std::string unit = token.kind == Kind::kPercentage ? "%" : lowered(token.text);
        const double limit = largest(m_property, token, unit);
        const std::string digits = numberText(std::clamp(token.number, -limit, limit));
        m_out += wouldJoin(m_out, digits) ? " " : "";
        m_out += digits + unit;
        return token.kind != Kind::kDimension || isOneOf(unit, kUnits);
    }

    bool writeMark(char mark) {
        m_out += mark;
        if (mark == '(') {
            return ++m_depth <= kDeepestFunctions;
        }
        if (mark == ')') {
            return m_depth-- > 0;
        }
        return std::string_view(",/+-*!").find(mark) != std::string_view::npos;
    }

    std::string_view m_property;
    const PictureUri& m_pictureUri;
    bool m_takesPictures;
    std::size_t m_depth = 0;
    std::string m_out;
};

/// What stands outside the flow could cover the header lines of the message.
bool leavesFlow(std::string_view property, Value value) {
    return property == "position" && !(value[0].kind == Kind::kIdent && isOneOf(lowered(value[0].text), kInFlow));
}

// ---- selectors

constexpr auto kPseudoNames = std::to_array<std::string_view>(
    {"link",          "visited",      "hover",        "active",     "focus",          "first-child", "last-child", "only-child",
     "first-of-type", "last-of-type", "only-of-type", "nth-child",  "nth-last-child", "nth-of-type", "empty",      "root",
     "before",        "after",        "first-letter", "first-line", "checked",        "target",      "lang",       "marker"});

/// Writes a list of selectors anew.
class SelectorWriter {
public:
    explicit SelectorWriter(std::string_view source) : m_tokens(source) {}

    /// @return empty when some part is not known to be harmless: a browser that does not know a part drops the rule, too
    std::string write() {
        bool good = true;
        std::size_t end = 0;  // without whitespace behind; a space may end an escape, too
        for (CssToken token = m_tokens.next(); good && token.kind != Kind::kEnd; token = m_tokens.next()) {
            good = writeToken(token) && m_parts <= kMostSelectorParts;
            end = token.kind == Kind::kWhitespace ? end : m_out.size();
        }
        m_out.resize(end);
        return good && m_closer == '\0' ? std::move(m_out) : std::string();
    }
    std::size_t count() const { return m_count; }

private:
    bool writeToken(const CssToken& token) {
        const bool afterColon = m_out.ends_with(':');
        switch (token.kind) {
            case Kind::kWhitespace:
                m_parts += m_closer == '\0' ? 1 : 0;
                m_out += ' ';
                return !afterColon;
            case Kind::kIdent:
                m_out += cssName(token.text);
                return !afterColon || isOneOf(lowered(token.text), kPseudoNames);
            case Kind::kFunction:
                m_out += cssName(token.text) + '(';
                return afterColon && open(')') && isOneOf(lowered(token.text), kPseudoNames);
            case Kind::kHash:
                m_out += '#' + cssHash(token.text);
                return !afterColon;
            case Kind::kString:
                m_out += cssString(token.text);
                return m_closer != '\0';
            case Kind::kNumber:
            case Kind::kDimension:  // of nth-child: "2n+1"
                return writeNumber(token);
            case Kind::kMark:
                return writeMark(token.text[0], afterColon);
            default:
                return false;
        }
    }

    bool writeNumber(const CssToken& token) {
        const std::string digits = numberText(std::clamp(token.number, -kLargestRelative, kLargestRelative));
        m_out += wouldJoin(m_out, digits) ? "+" : "";
        m_out += digits + cssName(token.text);
        return m_closer == ')';
    }

    bool open(char closer) {
        const bool isFirst = m_closer == '\0';
        m_closer = closer;
        return isFirst;
    }

    bool writeMark(char mark, bool afterColon) {
        m_out += mark;
        if (mark == '[') {
            return !afterColon && open(']');
        }
        if (m_closer != '\0') {
            m_closer = mark == m_closer ? '\0' : m_closer;
            return std::string_view("=~|^$*+-])").find(mark) != std::string_view::npos;
        }
        m_parts = mark == ',' ? 0 : m_parts + (mark == '>' || mark == '+' || mark == '~' ? 1 : 0);
        m_count += mark == ',' ? 1 : 0;
        return std::string_view(".:,*>+~").find(mark) != std::string_view::npos && (!afterColon || mark == ':');
    }

    CssTokens m_tokens;
    std::string m_out;
    char m_closer = '\0';  // of the open attribute or function
    std::size_t m_parts = 0;
    std::size_t m_count = 1;
};

/// @param source behind "@media", or a media attribute
/// @return empty when some part of it is not known
std::string mediaQuery(std::string_view source) {
    CssTokens tokens(source);
    std::string result;
    for (CssToken token = tokens.next(); token.kind != Kind::kEnd; token = tokens.next()) {
        switch (token.kind) {
            case Kind::kWhitespace:
                result += ' ';
                break;
            case Kind::kIdent:
                result += cssName(token.text);
                break;
            case Kind::kNumber:
            case Kind::kDimension:
                result += numberText(std::clamp(token.number, -kLargestLength, kLargestLength)) + cssName(token.text);
                break;
            default:
                if (token.kind != Kind::kMark || std::string_view("():,/").find(token.text[0]) == std::string_view::npos) {
                    return {};
                }
                result += token.text;
        }
    }
    const std::size_t start = std::min(result.find_first_not_of(' '), result.size());
    return std::ranges::count(result, '(') == std::ranges::count(result, ')') ? result.substr(start) : std::string();
}

}  // namespace

std::string browserDeclarations(std::string_view css, const PictureUri& pictureUri) {
    std::string result;
    std::size_t count = 0;
    readDeclarations(css, [&](const std::string& property, const std::vector<CssToken>& value) {
        if (!isHarmless(property) || leavesFlow(property, value) || ++count > kMostDeclarations) {
            return;
        }
        if (const std::optional<std::string> written = ValueWriter(property, pictureUri).write(value)) {
            result += cssName(property) + ':' + *written + ';';
        }
    });
    return result;
}

void BrowserStyleSheet::append(std::string_view css, std::string_view media, const PictureUri& pictureUri) {
    m_sourceBytes += css.size();
    const std::string query = mediaQuery(media);
    const bool isForAll = media.find_first_not_of(" \t\r\n") == std::string_view::npos;
    if (m_sourceBytes <= kMostSourceBytes && (isForAll || !query.empty())) {
        appendRules(css, isForAll ? std::string() : query, pictureUri);
    }
}

void BrowserStyleSheet::appendRules(std::string_view css, const std::string& media, const PictureUri& pictureUri) {
    readRules(css, [&](std::string_view prelude, std::string_view block) {
        constexpr std::string_view kMedia = "@media";
        if (lowered(prelude.substr(0, kMedia.size())) == kMedia) {
            const std::string query = mediaQuery(prelude.substr(kMedia.size()));
            if (media.empty() && !query.empty()) {
                appendRules(block, query, pictureUri);
            }
            return;
        }
        SelectorWriter selectors(prelude);
        Rule rule{media, selectors.write(), selectors.count(), {}};
        if (!rule.selectors.empty() && m_rules.size() < kMostRules) {
            rule.declarations = browserDeclarations(block, pictureUri);
        }
        if (!rule.declarations.empty()) {
            m_rules.push_back(std::move(rule));
        }
    });
}

std::string BrowserStyleSheet::text(std::size_t elements) const {
    std::string result;
    std::string media;
    double comparisons = 0;
    for (const Rule& rule : m_rules) {
        comparisons += static_cast<double>(elements) * static_cast<double>(rule.selectorCount);
        if (comparisons > kMostComparisons) {
            break;
        }
        if (rule.media != media) {
            result += media.empty() ? "" : "}\n";
            result += rule.media.empty() ? std::string() : "@media " + rule.media + "{\n";
            media = rule.media;
        }
        result += rule.selectors + '{' + rule.declarations + "}\n";
    }
    return result + (media.empty() ? "" : "}\n");
}

}  // namespace ternview
