#include "html_tables.h"

#include "html_mended.h"

#include <litehtml/el_table.h>
#include <litehtml/el_td.h>
#include <litehtml/el_tr.h>

#include <algorithm>
#include <functional>
#include <numeric>
#include <string_view>
#include <utility>

namespace ternview {
namespace {

using Kind = TableColumn::Kind;

std::vector<std::size_t> columnsOf(const std::vector<TableColumn>& columns, Kind kind) {
    std::vector<std::size_t> result;
    for (std::size_t i = 0; i < columns.size(); ++i) {
        if (columns[i].kind == kind) {
            result.push_back(i);
        }
    }
    return result;
}

/// Adds to the widths of columns an amount, which may be negative, in proportion to something of them.
template <typename Weight>
void change(std::vector<int>& widths, const std::vector<std::size_t>& which, int amount, Weight weight) {
    double total = 0;
    for (const std::size_t i : which) {
        total += weight(i);
    }
    double done = 0;
    int given = 0;
    for (const std::size_t i : which) {
        done += total > 0 ? weight(i) / total : 1.0 / static_cast<double>(which.size());
        const int part = static_cast<int>(amount * done + (amount > 0 ? 0.5 : -0.5)) - given;
        widths[i] += part;
        given += part;
    }
}

void growAutomatic(std::vector<int>& widths, const std::vector<TableColumn>& columns, int left) {
    const std::vector<std::size_t> which = columnsOf(columns, Kind::Auto);
    int least = 0;
    int most = 0;
    for (const std::size_t i : which) {
        least += columns[i].least;
        most += columns[i].most;
    }
    if (left + least < most) {
        change(widths, which, left, [&](std::size_t i) { return columns[i].most - columns[i].least; });
        return;
    }
    for (const std::size_t i : which) {
        widths[i] = 0;
    }
    change(widths, which, left + least, [&](std::size_t i) { return columns[i].most; });
}

/// Takes from the columns of a kind what they have above their least widths. Returns what is still missing.
int shrink(std::vector<int>& widths, const std::vector<TableColumn>& columns, Kind kind, int missing) {
    const std::vector<std::size_t> which = columnsOf(columns, kind);
    int spare = 0;
    for (const std::size_t i : which) {
        spare += widths[i] - columns[i].least;
    }
    const int taken = std::min(missing, spare);
    if (taken > 0) {
        const std::vector<int> before = widths;
        change(widths, which, -taken, [&](std::size_t i) { return before[i] - columns[i].least; });
    }
    return missing - std::max(taken, 0);
}

/// Whether a line of a block has ended because there was no more room.
bool wrapsText(const litehtml::element& block) {
    const auto* mended = dynamic_cast<const MendedElement*>(&block);
    if (mended == nullptr) {
        return false;
    }
    bool open = false;  // a line stands in front that may have gone on here
    for (const litehtml::box::ptr& box : mended->lineBoxes()) {
        litehtml::elements_vector parts;
        box->get_elements(parts);
        if (parts.empty()) {
            continue;
        }
        const litehtml::element& first = *parts.front();
        const bool line = box->get_type() == litehtml::box_line;
        // A break stands at the start of the line behind it.
        if (line && open && !first.is_break() && !parts.back()->is_break()) {
            return true;
        }
        const bool ownWidth = !first.get_css_width().is_predefined() || first.get_display() == litehtml::display_table;
        if (!line && !ownWidth && wrapsText(first)) {
            return true;
        }
        open = line;
    }
    return false;
}

/// What a table is made of, whatever style sheets say.
template <typename Base, litehtml::style_display display>
class TablePart : public Mended<Base> {
public:
    using Mended<Base>::Mended;

    void parse_styles(bool again) override {
        Mended<Base>::parse_styles(again);
        this->m_display = this->m_display == litehtml::display_none ? this->m_display : display;
    }
};

/**
 * A cell that remembers what it was measured to need. The engine measures each cell of a table twice before it lays it out, and
 * tables inside are measured with it: without memory their cost is a power of the depth.
 */
class Cell final : public TablePart<litehtml::el_td, litehtml::display_table_cell> {
public:
    using TablePart::TablePart;

