#include "export/readable_text.h"

#include <algorithm>
#include <optional>
#include <utility>
#include <vector>

#include "character_references.h"
#include "export/browser_page.h"
#include "export/html_structure.h"
#include "export/text_styles.h"

namespace ternview {
namespace {

constexpr std::size_t kMostQuotes = 16;     // marks in front of a line
constexpr std::size_t kWidestIndent = 40;   // columns in front of a line
constexpr std::size_t kMostBlankLines = 2;  // in a row
constexpr double kBlankLineMargin = 6;      // CSS pixels between blocks that read as a blank line
constexpr std::size_t kDefinitionIndent = 4;
constexpr std::string_view kBullet = "* ";
constexpr std::string_view kRule = "--------------------";
constexpr std::string_view kNoBreakSpace = "\xC2\xA0";
constexpr std::string_view kSoftHyphen = "\xC2\xAD";
constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

bool isSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f';
}

/// Puts lines together. Breaks take effect when something comes behind them only.
class LineWriter {
public:
    /// Ends the line.
    /// @param blankLines how many shall stand between it and the next one, at least
    void endLine(std::size_t blankLines = 0) { m_breaks = std::max(m_breaks, blankLines + 1); }
    /// Ends the line; where it is ended already, leaves another one blank.
    void breakLine() { m_breaks += m_hasLine || m_breaks > 0 ? 1 : 0; }
    /// Takes back what `endLine` asked for, so that the line goes on.
    void continueLine() { m_breaks = 0; }
    bool hasOpenLine() const { return m_hasLine && m_breaks == 0; }
    /// How many lines have been begun.
    std::size_t lineCount() const { return m_lineCount; }

    void append(std::string_view text) {
        if (!hasOpenLine()) {
            startLine();
        }
        m_line += text;
    }
    /// Appends to the line that was written last, even when it is to end.
    void appendToLast(std::string_view text) {
        m_line.erase(m_line.find_last_not_of(" \t") + 1);
        m_line += text;
    }
    bool endsWithSpace() const { return m_line.ends_with(' ') || m_line.ends_with('\t'); }

    // What stands in front of lines that begin from now on.
    std::size_t quotes = 0;
    std::size_t indent = 0;
    std::string marker;  // in front of the next line only, at the end of its indent

    std::string finish() {
        if (m_hasLine) {
            finishLine();
        }
        return m_out.empty() ? "\n" : std::move(m_out);
    }

private:
    void startLine() {
        const std::size_t blank = m_hasLine ? finishLine() : 0;
        m_blankLines = std::min(blank + (m_breaks > 0 ? m_breaks - 1 : 0), kMostBlankLines);
        m_breaks = 0;
        m_hasLine = true;
        ++m_lineCount;
        const std::size_t quoted = std::min(quotes, kMostQuotes);
        m_blankQuotes = std::min(m_quotes, quoted);
        m_quotes = quoted;
        m_line.clear();
        m_front.clear();
        for (std::size_t i = 0; i < quoted; ++i) {
            m_front += "> ";
        }
        const std::size_t columns = std::min(indent, kWidestIndent);
        m_front.append(columns - std::min(columns, marker.size()), ' ');
        m_front += std::exchange(marker, {});
    }

    /// @return how many blank lines it was worth, when nothing was in it
    std::size_t finishLine() {
        m_hasLine = false;
        m_line.erase(m_line.find_last_not_of(" \t") + 1);
        if (m_line.empty()) {
            return m_blankLines + 1;
        }
        for (std::size_t i = 0; i < m_blankLines && !m_out.empty(); ++i) {
            for (std::size_t k = 0; k < m_blankQuotes; ++k) {
                m_out += k == 0 ? ">" : " >";
            }
            m_out += '\n';
        }
        m_out += m_front + m_line + '\n';
        return 0;
    }

    std::string m_out;
    std::string m_front;
    std::string m_line;
    std::size_t m_breaks = 0;       // to come in front of the next line
    std::size_t m_blankLines = 0;   // in front of this line
    std::size_t m_blankQuotes = 0;  // marks in front of those
    std::size_t m_quotes = 0;       // marks in front of this line
    std::size_t m_lineCount = 0;
    bool m_hasLine = false;
};

class TextWriter final : public HtmlVisitor {
public:
    std::string finish() { return m_lines.finish(); }

