#include "html_guard.h"

#include "html_attributes.h"
#include "html_css.h"
#include "html_scanner.h"
#include "html_tags.h"

#include <algorithm>
#include <array>
#include <utility>
#include <vector>

namespace ternview {
namespace {

constexpr std::size_t kMaxDepth = 80;  // each word looks for its font, and each line for floats, in all that it stands in
constexpr std::size_t kMaxTableDepth = 8;
constexpr std::size_t kMaxInlines = 32;  // open at one place; each block inside repeats them
constexpr std::size_t kMaxElements = 80'000;
constexpr std::size_t kMaxTextBytes = std::size_t{20} << 20;
// What the engine holds for an element, a piece of text (a word, a space, an East Asian character) and each byte of attributes,
// which may be a declaration for every four; and how much of that there may be in all.
constexpr std::size_t kElementBytes = 2600;
constexpr std::size_t kPieceBytes = 480;
constexpr std::size_t kAttributeFactor = 24;
constexpr std::size_t kMaxMemory = std::size_t{300} << 20;
constexpr std::size_t kMaxElementMemory = std::size_t{200} << 20;  // the rest is kept for text
constexpr std::size_t kMaxBlankRun = 1000;                         // where blanks are kept
constexpr std::size_t kMaxNames = 20'000;                          // of elements and classes
constexpr std::size_t kMaxStyleBytes = std::size_t{2} << 20;
constexpr std::size_t kMaxColumns = 1000;
constexpr std::size_t kMaxGridCells = 300'000;  // of one table, counting covered ones
constexpr double kMaxRowComparisons = 1e8;      // of one table: the engine looks from each cell up through all rows
constexpr std::size_t kMaxSpanned = 500'000;    // cells covered by colspan and rowspan in the whole document
constexpr std::size_t kMaxListItems = 10'000;   // the engine counts each item's predecessors
constexpr std::size_t kMaxFloats = 2000;        // and compares each float with all others
// The engine lays a cell out two or three times, so what stands in nested tables costs a power of the depth.
constexpr double kLayoutsPerTable = 2.6;
constexpr double kMaxLayouts = 5e6;  // of words
constexpr double kWordsPerElement = 10;
constexpr std::size_t kTableDepthWhenCostly = 1;

constexpr std::string_view kShortenedNotice =
    "<hr><p><i>This message is too long to be shown whole. The rest is left out.</i></p>";

bool isSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f';
}

/// Whether declarations may keep blanks as they stand.
bool mayKeepBlanks(std::string_view css) {
    constexpr std::string_view kProperty = "white-space";
    const auto same = [](char a, char b) { return (a >= 'A' && a <= 'Z' ? static_cast<char>(a + 32) : a) == b; };
    return !std::ranges::search(css, kProperty, same).empty() && !std::ranges::search(css, std::string_view("pre"), same).empty();
}

/// Document types by which browsers keep to the standards; public ones of old HTML without an address mean quirks.
bool isStandardsDoctype(std::string_view doctype) {
    return doctype.find("http") != std::string_view::npos ||
           (doctype.find("PUBLIC") == std::string_view::npos && doctype.find("public") == std::string_view::npos);
}

struct InlineTag {
    std::string name;
    std::string startTag;
};

struct TableState {
    TableAttributes attributes;
    std::size_t rows = 0;
    std::size_t columns = 0;  // of the widest row
    std::size_t columnsInRow = 0;
};

struct OpenElement {
    std::string name;     // in the source
    std::string emitted;  // in the result
    TagKind kind = TagKind::Block;
    ChildAlignment alignment = ChildAlignment::Default;
    std::string startTag;            // of an inline element or a table, to repeat it
    std::vector<InlineTag> outside;  // of a table part: the inline elements that go on behind it
    TableState table;
    bool empty = true;  // nothing visible inside so far
    bool keepsBlanks = false;
};

class GuardedWriter {
public:
    explicit GuardedWriter(std::string_view source) : m_scanner(source) {}

