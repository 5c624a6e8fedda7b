// The lines of an export's journal: JSON objects, one a line. Whoever can write to the directory may have written them, so
// nothing in a line is used that was not looked at here.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "export_options.h"

namespace ternview {

/// What makes a file the same as in an earlier run.
struct FileIdentity {
    std::string path;  // absolute, in whatever bytes the file system uses
    std::uint64_t size = 0;
    std::int64_t changed = 0;  // nanoseconds since 1970

    auto operator<=>(const FileIdentity&) const = default;
};

/// Where the messages of a file go.
struct FilePlace {
    bool isStore = false;
    std::string directory;     // of a store, within the export; empty: the export's own
    std::uint32_t number = 0;  // of a single message, from 1; 0 as long as it is not known whether the file is a store

    bool isKnown() const { return isStore || number != 0; }
};

/// A message, or a run of messages that came to the same end.
struct MessageRecord {
    std::uint32_t number = 1;  // in its file, from 1
    std::uint32_t run = 1;
    std::string stem;         // of its outputs; empty when there are none
    std::uint32_t parts = 0;  // output files
    std::string thumbnail;    // name of its picture; may be empty
    // UTF-8
    std::string subject;
    std::string sender;
    std::string date;  // as the document shows it
    std::optional<std::int64_t> sentTime;
    std::string failure;  // a sentence; empty when the message is there
};

struct HeaderLine {
    ExportOptions options;
    std::string indexName;
};
struct FileLine {
    std::size_t file = 0;
    FileIdentity identity;
    FilePlace place;
};
struct TakenUpLine {
    std::size_t file = 0;
};
struct MessageLine {
    std::size_t file = 0;
    MessageRecord record;
};
struct ClosedLine {
    std::size_t file = 0;
    std::string failure;
};
using JournalLine = std::variant<HeaderLine, FileLine, TakenUpLine, MessageLine, ClosedLine>;

/// With its line end. Long texts are shortened.
std::string formatLine(const JournalLine& line);

/// @param text without its line end
/// @return nothing when it is no line of a journal, or names anything that this program would not have named so
std::optional<JournalLine> parseLine(std::string_view text);

/// What every journal begins with.
inline constexpr std::string_view kJournalStart = R"({"ternview-export":1,)";

/// Within the export, where the pictures of first pages are.
inline constexpr char kThumbnailDirectory[] = "index-pictures";

}  // namespace ternview