    void document(const HtmlToken&) override {}
    void styleSheet(const HtmlToken&, std::string_view css) override { m_styles.append(css); }

    void open(const HtmlToken& tag, TagKind kind, Begin begin) override {
        Element element;
        element.style = m_styles.of(tag);
        element.isHidden = isHidden() || element.style.isHidden.value_or(false);
        element.keepsBlanks = element.style.keepsBlanks.value_or(isPreformatted(tag) || keepsBlanks());
        element.quotes = m_lines.quotes;
        element.indent = m_lines.indent;
        m_open.push_back(std::move(element));
        m_isAtStartOfPre = isPreformatted(tag);
        if (isHidden()) {
            return;
        }
        switch (kind) {
            case TagKind::Inline:
                openInline(tag, begin);
                break;
            case TagKind::Row:
                endLine();
                m_open.back().tabs = m_tabs;
                m_isFirstCell = true;
                break;
            case TagKind::Cell:
                openCell();
                break;
            default:
                openBlock(tag, begin);
        }
    }

    void close(const HtmlToken& tag, TagKind kind) override {
        const Element element = std::move(m_open.back());
        m_open.pop_back();
        if (element.isHidden) {
            return;
        }
        switch (kind) {
            case TagKind::Inline:
                closeInline(tag);
                break;
            case TagKind::Row:
                endLine();
                m_tabs = element.tabs;
                m_isFirstCell = false;
                break;
            case TagKind::Cell:
                closeCell();
                break;
            default:
                endLine(blankLines(element.style.marginBottom, tag));
                m_lines.quotes = element.quotes;
                m_lines.indent = element.indent;
                if (tag.name == "li") {
                    m_lines.marker.clear();
                } else if (isList(tag) && !m_lists.empty()) {
                    m_lists.pop_back();
                }
        }
    }

    void empty(const HtmlToken& tag) override {
        if (isHidden()) {
            return;
        }
        if (tag.name == "br") {
            if (!startsCell()) {
                m_lines.breakLine();
            }
            m_hasSpace = false;
        } else if (tag.name == "hr") {
            endLine();
            write(kRule);
            endLine();
        } else if (tag.name == "img" && !m_styles.of(tag).isHidden.value_or(false)) {
            const std::string alternative = withoutReferences(tag.attribute("alt"), ReferencePlace::kAttribute);
            if (!std::ranges::all_of(alternative, isSpace)) {
                write("[");
                addText(alternative, Blanks::kCollapsed);
                m_hasSpace = false;
                write("]");
            }
        }
    }

    void text(std::string_view source) override {
        if (!isHidden()) {
            // A line end directly behind the tag is no part of preformatted text.
            if (std::exchange(m_isAtStartOfPre, false)) {
                source.remove_prefix(source.starts_with("\r\n") ? 2 : source.starts_with('\n') ? 1 : 0);
            }
            const std::string text = withoutReferences(source, ReferencePlace::kText);
            addText(text, keepsBlanks() ? Blanks::kKept : m_isFlat ? Blanks::kLinesKept : Blanks::kCollapsed);
        }
    }

    void tooManyElements() override { m_isFlat = true; }

private:
    enum class Blanks { kCollapsed, kLinesKept, kKept };

    struct Element {
        TextStyle style;
        bool isHidden = false;
        bool keepsBlanks = false;
        std::size_t quotes = 0;  // around it
        std::size_t indent = 0;  // around it
        std::size_t tabs = 0;    // of a row: those that its surroundings wait with
    };
    struct List {
        bool isNumbered;
        long next;
    };
    struct Cell {
        bool hasContent = false;
        std::size_t line = 0;  // on which its content begins
    };
    struct Link {
        std::string target;
        std::string text;  // as much as can be the target
        std::size_t open;  // elements, with itself
    };

    bool isHidden() const { return !m_open.empty() && m_open.back().isHidden; }
    bool keepsBlanks() const { return !m_open.empty() && m_open.back().keepsBlanks; }

    static bool isPreformatted(const HtmlToken& tag) { return tag.name == "pre" || tag.name == "listing" || tag.name == "xmp"; }
    static bool isList(const HtmlToken& tag) {
        return tag.name == "ul" || tag.name == "ol" || tag.name == "menu" || tag.name == "dir";
    }

    // ---- blocks

