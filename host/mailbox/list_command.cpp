#include "list_command.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <optional>
#include <string_view>
#include <utility>

#include <ternkit/formats.h>

#include "held_signals.h"
#include "list_layout.h"
#include "mail_files.h"
#include "mailbox_reader.h"
#include "messages.h"
#include "output_files.h"
#include "worker_process.h"

namespace ternview {
namespace {

/// Messages that the reader may be ahead of the list; what they take waits in the connection, which is bounded.
constexpr std::uint32_t kAhead = 4096;
/// Messages gather for that long, as a change between the processes for each would cost more than the message.
constexpr std::chrono::milliseconds kGathering{1};
constexpr std::size_t kUsualTerminalWidth = 80;

/// @return nothing when standard output is no terminal
std::optional<std::size_t> terminalWidth() {
    if (::isatty(STDOUT_FILENO) == 0) {
        return std::nullopt;
    }
    winsize size{};
    if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) {
        return size.ws_col;
    }
    std::size_t width = 0;
    if (const char* columns = std::getenv("COLUMNS"); columns != nullptr) {
        std::from_chars(columns, columns + std::strlen(columns), width);
    }
    return width > 0 ? width : kUsualTerminalWidth;
}

/// Standard output, where lines wait until they are flushed. A signal is answered even while a pager takes nothing.
class ListOutput {
public:
    void add(std::string_view text) { waiting_ += text; }

    /// @throws JobError, and Interrupted when a signal has come or nobody reads any more
    void flush() {
        writeStandardOutput(waiting_);
        waiting_.clear();
    }

private:
    std::string waiting_;
};

/// Turns what the reader finds into lines and sentences.
class Listing final : public MailboxVisitor {
public:
    Listing(const ListRequest& request, const std::vector<std::string>& files, ListOutput& output)
        : request_(request), files_(files), output_(output), hasHeadings_(files != request.arguments || files.size() > 1) {}

    void message(MessageSummary summary) override {
        ++taken_;
        const std::string& file = files_[summary.file];
        if (request_.json) {
            output_.add(messageObject(summary, file));
        } else {
            if (lastNumber_ == 0 && hasHeadings_) {
                output_.add(heading(summary, file));
            }
            output_.add(messageLine(summary, width_));
        }
        lastNumber_ = summary.number + static_cast<std::int64_t>(summary.run) - 1;
        count_ = summary.count;
        // Where a file is its only message, it could not be read; a text that is not there is no fault of reading.
        const bool isFile = summary.sourceFormat != ternkit::kFormatPst && summary.count == 1;
        if (isFile && summary.failure != Failure::kNone && summary.failure != Failure::kNoText) {
            note(kExitCannotShow);
        }
    }

    void fileEnd(std::size_t file, const JobResult& result) override {
        if (result.failure == Failure::kEmptyStore) {  // it was read to its end all the same
            sayError(files_[file], result);
        } else if (result.failure != Failure::kNone) {
            fail(files_[file], result);
        }
        lastNumber_ = 0;
        count_ = 0;
    }

    /// Tells of a file or directory of which nothing, or not all, is listed.
    void fail(const std::string& path, const JobResult& result) {
        const ExitCode code = exitCodeOf(result);
        if (exitCode_ == kExitMissing && code == kExitMissing) {
            return;  // it is the same for every file
        }
        if (request_.json) {
            output_.add(fileObject(result, path));
        }
        sayError(path, result);
        note(code);
    }

    /// Messages since takeCount was called.
    std::uint32_t taken() const { return taken_; }
    std::uint32_t takeCount() { return std::exchange(taken_, 0); }
    bool isOver() const { return exitCode_ == kExitMissing; }
    int exitCode() const { return exitCode_; }

private:
    static std::string heading(const MessageSummary& first, const std::string& file) {
        std::string text = printableName(file);
        if (first.sourceFormat == ternkit::kFormatPst || first.count > 1) {
            text += " (" + std::to_string(first.count) + (first.count == 1 ? " message)" : " messages)");
        }
        return text + ":\n";
    }

    void sayError(const std::string& path, const JobResult& result) {
        Job job;
        job.file = path;
        job.plainTextOnly = true;  // asking for plain text is no advice here
        std::string sentence = failureMessage(result, job);
        if (lastNumber_ > 0 && lastNumber_ < count_) {
            sentence +=
                " From message " + std::to_string(lastNumber_ + 1) + " of " + std::to_string(count_) + " on nothing is listed.";
        }
        output_.flush();
        std::cerr << "ternview: " << sentence << '\n';
    }

    void note(ExitCode code) { exitCode_ = std::max(exitCode_, static_cast<int>(code)); }

    const ListRequest& request_;
    const std::vector<std::string>& files_;
    ListOutput& output_;
    const bool hasHeadings_;
    const std::optional<std::size_t> width_ = terminalWidth();
    std::uint32_t taken_ = 0;
    std::int64_t lastNumber_ = 0;  // of the current file
    std::int64_t count_ = 0;
    int exitCode_ = kExitDone;
};

}  // namespace

int runList(const ListRequest& request) {
    const MailFiles found = findMailFiles(request.arguments);
    const HeldSignals signals;
    ListOutput output;
    Listing listing(request, found.files, output);
    for (const MailFiles::Problem& problem : found.problems) {
        listing.fail(problem.path, problem.result);
    }
    MailboxOptions options;
    options.uiLanguage = request.uiLanguage;
    options.timeLimit = request.timeLimit;
    options.withHelp = !request.strict;
    MailboxReader reader(found.files, options);
    reader.grant(kAhead);
    while (!reader.done() && !listing.isOver()) {
        std::vector<pollfd> watched{pollfd{reader.descriptor(), POLLIN, 0}, pollfd{signals.descriptor(), POLLIN, 0}};
        reader.postpone(waitForAny(watched, reader.deadline()));
        signals.check();
        reader.attend(listing);
        output.flush();
        if (listing.taken() >= kAhead / 2) {
            reader.grant(listing.takeCount());
        }
        std::vector<pollfd> interruptions{pollfd{signals.descriptor(), POLLIN, 0}};
        waitForAny(interruptions, std::chrono::steady_clock::now() + kGathering);
    }
    output.flush();
    return listing.exitCode();
}

}  // namespace ternview
