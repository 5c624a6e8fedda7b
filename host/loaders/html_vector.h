// Vector pictures (SVG), each drawn in a process of its own: a few hundred bytes of nested references and filters can ask for
// hours and gigabytes, and no look at the text tells. So the drawing has limits that the system keeps, and losing it costs one
// picture.
//
// These processes are forked off by another one that has no threads, and has none of the locks that threads may hold at a fork.
#pragma once

#include "html_pictures.h"

#include <chrono>
#include <optional>
#include <string_view>

namespace ternview {

/// Begins the process from which others are forked off, unless it is there already. To be called before Pango is, which begins
/// threads; pictures are drawn later, and nothing is drawn where this failed.
void prepareVectorPictures();

/// Ends that process. To be called before this one ends, or is ended for having told its result: whoever inherits the other one
/// need not be one that sees to processes.
void endVectorPictures();

/**
 * Draws a vector picture.
 *
 * @param data the SVG document; references to anything outside are not followed
 * @param maxPixels above which a picture is drawn coarser, or refused when even one pixel per CSS pixel would be too many
 * @param budget the time that the pictures of a document have left; what was used is taken off
 * @return nothing when it is no picture, or takes too much time or memory
 */
std::optional<Picture> vectorPicture(std::string_view data, double maxPixels, std::chrono::milliseconds& budget);

}  // namespace ternview
