// Gradients as backgrounds, of which the layout engine knows nothing: for it they are pictures.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "html_display_list.h"

namespace ternview {

/// What a value such as "linear-gradient(to right,rgb(0,0,0),#fff 80%)" says; nothing when it is none.
std::optional<GradientItem> parseGradient(std::string_view value);

}  // namespace ternview
