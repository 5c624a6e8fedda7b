// Glyphs in colour, which keep their colours on the way to paper as pictures only: drawing a PDF's fonts leaves their outlines.
#pragma once

#include <string>
#include <string_view>

namespace ternview {

/**
 * Has the browser paint emoji as pictures.
 *
 * @param html well-nested UTF-8, with ">" in attributes in quotation marks only
 */
std::string withPaintedEmoji(std::string_view html);

}  // namespace ternview
