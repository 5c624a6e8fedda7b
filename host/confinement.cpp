#include "confinement.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <new>
#include <string_view>

#include "module_search.h"
#include "processor_time.h"
#include "sanitized.h"
#include "service/file_wall.h"
#include "service/system_call_filter.h"

namespace ternview {
namespace {

constexpr rlim_t kMemoryLimit = rlim_t{2} << 30;
constexpr rlim_t kFileLimit = rlim_t{1} << 30;

// What a mail may take when nobody asks for more, and how much of it one of a megabyte needs at most.
constexpr std::chrono::seconds kUsualTimeLimit{60};
constexpr double kSecondsOfMegabyte = 10;
constexpr std::uint64_t kMegabyte = 1'000'000;
constexpr rlim_t kMemoryOfSmallMail = rlim_t{500} << 20;  // libraries and shared memory come on top
constexpr rlim_t kMemoryOfByte = 12;                      // a mail is held in several forms

std::chrono::seconds allowedTime{0};  // of this process; 0: as much as it likes
rlim_t lastSecond = RLIM_INFINITY;    // of its processor time, for the mail at hand

void setLimit(__rlimit_resource resource, rlim_t soft, rlim_t hard) {
    struct rlimit current {};
    if (::getrlimit(resource, &current) == 0) {
        const struct rlimit lowered { std::min(soft, current.rlim_max), std::min(hard, current.rlim_max) };
        ::setrlimit(resource, &lowered);
    }
}

rlim_t usedSeconds() {
    return static_cast<rlim_t>(std::chrono::floor<std::chrono::seconds>(usedProcessorTime()).count());
}

/// The hard limit stays, so that the soft one can be moved on; nobody handles SIGXCPU, which ends the process.
void endAt(rlim_t second) {
    setLimit(RLIMIT_CPU, second, RLIM_INFINITY);
    endAtProcessorTime(std::chrono::seconds(second));
}

void setLimits() {
    setLimit(RLIMIT_CORE, 0, 0);
    setLimit(RLIMIT_FSIZE, kFileLimit, kFileLimit);
#ifndef TERNVIEW_SANITIZED
    setLimit(RLIMIT_AS, kMemoryLimit, kMemoryLimit);
#endif
}

/// Whether anybody was told that there is no wall, which all processes of the program have in common: it is made before any fork.
/// Nothing when there is no memory for it.
std::atomic_flag* toldOfMissingWall() {
    static std::atomic_flag* const flag = [] {
        void* page = ::mmap(nullptr, sizeof(std::atomic_flag), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        return page != MAP_FAILED ? new (page) std::atomic_flag : nullptr;
    }();
    return flag;
}
const std::atomic_flag* const kMadeBeforeAnyFork = toldOfMissingWall();

void buildWall() {
    constexpr std::string_view kMissing =
        "ternview: this system lets programs give up neither system calls nor the network, so messages are read without that "
        "wall\n";
    if (refuseSystemCalls() || leaveNetwork()) {
        return;
    }
    std::atomic_flag* told = toldOfMissingWall();
    if (told == nullptr || !told->test_and_set()) {
        [[maybe_unused]] const ssize_t ignored = ::write(STDERR_FILENO, kMissing.data(), kMissing.size());
    }
}

void buildWallAroundFiles(const Confinement& confinement) {
    static FileWall wall;
    wall.allowReading("/proc/self/statm");
    wall.allowChanging(confinement.privateDirectory);
    for (const auto& path : confinement.changeable) {
        wall.allowChanging(path);
    }
    for (const auto& path : confinement.readable) {
        wall.allowReading(path);
    }
    for (const RuntimeLibrary& library : {kFilterLibrary, kBatchLibrary}) {
        for (const std::string& candidate : libraryCandidates(library)) {
            wall.allowReading(candidate);
        }
    }
    if (!wall.raise()) {
        ::_exit(EXIT_FAILURE);
    }
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

void confine(const Confinement& confinement) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != confinement.parent) {  // it ended before it could be watched
        ::_exit(EXIT_FAILURE);
    }
    ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);  // a write past the limit fails instead
    setLimits();
    buildWall();
    buildWallAroundFiles(confinement);
    closeStandardStreams();
    ::setenv("XDG_RUNTIME_DIR", confinement.privateDirectory.c_str(), 1);
}

void limitProcessorTime(std::chrono::seconds timeLimit) {
    allowedTime = timeLimit;
    endAt(std::min(usedSeconds() + static_cast<rlim_t>(timeLimit.count() + 1), lastSecond));
}

void limitProcessorTimeBySize(std::uint64_t bytes, double pageArea) {
    lastSecond = RLIM_INFINITY;
    if (allowedTime == std::chrono::seconds(0) || allowedTime > kUsualTimeLimit) {
        return;
    }
    const double needed = kSecondsOfMegabyte * static_cast<double>(1 + bytes / kMegabyte) * std::max(pageArea, 1.0);
    lastSecond = usedSeconds() + static_cast<rlim_t>(needed);
    endAt(std::min(lastSecond, usedSeconds() + static_cast<rlim_t>(allowedTime.count() + 1)));
}

void limitMemoryBySize([[maybe_unused]] std::uint64_t bytes) {
#ifndef TERNVIEW_SANITIZED
    const rlim_t ofBytes = std::min<std::uint64_t>(bytes, kMemoryLimit / kMemoryOfByte) * kMemoryOfByte;
    setLimit(RLIMIT_DATA, std::min(kMemoryOfSmallMail + ofBytes, kMemoryLimit), RLIM_INFINITY);
#endif
}

}  // namespace ternview
