// What one HTML document may cost the layout engine: counts what goes on to it, and says when it is enough.
#pragma once

#include "html_css.h"

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>

namespace ternview {

class HtmlBudget {
public:
    static constexpr std::size_t kMaxDepth =
        80;  // each word looks for its font, and each line for floats, in all that it stands in
    static constexpr std::size_t kMaxTableDepth = 12;
    static constexpr std::size_t kMaxInlines = 32;  // open at one place; each block inside repeats them
    static constexpr double kWordsPerElement = 10;
    static constexpr std::size_t kMaxBlankRun = 1000;  // where blanks are kept

    /// Pays for an element; false when there can be no more of them.
    bool payElement(const std::string& name, std::string_view attributes);
    /// The start of a text that there is room for, paid for.
    /// @param written how much text there is already
    /// @param depth of the element that the text stands in
    std::string_view payText(std::string_view text, std::size_t written, std::size_t depth, std::size_t tableDepth);
    /// How many pieces the engine makes of a text.
    static double pieces(std::string_view text);
    void payBlank() { ++m_pieces; }
    bool payFloat() { return ++m_floats <= kMaxFloats; }
    /// How many more elements may float.
    std::size_t floatsLeft() const { return kMaxFloats - std::min(m_floats, kMaxFloats); }
    bool payListItem() { return ++m_listItems <= kMaxListItems; }
    /// Pays for a cell that covers several of a table's grid; false when it must cover one.
    bool paySpan(std::size_t cells);
    /// Whether a style sheet of this size can still be read.
    bool payStyleSheet(std::size_t size) { return (m_styleBytes += size) <= kMaxStyleBytes; }

    /// Pays for laying out some words, which costs a power of the depth of the tables that they stand in.
    void payLayouts(double words, std::size_t tableDepth);
    void payElementLayout(std::size_t tableDepth) { payLayouts(kWordsPerElement, tableDepth); }
    /// Whether a table this deep cannot be laid out as one.
    bool isTableTooDeep(std::size_t depth) const;

    /// Whether a table has as many rows as the engine can deal with.
    static bool isTableFull(std::size_t rows, std::size_t columns);
    static bool fitsGrid(std::size_t rows, std::size_t columns) { return columns * rows <= kMaxGridCells; }
    static constexpr std::size_t kMaxColumns = 1000;

    std::size_t elements() const { return m_elements; }
    const ElementCounts& counts() const { return m_counts; }
    bool shortened() const { return m_shortened; }
    /// Nothing more can be written.
    bool full() const { return m_full; }

private:
    // What the engine holds for an element, a piece of text (a word, a space, an East Asian character) and each byte of
    // attributes, which may be a declaration for every four; and how much of that there may be in all.
    static constexpr std::size_t kElementBytes = 2600;
    static constexpr std::size_t kPieceBytes = 480;
    static constexpr std::size_t kAttributeFactor = 24;
    static constexpr double kDepthOfOnePiece = 35;  // where elements are nested deeper, a piece counts as more than one
    static constexpr std::size_t kMaxMemory = std::size_t{300} << 20;
    static constexpr std::size_t kMaxElementMemory = std::size_t{200} << 20;  // the rest is kept for text
    static constexpr std::size_t kMaxElements = 80'000;
    static constexpr std::size_t kMaxTextBytes = std::size_t{20} << 20;
    static constexpr std::size_t kMaxStyleBytes = std::size_t{2} << 20;
    static constexpr std::size_t kMaxGridCells = 300'000;  // of one table, counting covered ones
    static constexpr double kMaxRowComparisons = 1e8;      // of one table: the engine looks from each cell up through all rows
    static constexpr std::size_t kMaxSpanned = 500'000;    // cells covered by colspan and rowspan in the whole document
    static constexpr std::size_t kMaxListItems = 10'000;   // the engine counts each item's predecessors
    static constexpr std::size_t kMaxFloats = 2000;        // and compares each float with all others
    // The engine lays a cell out about twice, in spite of what the cell remembers.
    static constexpr double kLayoutsPerTable = 1.9;
    static constexpr double kMaxLayouts = 5e6;  // of words
    static constexpr std::size_t kTableDepthWhenCostly = 1;

    void countNames(const std::string& name, std::string_view attributes);

    ElementCounts m_counts;
    std::size_t m_elements = 0;
    std::size_t m_elementMemory = 0;
    std::size_t m_pieces = 0;
    std::size_t m_styleBytes = 0;
    std::size_t m_spanned = 0;
    std::size_t m_listItems = 0;
    std::size_t m_floats = 0;
    double m_layouts = 0;
    bool m_shortened = false;
    bool m_full = false;
};

}  // namespace ternview
