// Fits a drawing that is too wide to the paper, and of it only what is too wide: one wide table must not make the header above it
// and the text behind it too small to be read.
#pragma once

#include "html_display_list.h"

#include <vector>

namespace ternview {

/**
 * Scales down the bands of a drawing that are wider than the page, and moves up what is below them.
 *
 * @param tops where a band may start: the upper ends of the outermost parts of the document; only those that no item crosses
 * count
 * @param width of the page, above 0
 */
void fitToWidth(DisplayItems& items, std::vector<double> tops, double width);

}  // namespace ternview
