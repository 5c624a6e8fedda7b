// Conditions under which rules of style sheets apply.
#pragma once

#include <string_view>

namespace ternview {

/**
 * Whether a list of media queries holds for a mail on paper. Mail is written for the screen and shown on paper, so what is meant
 * for either applies; rules for narrow windows, dark modes and devices of other kinds do not.
 *
 * @param queries as behind "@media" or in an attribute; an empty list holds
 */
bool mediaApply(std::string_view queries);

}  // namespace ternview
