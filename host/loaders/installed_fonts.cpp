#include "loaders/installed_fonts.h"

#include <fontconfig/fontconfig.h>

#include "job.h"

namespace ternview {

void requireFonts() {
    const FcFontSet* fonts = FcConfigGetFonts(nullptr, FcSetSystem);
    if (fonts == nullptr || fonts->nfont == 0) {
        throw JobError(Failure::kFontsMissing);
    }
}

}  // namespace ternview
