// `ternview list`: one line for each message of any number of files.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace ternview {

struct ListRequest {
    std::vector<std::string> arguments;  // files and directories
    bool json = false;
    std::uint32_t uiLanguage = 0;
    std::chrono::seconds timeLimit{60};  // for one message
    bool strict = false;                 // only what the filter itself gives
};

/// Writes the list to standard output as it is read, and what cannot be read to standard error. Memory does not grow with the
/// number of messages.
/// @return the program's exit code
/// @throws JobError when standard output cannot be written, and Interrupted
int runList(const ListRequest& request);

}  // namespace ternview