    SafeHtml write() {
        for (HtmlToken token = m_scanner.next(); token.kind != HtmlToken::Kind::End && !m_full; token = m_scanner.next()) {
            switch (token.kind) {
                case HtmlToken::Kind::Text:
                    addText(token.text);
                    break;
                case HtmlToken::Kind::StartTag:
                    startTag(token);
                    break;
                case HtmlToken::Kind::EndTag:
                    endTag(token.name);
                    break;
                case HtmlToken::Kind::Doctype:
                    m_standards = m_standards || (m_body.empty() && isStandardsDoctype(token.text));
                    break;
                case HtmlToken::Kind::End:
                    break;
            }
        }
        closeDownTo(0);
        return finish();
    }

private:
    static bool isTablePart(TagKind kind) { return kind == TagKind::Table || kind == TagKind::Section || kind == TagKind::Row; }
    static bool isBoundary(TagKind kind) { return kind >= TagKind::Table; }

    // ---- what is open

    /// Inside a table but in none of its cells.
    bool betweenCells() const { return !m_open.empty() && isTablePart(m_open.back().kind); }
    ChildAlignment alignment() const { return m_open.empty() ? ChildAlignment::Default : m_open.back().alignment; }

    bool keepsBlanks() const { return m_sheetKeepsBlanks || (!m_open.empty() && m_open.back().keepsBlanks); }

    static constexpr std::size_t kNone = static_cast<std::size_t>(-1);

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
        for (std::size_t i = m_open.size(); i-- > 0;) {
            if (m_open[i].kind == TagKind::Table) {
                return i;
            }
        }
        return kNone;
    }

    void closeTop() {
        OpenElement& top = m_open.back();
        m_body += top.emitted.empty() ? std::string() : "</" + top.emitted + ">";
        if (top.kind == TagKind::Inline) {
            m_pending.insert(m_pending.begin(), {top.name, std::move(top.startTag)});
        } else if (isBoundary(top.kind)) {
            m_pending = std::move(top.outside);
            m_tableDepth -= top.kind == TagKind::Table && top.emitted == "table" ? 1 : 0;
        }
        m_open.pop_back();
    }

    void closeDownTo(std::size_t count) {
        while (m_open.size() > count) {
            closeTop();
        }
    }

    void closeParagraph() {
        const std::size_t open = findOpen([](const OpenElement& e) { return e.kind == TagKind::Paragraph; });
        if (open != kNone) {
            closeDownTo(open);
        }
    }

    /// Ends the inline elements at the top; they go on inside what comes next.
    void suspendInlines() {
        while (!m_open.empty() && m_open.back().kind == TagKind::Inline) {
            closeTop();
        }
    }

    void resumeInlines() {
        std::vector<InlineTag> pending = std::move(m_pending);
        m_pending.clear();
        for (InlineTag& tag : pending) {
            if (!countElement(tag.name, tag.startTag) || m_open.size() >= kMaxDepth) {
                break;
            }
            m_body += tag.startTag;
            OpenElement element;
            element.emitted = tag.name;
            element.name = std::move(tag.name);
            element.kind = TagKind::Inline;
            element.alignment = alignment();
            element.keepsBlanks = keepsBlanks() || mayKeepBlanks(tag.startTag);
            element.startTag = std::move(tag.startTag);
            m_open.push_back(std::move(element));
        }
    }

    /// Keeps words apart between which a tag is left out.
    void separate() {
        if (!m_body.ends_with(' ')) {
            m_body += ' ';
            ++m_pieces;
        }
    }

    /// The names by which rules of style sheets find an element.
    void countNames(const std::string& name, std::string_view attributes) {
        constexpr std::string_view kClass = " class=\"";
        const auto count = [this](std::string wanted) {
            if (m_counts.size() < kMaxElementCounts || m_counts.contains(wanted)) {
                ++m_counts[std::move(wanted)];
            }
        };
        count(name);
        const std::size_t start = attributes.find(kClass);
        if (start == std::string_view::npos) {
            return;
        }
        std::string found = ".";
        for (std::size_t i = start + kClass.size(); i < attributes.size(); ++i) {
            const char c = attributes[i];
            if (!isSpace(c) && c != '"') {
                found += c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
            } else if (found.size() > 1) {
                count(std::exchange(found, "."));
            }
            if (c == '"') {
                break;
            }
        }
    }

    bool countElement(const std::string& name, std::string_view attributes) {
        const std::size_t memory = kElementBytes + attributes.size() * kAttributeFactor;
        if (m_elements >= kMaxElements || m_elementMemory + memory > kMaxElementMemory) {
            m_shortened = true;
            return false;
        }
        m_elementMemory += memory;
        countNames(name, attributes);
        ++m_elements;
        return true;
    }

