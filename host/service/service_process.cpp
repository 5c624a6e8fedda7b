#include "service/service_process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <system_error>

#include "descriptor.h"
#include "job.h"

namespace ternview {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

// A process that has not ended by then is killed, and the kernel sees to its children.
constexpr int kEndMilliseconds = 3000;

std::array<Descriptor, 2> socketPair(int type) {
    std::array<int, 2> ends;
    if (::socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, ends.data()) != 0) {
        throw JobError(Failure::kCrash, std::strerror(errno));
    }
    return {Descriptor(ends[0]), Descriptor(ends[1])};
}

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    for (std::string& text : texts) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

short eventsOf(const Descriptor& descriptor, short wanted) {
    pollfd watched{descriptor.get(), wanted, 0};
    return ::poll(&watched, 1, 0) == 1 ? watched.revents : short{0};
}

/// Which socket waits in the gate before all others, by a number that no other one has; 0 when it is nothing to be served.
ino_t firstWaiting(int gate) {
    const std::optional<Descriptor> waiting = receiveThroughGate(gate, MSG_PEEK | MSG_DONTWAIT);
    struct stat status {};
    return waiting && ::fstat(waiting->get(), &status) == 0 ? status.st_ino : 0;
}

[[noreturn]] void runService(ServiceCommand command, int gate, std::chrono::seconds timeLimit, pid_t parent) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) {
        ::_exit(EXIT_FAILURE);
    }
    const int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        ::dup2(null, standard);
    }
    closeAllBut({gate});
    ::fcntl(gate, F_SETFD, 0);
    command.arguments.insert(command.arguments.begin(),
                             {command.program.filename().string(), std::to_string(gate), std::to_string(timeLimit.count())});
    ::execve(command.program.c_str(), pointersTo(command.arguments).data(), pointersTo(command.environment).data());
    ::_exit(EXIT_FAILURE);
}

}  // namespace

std::variant<ServiceMessage, ServiceFailure> askService(const ServiceAccess& access, std::string_view label,
                                                        std::string_view document, std::chrono::seconds startAllowance) {
    const auto deadline = Clock::now() + access.timeLimit;
    auto [ours, theirs] = socketPair(SOCK_STREAM);
    const timeval patience{(access.timeLimit + startAllowance).count(), 0};
    for (const int option : {SO_RCVTIMEO, SO_SNDTIMEO}) {
        ::setsockopt(ours.get(), SOL_SOCKET, option, &patience, sizeof(patience));
    }
    if (!sendThroughGate(access.gate, theirs.get())) {
        return ServiceFailure::kNoWay;
    }
    theirs.close();
    try {
        FrameWriter out(ours.get());
        out.begin(FrameKind::kDocument, label);
        out.data(document);
        out.end();
        if (std::optional<ServiceMessage> answer = readServiceMessage(ours.get())) {
            return std::move(*answer);
        }
    } catch (const std::system_error&) {
        // The process ended while it was being written to, which is the same as ending without an answer.
    }
    return Clock::now() >= deadline ? ServiceFailure::kTimeOver : ServiceFailure::kEndedEarly;
}

fs::path serviceProgram(std::string_view name) {
    std::error_code error;
    const fs::path self = fs::read_symlink("/proc/self/exe", error);
    const fs::path beside = self.parent_path().parent_path() / "libexec/ternmail" / name;
    return !error && fs::exists(beside, error) ? beside : fs::path(TERNVIEW_LIBEXEC_DIRECTORY) / name;
}

ServiceProcess::ServiceProcess(ServiceCommand (*command)(const std::string& directory)) : command_(command) {
    renewGate();
}

ServiceProcess::~ServiceProcess() {
    end();
}

void ServiceProcess::prepareFor(std::chrono::seconds timeLimit) {
    timeLimit_ = timeLimit;
    if (eventsOf(takers_, POLLIN) != 0) {
        stop();
    }
}

int ServiceProcess::watched() const {
    return process_ != 0 ? processDescriptor_.get() : takers_.get();
}

void ServiceProcess::attend() {
    if (process_ != 0) {
        if (eventsOf(processDescriptor_, POLLIN) == 0) {
            return;
        }
        end();
    }
    const short events = eventsOf(takers_, POLLIN | POLLRDHUP);
    if ((events & (POLLRDHUP | POLLHUP)) != 0) {
        renewGate();  // one of those who share it has shut it for all
    } else if (events != 0) {
        startForFirst();
    }
}

void ServiceProcess::startForFirst() {
    const ino_t first = firstWaiting(takers_.get());
    if (first == 0 || first == startedFor_) {
        receiveThroughGate(takers_.get(), MSG_DONTWAIT);
        return;
    }
    startedFor_ = first;
    start();
}

void ServiceProcess::stop() {
    end();
    renewGate();
}

void ServiceProcess::renewGate() {
    auto [askers, takers] = socketPair(SOCK_SEQPACKET);
    askers_ = std::move(askers);
    takers_ = std::move(takers);
}

void ServiceProcess::end() {
    if (process_ == 0) {
        return;
    }
    ::kill(process_, endSignal_);
    pollfd process{processDescriptor_.get(), POLLIN, 0};
    if (endSignal_ != SIGKILL && ::poll(&process, 1, kEndMilliseconds) != 1) {
        ::kill(process_, SIGKILL);
    }
    while (::waitpid(process_, nullptr, 0) < 0 && errno == EINTR) {
    }
    process_ = 0;
    processDescriptor_.close();
    directory_.reset();
}

void ServiceProcess::start() {
    directory_ = std::make_unique<PrivateDirectory>();
    const ServiceCommand command = command_(directory_->path());
    const pid_t parent = ::getpid();
    const pid_t child = ::fork();
    if (child == 0) {
        runService(command, takers_.get(), timeLimit_, parent);
    }
    if (child < 0) {
        throw JobError(Failure::kCrash, std::strerror(errno));
    }
    process_ = child;
    endSignal_ = command.endSignal;
    processDescriptor_ = Descriptor(static_cast<int>(::syscall(SYS_pidfd_open, child, 0)));
}

}  // namespace ternview
