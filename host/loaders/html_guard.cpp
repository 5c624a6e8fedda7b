#include "html_guard.h"

#include "html_attributes.h"
#include "html_body_writer.h"
#include "html_boxes.h"
#include "html_budget.h"
#include "html_css.h"
#include "html_direction.h"
#include "html_scanner.h"
#include "html_tags.h"

#include "character_references.h"
#include "utf.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <deque>
#include <memory>
#include <utility>
#include <vector>

namespace ternview {
namespace {

constexpr std::size_t kNone = HtmlBodyWriter::kNone;
constexpr std::size_t kMaxTitleBytes = 1000;
constexpr int kMaxListNumber = 1'000'000;
constexpr std::string_view kFloat = "float:";

// The engine makes text of rules of documents only.
constexpr std::string_view kQuotationMarks = "q:before{content:\"\xE2\x80\x9C\"}q:after{content:\"\xE2\x80\x9D\"}\n";
constexpr std::string_view kShortenedNotice =
    "<hr><p><i>This message is too long to be shown whole. The rest is left out.</i></p>";

/// HTML without character references beyond Unicode. The engine, whose numbers overflow, makes single bytes of UTF-8 of them.
std::string withoutReferencesBeyondUnicode(std::string_view html) {
    constexpr std::uint32_t kTooLarge = 0x110000;
    std::string result;
    std::size_t copied = 0;
    for (std::size_t at = html.find("&#"); at != std::string_view::npos; at = html.find("&#", at)) {
        at += 2;
        const bool hexadecimal = at < html.size() && (html[at] == 'x' || html[at] == 'X');
        const std::size_t begin = at + (hexadecimal ? 1 : 0);
        std::uint32_t value = 0;
        for (at = begin; at < html.size(); ++at) {
            const char digit = html[at];
            const bool isDecimal = digit >= '0' && digit <= '9';
            if (!isDecimal && (!hexadecimal || std::isxdigit(static_cast<unsigned char>(digit)) == 0)) {
                break;
            }
            const int worth = isDecimal ? digit - '0' : (digit | 0x20) - 'a' + 10;
            value = std::min(value * (hexadecimal ? 16 : 10) + static_cast<std::uint32_t>(worth), kTooLarge);
        }
        if (value == kTooLarge) {
            result.append(html, copied, begin - copied);
            result += hexadecimal ? "FFFD" : "65533";
            copied = at;
        }
    }
    return result.append(html, copied);
}

bool isSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f';
}

/// Document types by which browsers keep to the standards; public ones of old HTML without an address mean quirks.
bool isStandardsDoctype(std::string_view doctype) {
    return doctype.find("http") != std::string_view::npos ||
           (doctype.find("PUBLIC") == std::string_view::npos && doctype.find("public") == std::string_view::npos);
}

/// One line of text without markup.
std::string plainTitle(std::string_view content) {
    std::string title;
    for (const char c : withoutReferences(beginningOfUtf8(content, kMaxTitleBytes), ReferencePlace::kText)) {
        if (!isSpace(c) && static_cast<unsigned char>(c) >= 0x20) {
            title += c;
        } else if (!title.empty() && !title.ends_with(' ')) {
            title += ' ';
        }
    }
    title.resize(title.find_last_not_of(' ') + 1);
    return drawableUtf8(title);
}

class GuardedWriter {
public:
    explicit GuardedWriter(std::string_view source) : m_scanner(source) {}

