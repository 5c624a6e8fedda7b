// Where lines of text may end.
#pragma once

#include <functional>

namespace ternview {

/**
 * Cuts text into the pieces that a line may end behind: words, blanks, East Asian characters with their punctuation, and parts of
 * words that are too long for any line.
 *
 * @param text valid UTF-8
 * @param onSpace is called for each single blank, whatever it is
 */
void splitIntoPieces(const char* text, const std::function<void(const char*)>& onWord,
                     const std::function<void(const char*)>& onSpace);

}  // namespace ternview
