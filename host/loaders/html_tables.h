// Tables that keep to their greatest width, and share their width among their columns as browsers do.
#pragma once

#include <litehtml/litehtml.h>

#include <memory>
#include <string>
#include <vector>

namespace ternview {

/// What is known of a column before widths are shared, in CSS pixels.
struct TableColumn {
    enum class Kind { Auto, Fixed, Percent } kind = Kind::Auto;
    int wanted = 0;  // of a column that is not automatic
    int least = 0;   // of its content
    int most = 0;    // of its content without line breaks
};

/**
 * Shares the width of a table among its columns. Fixed and relative columns get what they want, automatic ones the rest by their
 * content; without automatic ones the fixed ones grow, else the relative ones. When there is not enough, all get less, down to
 * what they need at least.
 */
std::vector<int> shareTableWidth(const std::vector<TableColumn>& columns, int width);

/**
 * Makes a table or a part of one, which stays what it is whatever style sheets say: the engine would put others around it, and
 * lay out what is in them again and again.
 *
 * @return null for a name that is none of these
 */
std::shared_ptr<litehtml::element> createTablePart(const std::string& name, const std::shared_ptr<litehtml::document>& document);

}  // namespace ternview
