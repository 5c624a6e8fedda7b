#include "loaders/installed_fonts.h"

#include <fontconfig/fontconfig.h>

#include <memory>
#include <system_error>

#include "job.h"

namespace ternview {

void requireFonts() {
    const FcFontSet* fonts = FcConfigGetFonts(nullptr, FcSetSystem);
    if (fonts == nullptr || fonts->nfont == 0) {
        throw JobError(Failure::kFontsMissing);
    }
}

std::vector<std::filesystem::path> fontPaths() {
    std::vector<std::filesystem::path> paths;
    const std::unique_ptr<FcStrList, decltype(&FcStrListDone)> list(FcConfigGetFontDirs(nullptr), &FcStrListDone);
    while (const FcChar8* directory = list != nullptr ? FcStrListNext(list.get()) : nullptr) {
        paths.emplace_back(reinterpret_cast<const char*>(directory));
    }
    for (const FcSetName set : {FcSetSystem, FcSetApplication}) {
        const FcFontSet* fonts = FcConfigGetFonts(nullptr, set);
        for (int i = 0; fonts != nullptr && i < fonts->nfont; ++i) {
            FcChar8* file = nullptr;
            std::error_code error;
            if (FcPatternGetString(fonts->fonts[i], FC_FILE, 0, &file) == FcResultMatch &&
                std::filesystem::is_symlink(reinterpret_cast<const char*>(file), error)) {
                paths.emplace_back(reinterpret_cast<const char*>(file));
            }
        }
    }
    return paths;
}

}  // namespace ternview