    /// Behind other cells of its row that end on the same line, what stands first in a cell begins no line.
    bool startsCell() const { return !m_cells.empty() && !m_cells.back().hasContent && m_lines.hasOpenLine(); }

    void endLine(std::size_t blankLines = 0) {
        const bool isAtStart = !m_cells.empty() && !m_cells.back().hasContent;  // where margins do not count
        if (!startsCell()) {
            m_lines.endLine(isAtStart ? 0 : blankLines);
        }
        m_hasSpace = false;
    }

    std::size_t blankLines(const std::optional<double>& margin, const HtmlToken& tag) const {
        static constexpr std::string_view kWithMargins[] = {"p", "blockquote", "dl", "pre", "listing", "xmp", "figure"};
        const bool isHeading = tagKind(tag.name) == TagKind::Heading;
        const bool isOuterList = isList(tag) && m_lists.size() <= 1;
        const bool hasMargin = isHeading || isOuterList || std::ranges::find(kWithMargins, tag.name) != std::end(kWithMargins);
        return margin.value_or(hasMargin ? 16 : 0) >= kBlankLineMargin ? 1 : 0;
    }

    void openBlock(const HtmlToken& tag, Begin begin) {
        const TextStyle& style = m_open.back().style;
        if (isList(tag)) {
            m_lists.push_back({tag.name == "ol", numberOf(tag.attribute("start")).value_or(1)});
        }
        endLine(blankLines(style.marginTop, tag));
        if (tag.name == "blockquote") {
            ++m_lines.quotes;
        } else if (tag.name == "dd") {
            m_lines.indent += kDefinitionIndent;
        } else if (tag.name == "li") {
            openItem(tag, style, begin);
        }
    }

    void openItem(const HtmlToken& tag, const TextStyle& style, Begin begin) {
        std::string marker(kBullet);
        if (!m_lists.empty() && m_lists.back().isNumbered) {
            long& next = m_lists.back().next;
            next = begin == Begin::kNew ? numberOf(tag.attribute("value")).value_or(next) : next;
            marker = std::to_string(next) + ". ";
            next += begin == Begin::kNew ? 1 : 0;
        }
        if (style.hasMarker.value_or(listHasMarkers())) {
            m_lines.indent += marker.size();
            m_lines.marker += begin == Begin::kNew && m_lines.marker.size() < kWidestIndent ? marker : "";
        }
    }

    bool listHasMarkers() const {
        for (std::size_t i = m_open.size(); i-- > 0;) {
            if (m_open[i].style.hasMarker) {
                return *m_open[i].style.hasMarker;
            }
        }
        return true;
    }

    static std::optional<long> numberOf(std::string_view text) {
        const bool isNegative = text.starts_with('-');
        long number = 0;
        std::size_t at = isNegative ? 1 : 0;
        for (; at < text.size() && text[at] >= '0' && text[at] <= '9' && number < 1'000'000; ++at) {
            number = number * 10 + (text[at] - '0');
        }
        return at > (isNegative ? 1U : 0U) ? std::optional(isNegative ? -number : number) : std::nullopt;
    }

    // ---- cells

    void openCell() {
        m_tabs += m_isFirstCell ? 0 : 1;
        m_isFirstCell = false;
        m_hasSpace = false;
        m_cells.emplace_back();
    }

    /// A cell of one line leaves that open for the next one.
    void closeCell() {
        if (m_cells.empty()) {
            return;
        }
        const Cell cell = m_cells.back();
        m_cells.pop_back();
        m_hasSpace = false;
        if (cell.hasContent && cell.line == m_lines.lineCount()) {
            m_lines.continueLine();
        } else if (cell.hasContent) {
            m_lines.endLine();
        }
    }

    // ---- links and text

    void openInline(const HtmlToken& tag, Begin begin) {
        if (tag.name == "q") {
            write("\xE2\x80\x9C");
        } else if (tag.name == "a" && begin == Begin::kNew) {
            const std::string target = pageLinkTarget(withoutReferences(tag.attribute("href"), ReferencePlace::kAttribute));
            if (!target.empty() && target[0] != '#') {
                m_links.push_back({target, {}, m_open.size()});
            }
        }
    }

