#include "loaders/installed_fonts.h"

#include <fontconfig/fontconfig.h>

#include <memory>

#include "job.h"

namespace ternview {

void requireFonts() {
    const FcFontSet* fonts = FcConfigGetFonts(nullptr, FcSetSystem);
    if (fonts == nullptr || fonts->nfont == 0) {
        throw JobError(Failure::kFontsMissing);
    }
}

std::vector<std::filesystem::path> fontDirectories() {
    std::vector<std::filesystem::path> directories;
    const std::unique_ptr<FcStrList, decltype(&FcStrListDone)> list(FcConfigGetFontDirs(nullptr), &FcStrListDone);
    while (const FcChar8* directory = list != nullptr ? FcStrListNext(list.get()) : nullptr) {
        directories.emplace_back(reinterpret_cast<const char*>(directory));
    }
    return directories;
}

}  // namespace ternview
