#include "html_body_writer.h"

#include <algorithm>
#include <utility>

namespace ternview {
namespace {

bool isSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f';
}

bool isTablePart(TagKind kind) {
    return kind == TagKind::Table || kind == TagKind::Section || kind == TagKind::Row;
}

constexpr std::size_t kTabStop = 8;
constexpr const char* kFixedBlank = "\xC2\xA0";

/// Whether blanks surely stay as they are in an element.
bool isPreformatted(const std::string& name, std::string_view attributes, bool inherited) {
    const std::size_t property = attributes.find("white-space:");
    if (property == std::string_view::npos) {
        return inherited || name == "pre";
    }
    const std::string_view value = attributes.substr(property + std::string_view("white-space:").size());
    return value.starts_with("pre") && !value.starts_with("pre-line");
}

/// Of the character reference that a text may start with; at least 1.
std::size_t referenceSize(std::string_view text) {
    constexpr std::size_t kLongest = 12;
    const std::size_t end = text.substr(0, kLongest).find_first_of("; <");
    return end != std::string_view::npos && text[end] == ';' ? end + 1 : 1;
}

bool isWrittenTable(const OpenElement& element) {
    return element.kind == TagKind::Table && element.emitted == "table";
}

/// Takes a declaration for one that stood in front of it, unless that was more important.
void takeOver(std::string& declaration, std::string_view later) {
    constexpr std::size_t kLongest = 500;
    constexpr std::string_view kImportant = "!important";
    const bool outranked = declaration.ends_with("!important;") && !later.ends_with(kImportant);
    if (later.size() <= kLongest && !outranked && !later.ends_with(":inherit")) {
        declaration = std::string(later) + ";";
    }
}

/// Of the hints and the style of a start tag.
InlineStyle inheritedStyle(std::string_view tag) {
    InlineStyle result;
    for (const std::string_view attribute : {"hints", "style"}) {
        std::string_view rest = writtenAttribute(tag, attribute).value_or(std::string_view());
        while (!rest.empty()) {
            std::size_t end = std::min(rest.find(';'), rest.size());
            const auto endsReference = [&](std::string_view name) { return rest.substr(0, end).ends_with(name); };
            while (end < rest.size() && (endsReference("&quot") || endsReference("&amp") || endsReference("&lt"))) {
                end = std::min(rest.find(';', end + 1), rest.size());
            }
            const std::string_view declaration = rest.substr(0, end);
            if (declaration.starts_with("color:")) {
                takeOver(result.color, declaration);
            } else if (declaration.starts_with("font-family:")) {
                takeOver(result.families, declaration);
            }
            rest.remove_prefix(std::min(end + 1, rest.size()));
        }
    }
    return result;
}

}  // namespace

bool mayKeepBlanks(std::string_view css) {
    const auto same = [](char a, char b) { return (a >= 'A' && a <= 'Z' ? static_cast<char>(a + 32) : a) == b; };
    const auto has = [&](std::string_view word) {
        return std::search(css.begin(), css.end(), word.begin(), word.end(), same) != css.end();
    };
    return has("white-space") && has("pre");
}

InlineTag inlineTag(const std::string& name, std::string startTag) {
    auto style = std::make_shared<InlineStyle>(inheritedStyle(startTag));
    return {name, std::make_shared<std::string>(std::move(startTag)), std::move(style)};
}

std::vector<InlineTag> inheritedInQuirks(const std::vector<InlineTag>& inlines) {
    InlineStyle innermost;
    std::vector<InlineTag> result;
    for (const InlineTag& tag : inlines) {
        if (tag.name == "a") {
            result.push_back(tag);
            continue;
        }
        innermost.color = tag.style->color.empty() ? innermost.color : tag.style->color;
        innermost.families = tag.style->families.empty() ? innermost.families : tag.style->families;
    }
    if (const std::string style = innermost.color + innermost.families; !style.empty()) {
        result.insert(result.begin(), inlineTag("span", "<span style=\"" + style + "\">"));
    }
    return result;
}

bool HtmlBodyWriter::betweenCells() const {
    return !m_open.empty() && isTablePart(m_open.back().kind);
}

std::size_t HtmlBodyWriter::innermostTable() const {
    for (std::size_t i = m_open.size(); i-- > 0;) {
        if (m_open[i].kind == TagKind::Table) {
            return i;
        }
    }
    return kNone;
}

