#include "mailbox_reader.h"

#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "child_process.h"
#include "descriptor.h"
#include "frames.h"
#include "mailbox_frames.h"
#include "mailbox_worker.h"
#include "private_directory.h"

namespace ternview {
namespace {

using Clock = std::chrono::steady_clock;

// A process tells of passing over messages four times a second at most. Time for this is bounded by what the file holds.
constexpr std::chrono::seconds kTimeOfPass{1};
constexpr std::uint64_t kPassesOfMegabyte = 160;
constexpr std::uint64_t kMegabyte = 1'000'000;

std::uint64_t sizeOf(const std::string& file) {
    std::error_code error;
    const auto size = std::filesystem::file_size(file, error);
    return error ? 0 : size;
}

JobResult resultOf(Failure failure, const std::string& detail = {}) {
    JobResult result;
    result.failure = failure;
    result.detail = detail;
    return result;
}

/// Temporary files of a process that is to move documents lie where they will be moved.
PrivateDirectory makePrivateDirectory(const MailboxOptions& options) {
    return options.documents ? PrivateDirectory(options.documentDirectory.string()) : PrivateDirectory();
}

/// Removes the directories of messages of which a process that is gone has not told.
void removeMessageDirectories(const MailboxOptions& options, std::uint64_t number) {
    std::error_code error;
    while (options.documents && std::filesystem::remove_all(messageDirectory(options, number), error) > 0 && !error) {
        ++number;
    }
}

/// The process, its connection, and its directory, which goes last.
struct Running {
    PrivateDirectory directory;
    Descriptor connection;
    std::optional<Child> child;
    FrameParser parser{FrameKind::kMessage, FrameKind::kFileEnd};
    bool hasEndedFile = false;

    explicit Running(const MailboxOptions& options) : directory(makePrivateDirectory(options)) {}
};

}  // namespace

class MailboxReader::Process {
public:
    Process(std::vector<std::string> files, MailboxOptions options) : files_(std::move(files)), options_(std::move(options)) {
        if (!files_.empty()) {
            if (options_.documents) {
                options_.documentDirectory = std::filesystem::absolute(options_.documentDirectory);
            }
            start();
        }
    }

    ~Process() { stop(); }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    void grant(std::uint32_t messages) {
        if (wanted_ == 0) {
            heardOf_ = Clock::now();
        }
        wanted_ += messages;
        ungranted_ += messages;
        sendGrants();
    }

    bool done() const { return running_ == nullptr; }

    int descriptor() const { return done() ? -1 : running_->connection.get(); }

    std::optional<Clock::time_point> deadline() const {
        return done() || wanted_ == 0 ? std::nullopt : std::optional(heardOf_ + options_.timeLimit);
    }

    void postpone(Clock::duration stopped) { heardOf_ += stopped; }

    void attend(MailboxVisitor& visitor) {
        if (done()) {
            return;
        }
        const ssize_t got = ::recv(descriptor(), chunk_.data(), chunk_.size(), MSG_DONTWAIT);
        if (got > 0) {
            takeBytes({chunk_.data(), static_cast<std::size_t>(got)}, visitor);
        } else if (got == 0 || (errno != EAGAIN && errno != EINTR)) {
            processEnded(visitor);
        } else if (deadline() && Clock::now() >= *deadline()) {
            endFileEarly(resultOf(Failure::kTimeLimit), visitor);
        }
        sendGrants();
    }

private:
    /// Starts a process for the current file and those behind it.
    /// @throws JobError
    void start() {
        auto running = std::make_unique<Running>(options_);
        std::array<int, 2> ends;
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
            throw JobError(Failure::kCrash, std::strerror(errno));
        }
        running->connection = Descriptor(ends[0]);
        const Descriptor theirs(ends[1]);
        // What is wanted now goes along; what is granted from here on is sent.
        const auto granted =
            static_cast<std::uint32_t>(std::min<std::uint64_t>(wanted_, std::numeric_limits<std::uint32_t>::max()));
        const MailboxWorkerEnvironment environment{theirs.get(), running->directory.path(), ::getpid(), current_,
                                                   granted,      messageDirectories_};
        const pid_t pid = ::fork();
        if (pid < 0) {
            throw JobError(Failure::kCrash, std::strerror(errno));
        }
        if (pid == 0) {
            mailboxWorkerMain(files_, options_, environment);
        }
        running->child.emplace(pid);
        running_ = std::move(running);
        ungranted_ = wanted_ - granted;
        lastNumber_ = 0;
        passes_ = 0;
        heardOf_ = Clock::now();
    }

    /// Ends the process, and removes what it leaves.
    void stop() {
        if (running_ != nullptr) {
            running_.reset();
            removeMessageDirectories(options_, messageDirectories_);
        }
    }

    /// Starts the process that goes on with the current file. A file for which there can be none is ended.
    void startAnew(MailboxVisitor& visitor) {
        while (current_ < files_.size()) {
            try {
                start();
                return;
            } catch (const JobError& error) {
                visitor.fileEnd(current_++, resultOf(error.failure(), error.what()));
            }
        }
    }

