// Reads a page that was written for a browser, strictly: everything in it has to be known to be harmless. What it knows is put
// down here once more, so that a slip in the program's own lists shows.
#pragma once

#include <string>
#include <string_view>

/// @return what is wrong with a page, with some of its surroundings; empty when nothing is
std::string complaintAbout(std::string_view page);

/// @return what is wrong with a plain text: invalid UTF-8, control characters, or no line break at its end
std::string complaintAboutText(std::string_view text);
