// RTF through the office suite, in whatever form.
#pragma once

#include <string>
#include <string_view>

#include "laid_out_document.h"
#include "office/office.h"

namespace ternview {

/// What the suite makes of a stranger's RTF, of which the guard takes out what names something. Without its pictures where one
/// is of no known kind, for which the suite refuses the whole document.
/// @throws what convertInOffice throws
std::string convertRtf(std::string_view rtf, const PageSetup& setup, OfficeTarget target);

}  // namespace ternview
