#include "export/html_structure.h"

#include <algorithm>
#include <cstddef>
#include <utility>
#include <vector>

namespace ternview {
namespace {

using Begin = HtmlVisitor::Begin;

constexpr std::size_t kMaxDepth = 200;  // browsers flatten what is deeper than 512, and some slow down before
constexpr std::size_t kMaxTableDepth = 40;
constexpr std::size_t kMaxPending = 32;
constexpr std::size_t kMaxElements = 300'000;
// Formatting that is open across blocks is repeated in each of them, with its attributes: all of it together in no more bytes
// than this and those of the document.
constexpr std::size_t kMaxRepeatedBytes = std::size_t{1} << 20;

// What browsers open again in the next block when a block ended it.
constexpr std::string_view kFormatting[] = {"a",    "b", "big",   "code",   "em",     "font", "i",
                                            "nobr", "s", "small", "strike", "strong", "tt",   "u"};

bool isSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f';
}

TagKind kindOf(std::string_view name) {
    return name == "colgroup" ? TagKind::Section : name == "col" ? TagKind::Void : tagKind(name);
}

bool isFormatting(const HtmlToken& tag) {
    return std::ranges::find(kFormatting, std::string_view(tag.name)) != std::end(kFormatting);
}

bool isTablePart(TagKind kind) {
    return kind == TagKind::Table || kind == TagKind::Section || kind == TagKind::Row;
}

/// Out of these no end tag reaches.
bool isBoundary(TagKind kind) {
    return kind >= TagKind::Table;
}

std::string lowered(std::string_view text) {
    std::string result(text);
    std::ranges::transform(result, result.begin(), [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
    return result;
}

HtmlMode modeOf(std::string_view doctype) {
    const std::string text = lowered(doctype.substr(0, 300));
    const auto has = [&text](std::string_view part) { return text.find(part) != std::string::npos; };
    const bool isLoose = has("transitional//") || has("frameset//");
    if (has("//dtd xhtml 1.0 ") && isLoose) {
        return HtmlMode::kLimitedQuirks;
    }
    if (has("//dtd html 4.01 ") && isLoose) {
        return has("http") ? HtmlMode::kLimitedQuirks : HtmlMode::kQuirks;
    }
    return has("//dtd html ") || has("//dtd w3 html") ? HtmlMode::kQuirks : HtmlMode::kStandards;
}

HtmlToken impliedTag(const char* name) {
    HtmlToken tag;
    tag.kind = HtmlToken::Kind::StartTag;
    tag.name = name;
    return tag;
}

struct Element {
    HtmlToken tag;
    TagKind kind = TagKind::Block;
    std::vector<Element> outside;  // of a table part: the interrupted elements that go on behind it
};

class Walker {
public:
    Walker(std::string_view html, HtmlVisitor& visitor)
        : m_scanner(html), m_visitor(visitor), m_repeatedRoom(kMaxRepeatedBytes + html.size()) {}

    HtmlMode walk() {
        for (HtmlToken token = m_scanner.next(); token.kind != HtmlToken::Kind::End; token = m_scanner.next()) {
            switch (token.kind) {
                case HtmlToken::Kind::Text:
                    addText(token.text);
                    break;
                case HtmlToken::Kind::StartTag:
                    startTag(std::move(token));
                    break;
                case HtmlToken::Kind::EndTag:
                    endTag(token.name);
                    break;
                default:
                    m_mode = std::exchange(m_hasDoctype, true) ? m_mode : modeOf(token.text);
            }
        }
        m_pending.clear();
        closeDownTo(0);
        return m_mode;
    }

private:
    static constexpr std::size_t kNone = static_cast<std::size_t>(-1);

    // ---- what is open

    bool betweenCells() const { return !m_open.empty() && isTablePart(m_open.back().kind); }

    /// The innermost open element for which `wanted` holds, not looking out of the current cell.
    template <typename Predicate>
    std::size_t findOpen(Predicate wanted) const {
        for (std::size_t i = m_open.size(); i-- > 0;) {
            if (wanted(m_open[i])) {
                return i;
            }
            if (isBoundary(m_open[i].kind)) {
                break;
            }
        }
        return kNone;
    }

    std::size_t innermostTable() const {
        std::size_t i = m_open.size();
        while (i-- > 0 && m_open[i].kind != TagKind::Table) {
        }
        return i;
    }

    Element closeTop() {
        Element top = std::move(m_open.back());
        m_open.pop_back();
        m_visitor.close(top.tag, top.kind);
        if (isBoundary(top.kind)) {
            m_pending = std::move(top.outside);
            m_tableDepth -= top.kind == TagKind::Table ? 1 : 0;
        }
        return top;
    }

    /// Ends elements until `count` are left. Formatting among them goes on behind.
    void closeDownTo(std::size_t count) {
        closeDownTo(count, [](const Element& element) { return isFormatting(element.tag); });
    }

    template <typename Predicate>
    void closeDownTo(std::size_t count, Predicate goesOn) {
        while (m_open.size() > count) {
            const bool interrupted = m_pending.size() < kMaxPending && !isBoundary(m_open.back().kind) && goesOn(m_open.back());
            Element closed = closeTop();
            if (interrupted) {
                m_pending.insert(m_pending.begin(), std::move(closed));
            }
        }
    }

    /// @param depth of what is to be opened
    bool hasRoom(std::size_t depth) {
        if (m_elements == kMaxElements) {
            m_pending.clear();
            closeDownTo(0, [](const Element&) { return false; });
            m_visitor.tooManyElements();
        }
        m_elements += m_elements <= kMaxElements ? 1 : 0;
        return m_elements <= kMaxElements && m_open.size() + depth <= kMaxDepth;
    }

    void push(HtmlToken&& tag, TagKind kind, Begin begin) {
        m_visitor.open(tag, kind, begin);
        Element element{std::move(tag), kind, {}};
        if (isBoundary(kind)) {
            element.outside = std::exchange(m_pending, {});
        }
        m_open.push_back(std::move(element));
    }

    /// Opens an element; without room, its content goes on without it.
    bool open(HtmlToken&& tag, TagKind kind) {
        if (!hasRoom(1)) {
            separate(kind);
            return false;
        }
        push(std::move(tag), kind, Begin::kNew);
        return true;
    }

    /// Keeps apart what a tag would have kept apart.
    void separate(TagKind kind) {
        if (kind != TagKind::Inline) {
            m_visitor.text(m_elements > kMaxElements ? "\n" : " ");
        }
    }

    /// Opens again what was interrupted.
    void resume() {
        for (Element& element : std::exchange(m_pending, {})) {
            std::size_t bytes = 16 + element.tag.name.size();
            for (const HtmlAttribute& attribute : element.tag.attributes) {
                bytes += attribute.name.size() + attribute.value.size() + 4;
            }
            if (bytes <= m_repeatedRoom && hasRoom(1)) {
                m_repeatedRoom -= bytes;
                push(std::move(element.tag), element.kind, Begin::kAgain);
            }
        }
    }

    void resumeBlocks() {
        if (std::ranges::any_of(m_pending, [](const Element& element) { return element.kind != TagKind::Inline; })) {
            resume();
        }
    }

    void closeParagraph() {
        const auto isParagraph = [](const Element& element) { return element.kind == TagKind::Paragraph; };
        std::erase_if(m_pending, isParagraph);
        const std::size_t paragraph = findOpen(isParagraph);
        if (paragraph != kNone) {
            closeDownTo(paragraph);
        }
    }

    // ---- start tags

    void startTag(HtmlToken&& tag) {
        switch (const TagKind kind = kindOf(tag.name)) {
            case TagKind::Unknown:
                break;
            case TagKind::Document:
                m_visitor.document(tag);
                break;
            case TagKind::Dropped:
                m_scanner.skipElement(tag.name);
                break;
            case TagKind::Style:
                m_visitor.styleSheet(tag, m_scanner.skipElement("style"));
                break;
            case TagKind::Void:
                addVoid(std::move(tag));
                break;
            case TagKind::Inline:
                startInline(std::move(tag));
                break;
            case TagKind::Table:
                startTable(std::move(tag));
                break;
            case TagKind::Section:
            case TagKind::Caption:
                startSection(std::move(tag), kind);
                break;
            case TagKind::Row:
                startRow(std::move(tag));
                break;
            case TagKind::Cell:
                startCell(std::move(tag));
                break;
            default:
                startBlock(std::move(tag), kind);
        }
    }

    void addVoid(HtmlToken&& tag) {
        const bool isColumn = tag.name == "col";
        if (betweenCells() && !isColumn && (tag.name != "img" || !startCell(impliedTag("td")))) {
            return;
        }
        if (isColumn && (!betweenCells() || m_open.back().kind == TagKind::Row)) {
            return;
        }
        if (tag.name == "hr") {
            closeParagraph();
            resumeBlocks();
        } else if (!isColumn) {
            resume();
        }
        if (!hasRoom(0)) {
            separate(TagKind::Void);
            return;
        }
        m_visitor.empty(tag);
    }

    void startInline(HtmlToken&& tag) {
        if (betweenCells()) {
            return;
        }
        if (tag.name == "a") {
            endFormatting("a");  // links do not nest
        }
        resume();
        open(std::move(tag), TagKind::Inline);
    }

    void startBlock(HtmlToken&& tag, TagKind kind) {
        if (betweenCells()) {
            return;
        }
        closeParagraph();
        if (kind == TagKind::ListItem || kind == TagKind::Term) {
            const std::size_t item = findOpen([kind](const Element& e) {
                return e.kind == kind || e.tag.name == "ul" || e.tag.name == "ol" || e.tag.name == "dl";
            });
            if (item != kNone && m_open[item].kind == kind) {
                closeDownTo(item);
            }
        }
        if (kind == TagKind::Heading && !m_open.empty() && m_open.back().kind == TagKind::Heading) {
            closeDownTo(m_open.size() - 1);
        }
        resumeBlocks();
        open(std::move(tag), kind);
    }

    // ---- tables

    void startTable(HtmlToken&& tag) {
        constexpr std::size_t kTableParts = 4;  // table, section, row and cell
        if (betweenCells()) {
            closeDownTo(innermostTable());
        }
        if (m_mode != HtmlMode::kQuirks) {
            closeParagraph();
        }
        resumeBlocks();
        if (m_tableDepth >= kMaxTableDepth || m_open.size() + kTableParts > kMaxDepth) {
            separate(TagKind::Table);
        } else if (open(std::move(tag), TagKind::Table)) {
            ++m_tableDepth;
        }
    }

    /// Closes everything in the innermost table.
    std::size_t closeToTable() {
        const std::size_t table = innermostTable();
        if (table != kNone) {
            closeDownTo(table + 1);
        }
        return table;
    }

    void startSection(HtmlToken&& tag, TagKind kind) {
        if (closeToTable() != kNone) {
            open(std::move(tag), kind);
        } else {
            separate(kind);
        }
    }

    bool startRow(HtmlToken&& tag) {
        const std::size_t table = innermostTable();
        if (table == kNone) {
            separate(TagKind::Row);
            return false;
        }
        const bool inSection =
            table + 1 < m_open.size() && m_open[table + 1].kind == TagKind::Section && m_open[table + 1].tag.name != "colgroup";
        closeDownTo(table + (inSection ? 2 : 1));
        return open(std::move(tag), TagKind::Row);
    }

    bool startCell(HtmlToken&& tag) {
        const std::size_t table = innermostTable();
        if (table == kNone) {
            separate(TagKind::Cell);
            return false;
        }
        std::size_t row = table + 1;
        while (row < m_open.size() && m_open[row].kind != TagKind::Row) {
            ++row;
        }
        if (row == m_open.size()) {
            if (!startRow(impliedTag("tr"))) {
                return false;
            }
            row = m_open.size() - 1;
        }
        closeDownTo(row + 1);
        return open(std::move(tag), TagKind::Cell);
    }

    // ---- end tags

    void endTag(const std::string& name) {
        switch (const TagKind kind = kindOf(name)) {
            case TagKind::Unknown:
            case TagKind::Document:
            case TagKind::Dropped:
            case TagKind::Style:
            case TagKind::Void:
                break;
            case TagKind::Table:
            case TagKind::Section:
            case TagKind::Row:
            case TagKind::Cell:
            case TagKind::Caption:
                endTablePart(kind);
                break;
            case TagKind::Inline:
                endInline(name);
                break;
            default:
                endBlock(name, kind);
        }
    }

    void endTablePart(TagKind kind) {
        const std::size_t table = innermostTable();
        for (std::size_t i = table; i < m_open.size(); ++i) {
            if (m_open[i].kind == kind) {
                closeDownTo(i);
                return;
            }
        }
        if (m_elements > kMaxElements) {
            separate(kind);
        }
    }

    /// Ends an element that was interrupted and not opened again since.
    bool endPending(const std::string& name) {
        for (std::size_t i = m_pending.size(); i-- > 0;) {
            if (m_pending[i].tag.name == name) {
                m_pending.erase(m_pending.begin() + static_cast<std::ptrdiff_t>(i));
                return true;
            }
        }
        return false;
    }

    void endBlock(const std::string& name, TagKind kind) {
        if (m_elements > kMaxElements) {
            separate(kind);
        }
        const std::size_t element = endPending(name) ? kNone : findOpen([&](const Element& e) { return e.tag.name == name; });
        if (element != kNone) {
            closeDownTo(element);
        }
    }

    void endInline(const std::string& name) {
        HtmlToken tag;
        tag.name = name;
        if (isFormatting(tag)) {
            endFormatting(name);
            return;
        }
        const std::size_t element = endPending(name) ? kNone : findOpen([&](const Element& e) { return e.tag.name == name; });
        const auto isBlock = [](const Element& e) { return e.kind != TagKind::Inline; };
        if (element != kNone && std::none_of(m_open.begin() + static_cast<std::ptrdiff_t>(element), m_open.end(), isBlock)) {
            closeDownTo(element);
        }
    }

    /// What stands in the element and is still open goes on behind it, blocks too.
    void endFormatting(const std::string& name) {
        const std::size_t element = endPending(name) ? kNone : findOpen([&](const Element& e) { return e.tag.name == name; });
        if (element != kNone) {
            closeDownTo(element + 1, [](const Element&) { return true; });
            closeTop();
        }
    }

    // ---- text

    void addText(std::string_view text) {
        if (std::ranges::all_of(text, isSpace)) {
            if (!betweenCells()) {
                m_visitor.text(text);
            }
            return;
        }
        while (betweenCells() && !startCell(impliedTag("td"))) {
            closeDownTo(innermostTable());  // without room the text goes on behind the table
        }
        resume();
        m_visitor.text(text);
    }

    HtmlScanner m_scanner;
    HtmlVisitor& m_visitor;
    std::vector<Element> m_open;
    std::vector<Element> m_pending;  // interrupted elements, outermost first, that are not open again where we are
    std::size_t m_tableDepth = 0;
    std::size_t m_elements = 0;
    std::size_t m_repeatedRoom;
    HtmlMode m_mode = HtmlMode::kQuirks;
    bool m_hasDoctype = false;  // anywhere: the header lines of a message stand in front of its document
};

}  // namespace

HtmlMode walkHtml(std::string_view html, HtmlVisitor& visitor) {
    return Walker(html, visitor).walk();
}

}  // namespace ternview
