#include "export/browser_page.h"

#include <algorithm>
#include <optional>
#include <utility>
#include <vector>

#include "character_references.h"
#include "export/browser_css.h"
#include "export/html_structure.h"
#include "loaders/html_addresses.h"
#include "loaders/html_attributes.h"

namespace ternview {
namespace {

constexpr std::size_t kLongestTarget = 8192;                  // of addresses in text
constexpr std::size_t kLongestStyle = std::size_t{64} << 10;  // without pictures
constexpr std::size_t kMostSpanned = 500'000;                 // cells covered by colspan and rowspan in the whole document
constexpr int kWidestSpan = 1000;
constexpr long kLargestNumber = 20'000;

// A browser that is asked for nothing: neither by the message, nor by itself on account of the message's links.
constexpr std::string_view kHeadStart =
    "<head><meta charset=\"utf-8\">\n"
    "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; img-src data:; style-src 'unsafe-inline'; "
    "base-uri 'none'; form-action 'none'\">\n"
    "<meta name=\"referrer\" content=\"no-referrer\"><meta http-equiv=\"x-dns-prefetch-control\" content=\"off\">\n"
    "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n<title>";
constexpr std::string_view kLinkRelation = " rel=\"noreferrer noopener nofollow\"";
constexpr std::string_view kTextOnlyNotice =
    "<hr><p><i>This message has more parts than can be laid out. The rest is shown as text.</i></p>\n"
    "<div style=\"white-space:pre-line\">";
// A picture that is not here: a frame of its size. What the author says of the picture comes behind and wins.
constexpr std::string_view kFrameStyle =
    "display:inline-block;box-sizing:border-box;max-width:100%;overflow:hidden;border:1px solid #c0c0c0;color:#606060;"
    "font:12px sans-serif;";
constexpr std::string_view kTextStyle =
    "pre{font:13px/1.35 monospace;white-space:pre-wrap;overflow-wrap:anywhere;tab-size:8;margin:0}\n";

bool isSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f';
}
bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

std::string lowered(std::string_view text) {
    std::string result(text);
    std::ranges::transform(result, result.begin(), [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
    return result;
}

bool isOneOf(std::string_view name, const auto& names) {
    return std::ranges::find(names, name) != std::ranges::end(names);
}

/// Text with its markup characters escaped and without control characters, as content or as a value in double quotes.
void appendEscaped(std::string& out, std::string_view text) {
    for (const char c : text) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            default:
                if ((static_cast<unsigned char>(c) >= 0x20 && c != 0x7F) || c == '\n' || c == '\t') {
                    out += c;
                }
        }
    }
}

std::string escaped(std::string_view text) {
    std::string result;
    appendEscaped(result, text);
    return result;
}

// ---- attributes

// Their values are words, which mean something to the layout only.
constexpr auto kWordAttributes = std::to_array<std::string_view>(
    {"align",  "bgcolor",  "clear", "color", "compact", "dir",  "face",   "frame", "hidden", "lang", "noshade",
     "nowrap", "reversed", "rules", "scope", "title",   "type", "valign", "class", "id",     "name"});
constexpr auto kNumberAttributes = std::to_array<std::string_view>(
    {"border", "cellpadding", "cellspacing", "height", "hspace", "size", "span", "start", "value", "vspace", "width"});
constexpr std::string_view kBodyAttributes[] = {"alink", "background", "bgcolor", "dir", "lang", "link", "text", "vlink"};

/// A number with its sign and "%", if it is one of reasonable size.
std::optional<std::string> numberValue(std::string_view value) {
    while (!value.empty() && isSpace(value.front())) {
        value.remove_prefix(1);
    }
    const std::size_t sign = value.starts_with('-') || value.starts_with('+') ? 1 : 0;
    std::size_t end = sign;
    long number = 0;
    for (; end < value.size() && isDigit(value[end]); ++end) {
        number = std::min(number * 10 + (value[end] - '0'), kLargestNumber + 1);
    }
    if (end == sign || number > kLargestNumber) {
        return std::nullopt;
    }
    const bool isPercentage = end < value.size() && value.find('%', end) != std::string_view::npos;
    return std::string(value.substr(0, end)) + (isPercentage ? "%" : "");
}

/// The elements that go on under another name: what they do beside holding text has no place in a page that only shows.
std::string_view pageName(const HtmlToken& tag) {
    static constexpr std::pair<std::string_view, std::string_view> kRenamed[] = {
        {"button", "span"}, {"details", "div"}, {"dir", "ul"},      {"form", "div"}, {"label", "span"},
        {"listing", "pre"}, {"menu", "ul"},     {"summary", "div"}, {"xmp", "pre"},
    };
    for (const auto& [name, other] : kRenamed) {
        if (tag.name == name) {
            return other;
        }
    }
    return tag.name;
}

// ---- links

/// An address for a mail program with nothing but fields that a person would look at: some programs attach files that others
/// name.
std::string mailAddress(std::string_view address) {
    static constexpr std::string_view kFields[] = {"subject", "body", "to", "cc", "bcc"};
    const std::size_t query = std::min(address.find('?'), address.size());
    std::string result(address.substr(0, query));
    char separator = '?';
    for (std::string_view rest = address.substr(query); !rest.empty();) {
        rest.remove_prefix(1);
        const std::string_view field = rest.substr(0, rest.find('&'));
        rest.remove_prefix(field.size());
        if (isOneOf(lowered(field.substr(0, field.find('='))), kFields)) {
            result += separator;
            result += field;
            separator = '&';
        }
    }
    return result;
}

/// The length of the address of the web that a text begins with; 0 when it begins with none.
std::size_t webAddressLength(std::string_view text) {
    const std::string_view start = text.substr(0, 8);
    const std::string scheme = lowered(start);
    const std::size_t host = scheme == "https://" ? 8 : scheme.starts_with("http://") ? 7 : 0;
    if (host == 0) {
        return 0;
    }
    const auto isPart = [](char c) { return c > ' ' && c < 0x7F && c != '<' && c != '>' && c != '"'; };
    std::size_t end = host;
    while (end < std::min(text.size(), kLongestTarget) && isPart(text[end])) {
        ++end;
    }
    // What ends a sentence is no part of the address in it.
    const bool hasParenthesis = text.substr(host, end - host).find('(') != std::string_view::npos;
    while (end > host &&
           std::string_view(hasParenthesis ? ".,;:!?'*" : ".,;:!?'*)]}").find(text[end - 1]) != std::string_view::npos) {
        --end;
    }
    return end > host ? end : 0;
}

// ---- the page

std::string_view doctypeText(HtmlMode mode) {
    switch (mode) {
        case HtmlMode::kStandards:
            return "<!DOCTYPE html>\n";
        case HtmlMode::kLimitedQuirks:
            return "<!DOCTYPE html PUBLIC \"-//W3C//DTD XHTML 1.0 Transitional//EN\" \"\">\n";
        default:
            return "";
    }
}

std::string pageAround(std::string_view doctype, std::string_view title, std::string_view styles, std::string_view bodyAttributes,
                       std::string_view content) {
    std::string page;
    page.reserve(content.size() + styles.size() + title.size() + 1000);
    page += doctype;
    page += "<html>";
    page += kHeadStart;
    appendEscaped(page, title);
    page += "</title>\n";
    if (!styles.empty()) {
        page += "<style>\n";
        page += styles;
        page += "</style>\n";
    }
    page += "</head><body";
    page += bodyAttributes;
    page += ">\n";
    page += content;
    page += "\n</body></html>\n";
    return page;
}

class PageWriter final : public HtmlVisitor {
public:
    explicit PageWriter(EmbeddedPictures& pictures)
        : m_pictureUri([&pictures](const std::string& address) { return pictures.uri(address); }) {}

