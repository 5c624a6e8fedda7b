#include "html_display_list.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace ternview {
namespace {

constexpr double kSmallestFrame = 6;  // below this a missing picture was a spacer or a tracking dot

void setColor(cairo_t* context, const Color& color) {
    cairo_set_source_rgba(context, color.red, color.green, color.blue, color.alpha);
}

void addBox(cairo_t* context, const Box& box) {
    cairo_rectangle(context, box.x, box.y, box.width, box.height);
}

void addCorner(cairo_t* context, double x, double y, const std::array<float, 2>& radii, double fromAngle) {
    cairo_save(context);
    cairo_translate(context, x, y);
    cairo_scale(context, std::max<double>(radii[0], 0.001), std::max<double>(radii[1], 0.001));
    cairo_arc(context, 0, 0, 1, fromAngle, fromAngle + std::numbers::pi / 2);
    cairo_restore(context);
}

void addRoundedBox(cairo_t* context, const Box& box, const CornerRadii& wanted) {
    CornerRadii radii = wanted;
    float largest = 0;
    for (auto& corner : radii) {
        corner[0] = std::clamp(corner[0], 0.0F, static_cast<float>(std::max(box.width, 0.0) / 2));
        corner[1] = std::clamp(corner[1], 0.0F, static_cast<float>(std::max(box.height, 0.0) / 2));
        largest = std::max(largest, std::min(corner[0], corner[1]));
    }
    if (largest <= 0) {
        addBox(context, box);
        return;
    }
    constexpr double kQuarter = std::numbers::pi / 2;
    cairo_new_sub_path(context);
    addCorner(context, box.x + radii[0][0], box.y + radii[0][1], radii[0], 2 * kQuarter);
    addCorner(context, box.right() - radii[1][0], box.y + radii[1][1], radii[1], 3 * kQuarter);
    addCorner(context, box.right() - radii[2][0], box.bottom() - radii[2][1], radii[2], 0);
    addCorner(context, box.x + radii[3][0], box.bottom() - radii[3][1], radii[3], kQuarter);
    cairo_close_path(context);
}

void paintContent(const TextItem& item, const Box& box, cairo_t* context) {
    setColor(context, item.color);
    item.font->draw(context, item.text, box.x, item.baseline);
}

void paintContent(const FillItem& item, const Box& box, cairo_t* context) {
    setColor(context, item.color);
    addRoundedBox(context, box, item.radii);
    cairo_fill(context);
}

void paintContent(const PictureItem& item, const Box& box, cairo_t* context) {
    const Box& tile = item.tile;
    if (tile.empty()) {
        return;
    }
    Box area = box;
    if (!item.repeatX) {
        area = area.intersected({tile.x, area.y, tile.width, area.height});
    }
    if (!item.repeatY) {
        area = area.intersected({area.x, tile.y, area.width, tile.height});
    }
    if (area.empty()) {
        return;
    }
    cairo_surface_t* surface = item.picture->surface.get();
    addRoundedBox(context, box, item.radii);
    cairo_clip(context);
    cairo_translate(context, tile.x, tile.y);
    cairo_scale(context, tile.width / cairo_image_surface_get_width(surface),
                tile.height / cairo_image_surface_get_height(surface));
    cairo_set_source_surface(context, surface, 0, 0);
    cairo_pattern_set_extend(cairo_get_source(context), item.repeatX || item.repeatY ? CAIRO_EXTEND_REPEAT : CAIRO_EXTEND_PAD);
    cairo_pattern_set_filter(cairo_get_source(context), CAIRO_FILTER_GOOD);
    cairo_scale(context, cairo_image_surface_get_width(surface) / tile.width,
                cairo_image_surface_get_height(surface) / tile.height);
    cairo_translate(context, -tile.x, -tile.y);
    addBox(context, area);
    cairo_fill(context);
}

void paintContent(const FrameItem& item, const Box& box, cairo_t* context) {
    if (box.width < kSmallestFrame || box.height < kSmallestFrame) {
        return;
    }
    cairo_set_source_rgb(context, 0.7, 0.7, 0.7);
    cairo_set_line_width(context, 1);
    addBox(context, {box.x + 0.5, box.y + 0.5, box.width - 1, box.height - 1});
    cairo_stroke(context);
    if (!item.alternative.empty()) {
        addBox(context, box);
        cairo_clip(context);
        cairo_set_source_rgb(context, 0.3, 0.3, 0.3);
        item.font->draw(context, item.alternative, box.x + 4, box.y + 3 + item.font->ascent());
    }
}

/// One side of a border as a shape with mitred ends; `inner` is how far it reaches into the box.
void addSide(cairo_t* context, const Box& box, const BorderItem& item, std::size_t side, double from, double to) {
    const auto& widths = item.sides;
    const auto point = [&](double x, double y) { cairo_line_to(context, x, y); };
    const double left = box.x;
    const double top = box.y;
    const double right = box.right();
    const double bottom = box.bottom();
    const double t = widths[0].width;
    const double r = widths[1].width;
    const double b = widths[2].width;
    const double l = widths[3].width;
    cairo_new_sub_path(context);
    switch (side) {
        case 0:
            point(left + l * from, top + t * from), point(right - r * from, top + t * from);
            point(right - r * to, top + t * to), point(left + l * to, top + t * to);
            break;
        case 1:
            point(right - r * from, top + t * from), point(right - r * from, bottom - b * from);
            point(right - r * to, bottom - b * to), point(right - r * to, top + t * to);
            break;
        case 2:
            point(right - r * from, bottom - b * from), point(left + l * from, bottom - b * from);
            point(left + l * to, bottom - b * to), point(right - r * to, bottom - b * to);
            break;
        default:
            point(left + l * from, bottom - b * from), point(left + l * from, top + t * from);
            point(left + l * to, top + t * to), point(left + l * to, bottom - b * to);
    }
    cairo_close_path(context);
    cairo_fill(context);
}

void strokeSide(cairo_t* context, const Box& box, const BorderItem::Side& side, std::size_t index) {
    const double width = side.width;
    const double half = width / 2;
    const bool dotted = side.style == BorderItem::Style::Dotted;
    const std::array<double, 2> dash{dotted ? 0.01 : width * 3, dotted ? width * 2 : width * 3};
    // Only what can be seen is worth dashing.
    double x1, y1, x2, y2;
    cairo_clip_extents(context, &x1, &y1, &x2, &y2);
    const double left = std::max(box.x, x1 - 100);
    const double right = std::min(box.right(), x2 + 100);
    const double top = std::max(box.y, y1 - 100);
    const double bottom = std::min(box.bottom(), y2 + 100);
    if (left >= right || top >= bottom) {
        return;
    }
    cairo_set_line_width(context, width);
    cairo_set_line_cap(context, dotted ? CAIRO_LINE_CAP_ROUND : CAIRO_LINE_CAP_BUTT);
    cairo_set_dash(context, dash.data(), 2, 0);
    if (index == 0 || index == 2) {
        const double y = index == 0 ? box.y + half : box.bottom() - half;
        cairo_move_to(context, left, y);
        cairo_line_to(context, right, y);
    } else {
        const double x = index == 3 ? box.x + half : box.right() - half;
        cairo_move_to(context, x, top);
        cairo_line_to(context, x, bottom);
    }
    cairo_stroke(context);
}

bool uniform(const BorderItem& item) {
    return std::ranges::all_of(item.sides, [&](const BorderItem::Side& side) {
        return side.style == BorderItem::Style::Solid && side.color == item.sides[0].color && side.width == item.sides[0].width;
    });
}

void paintContent(const BorderItem& item, const Box& box, cairo_t* context) {
    if (uniform(item)) {
        const float width = item.sides[0].width;
        CornerRadii inner = item.radii;
        for (auto& corner : inner) {
            corner = {std::max(corner[0] - width, 0.0F), std::max(corner[1] - width, 0.0F)};
        }
        setColor(context, item.sides[0].color);
        addRoundedBox(context, box, item.radii);
        addRoundedBox(context,
                      {box.x + width, box.y + width, std::max(box.width - 2 * width, 0.0), std::max(box.height - 2 * width, 0.0)},
                      inner);
        cairo_set_fill_rule(context, CAIRO_FILL_RULE_EVEN_ODD);
        cairo_fill(context);
        return;
    }
    for (std::size_t i = 0; i < item.sides.size(); ++i) {
        const BorderItem::Side& side = item.sides[i];
        if (side.width <= 0 || side.style == BorderItem::Style::None) {
            continue;
        }
        setColor(context, side.color);
        if (side.style == BorderItem::Style::Dotted || side.style == BorderItem::Style::Dashed) {
            strokeSide(context, box, side, i);
        } else if (side.style == BorderItem::Style::Double && side.width >= 3) {
            addSide(context, box, item, i, 0, 1.0 / 3);
            addSide(context, box, item, i, 2.0 / 3, 1);
        } else {
            addSide(context, box, item, i, 0, 1);
        }
    }
}

void paintContent(const MarkerItem& item, const Box& box, cairo_t* context) {
    setColor(context, item.color);
    if (item.shape == MarkerItem::Shape::Square) {
        addBox(context, box);
        cairo_fill(context);
        return;
    }
    const double radius = std::min(box.width, box.height) / 2;
    cairo_arc(context, box.x + box.width / 2, box.y + box.height / 2, radius, 0, 2 * std::numbers::pi);
    if (item.shape == MarkerItem::Shape::Disc) {
        cairo_fill(context);
    } else {
        cairo_set_line_width(context, 1);
        cairo_stroke(context);
    }
}

template <typename Content>
void paintContent(const std::unique_ptr<Content>& item, const Box& box, cairo_t* context) {
    paintContent(*item, box, context);
}

}  // namespace

