// How a list of messages looks: lines of a table for people, JSON objects for programs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "mailbox_reader.h"

namespace ternview {

/// Columns that a text takes on a terminal: two for a wide East Asian character, none for a combining one.
std::size_t displayWidth(std::string_view text);

/// The text, or as much of it as fits with an ellipsis behind it.
std::string cutToWidth(std::string_view text, std::size_t width);

/// Three digits at most, with the unit behind them where it is not a byte: "999", "1.5K", "12M".
std::string humanSize(std::uint64_t bytes);

/**
 * A message's line of the table, with a line break: number, date, size, kinds of body, sender, subject. Of a message that cannot
 * be shown it tells why.
 *
 * @param width columns of the terminal, to which the line is cut; without it nothing is cut
 */
std::string messageLine(const MessageSummary& message, std::optional<std::size_t> width);

/// A message as a JSON object on a line of its own. @param file as the command line or its directory had it
std::string messageObject(const MessageSummary& message, const std::string& file);

/// A file that cannot be read, or not to its end, likewise.
std::string fileObject(const JobResult& result, const std::string& file);

}  // namespace ternview
