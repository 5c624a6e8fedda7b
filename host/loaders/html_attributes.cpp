#include "html_attributes.h"

#include "html_css.h"
#include "html_tags.h"

#include "utf.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <utility>

namespace ternview {
namespace {

constexpr std::size_t kMaxValueLength = 4096;
constexpr std::size_t kMaxStyleLength = 32768;
constexpr int kMaxPixels = 20000;

std::string lowered(std::string_view text) {
    std::string result(beginningOfUtf8(text, 200));
    std::ranges::transform(result, result.begin(), [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
    return result;
}

std::string escaped(std::string_view value) {
    std::string result;
    for (const char c : value) {
        if (c == '"') {
            result += "&quot;";
        } else if (c == '<') {
            result += "&lt;";
        } else if (c == '&') {
            result += "&amp;";
        } else if (static_cast<unsigned char>(c) >= 0x20 || c == '\n' || c == '\t') {
            result += c;
        }
    }
    return result;
}

/// A length attribute as a CSS length: a number is pixels, a percentage stays.
std::string cssLength(std::string_view value) {
    const std::optional<int> number = attributeNumber(value, 0, kMaxPixels);
    if (!number) {
        return {};
    }
    return value.find('%') != std::string_view::npos ? std::to_string(std::min(*number, 1000)) + "%"
                                                     : std::to_string(*number) + "px";
}

/// A colour or keyword, which cannot end the declaration it is put into.
std::string cssWord(std::string_view value) {
    std::string result = lowered(value);
    std::erase_if(result,
                  [](char c) { return c == ';' || c == ':' || c == '"' || c == '<' || c == '\\' || c == '{' || c == '}'; });
    return result;
}

std::string cssColor(std::string_view value) {
    const std::string word = cssWord(value);
    const bool bareHex = word.size() == 6 && std::ranges::all_of(word, [](unsigned char c) { return std::isxdigit(c); });
    return bareHex ? "#" + word : word;
}

std::string declaration(std::string_view property, const std::string& value) {
    return value.empty() ? std::string() : std::string(property) + ":" + value + ";";
}

std::string fontStyle(const HtmlToken& token) {
    static constexpr std::array<const char*, 8> kSizes{"10px", "10px", "13px", "16px", "18px", "24px", "32px", "48px"};
    std::string style = declaration("color", cssColor(token.attribute("color")));
    std::string face(beginningOfUtf8(token.attribute("face"), 200));
    std::erase_if(face, [](char c) { return c == ';' || c == '"' || c == '<' || c == '{' || c == '}' || c == '&'; });
    style += declaration("font-family", face);
    const std::string_view size = token.attribute("size");
    const bool relative = size.starts_with('+') || size.starts_with('-');
    if (const auto number = attributeNumber(size.substr(size.starts_with('+') ? 1 : 0), -7, 7)) {
        style += declaration("font-size", kSizes[static_cast<std::size_t>(std::clamp(relative ? 3 + *number : *number, 1, 7))]);
    }
    return style;
}

std::string ruleStyle(const HtmlToken& token) {
    std::string style;
    const std::string color = cssColor(token.attribute("color"));
    const std::optional<int> size = attributeNumber(token.attribute("size"), 1, 1000);
    const bool flat = std::ranges::find(token.attributes, std::string("noshade"), &HtmlAttribute::name) != token.attributes.end();
    if (!color.empty() || flat || token.attribute("size") == "1") {
        style += "border:0;border-top:" + std::to_string(size.value_or(flat ? 2 : 1)) + "px solid " +
                 (color.empty() ? "#808080" : color) + ";";
    } else if (size) {
        style += "height:" + std::to_string(std::max(*size - 2, 0)) + "px;";
    }
    style += declaration("width", cssLength(token.attribute("width")));
    const std::string align = lowered(token.attribute("align"));
    if (align == "left" || align == "right") {
        style += align == "left" ? "margin-left:0;margin-right:auto;" : "margin-left:auto;margin-right:0;";
    }
    return style;
}

std::string placedTableStyle(const HtmlToken& token) {
    const std::string align = lowered(token.attribute("align"));
    if (align == "left" || align == "right") {
        return "float:" + align + ";";
    }
    return align == "center" ? "margin-left:auto;margin-right:auto;" : "";
}

std::string tableStyle(const HtmlToken& token, ChildAlignment surrounding) {
    // What aligns blocks does not reach the text of tables.
    std::string style = surrounding == ChildAlignment::Default ? "" : "text-align:start;";
    style += placedTableStyle(token) + declaration("height", cssLength(token.attribute("height")));
    const auto border = std::ranges::find(token.attributes, std::string("border"), &HtmlAttribute::name);
    if (border != token.attributes.end()) {
        const int width = attributeNumber(border->value, 0, 1000).value_or(1);
        style += width > 0 ? "border:" + std::to_string(width) + "px outset #808080;" : "";
    }
    const std::string spacing = cssLength(token.attribute("cellspacing"));
    return style + declaration("border-spacing", spacing);
}

std::string listStyle(const HtmlToken& token) {
    const std::string_view type = token.attribute("type");
    if (type == "a" || type == "A") {
        return type == "a" ? "list-style-type:lower-latin;" : "list-style-type:upper-latin;";
    }
    if (type == "i" || type == "I") {
        return type == "i" ? "list-style-type:lower-roman;" : "list-style-type:upper-roman;";
    }
    return type == "1" ? "list-style-type:decimal;" : declaration("list-style-type", cssWord(type));
}

std::string cellStyle(const HtmlToken& token, const TableAttributes& table) {
    std::string style =
        table.cellPadding + table.cellBorder + table.rowAlign + declaration("height", cssLength(token.attribute("height")));
    const std::string align = cssWord(token.attribute("align"));
    const auto nowrap = std::ranges::find(token.attributes, std::string("nowrap"), &HtmlAttribute::name);
    return style + declaration("vertical-align", cssWord(token.attribute("valign"))) + declaration("text-align", align) +
           (nowrap != token.attributes.end() ? "white-space:nowrap;" : "");
}

/// Text in a font of fixed pitch is smaller by itself, unless the author has chosen the font.
std::string pitchStyle(const HtmlToken& token) {
    const std::string_view style = token.attribute("style").substr(0, kMaxStyleLength);
    const bool fixed =
        token.name == "pre" || token.name == "code" || token.name == "tt" || token.name == "kbd" || token.name == "samp";
    return fixed && style.find("font-family") != std::string_view::npos ? "font-size:1em;" : "";
}

/// What presentational attributes mean, as declarations. Style sheets and style attributes say more than they do.
std::string hintedStyle(const HtmlToken& token, ChildAlignment surrounding, const TableAttributes* table) {
    const std::string& name = token.name;
    std::string style;
    if (name == "font" || name == "basefont") {
        style = fontStyle(token);
    } else if (name == "hr") {
        style = ruleStyle(token);
    } else if (name == "table") {
        style = tableStyle(token, surrounding);
    } else if (name == "ol" || name == "ul" || name == "li") {
        style = listStyle(token);
    } else if (name == "tr") {
        style = declaration("height", cssLength(token.attribute("height")));
    } else if (table != nullptr && (name == "td" || name == "th")) {
        style = cellStyle(token, *table);
    } else if (name == "body") {
        style = declaration("color", cssColor(token.attribute("text"))) +
                declaration("background-color", cssColor(token.attribute("bgcolor")));
    } else if (name == "br") {
        const std::string clear = lowered(token.attribute("clear"));
        style = clear.empty() ? "" : clear == "left" || clear == "right" ? "clear:" + clear + ";" : "clear:both;";
    } else if (name == "img") {
        const std::string align = lowered(token.attribute("align"));
        style = align == "left" || align == "right" ? "float:" + align + ";" : declaration("vertical-align", cssWord(align));
        const std::string beside = cssLength(token.attribute("hspace"));
        const std::string above = cssLength(token.attribute("vspace"));
        style += declaration("margin-left", beside) + declaration("margin-right", beside) + declaration("margin-top", above) +
                 declaration("margin-bottom", above);
        const std::string border = cssLength(token.attribute("border"));
        style += border.empty() ? "" : "border:" + border + " solid;";
    }
    style += pitchStyle(token);
    const std::string direction = lowered(token.attribute("dir"));
    if (direction == "rtl" || direction == "ltr") {
        style += "direction:" + direction + ";";
    }
    if (std::ranges::find(token.attributes, std::string("hidden"), &HtmlAttribute::name) != token.attributes.end()) {
        style += "display:none;";
    }
    return style;
}

/// Where the surroundings place a block that is narrower than they are, whatever its own margins say.
std::string placedBlockStyle(const HtmlToken& token, ChildAlignment surrounding) {
    if (surrounding == ChildAlignment::Default || surrounding == ChildAlignment::Left) {
        return {};
    }
    const std::string_view style = token.attribute("style").substr(0, kMaxStyleLength);
    const bool picture =
        token.name == "img" && style.find("block") != std::string_view::npos && style.find("inline") == std::string_view::npos;
    const TagKind kind = tagKind(token.name);
    const bool block = kind == TagKind::Block || kind == TagKind::Paragraph || kind == TagKind::Heading;
    const bool table = kind == TagKind::Table && token.attribute("align").empty();
    if (!picture && !table && (!block || style.find("width") == std::string_view::npos)) {
        return {};
    }
    return surrounding == ChildAlignment::Center ? "margin-left:auto;margin-right:auto;" : "margin-left:auto;margin-right:0;";
}

/// A table that is said to be a block has a table of its own width inside.
std::string freedTableStyle(const HtmlToken& token) {
    std::string style = lowered(token.attribute("style"));
    std::erase(style, ' ');
    return token.name == "table" && style.find("display:block") != std::string::npos ? "width:auto;" : "";
}

/// Whether an attribute goes on with its value checked as a number or percentage, or as it stands.
enum class Passing { Dropped, Length, Text };

Passing passing(std::string_view element, std::string_view attribute) {
    const bool tablePart = element == "table" || element == "td" || element == "th" || element == "tr" || element == "thead" ||
                           element == "tbody" || element == "tfoot";
    if (attribute == "id" || attribute == "class") {
        return Passing::Text;
    }
    if (attribute == "align" || attribute == "valign" || attribute == "bgcolor") {
        return element == "img" || element == "hr" || element == "table"
                   ? (attribute == "bgcolor" ? Passing::Text : Passing::Dropped)
                   : Passing::Text;
    }
    if (attribute == "width") {
        return element == "img" || (tablePart && element != "tr") ? Passing::Length : Passing::Dropped;
    }
    if (attribute == "height") {
        return element == "img" ? Passing::Length : Passing::Dropped;
    }
    if (attribute == "start" || attribute == "value") {
        return element == "ol" || element == "li" ? Passing::Length : Passing::Dropped;
    }
    return Passing::Dropped;
}

/// The engine compares each class of an element with each class of a selector.
std::string_view firstClasses(std::string_view classes) {
    constexpr std::size_t kMost = 24;
    constexpr std::string_view kBlanks = " \t\r\n\f";
    std::size_t end = 0;
    for (std::size_t count = 0; count < kMost && end < classes.size(); ++count) {
        const std::size_t start = std::min(classes.find_first_not_of(kBlanks, end), classes.size());
        end = std::min(classes.find_first_of(kBlanks, start), classes.size());
    }
    return classes.substr(0, end);
}

std::string pictureAttribute(const HtmlToken& token, const HtmlAttribute& attribute, PictureAddresses& pictures) {
    PictureAddress address{std::string(attribute.value), {}, PictureAddress::Use::Background};
    if (attribute.name == "src") {
        address.use = PictureAddress::Use::Element;
        address.alternative = beginningOfUtf8(token.attribute("alt"), kMaxValueLength);
    }
    return " " + attribute.name + "=\"" + pictures.add(std::move(address)) + "\"";
}

}  // namespace

std::optional<int> attributeNumber(std::string_view value, int least, int most) {
    while (!value.empty() && (value.front() == ' ' || value.front() == '+' || value.front() == '\n' || value.front() == '\t')) {
        value.remove_prefix(1);
    }
    const bool negative = value.starts_with('-');
    long number = 0;
    std::size_t digits = negative ? 1 : 0;
    for (; digits < value.size() && value[digits] >= '0' && value[digits] <= '9'; ++digits) {
        number = std::min(number * 10 + (value[digits] - '0'), 1'000'000'000L);
    }
    if (digits == (negative ? 1U : 0U)) {
        return std::nullopt;
    }
    return static_cast<int>(std::clamp(negative ? -number : number, static_cast<long>(least), static_cast<long>(most)));
}

ChildAlignment childAlignment(const HtmlToken& token, ChildAlignment inherited) {
    if (token.name == "center") {
        return ChildAlignment::Center;
    }
    const std::string align = lowered(token.attribute("align"));
    if (token.attribute("style").substr(0, kMaxStyleLength).find("text-align") != std::string_view::npos) {
        return ChildAlignment::Default;  // aligns text, and nothing else
    }
    if (token.name == "table" || align.empty()) {
        return token.name == "table" || token.name == "td" || token.name == "th" ? ChildAlignment::Default : inherited;
    }
    return align == "center" || align == "middle" ? ChildAlignment::Center
           : align == "right"                     ? ChildAlignment::Right
                                                  : ChildAlignment::Left;
}

std::string linkHint(const HtmlToken& body) {
    const std::string color = declaration("color", cssColor(body.attribute("link")));
    return color.empty() ? color : " hints=\"" + escaped(color) + "\"";
}

std::string rowAlignment(const HtmlToken& token) {
    const std::string align = lowered(token.attribute("valign"));
    return align == "top" || align == "bottom" || align == "middle" ? "vertical-align:" + align + ";" : std::string();
}

std::string lineBoxStyle(const HtmlToken& token) {
    const std::string style = lowered(token.attribute("style"));
    const std::string align = lowered(token.attribute("align"));
    const std::size_t display = style.find("display");
    const bool floats = (align == "left" || align == "right") && style.find("float") == std::string::npos;
    if (token.name != "table" || display == std::string::npos || floats || style.find("inline", display) == std::string::npos ||
        token.attribute("width").ends_with('%')) {
        return {};
    }
    const std::size_t vertical = style.find("vertical-align");
    const bool top = vertical != std::string::npos && style.find("top", vertical) < style.find(';', vertical);
    return top ? "display:inline-block;vertical-align:top" : "display:inline-block";
}

bool hasDisplayStyle(const HtmlToken& token) {
    const std::string_view style = token.attribute("style");
    return style.substr(0, kMaxStyleLength).find("display") != std::string_view::npos ||
           style.substr(0, kMaxStyleLength).find("float") != std::string_view::npos;
}

std::string safeAttributes(const HtmlToken& token, ChildAlignment surrounding, const TableAttributes* table,
                           PictureAddresses& pictures) {
    std::string result;
    std::string hints = hintedStyle(token, surrounding, table);
    std::string style;
    bool hasSource = false;
    std::vector<std::string_view> seen;
    for (const HtmlAttribute& attribute : token.attributes) {
        if (std::ranges::find(seen, attribute.name) != seen.end()) {
            continue;  // the first of a name counts
        }
        seen.push_back(attribute.name);
        const bool background = attribute.name == "background" && token.name != "img";
        if ((attribute.name == "src" && token.name == "img") || background) {
            hasSource = true;
            if (background) {
                hints += "background-image:url(" +
                         pictures.add({std::string(attribute.value), {}, PictureAddress::Use::Background}) + ");";
                continue;
            }
            result += pictureAttribute(token, attribute, pictures);
        } else if (attribute.name == "style") {
            const std::string author = safeDeclarations(attribute.value, pictures);
            style += author.size() <= kMaxStyleLength ? author : std::string();
        } else if (attribute.name == "href" && token.name == "a") {
            result += " href=\"#\"";  // makes it a link for the style sheet; its address is of no use on paper
        } else if (attribute.name == "dir") {
            const std::string direction = lowered(attribute.value);
            result += direction == "rtl" || direction == "ltr" || direction == "auto" ? " dir=\"" + direction + "\"" : "";
        } else if (attribute.name == "colspan" || attribute.name == "rowspan") {
            continue;  // with the limits of the table's grid, by the caller
        } else if (const Passing how = passing(token.name, attribute.name); how == Passing::Text) {
            std::string_view value = beginningOfUtf8(attribute.value, kMaxValueLength);
            value = attribute.name == "class" ? firstClasses(value) : value;
            const bool name = attribute.name == "id" || attribute.name == "class";
            result += " " + attribute.name + "=\"" + (name ? escaped(value) : escaped(lowered(value))) + "\"";
        } else if (how == Passing::Length) {
            if (const auto number = attributeNumber(attribute.value, 0, kMaxPixels)) {
                const bool percent = attribute.value.find('%') != std::string_view::npos;
                result += " " + attribute.name + "=\"" + std::to_string(percent ? std::min(*number, 1000) : *number) +
                          (percent ? "%\"" : "\"");
            }
        }
    }
    style += placedBlockStyle(token, surrounding) + freedTableStyle(token);
    if (token.name == "img" && !hasSource) {
        result += " src=\"" +
                  pictures.add(
                      {{}, std::string(beginningOfUtf8(token.attribute("alt"), kMaxValueLength)), PictureAddress::Use::Element}) +
                  "\"";
    }
    if (token.name == "br") {
        style.insert(0, std::exchange(hints, {}));  // as it is no element of ours in the engine
    }
    result += hints.empty() ? std::string() : " hints=\"" + escaped(hints) + "\"";
    return style.empty() ? result : result + " style=\"" + escaped(style) + "\"";
}

std::optional<std::string_view> writtenAttribute(std::string_view tag, std::string_view name) {
    constexpr std::string_view kValueStart = "=\"";
    // From one value to the next, as a value may read like another attribute.
    for (std::size_t at = tag.find(' '); at < tag.size();) {
        const std::size_t equals = tag.find(kValueStart, at);
        if (equals == std::string_view::npos) {
            break;
        }
        const std::size_t start = equals + kValueStart.size();
        const std::size_t end = std::min(tag.find('"', start), tag.size());
        if (tag.substr(at + 1, equals - at - 1) == name) {
            return tag.substr(start, end - start);
        }
        at = end + 1;
    }
    return std::nullopt;
}

}  // namespace ternview
