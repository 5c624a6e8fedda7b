// Lays out guarded HTML with litehtml and records what it draws.
#pragma once

#include "html_display_list.h"
#include "html_fonts.h"
#include "html_guard.h"
#include "html_pictures.h"

#include <optional>
#include <vector>

namespace ternview {

struct RecordedHtml {
    DisplayItems items;
    std::vector<double> tops;        // the upper ends of the outermost parts of the document
    std::optional<Color> pageColor;  // of the document's own background, which covers the whole paper
};

/**
 * Lays HTML out at a width.
 *
 * @param width of the page's content, in CSS pixels
 * @param height of the page's content, to which style sheets may refer
 * @param fonts where the fonts of the items live
 * @param pictures where the pictures of the items live
 */
RecordedHtml recordHtml(const SafeHtml& html, int width, int height, HtmlFonts& fonts, HtmlPictures& pictures);

}  // namespace ternview