    /// Writes a start tag and opens its element. `emitted` is the name under which it goes on; without one, which is so for the
    /// parts of a table that is too deep, only its content does.
    bool open(const HtmlToken& token, TagKind kind, const std::string& emitted, const std::string& attributes) {
        if (m_open.size() >= kMaxDepth || !countElement(emitted, attributes)) {
            separate();
            return false;
        }
        OpenElement element;
        element.name = token.name;
        element.emitted = emitted;
        element.kind = kind;
        element.alignment = childAlignment(token, alignment());
        element.keepsBlanks = keepsBlanks() || emitted == "pre" || mayKeepBlanks(attributes);
        if (isBoundary(kind)) {
            element.outside = std::move(m_pending);
            m_pending.clear();
        }
        if (!emitted.empty()) {
            m_body += "<" + emitted + attributes + ">";
        } else if (kind == TagKind::Row) {
            m_body += "<br>";
        } else {
            separate();
        }
        m_open.push_back(std::move(element));
        m_depth = std::max(m_depth, m_open.size());
        return true;
    }

    std::string attributesOf(const HtmlToken& token, const TableAttributes* table = nullptr) {
        const bool floats = token.attribute("style").find("float") != std::string_view::npos ||
                            (token.name == "table" && !token.attribute("align").empty());
        if (floats && ++m_floats > kMaxFloats) {
            return {};
        }
        return safeAttributes(token, alignment(), table, m_result.pictures);
    }

    // ---- start tags

    void startTag(const HtmlToken& token) {
        switch (const TagKind kind = tagKind(token.name)) {
            case TagKind::Unknown:
                break;
            case TagKind::Document:
                if (token.name == "body" && m_bodyAttributes.empty()) {
                    m_bodyAttributes = attributesOf(token);
                }
                break;
            case TagKind::Dropped:
                m_scanner.skipElement(token.name);
                break;
            case TagKind::Style:
                addStyleSheet(token);
                break;
            case TagKind::Void:
                addVoid(token);
                break;
            case TagKind::Inline:
                startInline(token);
                break;
            case TagKind::Table:
                startTable(token);
                break;
            case TagKind::Section:
            case TagKind::Caption:
                startSection(token, kind);
                break;
            case TagKind::Row:
                startRow(token);
                break;
            case TagKind::Cell:
                startCell(token);
                break;
            default:
                startBlock(token, kind);
        }
    }

    void addStyleSheet(const HtmlToken& token) {
        const std::string_view css = m_scanner.skipElement("style");
        m_styleBytes += css.size();
        const std::string_view media = token.attribute("media");
        const bool forScreen =
            media.empty() || media.find("screen") != std::string_view::npos || media.find("all") != std::string_view::npos;
        if (forScreen && m_styleBytes <= kMaxStyleBytes) {
            m_styles.append(css, m_result.pictures);
            m_sheetKeepsBlanks = m_sheetKeepsBlanks || mayKeepBlanks(css);
        }
    }

    void addVoid(const HtmlToken& token) {
        if (betweenCells()) {
            if (token.name != "img" || !openImpliedCell()) {
                return;
            }
        }
        if (token.name == "hr") {
            closeParagraph();
            suspendInlines();
        } else {
            resumeInlines();
        }
        const std::string attributes = attributesOf(token);
        if (!countElement(token.name, attributes)) {
            separate();
            return;
        }
        if (token.name == "br" && !m_open.empty() && m_open.back().empty) {
            m_body += "&nbsp;";  // a block with nothing but line breaks keeps its lines
        }
        addLayouts(kWordsPerElement);
        m_body += "<" + token.name + attributes + ">";
        markFilled();
    }

    void startInline(const HtmlToken& token) {
        if (betweenCells()) {
            return;
        }
        if (hasDisplayStyle(token)) {
            suspendInlines();
            addLayouts(kWordsPerElement);
            open(token, TagKind::Block, token.name, attributesOf(token));
            return;
        }
        std::size_t inlines = m_pending.size();
        for (std::size_t i = m_open.size(); i-- > 0 && m_open[i].kind == TagKind::Inline;) {
            ++inlines;
        }
        if (token.name == "a") {
            endInline("a");  // links do not nest
        }
        if (inlines < kMaxInlines) {
            m_pending.push_back({token.name, "<" + token.name + attributesOf(token) + ">"});
        }
    }

