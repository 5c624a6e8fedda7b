// What there is to write with.
#pragma once

#include <filesystem>
#include <vector>

namespace ternview {

/// @throws JobError with Failure::kFontsMissing when fontconfig knows of no font. Pango lists its generic families even then.
void requireFonts();

/// Has fontconfig look for fonts, and tells where they lie.
std::vector<std::filesystem::path> fontDirectories();

}  // namespace ternview
