// Draws pages for the targets that lay documents out.
#pragma once

#include <cstddef>

#include "loaders/laid_out_document.h"

namespace fuzz {

/// A page of a few lines, so that small documents have several.
inline constexpr ternview::PageSetup kSmallPaper{400, 300, 20};

/// Draws the first and the last page. Stops the program when one of them cannot be drawn.
/// @param size of the input: one in four is drawn as a PDF, which costs the most, the others in pixels
void drawEnds(ternview::LaidOutDocument& document, std::size_t size);

}  // namespace fuzz
