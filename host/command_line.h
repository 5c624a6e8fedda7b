// The grammar of the command line.
#pragma once

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <variant>

#include "export/export_command.h"
#include "job.h"
#include "mailbox/list_command.h"

namespace ternview {

struct CommandLine {
    Job job;
    std::optional<std::filesystem::path> out;
    bool json = false;
    bool quiet = false;
    std::chrono::seconds timeLimit{60};
};

/// The program has said what there was to say, and ends with this code.
struct EarlyExit {
    int code;
};

/// Reads the command line; help and errors of usage are printed here.
std::variant<CommandLine, ListRequest, ExportRequest, EarlyExit> parseCommandLine(int argc, const char* const* argv);

}  // namespace ternview