    void startBlock(const HtmlToken& token, TagKind kind) {
        if (betweenCells()) {
            return;
        }
        closeParagraph();
        if (kind == TagKind::ListItem || kind == TagKind::Term) {
            const std::size_t item = findOpen(
                [kind](const OpenElement& e) { return e.kind == kind || e.name == "ul" || e.name == "ol" || e.name == "dl"; });
            if (item != kNone && m_open[item].kind == kind) {
                closeDownTo(item);
            }
        }
        suspendInlines();
        addLayouts(kWordsPerElement);
        if (kind == TagKind::Heading && !m_open.empty() && m_open.back().kind == TagKind::Heading) {
            closeTop();
        }
        const bool plain = kind == TagKind::ListItem && ++m_listItems > kMaxListItems;
        const std::string emitted = plain ? "div" : token.name == "listing" || token.name == "xmp" ? "pre" : token.name;
        open(token, kind, emitted, attributesOf(token));
    }

    // ---- tables

    bool tablesAreCostly(std::size_t depth) const {
        return depth > kMaxTableDepth || (m_layouts > kMaxLayouts && depth > kTableDepthWhenCostly);
    }

    void startTable(const HtmlToken& token) {
        if (betweenCells()) {
            closeDownTo(innermostTable());
        }
        closeParagraph();
        suspendInlines();
        addLayouts(3 * kWordsPerElement);
        const bool flat = tablesAreCostly(m_tableDepth + 1);
        constexpr std::size_t kTableParts = 4;  // table, section, row and cell
        if (m_open.size() + kTableParts > kMaxDepth) {
            return;
        }
        const std::string attributes = flat ? std::string() : attributesOf(token);
        if (!open(token, TagKind::Table, flat ? "" : "table", attributes)) {
            return;
        }
        m_open.back().startTag = attributes;
        m_tableDepth += flat ? 0 : 1;
        if (const auto padding = attributeNumber(token.attribute("cellpadding"), 0, 1000)) {
            m_open.back().table.attributes.cellPadding = "padding:" + std::to_string(*padding) + "px;";
        }
        const auto border = std::ranges::find(token.attributes, std::string("border"), &HtmlAttribute::name);
        if (border != token.attributes.end() && attributeNumber(border->value, 0, 1000).value_or(1) > 0) {
            m_open.back().table.attributes.cellBorder = "border:1px inset #808080;";
        }
    }

    /// Closes everything down to the innermost table, or to its open part of a kind.
    std::size_t closeToTable() {
        const std::size_t table = innermostTable();
        if (table != kNone) {
            closeDownTo(table + 1);
        }
        return table;
    }

    std::string partName(std::size_t table, const HtmlToken& token) const {
        return m_open[table].emitted == "table" ? token.name : std::string();
    }

    void startSection(const HtmlToken& token, TagKind kind) {
        const std::size_t table = closeToTable();
        if (table != kNone) {
            open(token, kind, partName(table, token), m_open[table].emitted == "table" ? attributesOf(token) : std::string());
        }
    }

    static bool isFull(const TableState& table) {
        const std::size_t columns = std::max<std::size_t>(table.columns, 1);
        const auto rows = static_cast<double>(table.rows + 1);
        return (table.rows + 1) * columns > kMaxGridCells || rows * rows * static_cast<double>(columns) > kMaxRowComparisons;
    }

    /// Ends a table that has all the rows it can have; what follows goes into another one of its kind behind it.
    bool continueTable(std::size_t table) {
        HtmlToken token;
        token.name = "table";
        const std::string emitted = m_open[table].emitted;
        const std::string attributes = m_open[table].startTag;
        const TableAttributes ofCells = m_open[table].table.attributes;
        closeDownTo(table);
        if (!open(token, TagKind::Table, emitted, attributes)) {
            return false;
        }
        m_tableDepth += emitted.empty() ? 0 : 1;
        m_open.back().startTag = attributes;
        m_open.back().table.attributes = ofCells;
        return true;
    }

    bool startRow(const HtmlToken& token) {
        const std::size_t table = innermostTable();
        if (table == kNone || (isFull(m_open[table].table) && !continueTable(table))) {
            return false;
        }
        TableState& state = m_open[table].table;
        const bool inSection = table + 1 < m_open.size() && m_open[table + 1].kind == TagKind::Section;
        closeDownTo(table + (inSection ? 2 : 1));
        ++state.rows;
        state.columnsInRow = 0;
        const std::string_view valign = token.attribute("valign");
        const bool plain = valign == "top" || valign == "bottom" || valign == "middle";
        state.attributes.rowAlign = plain ? "vertical-align:" + std::string(valign) + ";" : std::string();
        return open(token, TagKind::Row, partName(table, token),
                    m_open[table].emitted == "table" ? attributesOf(token) : std::string());
    }

