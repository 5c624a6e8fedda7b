// Whether there is anything to see in an HTML text.
#pragma once

#include <string_view>

namespace ternview {

/// True for HTML of which nothing but white space is seen.
bool showsNothing(std::string_view html);

}  // namespace ternview