    void document(const HtmlToken& tag) override {
        // Of several tags the first one with an attribute counts.
        for (const HtmlAttribute& attribute : tag.attributes) {
            const bool isCommon = attribute.name == "style" || attribute.name == "class";
            const bool isKnown =
                std::ranges::find(m_bodyTag.attributes, attribute.name, &HtmlAttribute::name) != m_bodyTag.attributes.end();
            if (tag.name != "head" && !isKnown && (isCommon || isOneOf(attribute.name, kBodyAttributes))) {
                m_bodyTag.attributes.push_back(attribute);
            }
        }
    }

    void styleSheet(const HtmlToken& tag, std::string_view css) override {
        m_styles.append(css, withoutReferences(tag.attribute("media"), ReferencePlace::kAttribute), m_pictureUri);
    }

    void open(const HtmlToken& tag, TagKind kind, Begin begin) override {
        ++m_elements;
        m_body += '<';
        m_body += pageName(tag);
        appendAttributes(tag, begin);
        if (kind == TagKind::Cell) {
            appendSpans(tag);
        }
        m_body += '>';
    }

    void close(const HtmlToken& tag, TagKind) override {
        m_body += "</";
        m_body += pageName(tag);
        m_body += '>';
    }

    void empty(const HtmlToken& tag) override {
        ++m_elements;
        if (tag.name == "img") {
            appendPicture(tag);
            return;
        }
        m_body += '<' + tag.name;
        appendAttributes(tag, Begin::kNew);
        m_body += '>';
    }