    SafeHtml write() {
        for (HtmlToken token = m_scanner.next(); token.kind != HtmlToken::Kind::End && !m_budget.full();
             token = m_scanner.next()) {
            switch (token.kind) {
                case HtmlToken::Kind::Text:
                    addText(token.text);
                    break;
                case HtmlToken::Kind::StartTag:
                    resolveAttributes(token);
                    startTag(token);
                    break;
                case HtmlToken::Kind::EndTag:
                    endTag(token.name);
                    break;
                case HtmlToken::Kind::Doctype:
                    m_standards = m_standards || (m_body.text().empty() && isStandardsDoctype(token.text));
                    break;
                case HtmlToken::Kind::End:
                    break;
            }
        }
        m_body.closeDownTo(0);
        return finish();
    }

private:
    /// What is checked must be what the engine reads, so values go without references from here on.
    void resolveAttributes(HtmlToken& token) {
        m_resolved.clear();
        for (HtmlAttribute& attribute : token.attributes) {
            if (attribute.value.find('&') != std::string_view::npos) {
                attribute.value =
                    m_resolved.emplace_back(drawableUtf8(withoutReferences(attribute.value, ReferencePlace::kAttribute)));
            }
        }
    }

    std::string attributesOf(const HtmlToken& token, const TableAttributes* table = nullptr) {
        lookAtStyle(token);
        std::string attributes = safeAttributes(token, m_body.alignment(), table, m_result.pictures);
        if (attributes.find(kFloat) != std::string::npos && !m_budget.payFloat()) {
            // Another name takes no part of the value for a declaration.
            for (std::size_t at = attributes.find(kFloat); at != std::string::npos; at = attributes.find(kFloat, at)) {
                attributes.replace(at, kFloat.size(), "unfloated:");
            }
        }
        return attributes;
    }

    void lookAtStyle(const HtmlToken& token) {
        HtmlDemands& demands = m_result.demands;
        const std::string_view style = token.attribute("style");
        const HtmlDemands own = style.empty() ? HtmlDemands() : demandsOf(style);
        demands.rightToLeft = demands.rightToLeft || own.rightToLeft || isRightToLeft(token);
        demands.flexLayout = demands.flexLayout || own.flexLayout;
    }

    /// Closes nested tables when laying them out costs more than can be afforded.
    void payElementLayout() {
        m_budget.payElementLayout(m_body.tableDepth());
        if (m_budget.isTableTooDeep(m_body.tableDepth())) {
            m_result.demands.deepTables = true;
            m_body.closeNestedTables();
        }
    }

    // ---- start tags

