#include "page_checker.h"

#include <algorithm>
#include <cstddef>
#include <set>
#include <vector>

namespace {

using Names = std::set<std::string, std::less<>>;

const Names kElements{
    "a",       "abbr",    "acronym", "address",  "article",    "aside",  "b",        "bdi",    "bdo",   "big", "blockquote",
    "body",    "caption", "center",  "cite",     "code",       "col",    "colgroup", "dd",     "del",   "dfn", "div",
    "dl",      "dt",      "em",      "fieldset", "figcaption", "figure", "font",     "footer", "h1",    "h2",  "h3",
    "h4",      "h5",      "h6",      "head",     "header",     "hgroup", "html",     "i",      "ins",   "kbd", "legend",
    "li",      "main",    "mark",    "nav",      "nobr",       "ol",     "p",        "pre",    "q",     "s",   "samp",
    "section", "small",   "span",    "strike",   "strong",     "sub",    "sup",      "table",  "tbody", "td",  "tfoot",
    "th",      "thead",   "time",    "title",    "tr",         "tt",     "u",        "ul",     "var"};
const Names kVoid{"br", "col", "hr", "img", "meta"};
const Names kAttributes{"align",  "alink",    "alt",     "bgcolor", "border", "cellpadding", "cellspacing", "class",
                        "clear",  "color",    "colspan", "compact", "dir",    "face",        "frame",       "height",
                        "hidden", "hspace",   "id",      "lang",    "link",   "name",        "noshade",     "nowrap",
                        "rel",    "reversed", "rowspan", "rules",   "scope",  "size",        "span",        "start",
                        "text",   "title",    "type",    "valign",  "value",  "vlink",       "vspace",      "width"};
const Names kFunctions{"rgb",
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
                       "url",
                       "nth-child",
                       "nth-last-child",
                       "nth-of-type",
                       "lang",
                       "and",
                       "or",
                       "not"};

// The head as it has to be: the policy stands in front of everything that it is to govern.
constexpr std::string_view kHead =
    "<html><head><meta charset=\"utf-8\">\n"
    "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; img-src data:; style-src 'unsafe-inline'; "
    "base-uri 'none'; form-action 'none'\">\n"
    "<meta name=\"referrer\" content=\"no-referrer\"><meta http-equiv=\"x-dns-prefetch-control\" content=\"off\">\n"
    "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n<title>";

struct Complaint {
    std::string text;
};

bool isNamePart(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_' ||
           static_cast<unsigned char>(c) >= 0x80;
}

std::string lowered(std::string_view text) {
    std::string result(text);
    std::ranges::transform(result, result.begin(), [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
    return result;
}

class Checker {
public:
    explicit Checker(std::string_view page) : m_page(page) {}

    void check() {
        checkEncoding();
        for (const char* doctype :
             {"<!DOCTYPE html>\n", "<!DOCTYPE html PUBLIC \"-//W3C//DTD XHTML 1.0 Transitional//EN\" \"\">\n"}) {
            m_at += m_page.substr(m_at).starts_with(doctype) ? std::string_view(doctype).size() : 0;
        }
        require(m_page.substr(m_at).starts_with(kHead), "the head is not as it should be");
        m_at += kHead.size();
        m_open = {"html", "head", "title"};
        while (m_at < m_page.size()) {
            checkText();
            if (m_at < m_page.size()) {
                checkTag();
            }
        }
        require(m_open.empty(), "an element is open at the end");
    }

private:
    void require(bool condition, const char* what) const {
        if (!condition) {
            const std::size_t start = m_at - std::min<std::size_t>(m_at, 40);
            throw Complaint{std::string(what) + ", at " + std::to_string(m_at) + ": " + std::string(m_page.substr(start, 100))};
        }
    }

    void checkEncoding() const {
        for (std::size_t i = 0; i < m_page.size();) {
            const auto c = static_cast<unsigned char>(m_page[i]);
            const std::size_t length = c < 0x80                ? 1
                                       : c >= 0xC2 && c < 0xE0 ? 2
                                       : c >= 0xE0 && c < 0xF0 ? 3
                                       : c >= 0xF0 && c < 0xF5 ? 4
                                                               : 0;
            require(length != 0 && i + length <= m_page.size(), "no UTF-8");
            for (std::size_t k = 1; k < length; ++k) {
                require((static_cast<unsigned char>(m_page[i + k]) & 0xC0) == 0x80, "no UTF-8");
            }
            require(c >= 0x20 || c == '\n' || c == '\t' || c == '\r' || c == '\f', "a control character");
            i += length;
        }
    }

    void checkText() {
        const std::size_t end = std::min(m_page.find('<', m_at), m_page.size());
        require(m_page.substr(m_at, end - m_at).find('>') == std::string_view::npos, "markup in text");
        m_at = end;
    }

    std::string takeName() {
        const std::size_t start = m_at;
        while (m_at < m_page.size() &&
               ((m_page[m_at] >= 'a' && m_page[m_at] <= 'z') || (m_page[m_at] >= '0' && m_page[m_at] <= '9'))) {
            ++m_at;
        }
        return std::string(m_page.substr(start, m_at - start));
    }

    void checkTag() {
        ++m_at;
        if (m_page.substr(m_at).starts_with('/')) {
            ++m_at;
            const std::string name = takeName();
            require(!m_open.empty() && m_open.back() == name, "an end tag without its element");
            require(m_page.substr(m_at).starts_with('>'), "an end tag that does not end");
            m_open.pop_back();
            ++m_at;
            return;
        }
        const std::string name = takeName();
        if (name == "style") {
            require(m_open.size() == 2 && m_open.back() == "head", "a style sheet outside the head");
            require(m_page.substr(m_at).starts_with('>'), "attributes of a style sheet");
            checkStyleSheet();
            return;
        }
        require(kElements.contains(name) || name == "br" || name == "hr" || name == "img", "an unknown element");
        while (m_page.substr(m_at).starts_with(' ')) {
            checkAttribute(name);
        }
        require(m_page.substr(m_at).starts_with('>'), "a tag that does not end");
        ++m_at;
        if (!kVoid.contains(name)) {
            m_open.push_back(name);
        }
    }

    void checkAttribute(const std::string& element) {
        ++m_at;
        const std::string name = takeName();
        require(m_page.substr(m_at).starts_with("=\""), "an attribute without quotes");
        m_at += 2;
        const std::size_t end = m_page.find('"', m_at);
        require(end != std::string_view::npos, "an attribute that does not end");
        const std::string_view value = m_page.substr(m_at, end - m_at);
        require(value.find_first_of("<>") == std::string_view::npos, "markup in an attribute");
        if (name == "style") {
            checkStyle(value);
        } else if (name == "src") {
            require(element == "img" && isPicture(value), "an address of a picture");
        } else if (name == "href") {
            const std::string start = lowered(value.substr(0, 8));
            require(element == "a" && (start.starts_with("http://") || start.starts_with("https://") ||
                                       start.starts_with("mailto:") || start.starts_with('#')),
                    "an address of a link");
            m_at = end + 1;
            constexpr std::string_view kRelation = " rel=\"noreferrer noopener nofollow\"";
            require(m_page.substr(m_at).starts_with(kRelation), "a link that tells where it stands");
            return;
        } else {
            require(kAttributes.contains(name), "an unknown attribute");
        }
        m_at = end + 1;
    }

    static bool isPicture(std::string_view address) {
        for (const std::string_view type : {"png", "jpeg", "gif", "webp", "bmp"}) {
            const std::string start = "data:image/" + std::string(type) + ";base64,";
            if (address.starts_with(start)) {
                return address.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/=",
                                                 start.size()) == std::string_view::npos;
            }
        }
        return false;
    }

    void checkStyleSheet() {
        const std::size_t end = m_page.find('<', m_at);
        require(m_page.substr(std::min(end, m_page.size())).starts_with("</style>"), "markup in a style sheet");
        checkStyle(m_page.substr(m_at + 1, end - m_at - 1));
        m_at = end + 8;
    }

    /// Strings, escapes, addresses, functions and at-rules, wherever they stand.
    void checkStyle(std::string_view css) const {
        std::string_view lastName;
        std::string_view property;
        for (std::size_t i = 0; i < css.size();) {
            if (css[i] == '\'') {
                const std::size_t end = css.find_first_of("'\n\"", i + 1);
                require(end != std::string_view::npos && css[end] == '\'', "a string that does not end");
                checkEscapes(css.substr(i, end - i));
                i = end + 1;
                continue;
            }
            require(css[i] != '"' && css.substr(i, 2) != "/*", "a string or comment in a style");
            if (css[i] == '@') {
                require(css.substr(i).starts_with("@media "), "a rule that may load");
            }
            if (css[i] == '\\' || isNamePart(css[i])) {
                const std::size_t start = i;
                while (i < css.size() && (isNamePart(css[i]) || css[i] == '\\')) {
                    i = css[i] == '\\' ? std::min(css.find(' ', i), css.size() - 1) + 1 : i + 1;
                }
                lastName = css.substr(start, i - start);
                checkEscapes(lastName);
                require(property != "position" || (lastName != "fixed" && lastName != "absolute" && lastName != "sticky"),
                        "a place outside the flow");
                continue;
            }
            if (css[i] == ':') {
                property = lastName;
            } else if (css[i] == ';' || css[i] == '{' || css[i] == '}') {
                property = {};
            } else if (css[i] == '(') {
                const bool isFunction = i > 0 && (isNamePart(css[i - 1]) || css[i - 1] == ' ') && !lastName.empty();
                if (isFunction && css[i - 1] != ' ') {
                    require(kFunctions.contains(lowered(lastName)), "an unknown function");
                }
                if (isFunction && css[i - 1] != ' ' && lowered(lastName) == "url") {
                    const std::size_t end = css.find(')', i);
                    require(end != std::string_view::npos && isPicture(css.substr(i + 1, end - i - 1)), "an address in a style");
                    i = end;
                }
            }
            ++i;
        }
    }

    /// Escapes write only what could not stand there itself: no letter hides in one.
    void checkEscapes(std::string_view text) const {
        for (std::size_t at = text.find('\\'); at != std::string_view::npos; at = text.find('\\', at + 1)) {
            std::size_t end = at + 1;
            unsigned code = 0;
            for (; end < text.size() && std::isxdigit(static_cast<unsigned char>(text[end])) != 0; ++end) {
                code = code * 16 + static_cast<unsigned>(std::stoi(std::string(1, text[end]), nullptr, 16));
            }
            require(end > at + 1 && end < text.size() && text[end] == ' ' && code < 0x80, "an escape of another form");
            require(std::isalpha(static_cast<int>(code)) == 0, "an escaped letter");
        }
    }

    std::string_view m_page;
    std::size_t m_at = 0;
    std::vector<std::string> m_open;
};

}  // namespace

std::string complaintAbout(std::string_view page) {
    try {
        Checker(page).check();
        return {};
    } catch (const Complaint& complaint) {
        return complaint.text;
    }
}

std::string complaintAboutText(std::string_view text) {
    if (!text.ends_with('\n')) {
        return "no line break at the end";
    }
    for (const char c : text) {
        if ((static_cast<unsigned char>(c) < 0x20 && c != '\n' && c != '\t') || c == 0x7F) {
            return "a control character";
        }
    }
    return {};
}
