// What a laid-out HTML document draws, in the order in which it is drawn: recorded once, then painted page by page, so that a
// page costs what is on it and the layout engine is done with before anything is painted.
#pragma once

#include "html_fonts.h"
#include "html_pictures.h"

#include <cairo.h>

#include <array>
#include <cstdint>
#include <deque>
#include <memory>
#include <numbers>
#include <string>
#include <variant>
#include <vector>

namespace ternview {

struct Box {
    double x = 0;
    double y = 0;
    double width = 0;
    double height = 0;
    double right() const { return x + width; }
    double bottom() const { return y + height; }
    bool empty() const { return !(width > 0) || !(height > 0); }
    Box intersected(const Box& other) const;
};

struct Color {
    float red = 0;
    float green = 0;
    float blue = 0;
    float alpha = 1;
    bool operator==(const Color&) const = default;
};

/// A colour as it looks in the light.
Color litColor(const Color& color);

/// Horizontal and vertical radius of each corner, clockwise from the upper left one.
using CornerRadii = std::array<std::array<float, 2>, 4>;

struct TextItem {
    std::string text;
    const HtmlFont* font;
    Color color;
    double baseline;
};

struct FillItem {
    Color color;
    CornerRadii radii;
};

struct PictureItem {
    const Picture* picture;
    Box tile;  // where the picture, or the first of the repeated ones, goes
    bool repeatX;
    bool repeatY;
    CornerRadii radii;
    float opacity;
    enum class Role { Content, Background } role;
};

/// A background of colours that turn into each other.
struct GradientItem {
    struct Stop {
        Color color;
        double offset;  // from 0 to 1, never before the one in front
    };
    std::vector<Stop> stops;
    double angle = std::numbers::pi;  // from upwards, clockwise
    int horizontal = 0;               // -1 to the left, 1 to the right
    int vertical = 0;                 // -1 up, 1 down
    bool toCorner = false;            // the angle depends on the box
    bool radial = false;              // from the middle outwards
    CornerRadii radii{};
};

/// The place of a picture that is not there.
struct FrameItem {
    std::string alternative;
    HtmlFont* font;
};

struct BorderItem {
    enum class Style { None, Solid, Dotted, Dashed, Double, Groove, Ridge };
    struct Side {
        float width;
        Style style;
        Color color;
    };
    std::array<Side, 4> sides;  // top, right, bottom, left
    CornerRadii radii;
};

struct MarkerItem {
    enum class Shape { Disc, Circle, Square } shape;
    Color color;
};

struct DisplayItem {
    Box box;   // what it covers
    Box clip;  // what may be seen of it
    // There may be hundreds of thousands of items, most of them words: what is larger than a word stands elsewhere.
    std::variant<TextItem, FillItem, std::unique_ptr<PictureItem>, std::unique_ptr<GradientItem>, FrameItem,
                 std::unique_ptr<BorderItem>, MarkerItem>
        content;
    // From the measures of the content to the place of the box: first scaled, then moved down.
    double scale = 1;
    double offset = 0;
    std::uint32_t link = 0;  // the number of the link that it is a part of, from 1; 0 for none

    /// Whether a page break must not go through it.
    bool solid() const;
    bool isText() const { return std::holds_alternative<TextItem>(content); }
    /// Whether it shows anything on white paper.
    bool visible() const;
};

/// In the order of drawing; grows without ever standing in memory twice.
using DisplayItems = std::deque<DisplayItem>;

/// Paints an item at its place in the document.
void paint(const DisplayItem& item, cairo_t* context);

}  // namespace ternview