    /// As for all other elements, padding and border come on top of the width.
    litehtml::css_length get_css_width() const override {
        litehtml::css_length width = m_css_width;
        const bool pixels = !width.is_predefined() && width.units() != litehtml::css_units_percentage;
        if (pixels && m_box_sizing == litehtml::box_sizing_content_box) {
            width = static_cast<float>(inPixels(width) + inPixels(m_css_padding.left) + inPixels(m_css_padding.right) +
                                       (borderWidth(m_css_borders.left) + borderWidth(m_css_borders.right)) / sharedBorders());
        }
        return width;
    }

    int render(int x, int y, int maxWidth, bool secondPass) override {
        if (m_measurements == 0) {
            return layOut(x, y, maxWidth, secondPass);
        }
        --m_measurements;
        const std::optional<int> known = m_fixed ? std::nullopt : knownWidth(maxWidth);
        if (known) {
            m_pos.width = -1;  // tells the engine that the layout is not the one for this width
        }
        const int width = known ? *known : m_fixed ? layOutFixed(x, y, maxWidth, secondPass) : layOut(x, y, maxWidth, secondPass);
        m_pos.width = known ? -1 : m_pos.width;
        if (const auto measured = m_measurements == 0 ? std::exchange(m_measured, {}) : nullptr) {
            measured(m_fixed ? std::max(width, maxWidth) : width);
            if (m_fixed && m_pos.width < 0) {  // the engine goes on with this layout
                layOut(x, y, maxWidth, secondPass);
            }
        }
        return width;
    }

    /// The engine is about to measure it: once at the width that it will have, or at its least and its greatest width.
    void expectMeasuring(bool fixed) {
        m_fixed = fixed;
        m_measurements = fixed ? 1 : 2;
    }
    /// Is told the width that was measured last, which is no less than a fixed one.
    void whenMeasured(std::function<void(int)> measured) { m_measured = std::move(measured); }
    /// The width that its content needs at least.
    int leastWidth() {
        const std::optional<int> known = knownWidth(1);
        const int width = known ? *known : layOut(0, 0, 1, false);
        m_pos.width = -1;
        return width;
    }
    bool isFixed() const { return m_fixed; }

private:
    struct Measurement {
        int offered;
        int taken;
    };

    int inPixels(litehtml::css_length length) const { return get_document()->cvt_units(length, m_font_size); }
    int borderWidth(const litehtml::css_border& border) const {
        const bool none = border.style == litehtml::border_style_none || border.style == litehtml::border_style_hidden;
        return none ? 0 : inPixels(border.width);
    }
    /// How many cells have a part of each border.
    int sharedBorders() const {
        const char* collapse = get_style_property("border-collapse", true, nullptr);
        return collapse != nullptr && std::string_view(collapse) == "collapse" ? 2 : 1;
    }

    int layOut(int x, int y, int maxWidth, bool secondPass) {
        constexpr std::size_t kMostRemembered = 8;
        int width = Mended::render(x, y, maxWidth, secondPass);
        if (width < maxWidth && wrapsText(*this)) {
            width = maxWidth;  // it could do with more
        }
        if (m_known.size() == kMostRemembered) {
            m_known.erase(m_known.begin() + 1);
        }
        m_known.push_back({maxWidth, width});
        return width;
    }

    /// The engine takes it for laid out at the width that it was offered, or at what it takes when that is more.
    int layOutFixed(int x, int y, int maxWidth, bool secondPass) {
        const int offered = fittingWidth(maxWidth);
        const int width = layOut(x, y, offered, secondPass);
        if (width == offered || (width < offered && offered == maxWidth)) {
            return width;
        }
        const int again = std::max(width, maxWidth);
        return std::max(again, layOut(x, y, again, secondPass));
    }

