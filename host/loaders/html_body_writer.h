// Writes the body of a document as well nested markup, whatever the order of the tags is that it is told of: keeps the stack of
// open elements, and repeats inline elements behind the blocks that interrupt them.
#pragma once

#include "html_attributes.h"
#include "html_budget.h"
#include "html_scanner.h"
#include "html_tags.h"

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace ternview {

/// What tables inherit of the style of an inline element in documents without a modern document type: declarations, or empty.
struct InlineStyle {
    std::string color;
    std::string families;
};

struct InlineTag {
    std::string name;
    // One for all tables and their cells, however many they are.
    std::shared_ptr<const std::string> startTag;
    std::shared_ptr<const InlineStyle> style;
};
InlineTag inlineTag(const std::string& name, std::string startTag);

struct TableState {
    TableAttributes attributes;
    std::size_t rows = 0;
    std::size_t columns = 0;  // of the widest row
    std::size_t columnsInRow = 0;
    std::vector<InlineTag> inCells;  // the inline elements around it that go on in each cell
};

struct OpenElement {
    std::string name;     // in the source
    std::string emitted;  // in the result
    TagKind kind = TagKind::Block;
    ChildAlignment alignment = ChildAlignment::Default;
    std::shared_ptr<const std::string> startTag;  // of an inline element, or the attributes of a table, to repeat it
    std::shared_ptr<const InlineStyle> style;     // of an inline element
    std::vector<InlineTag> outside;               // of a table part: the inline elements that go on behind it
    TableState table;
    int nextNumber = 1;         // of a numbered list
    bool boxed = false;         // stands in a box of its own, which ends with it
    bool inLine = false;        // is a box in a line, not a block
    bool keepsBlanks = false;   // as far as it is known here
    bool preformatted = false;  // surely keeps blanks
};

class HtmlBodyWriter {
public:
    explicit HtmlBodyWriter(HtmlBudget& budget) : m_budget(budget) {}

    static constexpr std::size_t kNone = static_cast<std::size_t>(-1);
    static bool isBoundary(TagKind kind) { return kind >= TagKind::Table; }

    // ---- what is open

    bool nothingOpen() const { return m_open.empty(); }
    std::size_t openCount() const { return m_open.size(); }
    OpenElement& element(std::size_t index) { return m_open[index]; }
    const OpenElement& element(std::size_t index) const { return m_open[index]; }
    OpenElement& top() { return m_open.back(); }
    /// Inside a table but in none of its cells.
    bool betweenCells() const;
    ChildAlignment alignment() const { return m_open.empty() ? ChildAlignment::Default : m_open.back().alignment; }
    bool keepsBlanks() const { return m_sheetKeepsBlanks || (!m_open.empty() && m_open.back().keepsBlanks); }
    /// The innermost open element for which `wanted` holds, not looking out of the current cell; else `kNone`.
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
    std::size_t innermostTable() const;
    /// Tables that are open and go on as tables.
    std::size_t tableDepth() const { return m_tableDepth; }
    std::size_t openInlines() const;
    /// How deep elements were nested at most.
    std::size_t greatestDepth() const { return m_depth; }

    // ---- opening and closing

    /// Writes a start tag and opens its element. `emitted` is the name under which it goes on; without one, which is so for the
    /// parts of a table that is too deep, only its content does.
    /// @param boxStyle of a box to put around it; empty for none
    bool open(const HtmlToken& token, TagKind kind, const std::string& emitted, const std::string& attributes,
              const std::string& boxStyle = {});
    /// Opens an inline element in front of the next text.
    void openInline(InlineTag tag) { m_pending.push_back(std::move(tag)); }
    void endInline(const std::string& name);
    void closeTop();
    void closeDownTo(std::size_t count);
    void closeParagraph();
    /// Closes the tables that stand in others.
    void closeNestedTables();
    /// Ends the inline elements at the top; they go on inside what comes next.
    void suspendInlines();
    void resumeInlines();
    /// The inline elements that go on inside a cell.
    void setPending(std::vector<InlineTag> inlines) { m_pending = std::move(inlines); }

    // ---- content

    void addVoid(const std::string& name, const std::string& attributes);
    void addText(std::string_view text);
    /// Keeps words apart between which a tag is left out.
    void separate();
    /// Style sheets ask for blanks as they stand somewhere.
    void keepBlanksEverywhere() { m_sheetKeepsBlanks = true; }

    const std::string& text() const { return m_body; }

private:
    void endLine();
    std::string safeText(std::string_view text, bool keep);

    HtmlBudget& m_budget;
    std::string m_body;
    std::vector<OpenElement> m_open;
    std::vector<InlineTag> m_pending;  // open inline elements that are not written yet where we are
    std::size_t m_depth = 0;
    std::size_t m_tableDepth = 0;
    std::size_t m_column = 0;     // of the text, for its tabs
    bool m_lineEmpty = true;      // nothing stands in the line so far
    std::size_t m_break = kNone;  // where the line break in front of it is written
    std::string m_breakAttributes;
    bool m_sheetKeepsBlanks = false;
};

/// What of open inline elements reaches into the cells of a table where its text starts anew: links, font families and colours.
std::vector<InlineTag> inheritedInQuirks(const std::vector<InlineTag>& inlines);

/// Whether declarations may keep blanks as they stand.
bool mayKeepBlanks(std::string_view css);

}  // namespace ternview
