// Reads all messages of many mail files, in a process of its own, and tells what it finds as it goes.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "job.h"

namespace ternview {

/// One message, or a run of messages of a store that came to the same end.
struct MessageSummary {
    std::size_t file = 0;     // index among the files that are read
    std::int32_t number = 1;  // 1-based, in its file
    std::uint32_t run = 1;    // messages from that one on that this stands for; more than 1 only when there is nothing to show
    std::uint32_t count = 1;  // messages of the file
    std::uint32_t sourceFormat = 0;
    std::uint32_t documentFormat = 0;  // 0 without a document
    ternkit::Status status = 0;        // of the filter
    ternkit::Status resultStatus = ternkit::kOk;
    Failure failure = Failure::kNone;  // with `detail`, as in a JobResult; kNone when the message can be shown
    std::string detail;
    // UTF-8
    std::string subject;
    std::string senderName;
    std::string senderAddress;
    std::string displayTo;
    std::string displayCc;
    std::string displayBcc;
    std::string date;                      // as the document shows it
    std::optional<std::int64_t> sentTime;  // seconds since 1970, UTC
    std::uint32_t bodies = 0;              // ternkit::BatchBodies
    std::uint64_t size = 0;                // bytes
    std::vector<Help> helps;               // what was done so that it can be shown
    std::vector<TempFile> files;           // of the document, itself first; empty without a document
    std::filesystem::path directory;       // where those files are; whoever takes the summary removes it
};

struct MailboxOptions {
    bool plainTextOnly = false;
    bool documents = false;  // else only what a list shows
    /// Gives the help that a single message gets: an Internet message that the filter refuses is read from a corrected copy, a
    /// file in mbox form is taken apart, and a store's message that has plain text alone is given as that.
    bool withHelp = false;
    DocumentRoute route = DocumentRoute::kTemporaryFiles;
    std::uint32_t uiLanguage = 0;
    std::chrono::seconds timeLimit{60};  // for one message
    std::filesystem::path
        documentDirectory;  // of the program, for documents; the reader makes a directory in it for each message
    /// Whether a message's document is wanted; others are passed over and are not visited. Asked in the reader's process, of a
    /// copy of this that was made when that began. Empty: all.
    std::function<bool(std::size_t file, std::int32_t number)> wanted;
};

/// Takes what a reader finds.
class MailboxVisitor {
public:
    virtual ~MailboxVisitor() = default;
    virtual void message(MessageSummary summary) = 0;
    /// A file is through. @param result of a file that cannot be read, or not to its end: why; else without a failure
    virtual void fileEnd(std::size_t file, const JobResult& result) = 0;
};

/**
 * The reader's process, for a program that watches several at once, and holds its signals back for as long as this lives. A
 * reader that crashes or hangs costs the rest of the file that it was at; the next file goes on with a fresh process. The process
 * does not outlive the object, and nothing of it stays behind.
 */
class MailboxReader {
public:
    /// Starts the process.
    /// @param files as a command line has them, in whatever bytes the file system uses
    /// @throws JobError when there can be no further process, or no directory for its temporary files
    MailboxReader(std::vector<std::string> files, MailboxOptions options);
    ~MailboxReader();
    MailboxReader(const MailboxReader&) = delete;
    MailboxReader& operator=(const MailboxReader&) = delete;

    /// Lets the reader give `messages` more; without that it waits. A run counts as one.
    void grant(std::uint32_t messages);
    bool done() const;
    /// To be watched for reading; -1 when done.
    int descriptor() const;
    /// When `attend` is to be called even though there is nothing to read; none while the reader waits for a grant.
    std::optional<std::chrono::steady_clock::time_point> deadline() const;
    /// Time in which the program was stopped does not count.
    void postpone(std::chrono::steady_clock::duration stopped);
    /// Takes what has arrived, and looks after a process that ended or is over its time.
    void attend(MailboxVisitor& visitor);

private:
    class Process;
    std::unique_ptr<Process> process_;
};

}  // namespace ternview