std::size_t HtmlBodyWriter::openInlines() const {
    std::size_t inlines = m_pending.size();
    for (std::size_t i = m_open.size(); i-- > 0 && m_open[i].kind == TagKind::Inline;) {
        ++inlines;
    }
    return inlines;
}

bool HtmlBodyWriter::open(const HtmlToken& token, TagKind kind, const std::string& emitted, const std::string& attributes,
                          const std::string& boxStyle) {
    if (m_open.size() >= HtmlBudget::kMaxDepth || !m_budget.payElement(emitted, attributes)) {
        separate();
        return false;
    }
    OpenElement element;
    element.name = token.name;
    element.emitted = emitted;
    element.kind = kind;
    element.alignment = childAlignment(token, alignment());
    element.keepsBlanks = keepsBlanks() || emitted == "pre" || mayKeepBlanks(attributes);
    element.preformatted = isPreformatted(emitted, attributes, !m_open.empty() && m_open.back().preformatted);
    if (isBoundary(kind)) {
        element.outside = std::move(m_pending);
        m_pending.clear();
    }
    element.inLine = !boxStyle.empty() || attributes.find("display:inline-block") != std::string::npos;
    if (!element.inLine && !emitted.empty()) {
        endLine();
    }
    element.boxed = !boxStyle.empty() && m_budget.payElement("div", boxStyle);
    m_body += element.boxed ? "<div style=\"" + boxStyle + "\">" : std::string();
    if (!emitted.empty()) {
        m_body += "<" + emitted + attributes + ">";
    } else if (kind == TagKind::Row) {
        m_body += "<br>";
    } else {
        separate();
    }
    m_column = 0;
    m_lineEmpty = true;
    m_break = kNone;
    m_tableDepth += isWrittenTable(element) ? 1 : 0;
    m_open.push_back(std::move(element));
    m_depth = std::max(m_depth, m_open.size());
    return true;
}

void HtmlBodyWriter::closeTop() {
    OpenElement& top = m_open.back();
    m_body += top.emitted.empty() ? std::string() : "</" + top.emitted + ">";
    m_body += top.boxed ? "</div>" : "";
    if (top.kind == TagKind::Inline) {
        m_pending.insert(m_pending.begin(), {top.name, std::move(top.startTag), std::move(top.style)});
    } else if (isBoundary(top.kind)) {
        m_pending = std::move(top.outside);
        m_tableDepth -= isWrittenTable(top) ? 1 : 0;
    }
    if (top.kind != TagKind::Inline) {
        m_lineEmpty = !top.inLine;
        m_break = kNone;
        m_column = 0;
    }
    m_open.pop_back();
}

void HtmlBodyWriter::closeDownTo(std::size_t count) {
    while (m_open.size() > count) {
        closeTop();
    }
}

void HtmlBodyWriter::closeParagraph() {
    const std::size_t open = findOpen([](const OpenElement& e) { return e.kind == TagKind::Paragraph; });
    if (open != kNone) {
        closeDownTo(open);
    }
}

void HtmlBodyWriter::closeNestedTables() {
    std::size_t depth = 0;
    for (std::size_t i = 0; i < m_open.size(); ++i) {
        depth += isWrittenTable(m_open[i]) ? 1 : 0;
        if (depth > 1) {
            closeDownTo(i);
            return;
        }
    }
}

void HtmlBodyWriter::suspendInlines() {
    while (!m_open.empty() && m_open.back().kind == TagKind::Inline) {
        closeTop();
    }
}

void HtmlBodyWriter::resumeInlines() {
    std::vector<InlineTag> pending = std::move(m_pending);
    m_pending.clear();
    for (InlineTag& tag : pending) {
        if (!m_budget.payElement(tag.name, *tag.startTag) || m_open.size() >= HtmlBudget::kMaxDepth) {
            break;
        }
        m_body += *tag.startTag;
        OpenElement element;
        element.emitted = tag.name;
        element.name = std::move(tag.name);
        element.kind = TagKind::Inline;
        element.alignment = alignment();
        element.keepsBlanks = keepsBlanks() || mayKeepBlanks(*tag.startTag);
        element.preformatted = isPreformatted({}, *tag.startTag, !m_open.empty() && m_open.back().preformatted);
        element.startTag = std::move(tag.startTag);
        element.style = std::move(tag.style);
        m_open.push_back(std::move(element));
    }
}