    bool startCell(const HtmlToken& token) {
        const std::size_t table = innermostTable();
        if (table == kNone) {
            return false;
        }
        std::size_t row = table + 1;
        while (row < m_open.size() && m_open[row].kind != TagKind::Row) {
            ++row;
        }
        if (row == m_open.size()) {
            HtmlToken implied;
            implied.name = "tr";
            if (!startRow(implied)) {
                return false;
            }
            row = m_open.size() - 1;
        }
        TableState& state = m_open[table].table;
        if (state.columnsInRow >= kMaxColumns) {
            separate();
            return false;
        }
        closeDownTo(row + 1);
        const std::string spans = spanAttributes(token, state);
        const bool flat = m_open[table].emitted != "table";
        const TableAttributes attributes = state.attributes;
        if (!open(token, TagKind::Cell, partName(table, token),
                  flat ? std::string() : spans + attributesOf(token, &attributes))) {
            return false;
        }
        if (m_standards) {
            m_pending = m_open[table].outside;
        }
        return true;
    }

    std::string spanAttributes(const HtmlToken& token, TableState& state) {
        auto columns = static_cast<std::size_t>(attributeNumber(token.attribute("colspan"), 1, kMaxColumns).value_or(1));
        auto rows = static_cast<std::size_t>(attributeNumber(token.attribute("rowspan"), 1, 1000).value_or(1));
        const std::size_t widest = std::max(state.columns, state.columnsInRow + columns);
        if (state.columnsInRow + columns > kMaxColumns || widest * (state.rows + 1) > kMaxGridCells) {
            columns = 1;
        }
        if (m_spanned + columns * rows > kMaxSpanned) {
            columns = rows = 1;
        }
        m_spanned += columns * rows;
        state.columnsInRow += columns;
        state.columns = std::max(state.columns, state.columnsInRow);
        return (columns > 1 ? " colspan=\"" + std::to_string(columns) + "\"" : "") +
               (rows > 1 ? " rowspan=\"" + std::to_string(rows) + "\"" : "");
    }

    /// A place for content that stands in a table but in no cell of it.
    bool openImpliedCell() {
        HtmlToken cell;
        cell.name = "td";
        return startCell(cell);
    }

    // ---- end tags

    void endTag(const std::string& name) {
        switch (const TagKind kind = tagKind(name)) {
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
            default: {
                const std::size_t element = findOpen([&](const OpenElement& e) { return e.name == name && !isBoundary(e.kind); });
                if (element != kNone) {
                    closeDownTo(element);
                }
            }
        }
    }

    void endTablePart(TagKind kind) {
        const std::size_t table = innermostTable();
        if (table == kNone) {
            return;
        }
        for (std::size_t i = table; i < m_open.size(); ++i) {
            if (m_open[i].kind == kind) {
                closeDownTo(i);
                return;
            }
        }
    }

