// Where libraries that are loaded at run time may lie.
#pragma once

#include <string>
#include <vector>

namespace ternview {

/// From the program on, where a build leaves libraries (../lib), then where it installs modules; when the environment variable
/// is set, the file that it names and no other.
/// @param library file name, such as "libternmail.so"
std::vector<std::string> libraryCandidates(const std::string& library, const char* variable);

}  // namespace ternview
