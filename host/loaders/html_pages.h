// Divides a long drawing into pages.
#pragma once

#include "html_display_list.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace ternview {

struct PagePlan {
    struct Page {
        double top;     // in the drawing
        double bottom;  // where the next page starts
        std::vector<std::uint32_t> items;
        std::uint32_t firstLayer = 0;  // backgrounds, borders and pictures in front of this item lie below too many others
    };
    std::vector<Page> pages;              // at least one
    std::vector<std::uint32_t> spanning;  // items on many pages, kept apart so that the plan stays linear in the drawing
    bool shortened = false;               // there was more than the greatest number of pages
};

/**
 * Chooses page breaks that go through no line of text and no picture that fits on a page. Each solid item belongs to one page as
 * a whole; backgrounds and borders are cut at the break.
 *
 * @param pageHeight in units of the drawing, above 0
 */
PagePlan planPages(const DisplayItems& items, double pageHeight, std::size_t maxPages);

}  // namespace ternview