    /// A width that is not less than what the content has already turned out to need.
    int fittingWidth(int offered) const {
        int least = offered;
        for (const Measurement& known : m_known) {
            least = known.taken > known.offered ? std::max(least, known.taken) : least;
        }
        return least;
    }

    /// What fits into its width needs no more in a wider place, and no less down to what it took.
    std::optional<int> knownWidth(int offered) const {
        for (const Measurement& known : m_known) {
            const bool least = known.offered <= 1 && offered <= known.taken;
            if (known.offered == offered || least || (known.taken <= offered && offered <= known.offered)) {
                return known.taken;
            }
        }
        return std::nullopt;
    }

    std::vector<Measurement> m_known;
    std::function<void(int)> m_measured;
    int m_measurements = 0;  // that are to come
    bool m_fixed = false;
};

class Table final : public TablePart<litehtml::el_table, litehtml::display_table> {
public:
    using TablePart::TablePart;

    int render(int x, int y, int maxWidth, bool secondPass) override {
        const litehtml::css_length own = m_css_width;
        const int most = m_css_max_width.is_predefined() ? maxWidth : inPixels(m_css_max_width, maxWidth);
        if (own.is_predefined()) {
            expectMeasuring({});
            const int width = Mended::render(x, y, std::min(maxWidth, most), secondPass);
            if (most < maxWidth) {
                calc_auto_margins(maxWidth);
                m_pos.x = x + content_margins_left();
            }
            return std::min(width, usedWidth());
        }
        const int wanted = inPixels(own, maxWidth);
        m_css_width = static_cast<float>(m_css_max_width.is_predefined() ? wanted : std::min(wanted, most));
        const int width = renderShared(x, y, maxWidth, secondPass);
        m_css_width = own;
        return isFixed(own) ? usedWidth() : std::min(width, usedWidth());
    }

    void mirrorColumns() override {
        forEachCell([this](litehtml::table_cell& place, int) {
            place.el->get_position().x += m_pos.width - place.el->right() - place.el->left();
        });
    }

private:
    int inPixels(litehtml::css_length length, int whole) const { return get_document()->cvt_units(length, m_font_size, whole); }

    /// With the widths of columns that a browser would choose.
    int renderShared(int x, int y, int maxWidth, bool secondPass) {
        if (m_grid == nullptr || m_grid->cols_count() < 2) {
            expectMeasuring({});
            return Mended::render(x, y, maxWidth, secondPass);
        }
        const auto known = std::ranges::find(m_shared, maxWidth, &Shared::offered);
        if (known == m_shared.end()) {
            Shared shared{maxWidth, {}, true};
            expectMeasuring([&] { shareWidth(shared); });
            const int width = Mended::render(x, y, maxWidth, secondPass);
            stopMeasuring();
            restoreColumns();
            const bool done = shared.widths.empty() || shared.enough;
            remember(std::move(shared));
            return done ? width : renderForced(m_shared.back().widths, x, y, maxWidth, secondPass);
        }
        return renderForced(known->widths, x, y, maxWidth, secondPass);
    }

    int renderForced(const std::vector<int>& widths, int x, int y, int maxWidth, bool secondPass) {
        forceColumns(widths);
        expectMeasuring({});
        const int width = Mended::render(x, y, maxWidth, secondPass);
        restoreColumns();
        return width;
    }

    /// With its border and its margins, but not with what is there to place it.
    int usedWidth() const {
        const int left = m_css_margins.left.is_predefined() ? 0 : m_margins.left;
        const int right = m_css_margins.right.is_predefined() ? 0 : m_margins.right;
        return m_pos.width + m_padding.width() + m_borders.width() + left + right;
    }

    static bool isFixed(const litehtml::css_length& width) {
        return !width.is_predefined() && width.units() != litehtml::css_units_percentage;
    }

