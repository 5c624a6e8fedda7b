// Whether there is anything to write with.
#pragma once

namespace ternview {

/// @throws JobError with Failure::kFontsMissing when fontconfig knows of no font. Pango lists its generic families even then.
void requireFonts();

}  // namespace ternview
