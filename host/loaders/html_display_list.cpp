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
    // Radii that do not fit beside each other become smaller, all of them alike.
    CornerRadii radii = wanted;
    double fitting = 1;
    const auto fit = [&fitting](double room, double first, double second) {
        fitting = first + second > room ? std::min(fitting, std::max(room, 0.0) / (first + second)) : fitting;
    };
    fit(box.width, radii[0][0], radii[1][0]);
    fit(box.width, radii[3][0], radii[2][0]);
    fit(box.height, radii[0][1], radii[3][1]);
    fit(box.height, radii[1][1], radii[2][1]);
    float largest = 0;
    for (auto& corner : radii) {
        corner = {std::max(corner[0], 0.0F) * static_cast<float>(fitting),
                  std::max(corner[1], 0.0F) * static_cast<float>(fitting)};
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
    if (item.opacity < 1) {
        addBox(context, area);
        cairo_clip(context);
        cairo_paint_with_alpha(context, item.opacity);
        return;
    }
    addBox(context, area);
    cairo_fill(context);
}

void paintContent(const GradientItem& item, const Box& box, cairo_t* context) {
    const double x = box.x + box.width / 2;
    const double y = box.y + box.height / 2;
    // Towards a corner, the line half way goes through the two corners beside it.
    const double angle = item.toCorner ? std::atan2(box.height * item.horizontal, -box.width * item.vertical) : item.angle;
    const double half = (std::abs(box.width * std::sin(angle)) + std::abs(box.height * std::cos(angle))) / 2;
    const double dx = std::sin(angle) * half;
    const double dy = -std::cos(angle) * half;
    cairo_pattern_t* pattern = item.radial ? cairo_pattern_create_radial(x, y, 0, x, y, std::hypot(box.width, box.height) / 2)
                                           : cairo_pattern_create_linear(x - dx, y - dy, x + dx, y + dy);
    for (const GradientItem::Stop& stop : item.stops) {
        cairo_pattern_add_color_stop_rgba(pattern, stop.offset, stop.color.red, stop.color.green, stop.color.blue,
                                          stop.color.alpha);
    }
    addRoundedBox(context, box, item.radii);
    cairo_set_source(context, pattern);
    cairo_fill(context);
    cairo_pattern_destroy(pattern);
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
        item.font->drawParagraph(context, item.alternative, {box.x + 4, box.y + 3, std::max(box.width - 8, 1.0)});
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

/// As if light fell from above and from the left.
Color shaded(const Color& color, bool lit) {
    constexpr float kLight = 0.5F;
    const auto part = [lit](float value) { return lit ? value + (1 - value) * kLight : value; };
    return {part(color.red), part(color.green), part(color.blue), color.alpha};
}

void setDash(cairo_t* context, double width, bool dotted) {
    const std::array<double, 2> dash{dotted ? 0.01 : std::max(width * 2, 3.0), dotted ? width * 2 : std::max(width * 1.5, 2.0)};
    cairo_set_line_width(context, width);
    cairo_set_line_cap(context, dotted ? CAIRO_LINE_CAP_ROUND : CAIRO_LINE_CAP_BUTT);
    cairo_set_dash(context, dash.data(), 2, 0);
}

void strokeSide(cairo_t* context, const Box& box, const BorderItem::Side& side, std::size_t index) {
    const double width = side.width;
    const double half = width / 2;
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
    setDash(context, width, side.style == BorderItem::Style::Dotted);
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

bool uniform(const BorderItem& item, BorderItem::Style style) {
    return std::ranges::all_of(item.sides, [&](const BorderItem::Side& side) {
        return side.style == style && side.color == item.sides[0].color && side.width == item.sides[0].width;
    });
}

bool isRounded(const CornerRadii& radii) {
    return std::ranges::any_of(radii, [](const auto& corner) { return corner[0] > 0 && corner[1] > 0; });
}

/// A border of dots or dashes that goes around corners.
void strokeAround(cairo_t* context, const BorderItem& item, const Box& box) {
    const float width = item.sides[0].width;
    CornerRadii middle = item.radii;
    for (auto& corner : middle) {
        corner = {std::max(corner[0] - width / 2, 0.0F), std::max(corner[1] - width / 2, 0.0F)};
    }
    setColor(context, item.sides[0].color);
    setDash(context, width, item.sides[0].style == BorderItem::Style::Dotted);
    addRoundedBox(context,
                  {box.x + width / 2, box.y + width / 2, std::max(box.width - width, 0.0), std::max(box.height - width, 0.0)},
                  middle);
    cairo_stroke(context);
}

/// Solid sides of one colour, which need no joints.
bool isOneColor(const BorderItem& item) {
    const auto seen = std::ranges::find_if(item.sides, [](const BorderItem::Side& side) { return side.width > 0; });
    return seen != item.sides.end() && std::ranges::all_of(item.sides, [seen](const BorderItem::Side& side) {
               return side.width <= 0 || (side.style == BorderItem::Style::Solid && side.color == seen->color);
           });
}

/// The room between the outer and the inner edge of a border.
void fillFrame(cairo_t* context, const BorderItem& item, const Box& box) {
    const auto& [top, right, bottom, left] = item.sides;
    const std::array<std::array<float, 2>, 4> taken{
        {{left.width, top.width}, {right.width, top.width}, {right.width, bottom.width}, {left.width, bottom.width}}};
    CornerRadii inner = item.radii;
    for (std::size_t i = 0; i < inner.size(); ++i) {
        inner[i] = {std::max(inner[i][0] - taken[i][0], 0.0F), std::max(inner[i][1] - taken[i][1], 0.0F)};
    }
    const auto seen = std::ranges::find_if(item.sides, [](const BorderItem::Side& side) { return side.width > 0; });
    setColor(context, seen->color);
    addRoundedBox(context, box, item.radii);
    addRoundedBox(context,
                  {box.x + left.width, box.y + top.width, std::max(box.width - left.width - right.width, 0.0),
                   std::max(box.height - top.width - bottom.width, 0.0)},
                  inner);
    cairo_set_fill_rule(context, CAIRO_FILL_RULE_EVEN_ODD);
    cairo_fill(context);
}

void paintContent(const BorderItem& item, const Box& box, cairo_t* context) {
    constexpr double kLongestStroke = 20000;  // around the corners; longer ones are cut to what can be seen
    const bool broken = uniform(item, BorderItem::Style::Dotted) || uniform(item, BorderItem::Style::Dashed);
    if (broken && isRounded(item.radii) && box.height < kLongestStroke && box.width < kLongestStroke) {
        strokeAround(context, item, box);
        return;
    }
    if (isOneColor(item)) {
        fillFrame(context, item, box);
        return;
    }
    if (isRounded(item.radii)) {
        addRoundedBox(context, box, item.radii);
        cairo_clip(context);
        cairo_new_path(context);
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
        } else if (side.style == BorderItem::Style::Groove || side.style == BorderItem::Style::Ridge) {
            const bool litOutside = (side.style == BorderItem::Style::Ridge) == (i == 0 || i == 3);
            setColor(context, shaded(side.color, litOutside));
            addSide(context, box, item, i, 0, 0.5);
            setColor(context, shaded(side.color, !litOutside));
            addSide(context, box, item, i, 0.5, 1);
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

Color litColor(const Color& color) {
    return shaded(color, true);
}

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
