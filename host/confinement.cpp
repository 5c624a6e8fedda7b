#include "confinement.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <ctime>

#include "sanitized.h"

namespace ternview {
namespace {

constexpr rlim_t kMemoryLimit = rlim_t{2} << 30;
constexpr rlim_t kFileLimit = rlim_t{1} << 30;

void setLimit(__rlimit_resource resource, rlim_t soft, rlim_t hard) {
    struct rlimit current {};
    if (::getrlimit(resource, &current) == 0) {
        const struct rlimit lowered { std::min(soft, current.rlim_max), std::min(hard, current.rlim_max) };
        ::setrlimit(resource, &lowered);
    }
}

void setLimits() {
    setLimit(RLIMIT_CORE, 0, 0);
    setLimit(RLIMIT_FSIZE, kFileLimit, kFileLimit);
#ifndef TERNVIEW_SANITIZED
    setLimit(RLIMIT_AS, kMemoryLimit, kMemoryLimit);
#endif
}

/// The program alone reads and writes. What libraries grumble about a stranger's mail is of no use to a reader either, and there
/// is one sentence for each failure.
void closeStandardStreams() {
    const int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    if (null < 0) {
        return;
    }
    ::dup2(null, STDIN_FILENO);
    ::dup2(null, STDOUT_FILENO);
#ifndef TERNVIEW_SANITIZED
    ::dup2(null, STDERR_FILENO);
#endif
    if (null > STDERR_FILENO) {
        ::close(null);
    }
}

}  // namespace

void closeAllBut(std::vector<int> kept) {
    std::sort(kept.begin(), kept.end());
    int first = STDERR_FILENO + 1;
    for (const int descriptor : kept) {
        if (descriptor > first) {
            ::close_range(static_cast<unsigned>(first), static_cast<unsigned>(descriptor - 1), 0);
        }
        first = std::max(first, descriptor + 1);
    }
    ::close_range(static_cast<unsigned>(first), ~0U, 0);
}

void confine(const Confinement& confinement) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != confinement.parent) {  // it ended before it could be watched
        ::_exit(EXIT_FAILURE);
    }
    ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);  // a write past the limit fails instead
    setLimits();
    closeStandardStreams();
    ::setenv("XDG_RUNTIME_DIR", confinement.privateDirectory.c_str(), 1);
}

void limitProcessorTime(std::chrono::seconds timeLimit) {
    timespec used{};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    // The hard limit stays, so that the soft one can be moved on; nobody handles SIGXCPU, which ends the process.
    setLimit(RLIMIT_CPU, static_cast<rlim_t>(used.tv_sec + timeLimit.count() + 1), RLIM_INFINITY);
}

}  // namespace ternview
