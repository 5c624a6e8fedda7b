// What an export has done, kept in its directory, so that a later run goes on where an earlier one stopped, and so that the index
// can be written without anything of the messages being kept in memory.
//
// Lines are only ever added, each in one piece; a last one without its line end was being written when the program died. A
// message's line is written before its outputs take their names, so that no file can stand under a name of ours without being
// known as ours.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "descriptor.h"
#include "journal_lines.h"

namespace ternview {

/// The export cannot begin; the text is a sentence, and says what to do.
class ExportRefusal : public std::runtime_error {
public:
    ExportRefusal(int exitCode, const std::string& sentence) : std::runtime_error(sentence), exitCode_(exitCode) {}
    int exitCode() const { return exitCode_; }

private:
    int exitCode_;
};

class ExportJournal {
public:
    enum class Start { kContinue, kAnew };

    /**
     * Opens the journal of a directory, which is made if need be, and holds it against other programs.
     *
     * @param start kAnew removes what an earlier export has made there
     * @throws ExportRefusal, and JobError when the directory cannot be written to
     */
    ExportJournal(const std::filesystem::path& directory, const ExportOptions& options, Start start);

    const std::filesystem::path& directory() const { return directory_; }
    const ExportOptions& options() const { return options_; }
    std::filesystem::path indexPath() const { return directory_ / indexName_; }

    // ---- files; a number of a file here has nothing to do with its place on a command line

    std::size_t fileCount() const { return files_.size(); }
    const FileIdentity& identity(std::size_t file) const { return files_[file].identity; }
    const FilePlace& place(std::size_t file) const { return files_[file].place; }
    std::optional<std::size_t> find(const FileIdentity& identity) const;
    /// Whether a file of that path is known that had another size or time.
    bool isChanged(const FileIdentity& identity) const;
    /// What a file turned out to be.
    enum class Kind { kUnknown, kStore, kMessage };
    /// Enters a file, unless it is known, and gives it a place, unless it has one.
    /// @param isAlone nothing else is exported in this run
    std::size_t enter(const FileIdentity& identity, Kind kind, bool isAlone);
    /// A run takes the file up: what failed in it earlier counts no more.
    void takeUp(std::size_t file);
    /// The file was read to its end, or to where it could be read. @param failure a sentence, or empty
    void close(std::size_t file, const std::string& failure);
    /// Whether the file had been read to its end, and everything in it is there.
    bool isComplete(std::size_t file) const;
    /// Why the file could not be read to its end; empty when it could.
    const std::string& failure(std::size_t file) const { return files_[file].failure; }

    // ---- messages

    void add(std::size_t file, const MessageRecord& record);
    /// Whether the message was there with all its outputs when the journal was opened.
    bool isDone(std::size_t file, std::uint32_t number) const;
    /// What was known of the message when the journal was opened, whether its outputs are still there or not.
    std::optional<MessageRecord> earlier(std::size_t file, std::uint32_t number) const;
    /// How many messages of the file are there.
    std::uint64_t doneCount(std::size_t file) const;
    /// Tells the latest of each message of a file, by their numbers.
    void forEach(std::size_t file, const std::function<void(const MessageRecord&)>& take);

    /// Name of an output within the export, with slashes. @param part from 1
    std::string outputName(std::size_t file, const MessageRecord& record, std::uint32_t part) const;
    std::filesystem::path outputPath(std::size_t file, const MessageRecord& record, std::uint32_t part) const;
    std::filesystem::path thumbnailPath(const MessageRecord& record) const;

    /// Removes a journal in which nothing stands, and directories that were made for it.
    void discardIfEmpty();

private:
    struct Entry {
        std::uint64_t offset;  // of its line in the journal
        std::uint32_t size;    // of its line
        std::uint32_t number;
        enum class State : std::uint32_t { kLost, kDone, kFailed } state;
    };
    struct File {
        FileIdentity identity;
        FilePlace place;
        std::vector<Entry> entries{};
        std::size_t earlierEntries = 0;  // those in front, which are sorted and one for each number
        std::uint64_t takenUp = 0;       // failures in front of that offset count no more
        bool isClosed = false;
        std::string failure{};
    };

    void open();
    void load(const ExportOptions& options, Start start);
    void loadLine(std::string_view text, std::uint64_t offset);
    void requireSame(const ExportOptions& options) const;
    void removeOutputs();
    void begin(const ExportOptions& options);
    std::uint64_t append(const JournalLine& line);
    bool admits(const FileLine& line) const;
    void admit(const FileLine& line);
    void addEarlier(std::size_t file, const MessageRecord& record, std::uint64_t offset, std::size_t size);
    bool outputsExist(std::size_t file, const MessageRecord& record) const;
    MessageRecord read(const Entry& entry) const;
    const Entry* findEarlier(std::size_t file, std::uint32_t number) const;
    static void settle(File& file);
    bool isFreeDirectory(const std::string& name) const;
    std::string freeDirectory(const std::filesystem::path& store) const;

    std::filesystem::path directory_;
    ExportOptions options_;
    std::string indexName_;
    std::vector<std::filesystem::path> madeDirectories_;  // innermost last
    Descriptor descriptor_;
    std::uint64_t size_ = 0;
    std::vector<File> files_;
    std::map<FileIdentity, std::size_t> byIdentity_;
    std::uint32_t lastNumber_ = 0;  // of a single message
};

/// Whether a path or a name in it is longer than the file system takes.
bool isTooLong(const std::filesystem::path& path);

}  // namespace ternview
