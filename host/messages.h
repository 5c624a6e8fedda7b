// What the program says to people.
#pragma once

#include <string>
#include <string_view>

#include "job.h"

namespace ternview {

enum ExitCode : int {
    kExitDone = 0,
    kExitCannotShow = 1,
    kExitUsage = 2,
    kExitMissing = 3,
};

/// What the status of an export means, as the end of a sentence.
std::string_view statusMeaning(ternkit::Status status);

ExitCode exitCodeOf(const JobResult& result);

/// One sentence on what is wrong, with the status where there is one, and one on what to do where there is anything to do.
std::string failureMessage(const JobResult& result, const Job& job);

/// Why it came to nothing, as a part of a sentence, with the status where there is one.
std::string failureReason(const JobResult& result);

/// A sentence when another message than the one asked for was shown; else empty.
std::string messageNumberNote(const JobResult& result, const Job& job);

/// A sentence when the pages are not what they could be; else empty.
std::string layoutNote(const JobResult& result, const Job& job);

/// The sentence that tells what the host did for a message.
std::string helpNote(Help help, const JobResult& result, const Job& job);

/// What `info` prints.
std::string describeMessage(const JobResult& result, const Job& job);

/// A name fit for a terminal: control characters, line separators, characters that reorder what stands around them, and bytes
/// that are no UTF-8 become question marks.
std::string printableName(std::string_view name);

}  // namespace ternview