    void startTag(const HtmlToken& token) {
        switch (const TagKind kind = tagKind(token.name)) {
            case TagKind::Unknown:
                break;
            case TagKind::Document:
                startDocument(token);
                break;
            case TagKind::Dropped:
                drop(token);
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

    /// There is one body in the result, with what the first one of the source and all around it say.
    void startDocument(const HtmlToken& token) {
        if (token.name == "html") {
            m_htmlRightToLeft = m_htmlRightToLeft || isRightToLeft(token);
            lookAtStyle(token);
        } else if (token.name == "body" && m_bodyAttributes.empty()) {
            HtmlToken body = token;
            if (m_htmlRightToLeft && token.attribute("dir").empty()) {
                body.attributes.push_back({"dir", "rtl"});
            }
            m_bodyAttributes = attributesOf(body);
            m_linkHint = linkHint(token);
        }
    }

    void drop(const HtmlToken& token) {
        const std::string_view content = m_scanner.skipElement(token.name);
        if (token.name == "title" && m_result.title.empty()) {
            m_result.title = plainTitle(content);
        }
    }

    void addStyleSheet(const HtmlToken& token) {
        const std::string_view css = m_scanner.skipElement("style");
        if (m_budget.payStyleSheet(css.size())) {
            m_styles.append(css, token.attribute("media"), m_result.pictures);
            if (mayKeepBlanks(css)) {
                m_body.keepBlanksEverywhere();
            }
        }
    }

    void addVoid(const HtmlToken& token) {
        if (m_body.betweenCells()) {
            if (token.name != "img" || !openImpliedCell()) {
                return;
            }
        }
        if (token.name == "hr") {
            m_body.closeParagraph();
            m_body.suspendInlines();
        } else {
            m_body.resumeInlines();
        }
        m_budget.payLayouts(HtmlBudget::pieces(token.attribute("alt")), m_body.tableDepth());
        payElementLayout();
        m_body.addVoid(token.name, attributesOf(token));
    }

    void startInline(const HtmlToken& token) {
        if (m_body.betweenCells()) {
            return;
        }
        if (token.name == "a") {
            m_body.endInline("a");  // links do not nest
        }
        const std::string attributes = attributesOf(token);
        if (hasDisplayStyle(token) || attributes.find(kFloat) != std::string::npos) {
            m_body.suspendInlines();
            payElementLayout();
            m_body.open(token, TagKind::Block, token.name, attributes + linkOf(token));
        } else if (m_body.openInlines() < HtmlBudget::kMaxInlines) {
            m_body.openInline(inlineTag(token.name, "<" + token.name + attributes + linkOf(token) + ">"));
        }
    }

    std::string linkOf(const HtmlToken& token) {
        if (token.name != "a" || token.attribute("href").empty()) {
            return {};
        }
        const auto number = m_result.links.add(std::string(token.attribute("href")));
        return (number ? " link=\"" + std::to_string(*number) + "\"" : std::string()) + m_linkHint;
    }

    void startBlock(const HtmlToken& token, TagKind kind) {
        if (m_body.betweenCells()) {
            return;
        }
        m_body.closeParagraph();
        if (kind == TagKind::ListItem || kind == TagKind::Term) {
            const std::size_t item = m_body.findOpen(
                [kind](const OpenElement& e) { return e.kind == kind || e.name == "ul" || e.name == "ol" || e.name == "dl"; });
            if (item != kNone && m_body.element(item).kind == kind) {
                m_body.closeDownTo(item);
            }
        }
        m_body.suspendInlines();
        payElementLayout();
        if (kind == TagKind::Heading && !m_body.nothingOpen() && m_body.top().kind == TagKind::Heading) {
            m_body.closeTop();
        }
        const bool plain = kind == TagKind::ListItem && !m_budget.payListItem();
        const std::string emitted = plain ? "div" : token.name == "listing" || token.name == "xmp" ? "pre" : token.name;
        const std::string number = kind == TagKind::ListItem ? numberOfItem(token) : std::string();
        if (m_body.open(token, kind, emitted, attributesOf(token) + number) && token.name == "ol") {
            m_body.top().nextNumber = attributeNumber(token.attribute("start"), -kMaxListNumber, kMaxListNumber).value_or(1);
        }
    }

    /// Counts the items of the list around, as the engine would do with a loop over all of them for each.
    std::string numberOfItem(const HtmlToken& token) {
        const std::size_t list = m_body.findOpen([](const OpenElement& e) { return e.name == "ol" || e.name == "ul"; });
        if (list == kNone || m_body.element(list).name != "ol") {
            return {};
        }
        int& next = m_body.element(list).nextNumber;
        next = attributeNumber(token.attribute("value"), -kMaxListNumber, kMaxListNumber).value_or(next);
        return " number=\"" + std::to_string(next++) + "\"";
    }

    // ---- tables

    void startTable(const HtmlToken& token) {
        if (m_body.betweenCells()) {
            m_body.closeDownTo(m_body.innermostTable());
        }
        m_body.closeParagraph();
        m_body.suspendInlines();
        for (int i = 0; i < 3; ++i) {  // with its section and its first row
            payElementLayout();
        }
        const bool flat = m_budget.isTableTooDeep(m_body.tableDepth() + 1);
        m_result.demands.deepTables = m_result.demands.deepTables || flat;
        constexpr std::size_t kTableParts = 4;  // table, section, row and cell
        if (m_body.openCount() + kTableParts > HtmlBudget::kMaxDepth) {
            return;
        }
        const std::string attributes = flat ? std::string() : attributesOf(token);
        if (!m_body.open(token, TagKind::Table, flat ? "" : "table", attributes, flat ? std::string() : lineBoxStyle(token))) {
            return;
        }
        OpenElement& table = m_body.top();
        table.startTag = std::make_shared<std::string>(attributes);
        table.table.inCells = m_standards ? table.outside : inheritedInQuirks(table.outside);
        TableAttributes& ofCells = table.table.attributes;
        if (const auto padding = attributeNumber(token.attribute("cellpadding"), 0, 1000)) {
            ofCells.cellPadding = "padding:" + std::to_string(*padding) + "px;";
        }
        const auto border = std::ranges::find(token.attributes, std::string("border"), &HtmlAttribute::name);
        if (border != token.attributes.end() && attributeNumber(border->value, 0, 1000).value_or(1) > 0) {
            ofCells.cellBorder = "border:1px inset #808080;";
        }
    }

    /// Closes everything down to the innermost table, or to its open part of a kind.
    std::size_t closeToTable() {
        const std::size_t table = m_body.innermostTable();
        if (table != kNone) {
            m_body.closeDownTo(table + 1);
        }
        return table;
    }

    bool isWritten(std::size_t table) const { return m_body.element(table).emitted == "table"; }
    std::string partName(std::size_t table, const HtmlToken& token) const {
        return isWritten(table) ? token.name : std::string();
    }

    void startSection(const HtmlToken& token, TagKind kind) {
        const std::size_t table = closeToTable();
        if (table != kNone) {
            m_body.open(token, kind, partName(table, token), isWritten(table) ? attributesOf(token) : std::string());
        }
    }

    /// Ends a table that has all the rows it can have; what follows goes into another one of its kind behind it.
    bool continueTable(std::size_t table) {
        HtmlToken token;
        token.name = "table";
        const std::string emitted = m_body.element(table).emitted;
        const std::shared_ptr<const std::string> attributes = m_body.element(table).startTag;
        TableState state;
        state.attributes = m_body.element(table).table.attributes;
        state.inCells = m_body.element(table).table.inCells;
        m_body.closeDownTo(table);
        if (!m_body.open(token, TagKind::Table, emitted, *attributes)) {
            return false;
        }
        m_body.top().startTag = attributes;
        m_body.top().table = std::move(state);
        return true;
    }

    bool startRow(const HtmlToken& token) {
        const std::size_t table = m_body.innermostTable();
        if (table == kNone) {
            return false;
        }
        const TableState& before = m_body.element(table).table;
        if (HtmlBudget::isTableFull(before.rows, before.columns) && !continueTable(table)) {
            return false;
        }
        TableState& state = m_body.element(table).table;
        const bool inSection = table + 1 < m_body.openCount() && m_body.element(table + 1).kind == TagKind::Section;
        m_body.closeDownTo(table + (inSection ? 2 : 1));
        ++state.rows;
        state.columnsInRow = 0;
        state.attributes.rowAlign = rowAlignment(token);
        return m_body.open(token, TagKind::Row, partName(table, token), isWritten(table) ? attributesOf(token) : std::string());
    }

    bool startCell(const HtmlToken& token) {
        const std::size_t table = m_body.innermostTable();
        if (table == kNone) {
            return false;
        }
        std::size_t row = table + 1;
        while (row < m_body.openCount() && m_body.element(row).kind != TagKind::Row) {
            ++row;
        }
        if (row == m_body.openCount()) {
            HtmlToken implied;
            implied.name = "tr";
            if (!startRow(implied)) {
                return false;
            }
            row = m_body.openCount() - 1;
        }
        TableState& state = m_body.element(table).table;
        if (state.columnsInRow >= HtmlBudget::kMaxColumns) {
            m_body.separate();
            return false;
        }
        m_body.closeDownTo(row + 1);
        const std::string spans = spanAttributes(token, state);
        const TableAttributes attributes = state.attributes;
        if (!m_body.open(token, TagKind::Cell, partName(table, token),
                         isWritten(table) ? spans + attributesOf(token, &attributes) : std::string())) {
            return false;
        }
        m_body.setPending(m_body.element(table).table.inCells);
        return true;
    }

    std::string spanAttributes(const HtmlToken& token, TableState& state) {
        constexpr int kMost = 1000;
        auto columns = static_cast<std::size_t>(attributeNumber(token.attribute("colspan"), 1, kMost).value_or(1));
        auto rows = static_cast<std::size_t>(attributeNumber(token.attribute("rowspan"), 1, kMost).value_or(1));
        const std::size_t widest = std::max(state.columns, state.columnsInRow + columns);
        if (state.columnsInRow + columns > HtmlBudget::kMaxColumns || !HtmlBudget::fitsGrid(state.rows + 1, widest)) {
            columns = 1;
        }
        if (!m_budget.paySpan(columns * rows)) {
            columns = rows = 1;
        }
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
                m_body.endInline(name);
                break;
            default: {
                const std::size_t element =
                    m_body.findOpen([&](const OpenElement& e) { return e.name == name && !HtmlBodyWriter::isBoundary(e.kind); });
                if (element != kNone) {
                    m_body.closeDownTo(element);
                }
            }
        }
    }

    void endTablePart(TagKind kind) {
        const std::size_t table = m_body.innermostTable();
        if (table == kNone) {
            return;
        }
        for (std::size_t i = table; i < m_body.openCount(); ++i) {
            if (m_body.element(i).kind == kind) {
                m_body.closeDownTo(i);
                return;
            }
        }
    }

    // ---- text

    void addText(std::string_view text) {
        const bool blank = std::ranges::all_of(text, isSpace);
        if (m_body.betweenCells() && blank) {
            return;
        }
        while (m_body.betweenCells() && !openImpliedCell()) {
            m_body.closeDownTo(m_body.innermostTable());  // over a limit: the text stays, behind the table
        }
        if (!blank) {
            m_body.resumeInlines();
        }
        m_result.demands.rightToLeft = m_result.demands.rightToLeft || hasRightToLeftLetter(text);
        m_body.addText(text);
    }

    // ---- the document

    SafeHtml finish() {
        if (m_bodyAttributes.empty() && m_htmlRightToLeft) {
            m_bodyAttributes = " dir=\"rtl\" style=\"direction:rtl\"";
        }
        std::string& html = m_result.html;
        html = "<!DOCTYPE html><html><head>";
        std::string styles = m_styles.text(m_budget.elements(), m_body.greatestDepth(), m_budget.counts(), m_budget.floatsLeft());
        if (m_budget.counts().contains("q")) {
            styles.insert(0, kQuotationMarks);
        }
        if (!styles.empty()) {
            html += "<style>" + styles + "</style>";
        }
        html += "</head><body" + m_bodyAttributes + ">" +
                withoutReferencesBeyondUnicode(withAffordableBoxes(m_body.text(), m_styles.boxes()));
        if (m_budget.shortened()) {
            html += kShortenedNotice;
        }
        html += "</body></html>";
        m_result.mode = m_standards ? SafeHtml::Mode::Standards : SafeHtml::Mode::Quirks;
        m_result.shortened = m_budget.shortened();
        HtmlDemands& demands = m_result.demands;
        const HtmlDemands ofSheets = m_styles.demands(m_budget.elements(), m_budget.counts());
        demands.rightToLeft = demands.rightToLeft || ofSheets.rightToLeft;
        demands.flexLayout = demands.flexLayout || ofSheets.flexLayout;
        demands.deepTables = demands.deepTables || m_budget.isTableTooDeep(2);
        demands.overLimits = m_budget.shortened();
        return std::move(m_result);
    }

    HtmlScanner m_scanner;
    std::deque<std::string> m_resolved;  // values of the start tag at hand
    SafeHtml m_result;
    SafeStyleSheet m_styles;
    HtmlBudget m_budget;
    HtmlBodyWriter m_body{m_budget};
    std::string m_bodyAttributes;
    std::string m_linkHint;  // what the body says of the colour of links
    bool m_htmlRightToLeft = false;
    bool m_standards = false;
};

}  // namespace

SafeHtml guardHtml(std::string_view text) {
    return GuardedWriter(text).write();
}

}  // namespace ternview
