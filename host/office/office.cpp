#include "office.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "frames.h"
#include "job.h"
#include "office_messages.h"

namespace ternview {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr char kProgram[] = "ternview-office";
constexpr char kDefaultSuite[] = "/usr/lib/libreoffice/program";
// Starting the suite, and ending it, are no part of a document's own time.
constexpr std::chrono::seconds kStartAllowance{30};

OfficeAccess currentAccess;

fs::path suiteDirectory() {
    const char* named = std::getenv("TERNVIEW_OFFICE");
    return named != nullptr && *named != '\0' ? named : kDefaultSuite;
}

bool isThere(const fs::path& path) {
    std::error_code error;
    return fs::exists(path, error);
}

/// Beside the program in the build and when installed, else where the build installs it.
fs::path officeProgram() {
    std::error_code error;
    const fs::path self = fs::read_symlink("/proc/self/exe", error);
    const fs::path beside = self.parent_path().parent_path() / "libexec/ternmail" / kProgram;
    return !error && isThere(beside) ? beside : fs::path(TERNVIEW_LIBEXEC_DIRECTORY) / kProgram;
}

/// Looked at before asking, as a suite without its word processor starts and then fails in obscure ways.
void requireSuite() {
    const fs::path suite = suiteDirectory();
    const bool hasCore = isThere(suite / "libsofficeapp.so") || isThere(suite / "libmergedlo.so");
    if (!hasCore || !isThere(suite / "libswlo.so")) {
        throw JobError(Failure::kOfficeMissing, suite.string());
    }
    if (!isThere(officeProgram())) {
        throw JobError(Failure::kOfficeProgramMissing, officeProgram().string());
    }
}

std::array<Descriptor, 2> socketPair(int type) {
    std::array<int, 2> ends;
    if (::socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, ends.data()) != 0) {
        throw std::system_error(errno, std::generic_category(), "socketpair");
    }
    return {Descriptor(ends[0]), Descriptor(ends[1])};
}

std::string requestLabel(OfficeTarget target, std::chrono::seconds limit) {
    return (target == OfficeTarget::kPdf ? "pdf " : "text ") + std::to_string(limit.count());
}

[[noreturn]] void runOffice(const fs::path& program, int gate, const std::string& directory, const fs::path& suite,
                            pid_t parent) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) {
        ::_exit(EXIT_FAILURE);
    }
    const int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        ::dup2(null, standard);
    }
    ::fcntl(gate, F_SETFD, 0);
    const std::string gateNumber = std::to_string(gate);
    const std::array<const char*, 5> arguments{kProgram, gateNumber.c_str(), directory.c_str(), suite.c_str(), nullptr};
    // Nothing of the user's surroundings goes along: no home, no display, no settings of the suite.
    const std::string fonts = "FONTCONFIG_FILE=" + directory + "/" + kOfficeFonts;
    const std::string home = "HOME=" + directory;
    const std::string temporary = "TMPDIR=" + directory;
    const std::array<const char*, 6> environment{home.c_str(),         fonts.c_str(),    temporary.c_str(),
                                                 "PATH=/usr/bin:/bin", "LC_ALL=C.UTF-8", nullptr};
    ::execve(program.c_str(), const_cast<char* const*>(arguments.data()), const_cast<char* const*>(environment.data()));
    ::_exit(EXIT_FAILURE);
}

}  // namespace

std::string convertInOffice(std::string_view rtf, OfficeTarget target, const OfficeAccess& access) {
    if (!rtf.starts_with("{\\rtf")) {
        throw LoadError("its text is damaged: it is no RTF");
    }
    if (rtf.size() > kLargestOfficeMessage) {
        throw LoadError("its text is too large to be laid out");
    }
    requireSuite();
    const auto deadline = Clock::now() + access.timeLimit;
    auto [ours, theirs] = socketPair(SOCK_STREAM);
    const timeval patience{(access.timeLimit + kStartAllowance).count(), 0};
    for (const int option : {SO_RCVTIMEO, SO_SNDTIMEO}) {
        ::setsockopt(ours.get(), SOL_SOCKET, option, &patience, sizeof(patience));
    }
    if (!sendThroughGate(access.gate, theirs.get())) {
        throw LoadError("its text is RTF, and there is no way to the office suite that lays RTF out");
    }
    theirs.close();
    std::optional<OfficeMessage> answer;
    try {
        FrameWriter out(ours.get());
        out.begin(FrameKind::kDocument, requestLabel(target, access.timeLimit));
        out.data(rtf);
        out.end();
        answer = readOfficeMessage(ours.get());
    } catch (const std::system_error&) {
        // The process ended while it was being written to, which is the same as ending without an answer.
    }
    if (!answer) {
        if (Clock::now() >= deadline) {
            throw JobError(Failure::kTimeLimit);
        }
        throw LoadError("the office suite, which lays RTF out, ended early, as damaged or very large text can make it do");
    }
    if (answer->kind == FrameKind::kResult) {
        throw OfficeRefusal("the office suite cannot lay its text out: " + answer->label);
    }
    return std::move(answer->bytes);
}

void useOffice(const OfficeAccess& access) {
    currentAccess = access;
}

const OfficeAccess& usedOffice() {
    return currentAccess;
}

Office::Office() {
    auto [askers, takers] = socketPair(SOCK_SEQPACKET);
    askers_ = std::move(askers);
    takers_ = std::move(takers);
}

Office::~Office() {
    stop();
}

int Office::watched() const {
    return process_ != 0 ? processDescriptor_.get() : takers_.get();
}

void Office::attend() {
    if (process_ != 0) {
        pollfd process{processDescriptor_.get(), POLLIN, 0};
        if (::poll(&process, 1, 0) != 1) {
            return;
        }
        stop();
    }
    pollfd waiting{takers_.get(), POLLIN, 0};
    if (::poll(&waiting, 1, 0) == 1) {
        start();
    }
}

void Office::stop() {
    if (process_ == 0) {
        return;
    }
    ::kill(process_, SIGKILL);
    while (::waitpid(process_, nullptr, 0) < 0 && errno == EINTR) {
    }
    process_ = 0;
    processDescriptor_.close();
    directory_.reset();
}

void Office::start() {
    directory_ = std::make_unique<PrivateDirectory>();
    const fs::path program = officeProgram();
    const fs::path suite = suiteDirectory();
    const pid_t parent = ::getpid();
    const pid_t child = ::fork();
    if (child == 0) {
        runOffice(program, takers_.get(), directory_->path(), suite, parent);
    }
    if (child < 0) {
        throw JobError(Failure::kCrash, std::strerror(errno));
    }
    process_ = child;
    processDescriptor_ = Descriptor(static_cast<int>(::syscall(SYS_pidfd_open, child, 0)));
}

}  // namespace ternview
