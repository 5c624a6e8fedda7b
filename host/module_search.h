// Where libraries that are loaded at run time may lie.
#pragma once

#include <string>
#include <vector>

namespace ternview {

struct RuntimeLibrary {
    const char* file;      // its name
    const char* variable;  // of the environment
};

inline constexpr RuntimeLibrary kFilterLibrary{"libternmail.so", "TERNMAIL_LIBRARY"};
inline constexpr RuntimeLibrary kBatchLibrary{"libternmail_batch.so", "TERNMAIL_BATCH_LIBRARY"};

/// From the program on, where a build leaves libraries (../lib), then where it installs modules; when the environment variable
/// is set, the file that it names and no other.
std::vector<std::string> libraryCandidates(const RuntimeLibrary& library);

}  // namespace ternview
