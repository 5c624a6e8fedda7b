// Names of what an export writes: safe on every file system, and sorted as the messages are.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace ternview {

/// Characters of a subject that its file's name shows.
inline constexpr std::size_t kMostSubjectCharacters = 80;

/**
 * A text as a part of a file name: valid UTF-8 without separators, control and bidirectional characters, and characters that
 * Windows forbids; no dot or space in front, none at the end.
 *
 * @param mostBytes that the result may have; it is cut between characters
 * @return empty when nothing of the text is left
 */
std::string safeNamePart(std::string_view text, std::size_t mostBytes);

/// "000003 2024-03-05 Lunch": the number with at least six digits, the local date, the subject. Leaves room in a name for what
/// `numbered` and page numbers add.
/// @param sentTime seconds since 1970, UTC
std::string messageStem(std::uint32_t number, std::optional<std::int64_t> sentTime, std::string_view subject);

/// A message's name for where it may not be so long: what follows the number, cut to half of its bytes between characters, and in
/// the end to an underscore.
/// @return empty when it cannot be shorter
std::string shortened(const std::string& stem);

/// A store's directory, from its file's name.
std::string storeDirectoryName(const std::filesystem::path& file);

/// The name that is tried when others were taken: "name", "name (2)", "name (3)", ...
/// @param attempt from 1
std::string numbered(const std::string& name, std::uint32_t attempt);

/// Name of the picture of a message's first page.
/// @param store of a message of a store: which of the export's files that is
/// @param attempt from 1
std::string thumbnailName(std::optional<std::size_t> store, std::uint32_t number, std::uint32_t attempt);

// Whether a text can be a name that this program has given.
bool isSafeName(std::string_view name);
bool isMessageStem(std::string_view name);
bool isThumbnailName(std::string_view name);

/// The local date and time of day, such as "2024-03-05 09:07"; empty when the time has none.
std::string localTime(std::int64_t seconds);

}  // namespace ternview