    template <typename Each>
    void forEachCell(Each each) const {
        for (int row = 0; m_grid != nullptr && row < m_grid->rows_count(); ++row) {
            for (int column = 0; column < m_grid->cols_count(); ++column) {
                litehtml::table_cell* place = m_grid->cell(column, row);
                if (place != nullptr && place->el != nullptr) {
                    each(*place, column);
                }
            }
        }
    }

    /// The engine measures all cells, then shares the width. In between, when the last cell has been measured, is the time to
    /// tell it the widths of the columns.
    void expectMeasuring(const std::function<void()>& behind) {
        Cell* last = nullptr;
        litehtml::table_cell* lastPlace = nullptr;
        forEachCell([&](litehtml::table_cell& place, int column) {
            if (auto* cell = dynamic_cast<Cell*>(place.el.get())) {
                const bool alone = m_grid->cols_count() == 1 && !m_css_width.is_predefined();
                cell->expectMeasuring(alone || isFixed(m_grid->column(column).css_width));
                last = cell;
                lastPlace = &place;
            } else {
                last = nullptr;
            }
        });
        if (last == nullptr || !behind) {
            return;
        }
        m_lastCell = last;
        last->whenMeasured([last, lastPlace, behind](int width) {
            lastPlace->max_width = width;
            lastPlace->min_width = last->isFixed() ? width : last->leastWidth();
            behind();
        });
    }

    void stopMeasuring() {
        if (m_lastCell != nullptr) {
            m_lastCell->whenMeasured({});
        }
    }

    /// What the columns have for themselves.
    int contentWidth() const {
        int spacing = 0;
        if (m_border_collapse == litehtml::border_collapse_separate) {
            spacing = m_border_spacing_x * (m_grid->cols_count() + 1);
        } else if (m_grid->cols_count() > 0) {
            spacing -= std::min(border_left(), m_grid->column(0).border_left);
            spacing -= std::min(border_right(), m_grid->column(m_grid->cols_count() - 1).border_right);
            for (int i = 1; i < m_grid->cols_count(); ++i) {
                spacing -= std::min(m_grid->column(i).border_left, m_grid->column(i - 1).border_right);
            }
        }
        return static_cast<int>(m_css_width.val()) - m_padding.width() - m_borders.width() - spacing;
    }

    std::vector<TableColumn> measuredColumns(int width) const {
        std::vector<TableColumn> columns(static_cast<std::size_t>(m_grid->cols_count()));
        for (int i = 0; i < m_grid->cols_count(); ++i) {
            TableColumn& column = columns[static_cast<std::size_t>(i)];
            const litehtml::css_length& wanted = m_grid->column(i).css_width;
            if (!wanted.is_predefined()) {
                column.kind = isFixed(wanted) ? Kind::Fixed : Kind::Percent;
                column.wanted = wanted.calc_percent(width);
            }
        }
        forEachCell([&](const litehtml::table_cell& place, int i) {
            TableColumn& column = columns[static_cast<std::size_t>(i)];
            if (place.colspan <= 1) {
                column.least = std::max(column.least, place.min_width);
                column.most = std::max(column.most, place.max_width);
            }
        });
        return columns;
    }

    /// The least widths of fixed columns, which the engine takes for what they want.
    void measureFixedColumns(std::vector<TableColumn>& columns) const {
        for (TableColumn& column : columns) {
            column.least = column.kind == Kind::Fixed ? 0 : column.least;
        }
        forEachCell([&](const litehtml::table_cell& place, int i) {
            TableColumn& column = columns[static_cast<std::size_t>(i)];
            auto* cell = dynamic_cast<Cell*>(place.el.get());
            if (place.colspan <= 1 && column.kind == Kind::Fixed && cell != nullptr) {
                column.least = std::max(column.least, cell->leastWidth());
            }
        });
    }

    /// Whether each cell that covers several columns has room in them.
    bool spansFit(const std::vector<int>& widths) const {
        bool fit = true;
        forEachCell([&](const litehtml::table_cell& place, int column) {
            int room = 0;
            for (int i = column; place.colspan > 1 && i < std::min(column + place.colspan, m_grid->cols_count()); ++i) {
                room += widths[static_cast<std::size_t>(i)];
            }
            fit = fit && (place.colspan <= 1 || room >= place.min_width);
        });
        return fit;
    }

