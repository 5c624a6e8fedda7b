// Results as JSON: the object that --json prints, and the one in which a worker reports to its program.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "job.h"

namespace ternview {

/// The object of --json, indented, with a line break behind it.
std::string resultAsJson(const JobResult& result);

/// JSON with the control characters escaped that it may hold as they are, and that a terminal may take for commands.
std::string printableJson(std::string_view json);

/// The names by which an object tells what the host did for a message, in the order in which it was done.
std::vector<std::string_view> helpNames(const std::vector<Help>& helps);

/// The worker's report: everything in the result.
std::string packResult(const JobResult& result);

/// @return nothing when the text is no report; a worker that a mail has taken over may write anything
std::optional<JobResult> unpackResult(std::string_view text);

}  // namespace ternview
