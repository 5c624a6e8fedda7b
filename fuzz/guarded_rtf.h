// What must be true of RTF behind the guard.
#pragma once

#include <string_view>

namespace fuzz {

/// Stops the program when the guard, asked for a document, lets something through that could load something, or gives no one
/// closed group. @param rtf begins with "{\rtf"
void checkRtfGuard(std::string_view rtf);

}  // namespace fuzz