    void endInline(const std::string& name) {
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

    // ---- text

    void addText(std::string_view text) {
        const bool blank = std::ranges::all_of(text, isSpace);
        if (betweenCells() && blank) {
            return;
        }
        while (betweenCells() && !openImpliedCell()) {
            closeDownTo(innermostTable());  // over a limit: the text stays, behind the table
        }
        if (!blank) {
            resumeInlines();
            markFilled();
        }
        const bool keep = keepsBlanks();
        const std::string safe = safeText(text, keep);
        std::size_t pieces = 0;
        const std::size_t used = m_elementMemory + m_pieces * kPieceBytes;
        const std::size_t left = used < kMaxMemory ? (kMaxMemory - used) / kPieceBytes : 0;
        const std::size_t room = kMaxTextBytes - std::min(m_body.size(), kMaxTextBytes);
        const std::string_view fitting = firstPieces(std::string_view(safe).substr(0, room), left, pieces);
        m_full = m_full || fitting.size() < safe.size();
        m_shortened = m_shortened || m_full;
        m_pieces += pieces;
        addLayouts(static_cast<double>(pieces));
        m_body += fitting;
    }

    /// The text as it goes on. Where blanks do not count, a run of them becomes one: the engine would make an element of each.
    std::string safeText(std::string_view text, bool keep) const {
        std::string result;
        std::size_t run = m_body.ends_with(' ') ? 1 : 0;
        for (const char c : text) {
            run = isSpace(c) ? run + 1 : 0;
            if (run > (keep ? kMaxBlankRun : 1)) {
                continue;
            }
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

    void markFilled() {
        for (std::size_t i = m_open.size(); i-- > 0 && m_open[i].empty;) {
            m_open[i].empty = false;
        }
    }

    /**
     * The start of a text with as many pieces as there may be. Pieces are what the engine makes elements of: words, spaces, each
     * character that a line may break behind, and the parts of words that are too long.
     *
     * @param count receives the pieces of that start
     */
    static std::string_view firstPieces(std::string_view text, std::size_t most, std::size_t& count) {
        constexpr std::size_t kLongWord = 32;
        constexpr std::size_t kPartOfLongWord = 10;
        std::size_t length = 0;  // of the word so far
        for (std::size_t i = 0; i < text.size(); ++i) {
            const auto c = static_cast<unsigned char>(text[i]);
            std::size_t pieces = 0;
            if (isSpace(text[i])) {
                pieces = 1;
                length = 0;
            } else if (c >= 0xE2) {  // as one character of three or four bytes
                pieces = 1;
                length = 1;
            } else {
                const bool part = length >= kLongWord && length % kPartOfLongWord == 0;
                pieces = length == 0 || part ? 1 : 0;
                ++length;
            }
            if (c == '&' && i + 1 < text.size() && (text[i + 1] == '#' || text[i + 1] == 'T' || text[i + 1] == 'N')) {
                pieces += 2;  // a reference that may stand for a space or any character
            }
            if (count + pieces > most) {
                while (i > 0 && (static_cast<unsigned char>(text[i]) & 0xC0) == 0x80) {
                    --i;
                }
                return text.substr(0, i);
            }
            count += pieces;
        }
        return text;
    }

    /// Counts how often the engine will lay out some words; ends nested tables when that is more than can be afforded.
    void addLayouts(double words) {
        double factor = 1;
        for (std::size_t i = 0; i < m_tableDepth; ++i) {
            factor *= kLayoutsPerTable;
        }
        m_layouts += m_tableDepth > kTableDepthWhenCostly ? words * factor : 0;
        if (m_layouts <= kMaxLayouts || m_tableDepth <= kTableDepthWhenCostly) {
            return;
        }
        std::size_t depth = 0;
        for (std::size_t i = 0; i < m_open.size(); ++i) {
            depth += m_open[i].kind == TagKind::Table && m_open[i].emitted == "table" ? 1 : 0;
            if (depth > kTableDepthWhenCostly) {
                closeDownTo(i);
                return;
            }
        }
    }

    // ---- the document

    SafeHtml finish() {
        std::string& html = m_result.html;
        html = "<!DOCTYPE html><html><head>";
        const std::string styles = m_styles.text(m_elements, m_depth, m_counts);
        if (!styles.empty()) {
            html += "<style>" + styles + "</style>";
        }
        html += "</head><body" + m_bodyAttributes + ">" + m_body;
        if (m_shortened) {
            html += kShortenedNotice;
        }
        html += "</body></html>";
        m_result.mode = m_standards ? SafeHtml::Mode::Standards : SafeHtml::Mode::Quirks;
        m_result.shortened = m_shortened;
        return std::move(m_result);
    }

    HtmlScanner m_scanner;
    SafeHtml m_result;
    SafeStyleSheet m_styles;
    std::string m_body;
    std::string m_bodyAttributes;
    std::vector<OpenElement> m_open;
    std::vector<InlineTag> m_pending;  // open inline elements that are not written yet where we are
    std::size_t m_depth = 0;
    std::size_t m_tableDepth = 0;
    std::size_t m_elements = 0;
    ElementCounts m_counts;
    std::size_t m_elementMemory = 0;
    std::size_t m_pieces = 0;
    std::size_t m_styleBytes = 0;
    std::size_t m_spanned = 0;
    std::size_t m_listItems = 0;
    std::size_t m_floats = 0;
    double m_layouts = 0;
    bool m_standards = false;
    bool m_shortened = false;
    bool m_full = false;
    bool m_sheetKeepsBlanks = false;
};

}  // namespace

SafeHtml guardHtml(std::string_view text) {
    return GuardedWriter(text).write();
}

}  // namespace ternview
