#include "browser/chromium.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace ternview {
namespace {

constexpr std::uint64_t kMemoryLimit = std::uint64_t{3} << 29;  // of all its processes
constexpr std::uint64_t kMemoryLimitOfProcess = std::uint64_t{520} << 20;
constexpr std::size_t kMostProcesses = 1000;
// Where the browser expects its pipe.
constexpr int kCommands = 3;
constexpr int kAnswers = 4;

constexpr std::array kArguments{
    "--headless",
    "--remote-debugging-pipe",
    // Nothing goes out, and nobody is asked for anything.
    "--host-resolver-rules=MAP * ~NOTFOUND",
    "--disable-background-networking",
    "--disable-component-update",
    "--disable-sync",
    "--disable-default-apps",
    "--disable-extensions",
    "--no-first-run",
    "--no-default-browser-check",
    "--disable-breakpad",
    "--disable-crash-reporter",
    "--password-store=basic",
    // Scripts are off for each page; so they are from the start, and so is what makes machine code of them.
    "--blink-settings=scriptEnabled=false",
    "--js-flags=--jitless",
    // Pages are laid out and printed, never shown, played or drawn by a graphics card.
    "--disable-gpu",
    "--disable-3d-apis",
    "--disable-software-rasterizer",
    "--mute-audio",
    "--hide-scrollbars",
    "--font-render-hinting=none",
    // Its place for shared memory is a file in its own directory, whose size is limited.
    "--disable-dev-shm-usage",
};

// Mail names generic fonts in quotation marks too, where they are names like others; they mean what they mean without.
constexpr char kFonts[] = R"(<?xml version="1.0"?>
<!DOCTYPE fontconfig SYSTEM "urn:fontconfig:fonts.dtd">
<fontconfig>
<include ignore_missing="yes">/etc/fonts/fonts.conf</include>
<match target="pattern"><test name="family"><string>sans-serif</string></test>
<edit name="family" mode="assign" binding="same"><string>Liberation Sans</string></edit></match>
<match target="pattern"><test name="family"><string>serif</string></test>
<edit name="family" mode="assign" binding="same"><string>Liberation Serif</string></edit></match>
</fontconfig>
)";

std::array<Descriptor, 2> makePipe() {
    std::array<int, 2> ends;
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
        throw BrowserFailure(BrowserFailure::Kind::kGone, std::string("it does not start: ") + std::strerror(errno));
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

/// What a program finds in its surroundings: nothing of the user's, default signals, and the two ends of the pipe.
[[noreturn]] void become(const Chromium::Options& options, int commands, int answers) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (const int signal : {SIGCHLD, SIGPIPE, SIGXFSZ}) {
        std::signal(signal, SIG_DFL);
    }
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    // Copies above both targets first, so that neither end overwrites the other.
    const int safeCommands = ::fcntl(commands, F_DUPFD, kAnswers + 1);
    const int safeAnswers = ::fcntl(answers, F_DUPFD, kAnswers + 1);
    ::dup2(safeCommands, kCommands);
    ::dup2(safeAnswers, kAnswers);
    ::close_range(kAnswers + 1, ~0U, 0);

    const std::string directory = options.directory.string();
    std::vector<std::string> arguments{options.program.string()};
    arguments.insert(arguments.end(), kArguments.begin(), kArguments.end());
    arguments.push_back("--user-data-dir=" + directory + "/profile");
    if (!options.ownSandbox) {
        arguments.emplace_back("--no-sandbox");
    }
    std::vector<std::string> environment{"HOME=" + directory,   "FONTCONFIG_FILE=" + directory + "/fonts.conf",
                                         "TMPDIR=" + directory, "PATH=/usr/bin:/bin",
                                         "LC_ALL=C.UTF-8",      "DBUS_SESSION_BUS_ADDRESS=disabled:"};
    ::execve(options.program.c_str(), pointersTo(arguments).data(), pointersTo(environment).data());
    ::_exit(EXIT_FAILURE);
}

/// Processes may end at any moment, and reading about them fails then; what is left out is looked at the next time.
void appendChildren(const std::string& process, std::vector<std::string>& family) {
    std::error_code error;
    for (auto thread = std::filesystem::directory_iterator("/proc/" + process + "/task", error);
         !error && thread != std::filesystem::directory_iterator(); thread.increment(error)) {
        std::ifstream children(thread->path() / "children");
        for (std::string child; children >> child && family.size() < kMostProcesses;) {
            family.push_back(child);
        }
    }
}

/// The 14th and 15th field of "stat"; the second one, the name, may hold anything in its parentheses.
std::uint64_t processorTicks(const std::string& process) {
    std::ifstream file("/proc/" + process + "/stat");
    std::string stat;
    std::getline(file, stat, '\0');  // all of it; iterators over the buffer would throw
    std::istringstream fields(stat.substr(std::min(stat.rfind(')'), stat.size())));
    std::string skipped;
    for (int field = 2; field < 14; ++field) {
        fields >> skipped;
    }
    std::uint64_t user = 0;
    std::uint64_t system = 0;
    return fields >> user >> system ? user + system : 0;
}

}  // namespace

Chromium::Chromium(const Options& options) {
    std::ofstream(options.directory / "fonts.conf") << kFonts;
    auto [commands, toBrowser] = makePipe();
    auto [fromBrowser, answers] = makePipe();
    process_ = ::fork();
    if (process_ == 0) {
        become(options, commands.get(), answers.get());
    }
    if (process_ < 0) {
        throw BrowserFailure(BrowserFailure::Kind::kGone, std::string("it does not start: ") + std::strerror(errno));
    }
    devTools_ = std::make_unique<DevTools>(std::move(toBrowser), std::move(fromBrowser), [this] { watch(); });
}

Chromium::~Chromium() {
    ::kill(process_, SIGKILL);
    while (::waitpid(process_, nullptr, 0) < 0 && errno == EINTR) {
    }
}

void Chromium::limitProcessorTime(std::chrono::seconds limit) {
    mostTime_ = figuresOfFamily(process_).processor + limit;
}

void Chromium::watch() const {
    const FamilyFigures figures = figuresOfFamily(process_);
    if (figures.memory > kMemoryLimit || figures.largest > kMemoryLimitOfProcess) {
        throw BrowserFailure(BrowserFailure::Kind::kOutOfMemory, "it needs more memory than it may have");
    }
    if (figures.processor > mostTime_) {
        throw BrowserFailure(BrowserFailure::Kind::kTimeOver, "it takes too long");
    }
}

FamilyFigures figuresOfFamily(pid_t process) {
    const auto pageSize = static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
    std::vector<std::string> family{std::to_string(process)};
    const auto ticksPerSecond = static_cast<std::uint64_t>(::sysconf(_SC_CLK_TCK));
    std::uint64_t ticks = 0;
    std::uint64_t own = 0;
    std::uint64_t shared = 0;
    std::uint64_t largest = 0;
    for (std::size_t i = 0; i < family.size(); ++i) {
        const std::string member = family[i];
        appendChildren(member, family);
        std::uint64_t all = 0;
        std::uint64_t resident = 0;
        std::uint64_t residentShared = 0;
        if (std::ifstream("/proc/" + member + "/statm") >> all >> resident >> residentShared) {
            own += resident - std::min(resident, residentShared);
            shared = std::max(shared, residentShared);
            largest = std::max(largest, resident);
        }
        ticks += processorTicks(member);
    }
    return {(own + shared) * pageSize, largest * pageSize, std::chrono::milliseconds(ticks * 1000 / ticksPerSecond)};
}

}  // namespace ternview