    /// The rest of the current file is lost; the next one gets a fresh process.
    void endFileEarly(const JobResult& result, MailboxVisitor& visitor) {
        stop();
        visitor.fileEnd(current_++, result);
        startAnew(visitor);
    }

    void processEnded(MailboxVisitor& visitor) {
        const int status = running_->child->wait();
        const bool leftOnPurpose = WIFEXITED(status) && WEXITSTATUS(status) == EXIT_SUCCESS && running_->hasEndedFile;
        if (leftOnPurpose) {
            stop();
            startAnew(visitor);
        } else {
            endFileEarly(resultOfDeath(status), visitor);
        }
    }

    void takeBytes(std::string_view bytes, MailboxVisitor& visitor) {
        running_->parser.feed(bytes);
        while (!done()) {
            std::optional<Frame> frame;
            try {
                frame = running_->parser.next();
            } catch (const std::runtime_error&) {
                endFileEarly(resultOf(Failure::kWorkerProtocol), visitor);
                return;
            }
            if (!frame) {
                return;
            }
            if (!takeFrame(*frame, visitor)) {
                endFileEarly(resultOf(Failure::kWorkerProtocol), visitor);
                return;
            }
        }
    }

    /// @return false when the process talks nonsense
    bool takeFrame(const Frame& frame, MailboxVisitor& visitor) {
        switch (frame.kind) {
            case FrameKind::kMessage:
                return takeMessage(frame.payload, visitor);
            case FrameKind::kFileEnd:
                return takeFileEnd(frame.payload, visitor);
            default:
                return frame.kind == FrameKind::kMessagePass && takePass();
        }
    }

    bool takeMessage(std::string_view payload, MailboxVisitor& visitor) {
        std::optional<MessageSummary> message = unpackMessage(payload);
        const bool hasFiles = message && !message->files.empty();
        if (!message || wanted_ == 0 || message->number <= lastNumber_ || (hasFiles && !options_.documents)) {
            return false;
        }
        --wanted_;
        heardOf_ = Clock::now();
        lastNumber_ = message->number + static_cast<std::int32_t>(message->run - 1);
        message->file = current_;
        if (hasFiles) {
            message->directory = messageDirectory(options_, messageDirectories_++);
        }
        visitor.message(*std::move(message));
        return true;
    }

    /// Messages that are passed over take time, but not for ever.
    bool takePass() {
        heardOf_ = std::min(Clock::now(), heardOf_ + kTimeOfPass);
        return ++passes_ <= kPassesOfMegabyte * (1 + sizeOf(files_[current_]) / kMegabyte);
    }

    bool takeFileEnd(std::string_view payload, MailboxVisitor& visitor) {
        const std::optional<JobResult> result = unpackFileEnd(payload);
        if (!result) {
            return false;
        }
        running_->hasEndedFile = true;
        heardOf_ = Clock::now();
        lastNumber_ = 0;
        passes_ = 0;
        visitor.fileEnd(current_++, *result);
        if (current_ == files_.size()) {
            stop();
        }
        return true;
    }

    /// A process that has not read its grants yet gets the rest later: it has something to send until then.
    void sendGrants() {
        while (!done() && ungranted_ > 0) {
            const auto granted =
                static_cast<std::uint32_t>(std::min<std::uint64_t>(ungranted_, std::numeric_limits<std::uint32_t>::max()));
            if (::send(descriptor(), &granted, sizeof(granted), MSG_DONTWAIT | MSG_NOSIGNAL) !=
                static_cast<ssize_t>(sizeof(granted))) {
                return;
            }
            ungranted_ -= granted;
        }
    }

    std::vector<std::string> files_;
    MailboxOptions options_;
    std::size_t current_ = 0;      // file that the process is at
    std::int32_t lastNumber_ = 0;  // of the current file's messages
    std::uint64_t passes_ = 0;     // of which the current file's process has told
    std::uint64_t wanted_ = 0;     // messages granted that have not come
    std::uint64_t ungranted_ = 0;  // of these, what the process does not know of yet
    std::uint64_t messageDirectories_ = 0;
    Clock::time_point heardOf_;
    std::array<char, 65536> chunk_;
    std::unique_ptr<Running> running_;
};

MailboxReader::MailboxReader(std::vector<std::string> files, MailboxOptions options)
    : process_(std::make_unique<Process>(std::move(files), std::move(options))) {}

MailboxReader::~MailboxReader() = default;

void MailboxReader::grant(std::uint32_t messages) {
    process_->grant(messages);
}

bool MailboxReader::done() const {
    return process_->done();
}

int MailboxReader::descriptor() const {
    return process_->descriptor();
}

std::optional<Clock::time_point> MailboxReader::deadline() const {
    return process_->deadline();
}

void MailboxReader::postpone(Clock::duration stopped) {
    process_->postpone(stopped);
}

void MailboxReader::attend(MailboxVisitor& visitor) {
    process_->attend(visitor);
}

}  // namespace ternview