    void closeInline(const HtmlToken& tag) {
        if (tag.name == "q") {
            m_hasSpace = false;
            write("\xE2\x80\x9D");
        }
        if (m_links.empty() || m_links.back().open != m_open.size() + 1) {
            return;
        }
        const Link link = std::move(m_links.back());
        m_links.pop_back();
        const std::string text = plainAddress(link.text);
        if (!text.empty() && text != plainAddress(link.target)) {
            m_lines.appendToLast(" <" + link.target + '>');  // even when the link has ended its line
        }
    }

    /// An address without what people leave out when they write one.
    static std::string plainAddress(std::string_view address) {
        address.remove_prefix(std::min(address.find_first_not_of(" \t"), address.size()));
        std::string result(address.substr(0, address.find_last_not_of(" \t") + 1));
        std::ranges::transform(result, result.begin(),
                               [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
        std::string_view rest = result;
        rest = rest.starts_with("mailto:") ? rest.substr(0, rest.find('?')) : rest;
        for (const std::string_view start : {"mailto:", "http://", "https://", "www."}) {
            rest.remove_prefix(rest.starts_with(start) ? start.size() : 0);
        }
        return std::string(rest.ends_with('/') ? rest.substr(0, rest.size() - 1) : rest);
    }

    void addText(std::string_view text, Blanks blanks) {
        for (std::size_t at = 0; at < text.size();) {
            if (isSpace(text[at])) {
                const bool isHalfLineEnd = text[at] == '\r' && text.substr(at + 1).starts_with('\n');
                addBlank(isHalfLineEnd ? ' ' : text[at], isHalfLineEnd ? Blanks::kCollapsed : blanks);
                ++at;
                continue;
            }
            const std::string_view rest = text.substr(at);
            const bool isNoBreakSpace = rest.starts_with(kNoBreakSpace);
            if (isNoBreakSpace || rest.starts_with(kSoftHyphen)) {
                write(isNoBreakSpace ? " " : "");
                at += kNoBreakSpace.size();
            } else if (rest.starts_with(kByteOrderMark)) {
                at += kByteOrderMark.size();
            } else {
                std::size_t end = 1;
                while (end < rest.size() && !isSpace(rest[end]) && rest[end] != '\xC2' && rest[end] != '\xEF') {
                    ++end;
                }
                writeVisible(rest.substr(0, end));
                at += end;
            }
        }
    }

    void addBlank(char c, Blanks blanks) {
        const bool isLineEnd = c == '\n' || c == '\r';
        if (blanks != Blanks::kCollapsed && isLineEnd) {
            m_lines.breakLine();
        } else if (blanks == Blanks::kKept) {
            write(c == '\t' ? "\t" : " ");
        } else {
            m_hasSpace = m_hasSpace || m_lines.hasOpenLine();
        }
    }

    void writeVisible(std::string_view word) {
        const auto isControl = [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; };
        if (std::ranges::none_of(word, isControl)) {
            write(word);
            return;
        }
        std::string visible(word);
        std::erase_if(visible, isControl);
        write(visible);
    }

    void write(std::string_view piece) {
        if (piece.empty()) {
            return;
        }
        std::string front;
        if (m_tabs > 0 && startsCell()) {
            front.assign(m_tabs, '\t');
        } else if (m_hasSpace && m_lines.hasOpenLine() && !m_lines.endsWithSpace()) {
            front = " ";
        }
        m_tabs = 0;
        m_hasSpace = false;
        m_lines.append(front);
        m_lines.append(piece);
        for (std::size_t i = m_cells.size(); i-- > 0 && !m_cells[i].hasContent;) {
            m_cells[i] = {true, m_lines.lineCount()};
        }
        if (!m_links.empty() && m_links.back().text.size() < m_links.back().target.size() + 16) {
            m_links.back().text += front;
            m_links.back().text += piece;
        }
    }

    LineWriter m_lines;
    TextStyles m_styles;
    std::vector<Element> m_open;
    std::vector<List> m_lists;
    std::vector<Cell> m_cells;
    std::vector<Link> m_links;
    std::size_t m_tabs = 0;  // between cells, that wait for something behind them
    bool m_isFirstCell = false;
    bool m_hasSpace = false;  // white space that waits for something behind it
    bool m_isFlat = false;
    bool m_isAtStartOfPre = false;
};

}  // namespace

std::string readableText(std::string_view html) {
    TextWriter writer;
    walkHtml(html, writer);
    return writer.finish();
}

}  // namespace ternview