    void text(std::string_view text) override {
        for (const char c : text) {
            if (c == '<' || c == '>') {
                m_body += c == '<' ? "&lt;" : "&gt;";
            } else if (static_cast<unsigned char>(c) >= 0x20 || isSpace(c)) {
                m_body += c;  // references mean the same in the page as in the source
            }
        }
    }

    void tooManyElements() override {
        m_body += kTextOnlyNotice;
        m_end = "</div>";
    }

    std::string page(HtmlMode mode, std::string_view title) {
        m_body += m_end;
        const std::string content = std::exchange(m_body, {});
        appendAttributes(m_bodyTag, Begin::kNew);
        const std::string bodyAttributes = std::exchange(m_body, {});
        return pageAround(doctypeText(mode), title, m_styles.text(m_elements), bodyAttributes, content);
    }

private:
    void appendAttribute(std::string_view name, std::string_view value) {
        m_body += ' ';
        m_body += name;
        m_body += "=\"";
        appendEscaped(m_body, value);
        m_body += '"';
    }

    /// @param style declarations that stand in front of the author's own
    void appendAttributes(const HtmlToken& tag, Begin begin, std::string style = {}) {
        std::vector<std::string_view> seen;  // the first of a name counts
        for (const HtmlAttribute& attribute : tag.attributes) {
            if (isOneOf(attribute.name, seen)) {
                continue;
            }
            seen.push_back(attribute.name);
            if (attribute.name == "style") {
                style += authorStyle(attribute.value);
            } else if (attribute.name == "background") {
                style += backgroundStyle(attribute.value);
            } else if (attribute.name == "href" && tag.name == "a") {
                appendLink(attribute.value);
            } else if (!((attribute.name == "id" || attribute.name == "name") && begin == Begin::kAgain)) {
                appendPlainAttribute(tag, attribute);
            }
        }
        if (!style.empty()) {
            m_body += " style=\"" + style + '"';
        }
    }

    void appendPlainAttribute(const HtmlToken& tag, const HtmlAttribute& attribute) {
        const bool isWord =
            isOneOf(attribute.name, kWordAttributes) || (tag.name == "body" && isOneOf(attribute.name, kBodyAttributes));
        const bool isNumber = isOneOf(attribute.name, kNumberAttributes);
        if (!isWord && !isNumber) {
            return;
        }
        const std::string value = withoutReferences(attribute.value, ReferencePlace::kAttribute);
        if (isWord) {
            appendAttribute(attribute.name, value);
        } else if (value.empty()) {
            appendAttribute(attribute.name, {});
        } else if (const std::optional<std::string> number = numberValue(value)) {
            appendAttribute(attribute.name, *number);
        }
    }

    std::string authorStyle(std::string_view value) {
        std::size_t pictures = 0;
        const auto pictureUri = [&](const std::string& address) {
            std::string uri = m_pictureUri(address);
            pictures += uri.size();
            return uri;
        };
        std::string style = browserDeclarations(withoutReferences(value, ReferencePlace::kAttribute), pictureUri);
        return style.size() - pictures <= kLongestStyle ? style : std::string();
    }

    std::string backgroundStyle(std::string_view value) {
        const std::string uri = m_pictureUri(withoutReferences(value, ReferencePlace::kAttribute));
        return uri.empty() ? std::string() : "background-image:url(" + uri + ");";
    }

    void appendLink(std::string_view value) {
        const std::string target = pageLinkTarget(withoutReferences(value, ReferencePlace::kAttribute));
        if (!target.empty()) {
            appendAttribute("href", target);
            m_body += kLinkRelation;
        }
    }