void HtmlBodyWriter::endInline(const std::string& name) {
    for (std::size_t i = m_pending.size(); i-- > 0;) {
        if (m_pending[i].name == name) {
            m_pending.erase(m_pending.begin() + static_cast<std::ptrdiff_t>(i));
            return;
        }
    }
    const std::size_t element = findOpen([&](const OpenElement& e) { return e.name == name && !isBoundary(e.kind); });
    if (element == kNone) {
        return;
    }
    closeDownTo(element + 1);
    const bool repeated = m_open.back().kind == TagKind::Inline;
    closeTop();
    if (repeated) {
        m_pending.erase(m_pending.begin());  // this one has really ended
    }
}

void HtmlBodyWriter::addVoid(const std::string& name, const std::string& attributes) {
    if (!m_budget.payElement(name, attributes)) {
        separate();
        return;
    }
    if (name == "br" && m_lineEmpty) {
        m_body += "&nbsp;";  // the engine leaves out lines with nothing but a break
    }
    if (name == "hr") {
        endLine();
    }
    const bool plain = attributes.empty() || attributes.starts_with(" style=\"clear:");
    m_break = name == "br" && plain ? m_body.size() : kNone;
    m_breakAttributes = m_break != kNone ? attributes : std::string();
    m_body += "<" + name + attributes + ">";
    m_lineEmpty = name != "img";
    m_column = m_lineEmpty ? 0 : m_column + 1;
}

void HtmlBodyWriter::addText(std::string_view text) {
    const std::string safe = safeText(text, keepsBlanks());
    const std::string_view fitting = m_budget.payText(safe, m_body.size(), m_open.size(), m_tableDepth);
    if (m_budget.isTableTooDeep(m_tableDepth)) {
        closeNestedTables();
    }
    m_body += fitting;
    m_lineEmpty = m_lineEmpty && std::ranges::all_of(fitting, isSpace);
}

/// Takes out a line break at the end of a line that ends anyway: for the engine it would start another one. What it says of
/// floats, an empty block says as well.
void HtmlBodyWriter::endLine() {
    if (m_lineEmpty && m_break != kNone) {
        m_body.erase(m_break, std::string_view("<br>").size() + m_breakAttributes.size());
        if (!m_breakAttributes.empty() && m_budget.payElement("div", m_breakAttributes)) {
            m_body += "<div" + m_breakAttributes + "></div>";
        }
    }
    m_break = kNone;
}

/// The text as it goes on. Where blanks do not count, a run of them becomes one: the engine would make an element of each. Where
/// they surely do, a run becomes one word, as wide as its blanks are together, and tabs are as wide as they reach.
std::string HtmlBodyWriter::safeText(std::string_view text, bool keep) {
    const bool exact = keep && !m_open.empty() && m_open.back().preformatted;
    std::string result;
    std::size_t run = m_body.ends_with(' ') ? 1 : 0;
    for (std::size_t at = 0; at < text.size(); ++at) {
        const char c = text[at];
        run = isSpace(c) ? run + 1 : 0;
        if (run > (keep ? HtmlBudget::kMaxBlankRun : 1)) {
            continue;
        }
        if (exact && (c == ' ' || c == '\t')) {
            const std::size_t blanks = c == ' ' ? 1 : kTabStop - m_column % kTabStop;
            const bool last = at + 1 == text.size() || !isSpace(text[at + 1]);
            for (std::size_t i = 0; i < blanks; ++i) {
                result += last && i + 1 == blanks ? " " : kFixedBlank;
            }
            m_column += blanks;
            continue;
        }
        m_column += (static_cast<unsigned char>(c) & 0xC0) == 0x80 ? 0 : 1;
        m_column = c == '\n' ? 0 : c == '&' ? m_column - referenceSize(text.substr(at)) + 1 : m_column;
        if (c == '<') {
            result += "&lt;";
        } else if (isSpace(c)) {
            result += keep ? c : ' ';
        } else if (static_cast<unsigned char>(c) >= 0x20) {
            result += c;
        }
    }
    return result;
}

void HtmlBodyWriter::separate() {
    if (!m_body.ends_with(' ')) {
        m_body += ' ';
        m_budget.payBlank();
    }
}

}  // namespace ternview
