// What there is to write with.
#pragma once

#include <filesystem>
#include <vector>

namespace ternview {

/// @throws JobError with Failure::kFontsMissing when fontconfig knows of no font. Pango lists its generic families even then.
void requireFonts();

/// Has fontconfig look for fonts, and tells where they lie: the directories, and what in them stands for a file elsewhere.
std::vector<std::filesystem::path> fontPaths();

}  // namespace ternview
