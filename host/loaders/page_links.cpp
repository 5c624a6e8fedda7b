#include "page_links.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>

namespace ternview {
namespace {

void append(std::string& text, double number) {
    std::array<char, 40> digits{};
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), number, std::chars_format::fixed, 2).ptr;
    text.append(digits.data(), end);
    text += ' ';
}

}  // namespace

bool carriesLinks(cairo_t* context) {
    return cairo_surface_get_type(cairo_get_target(context)) == CAIRO_SURFACE_TYPE_PDF;
}

void addPageLink(cairo_t* context, const LinkArea& area, const std::string& target) {
    if (target.empty() || !carriesLinks(context)) {
        return;
    }
    // Unlike all else that is drawn, these are in units of the surface.
    double left = area.x;
    double top = area.y;
    double right = area.x + area.width;
    double bottom = area.y + area.height;
    cairo_user_to_device(context, &left, &top);
    cairo_user_to_device(context, &right, &bottom);
    std::string rectangle;
    append(rectangle, std::min(left, right));
    append(rectangle, std::min(top, bottom));
    append(rectangle, std::abs(right - left));
    append(rectangle, std::abs(bottom - top));
    cairo_tag_begin(context, CAIRO_TAG_LINK, ("uri='" + target + "' rect=[" + rectangle + "]").c_str());
    cairo_tag_end(context, CAIRO_TAG_LINK);
}

}  // namespace ternview