    void appendSpans(const HtmlToken& tag) {
        const int columns = attributeNumber(tag.attribute("colspan"), 1, kWidestSpan).value_or(1);
        const int rows = attributeNumber(tag.attribute("rowspan"), 1, kWidestSpan).value_or(1);
        const auto covered = static_cast<std::size_t>(columns * rows);
        if (covered > 1 && m_spanned + covered <= kMostSpanned) {
            m_spanned += covered;
            m_body += columns > 1 ? " colspan=\"" + std::to_string(columns) + '"' : "";
            m_body += rows > 1 ? " rowspan=\"" + std::to_string(rows) + '"' : "";
        }
    }

    void appendPicture(const HtmlToken& tag) {
        const std::string alternative = withoutReferences(tag.attribute("alt"), ReferencePlace::kAttribute);
        const std::string uri = m_pictureUri(withoutReferences(tag.attribute("src"), ReferencePlace::kAttribute));
        if (!uri.empty()) {
            m_body += "<img src=\"" + uri + '"';
            appendAttribute("alt", alternative);
            appendAttributes(tag, Begin::kNew);
            m_body += '>';
            return;
        }
        if (isDot(tag)) {
            return;
        }
        m_body += "<span";
        appendAttributes(withoutSize(tag), Begin::kNew, std::string(kFrameStyle) + frameSize(tag));
        m_body += '>';
        appendEscaped(m_body, alternative);
        m_body += "</span>";
    }

    static HtmlToken withoutSize(HtmlToken tag) {
        std::erase_if(tag.attributes, [](const HtmlAttribute& a) { return isOneOf(a.name, kNumberAttributes); });
        return tag;
    }

    /// Whether it is a picture of one pixel, which only tells its sender that a message is being read.
    static bool isDot(const HtmlToken& tag) {
        const std::optional<std::string> width = numberValue(tag.attribute("width"));
        const std::optional<std::string> height = numberValue(tag.attribute("height"));
        return width && height && (*width == "0" || *width == "1") && (*height == "0" || *height == "1");
    }

    static std::string frameSize(const HtmlToken& tag) {
        std::string style;
        for (const char* side : {"width", "height"}) {
            const std::optional<std::string> size = numberValue(tag.attribute(side));
            if (size && (*size)[0] != '-' && (*size)[0] != '+') {
                style += std::string(side) + ':' + *size + (size->ends_with('%') ? ";" : "px;");
            }
        }
        return style.empty() ? "min-width:16px;min-height:16px;" : style;
    }

    PictureUri m_pictureUri;
    BrowserStyleSheet m_styles;
    std::string m_body;
    std::string m_end;
    HtmlToken m_bodyTag{HtmlToken::Kind::StartTag, "body", {}, {}};
    std::size_t m_elements = 0;
    std::size_t m_spanned = 0;
};

}  // namespace

std::string pageLinkTarget(std::string_view address) {
    if (address.starts_with('#')) {
        return std::string(address);
    }
    const std::string target = linkTarget(address);
    return lowered(std::string_view(target).substr(0, 7)) == "mailto:" ? mailAddress(target) : target;
}

std::string browserPage(std::string_view html, EmbeddedPictures pictures, std::string_view title) {
    PageWriter writer(pictures);
    const HtmlMode mode = walkHtml(html, writer);
    return writer.page(mode, title);
}

std::string browserPageOfText(std::string_view text, std::string_view title) {
    std::string content = "<pre>\n";
    std::size_t plain = 0;  // where the text begins that is not in the page yet
    for (std::size_t at = text.find("://"); at != std::string_view::npos; at = text.find("://", at + 3)) {
        const std::size_t scheme = at >= 5 && (text[at - 1] | 0x20) == 's' ? 5 : 4;
        const std::size_t start = at < scheme + plain ? plain : at - scheme;
        const std::size_t length = start + scheme == at ? webAddressLength(text.substr(start)) : 0;
        if (length == 0) {
            continue;
        }
        const std::string_view address = text.substr(start, length);
        appendEscaped(content, text.substr(plain, start - plain));
        content += "<a href=\"" + escaped(address) + '"' + std::string(kLinkRelation) + '>' + escaped(address) + "</a>";
        plain = start + length;
        at = plain - 3;
    }
    appendEscaped(content, text.substr(plain));
    content += "</pre>";
    return pageAround("<!DOCTYPE html>\n", title, kTextStyle, {}, content);
}

}  // namespace ternview
