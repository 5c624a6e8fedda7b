// Links on pages. They live in PDF output only: on other surfaces nothing happens.
#pragma once

#include <cairo.h>

#include <string>

namespace ternview {

/// In the units of the context that it is given with.
struct LinkArea {
    double x;
    double y;
    double width;
    double height;
};

/// Whether what is drawn ends up where links live.
bool carriesLinks(cairo_t* context);

/**
 * Makes an area of the page that is being drawn lead to a target.
 *
 * @param target an address in plain ASCII, as `linkTarget` makes it
 */
void addPageLink(cairo_t* context, const LinkArea& area, const std::string& target);

}  // namespace ternview
