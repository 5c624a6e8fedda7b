// What the reader's process and its program tell each other: payloads of bounded length, in the machine's own byte order.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "mailbox_reader.h"

namespace ternview {

inline constexpr std::size_t kLongestText = std::size_t{64} << 10;  // bytes of one text of a message
inline constexpr std::size_t kMostDocumentFiles = 50'000;           // of one message; their names then fit a frame

/// Cuts a text to what a frame carries, between two characters.
std::string_view cutText(std::string_view text);

/// Everything but `file` and `directory`, which both ends know.
/// @param message its texts and files are within the bounds above
std::string packMessage(const MessageSummary& message);

/// @return nothing when the payload is no such message; a process that a mail has taken over may write anything. The names of its
///         files are plain ones
std::optional<MessageSummary> unpackMessage(std::string_view payload);

/// What a file came to: the statuses, the failure with its detail, the source's format and the number of its messages.
std::string packFileEnd(const JobResult& result);

/// @return nothing when the payload is none
std::optional<JobResult> unpackFileEnd(std::string_view payload);

}  // namespace ternview
