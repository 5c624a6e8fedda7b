// What must be set right in a message's bytes before a MIME parser can take it apart.
#pragma once

#include <string>
#include <string_view>

namespace ternview {

/// True for a message whose header block a reader that keeps to the standards does not find at its start: in UTF-16, behind a
/// byte order mark or blank lines, or with lines that end in CR alone. Its first 64 KiB tell.
bool hasForeignForm(std::string_view message);

/// The message in eight-bit text, from its first header line, with lines that end in LF.
/// @param message one that `hasForeignForm`
std::string inCommonForm(std::string_view message);

/// What stands behind the header block, which ends before a blank line or before a line that can be no header field.
std::string_view bodyBehindHeader(std::string_view message);

/// The boundary that a multipart body really uses: the first line of two hyphens and more that has a header field below it.
/// @return empty when there is none
std::string_view boundaryInUse(std::string_view body);

}  // namespace ternview
