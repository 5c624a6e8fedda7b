#include "worker_process.h"

#include <poll.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

#include "descriptor.h"
#include "json_output.h"
#include "private_directory.h"
#include "worker.h"

namespace ternview {
namespace {

using Clock = std::chrono::steady_clock;

// No more than this comes from one worker, whatever it says.
constexpr std::uint64_t kMostOutputs = 100'000;
constexpr std::uint64_t kMostOutputBytes = std::uint64_t{16} << 30;

/// Holds back the signals that end a program, so that they can be answered in order.
class HeldSignals {
public:
    HeldSignals() {
        sigemptyset(&held_);
        for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
            sigaddset(&held_, signal);
        }
        sigprocmask(SIG_BLOCK, &held_, &before_);
    }
    ~HeldSignals() { sigprocmask(SIG_SETMASK, &before_, nullptr); }
    HeldSignals(const HeldSignals&) = delete;
    HeldSignals& operator=(const HeldSignals&) = delete;

    const sigset_t& set() const { return held_; }

private:
    sigset_t held_;
    sigset_t before_;
};

/// The child process; it does not outlive this object.
class Child {
public:
    explicit Child(pid_t pid) : pid_(pid) {}
    ~Child() {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            wait();
        }
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    int wait() {
        int status = 0;
        while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
        }
        pid_ = -1;
        return status;
    }

private:
    pid_t pid_;
};

/// What a worker that ended without a result died of.
JobResult resultOfDeath(int waitStatus) {
    JobResult result;
    result.failure = Failure::kCrash;
    if (WIFSIGNALED(waitStatus)) {
        const int signal = WTERMSIG(waitStatus);
        result.failure = signal == SIGXCPU ? Failure::kTimeLimit : Failure::kCrash;
        result.detail = sigabbrev_np(signal) != nullptr ? std::string("SIG") + sigabbrev_np(signal) : std::to_string(signal);
    } else {
        result.detail = "exit code " + std::to_string(WEXITSTATUS(waitStatus));
    }
    return result;
}

/// Checks the order of frames and hands outputs on.
class FrameDispatcher {
public:
    explicit FrameDispatcher(OutputReceiver& receiver) : receiver_(receiver) {}

    /// @return the result, when it was the last frame
    std::optional<JobResult> dispatch(const Frame& frame) {
        switch (frame.kind) {
            case FrameKind::kResult: {
                std::optional<JobResult> result = unpackResult(frame.payload);
                require(result.has_value());
                return result;
            }
            case FrameKind::kData:
                require(isOpen_ && (bytes_ += frame.payload.size()) <= kMostOutputBytes);
                receiver_.data(frame.payload);
                return std::nullopt;
            case FrameKind::kEnd:
                require(std::exchange(isOpen_, false));
                receiver_.end();
                return std::nullopt;
            default:
                require(!std::exchange(isOpen_, true) && ++outputs_ <= kMostOutputs);
                receiver_.begin(frame.kind, frame.payload);
                return std::nullopt;
        }
    }

private:
    static void require(bool condition) {
        if (!condition) {
            throw JobError(Failure::kWorkerProtocol);
        }
    }

    OutputReceiver& receiver_;
    bool isOpen_ = false;
    std::uint64_t outputs_ = 0;
    std::uint64_t bytes_ = 0;
};

std::optional<Frame> nextFrame(FrameParser& parser) {
    try {
        return parser.next();
    } catch (const std::runtime_error&) {
        throw JobError(Failure::kWorkerProtocol);
    }
}

/// Reads frames until the result, the end of the worker, or the end of its time.
std::optional<JobResult> receive(int descriptor, const HeldSignals& signals, Office& office, OutputReceiver& receiver,
                                 std::chrono::seconds timeLimit) {
    const Descriptor signalDescriptor(::signalfd(-1, &signals.set(), SFD_CLOEXEC | SFD_NONBLOCK));
    FrameParser parser;
    FrameDispatcher dispatcher(receiver);
    std::array<char, 65536> chunk;
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(timeLimit);
    while (true) {
        std::array<pollfd, 3> watched{pollfd{descriptor, POLLIN, 0}, pollfd{signalDescriptor.get(), POLLIN, 0},
                                      pollfd{office.watched(), POLLIN, 0}};
        const auto before = Clock::now();
        const int ready = ::poll(watched.data(), watched.size(), static_cast<int>(left.count()));
        left -= std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - before);
        if (signalfd_siginfo caught; ::read(signalDescriptor.get(), &caught, sizeof(caught)) == sizeof(caught)) {
            throw Interrupted{static_cast<int>(caught.ssi_signo)};
        }
        if (ready == 0 || left.count() <= 0) {
            JobResult result;
            result.failure = Failure::kTimeLimit;
            return result;
        }
        if (watched[2].revents != 0) {
            office.attend();
        }
        if ((watched[0].revents & (POLLIN | POLLHUP | POLLERR)) == 0) {
            continue;
        }
        const ssize_t got = ::read(descriptor, chunk.data(), chunk.size());
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            return std::nullopt;
        }
        parser.feed({chunk.data(), static_cast<std::size_t>(got)});
        while (const std::optional<Frame> frame = nextFrame(parser)) {
            if (std::optional<JobResult> result = dispatcher.dispatch(*frame)) {
                return result;
            }
        }
    }
}

JobResult runWatched(const Job& job, Office& office, OutputReceiver& receiver, std::chrono::seconds timeLimit,
                     const HeldSignals& signals) {
    const PrivateDirectory directory;
    std::array<int, 2> ends;
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
        throw JobError(Failure::kCrash, std::strerror(errno));
    }
    const Descriptor ours(ends[0]);
    Descriptor theirs(ends[1]);
    const pid_t parent = ::getpid();
    const pid_t pid = ::fork();
    if (pid < 0) {
        throw JobError(Failure::kCrash, std::strerror(errno));
    }
    if (pid == 0) {
        ::close(ours.get());
        // The signals stay held back here: a Ctrl-C reaches both processes, and this one ends when the program says so.
        workerMain(job, {theirs.get(), directory.path(), timeLimit, office.gate(), parent});
    }
    theirs.close();
    Child child(pid);
    if (std::optional<JobResult> result = receive(ours.get(), signals, office, receiver, timeLimit)) {
        return *result;
    }
    return resultOfDeath(child.wait());
}

}  // namespace

JobResult runInWorker(const Job& job, Office& office, OutputReceiver& receiver, std::chrono::seconds timeLimit) {
    const HeldSignals signals;
    JobResult result = runWatched(job, office, receiver, timeLimit, signals);
    if (result.failure == Failure::kTimeLimit || result.failure == Failure::kCrash) {
        office.stop();  // it may still be at the document, and the next one would wait for it
    }
    return result;
}

}  // namespace ternview