    /// The widths of columns at a width that the table was offered.
    struct Shared {
        int offered;
        std::vector<int> widths;
        bool enough;  // fixed columns have what they want
    };

    void remember(Shared shared) {
        constexpr std::size_t kMostRemembered = 4;
        if (m_shared.size() == kMostRemembered) {
            m_shared.erase(m_shared.begin());
        }
        m_shared.push_back(std::move(shared));
    }

    void shareWidth(Shared& shared) {
        const int width = contentWidth();
        const char* layout = get_style_property("table-layout", false, nullptr);
        const bool fixedLayout = layout != nullptr && std::string_view(layout) == "fixed";
        std::vector<TableColumn> columns = measuredColumns(width);
        for (TableColumn& column : columns) {
            column.least = fixedLayout ? 0 : column.least;
            column.most = fixedLayout ? 1 : column.most;
        }
        std::vector<int> widths = shareTableWidth(columns, width);
        shared.enough = std::reduce(widths.begin(), widths.end()) <= width;
        if (!shared.enough) {
            measureFixedColumns(columns);
            widths = shareTableWidth(columns, width);
        }
        if (!fixedLayout && !spansFit(widths)) {
            return;
        }
        forEachCell([&](litehtml::table_cell& place, int column) {
            const int own = widths[static_cast<std::size_t>(column)];
            place.min_width = place.colspan <= 1 ? std::min(place.min_width, own) : place.min_width;
        });
        forceColumns(widths);
        shared.widths = std::move(widths);
    }

    void forceColumns(const std::vector<int>& widths) {
        for (std::size_t i = 0; i < widths.size(); ++i) {
            litehtml::css_length& wanted = m_grid->column(static_cast<int>(i)).css_width;
            m_ownWidths.push_back(wanted);
            wanted = static_cast<float>(widths[i]);
        }
    }

    void restoreColumns() {
        for (std::size_t i = 0; i < m_ownWidths.size(); ++i) {
            m_grid->column(static_cast<int>(i)).css_width = m_ownWidths[i];
        }
        m_ownWidths.clear();
    }

    std::vector<Shared> m_shared;
    Cell* m_lastCell = nullptr;
    std::vector<litehtml::css_length> m_ownWidths;  // of the columns, while others take their place
};

}  // namespace

std::vector<int> shareTableWidth(const std::vector<TableColumn>& columns, int width) {
    std::vector<int> widths;
    int left = width;
    for (const TableColumn& column : columns) {
        widths.push_back(std::max(column.wanted, column.least));
        left -= widths.back();
    }
    if (left < 0) {
        const int missing = shrink(widths, columns, Kind::Fixed, -left);
        shrink(widths, columns, Kind::Percent, missing);
        return widths;
    }
    const std::vector<std::size_t> fixed = columnsOf(columns, Kind::Fixed);
    if (!columnsOf(columns, Kind::Auto).empty()) {
        growAutomatic(widths, columns, left);
    } else {
        change(widths, fixed.empty() ? columnsOf(columns, Kind::Percent) : fixed, left,
               [&](std::size_t i) { return std::max(columns[i].wanted, 1); });
    }
    return widths;
}

std::shared_ptr<litehtml::element> createTablePart(const std::string& name, const std::shared_ptr<litehtml::document>& document) {
    if (name == "table") {
        return std::make_shared<Table>(document);
    }
    if (name == "thead" || name == "tbody" || name == "tfoot") {
        return std::make_shared<TablePart<litehtml::html_tag, litehtml::display_table_row_group>>(document);
    }
    if (name == "tr") {
        return std::make_shared<TablePart<litehtml::el_tr, litehtml::display_table_row>>(document);
    }
    return name == "td" || name == "th" ? std::make_shared<Cell>(document) : nullptr;
}

}  // namespace ternview