Box Box::intersected(const Box& other) const {
    const double left = std::max(x, other.x);
    const double top = std::max(y, other.y);
    return {left, top, std::min(right(), other.right()) - left, std::min(bottom(), other.bottom()) - top};
}

bool DisplayItem::solid() const {
    const auto* picture = std::get_if<std::unique_ptr<PictureItem>>(&content);
    return std::holds_alternative<TextItem>(content) || std::holds_alternative<FrameItem>(content) ||
           std::holds_alternative<MarkerItem>(content) || (picture != nullptr && (*picture)->role == PictureItem::Role::Content);
}

bool DisplayItem::visible() const {
    const auto* fill = std::get_if<FillItem>(&content);
    const Color white{1, 1, 1, 1};
    return !box.intersected(clip).empty() && (fill == nullptr || (fill->color.alpha > 0 && !(fill->color == white)));
}

void paint(const DisplayItem& item, cairo_t* context) {
    cairo_save(context);
    const Box seen = item.box.intersected(item.clip);
    const bool cut = seen.width < item.box.width || seen.height < item.box.height;
    if (cut) {
        addBox(context, item.clip);
        cairo_clip(context);
    }
    cairo_new_path(context);
    cairo_translate(context, 0, item.offset);
    cairo_scale(context, item.scale, item.scale);
    const Box box{item.box.x / item.scale, (item.box.y - item.offset) / item.scale, item.box.width / item.scale,
                  item.box.height / item.scale};
    std::visit([&](const auto& content) { paintContent(content, box, context); }, item.content);
    cairo_restore(context);
}

}  // namespace ternview
