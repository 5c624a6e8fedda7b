#include "worker_process.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "child_process.h"
#include "descriptor.h"
#include "json_output.h"
#include "private_directory.h"

namespace ternview {
namespace {

using Clock = WorkerProcess::Clock;

// No more than this comes from one worker, whatever it says.
constexpr std::uint64_t kMostOutputs = 100'000;
constexpr std::uint64_t kMostOutputBytes = std::uint64_t{16} << 30;
constexpr std::uint64_t kMostFrames = 4'000'000;  // the time that the program spends on them does not count

/// Checks the order of frames and hands outputs on.
class FrameDispatcher {
public:
    explicit FrameDispatcher(OutputReceiver& receiver) : receiver_(receiver) {}

    /// @return the result, when it was the last frame
    std::optional<JobResult> dispatch(const Frame& frame) {
        require(++frames_ <= kMostFrames);
        switch (frame.kind) {
            case FrameKind::kResult: {
                std::optional<JobResult> result = unpackResult(frame.payload);
                require(result.has_value());
                return result;
            }
            case FrameKind::kBuiltInLayout:
                require(!isOpen_);
                return std::nullopt;
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
    std::uint64_t frames_ = 0;
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

}  // namespace

class WorkerProcess::Connection {
public:
    Connection(pid_t pid, Descriptor ours, OutputReceiver& receiver)
        : descriptor(std::move(ours)), child(pid), dispatcher(receiver) {}

    Descriptor descriptor;
    Child child;
    FrameParser parser;
    FrameDispatcher dispatcher;
    std::optional<Clock::time_point> builtInDeadline;  // while the built-in HTML engine is at work
};

WorkerProcess::WorkerProcess(WorkerTask task, Services& services, OutputReceiver& receiver,
                             const WorkerSurroundings& surroundings)
    : task_(std::move(task)), services_(services), receiver_(receiver), surroundings_(surroundings) {
    services_.prepareFor(surroundings.timeLimit);
    start();
    deadline_ = Clock::now() + surroundings.timeLimit;
}

WorkerProcess::~WorkerProcess() = default;

void WorkerProcess::start() {
    std::array<int, 2> ends;
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
        throw JobError(Failure::kCrash, std::strerror(errno));
    }
    Descriptor ours(ends[0]);
    const Descriptor theirs(ends[1]);
    const pid_t parent = ::getpid();
    const pid_t pid = ::fork();
    if (pid < 0) {
        throw JobError(Failure::kCrash, std::strerror(errno));
    }
    if (pid == 0) {
        // The signals stay held back here: a Ctrl-C reaches all processes, and this one ends when the program says so.
        workerMain(task_, {theirs.get(), surroundings_.privateDirectory, surroundings_.timeLimit, services_.office.gate(),
                           services_.browser.gate(), isSecond_, parent, surroundings_.readable, surroundings_.drawsText});
    }
    connection_ = std::make_unique<Connection>(pid, std::move(ours), receiver_);
}

int WorkerProcess::descriptor() const {
    return connection_->descriptor.get();
}

Clock::time_point WorkerProcess::deadline() const {
    return std::min(deadline_, connection_->builtInDeadline.value_or(deadline_));
}

void WorkerProcess::postpone(Clock::duration heldUp) {
    deadline_ += heldUp;
    if (connection_->builtInDeadline) {
        *connection_->builtInDeadline += heldUp;
    }
}

std::optional<JobResult> WorkerProcess::attend() {
    std::optional<JobResult> result = receive();
    if (!result && Clock::now() >= deadline()) {
        result.emplace().failure = Failure::kTimeLimit;
    }
    if (result && isWorthAnother(*result)) {
        isSecond_ = true;
        connection_.reset();
        start();
        return std::nullopt;
    }
    return result ? std::optional(finished(std::move(*result))) : std::nullopt;
}

bool WorkerProcess::isWorthAnother(const JobResult& result) const {
    const bool hasEnded = result.failure == Failure::kTimeLimit || result.failure == Failure::kCrash;
    return hasEnded && !isSecond_ && connection_->builtInDeadline && Clock::now() < deadline_;
}

std::optional<JobResult> WorkerProcess::receive() {
    std::array<char, 65536> chunk;
    const ssize_t got = ::recv(descriptor(), chunk.data(), chunk.size(), MSG_DONTWAIT);
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) {
        return std::nullopt;
    }
    if (got <= 0) {
        return resultOfDeath(connection_->child.wait());
    }
    connection_->parser.feed({chunk.data(), static_cast<std::size_t>(got)});
    while (const std::optional<Frame> frame = nextFrame(connection_->parser)) {
        const auto now = Clock::now();
        const bool isBuiltInLayout = frame->kind == FrameKind::kBuiltInLayout;
        connection_->builtInDeadline = isBuiltInLayout ? std::optional(now + (deadline_ - now) / 2) : std::nullopt;
        if (std::optional<JobResult> result = connection_->dispatcher.dispatch(*frame)) {
            return result;
        }
    }
    return std::nullopt;
}

JobResult WorkerProcess::finished(JobResult result) {
    if (result.failure == Failure::kTimeLimit || result.failure == Failure::kCrash) {
        services_.stop();  // they may still be at the document, and the next one would wait for it
    }
    return result;
}

Clock::duration waitForAny(std::vector<pollfd>& watched, std::optional<Clock::time_point> until) {
    constexpr std::int64_t kLongestWait = 1000;  // so that a longer one means that the program was stopped
    const auto start = Clock::now();
    int milliseconds = -1;
    if (until) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(*until - start).count();
        milliseconds = static_cast<int>(std::clamp<std::int64_t>(left, 0, kLongestWait));
    }
    if (::poll(watched.data(), watched.size(), milliseconds) <= 0) {
        std::for_each(watched.begin(), watched.end(), [](pollfd& descriptor) { descriptor.revents = 0; });
    }
    const auto late = Clock::now() - start - std::chrono::milliseconds(milliseconds);
    return until ? std::max(late, Clock::duration::zero()) : Clock::duration::zero();
}

JobResult runInWorker(const Job& job, Services& services, OutputReceiver& receiver, std::chrono::seconds timeLimit) {
    const HeldSignals signals;
    const PrivateDirectory directory;
    WorkerProcess worker([&job](FrameWriter& out) { runJob(job, out); }, services, receiver,
                         {directory.path(), timeLimit, {job.file}, job.command != Command::kDocument});
    while (true) {
        std::vector<pollfd> watched{{worker.descriptor(), POLLIN, 0}, {signals.descriptor(), POLLIN, 0}};
        services.watch(watched);
        worker.postpone(waitForAny(watched, worker.deadline()));
        const auto woken = Clock::now();
        signals.check();
        services.attend();
        if (std::optional<JobResult> result = worker.attend()) {
            return *result;
        }
        worker.postpone(Clock::now() - woken);
    }
}

}  // namespace ternview
