#include "browser/browser_sandbox.h"

#include <fcntl.h>
#include <grp.h>
#include <linux/capability.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <vector>

#include "descriptor.h"
#include "service/system_call_filter.h"

namespace ternview {
namespace {

namespace fs = std::filesystem;

constexpr uid_t kNobody = 65534;
constexpr rlim_t kFileLimit = rlim_t{1} << 30;
// Of the directory in memory: a PDF of the greatest size, and what a browser keeps.
constexpr char kSpace[] = "mode=0755,size=768m,nr_inodes=20000";

std::string because(const std::string& what) {
    return what + ": " + std::strerror(errno);
}

/// Freed of root's rights, also of those to come by running programs.
bool becomeOrdinary() {
    if (::geteuid() == 0 && (::setgroups(0, nullptr) != 0 || ::setresgid(kNobody, kNobody, kNobody) != 0 ||
                             ::setresuid(kNobody, kNobody, kNobody) != 0)) {
        return false;
    }
    const struct rlimit noCore { 0, 0 };
    const struct rlimit files { kFileLimit, kFileLimit };
    // Changing the user closes the process's own records in /proc, where the user of the namespace is to be written.
    return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && ::setrlimit(RLIMIT_CORE, &noCore) == 0 &&
           ::setrlimit(RLIMIT_FSIZE, &files) == 0 && ::prctl(PR_SET_DUMPABLE, 1, 0, 0, 0) == 0;
}

// ---- the processes

/// Waits for the confined process, and takes it along when it is to end itself.
[[noreturn]] void standGuard(pid_t confined, const sigset_t& awaited) {
    while (true) {
        siginfo_t signal{};
        if (::sigwaitinfo(&awaited, &signal) == SIGTERM) {
            ::kill(confined, SIGKILL);
        }
        if (::waitpid(confined, nullptr, WNOHANG) == confined) {
            ::_exit(EXIT_SUCCESS);
        }
    }
}

/// @return whether this is the child, which is the first process of its own process namespace
bool splitOff() {
    sigset_t awaited;
    sigset_t before;
    sigemptyset(&awaited);
    sigaddset(&awaited, SIGTERM);
    sigaddset(&awaited, SIGCHLD);
    ::sigprocmask(SIG_BLOCK, &awaited, &before);
    // A change of user has taken the end with the program away.
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    std::array<int, 2> lifeline;
    if (::pipe2(lifeline.data(), O_CLOEXEC | O_NONBLOCK) != 0) {
        return false;
    }
    const pid_t child = ::fork();
    if (child > 0) {
        ::close(lifeline[0]);
        standGuard(child, awaited);
    }
    if (child < 0) {
        return false;
    }
    ::close(lifeline[1]);
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    char unused;
    if (::read(lifeline[0], &unused, 1) == 0) {  // it ended before it could be watched
        ::_exit(EXIT_FAILURE);
    }
    ::close(lifeline[0]);
    ::sigprocmask(SIG_SETMASK, &before, nullptr);
    std::signal(SIGCHLD, SIG_IGN);  // whoever loses its parent in here becomes our child, and nobody asks how it ended
    return true;
}

bool enterNamespaces() {
    return enterUserNamespace(CLONE_NEWNS | CLONE_NEWPID | CLONE_NEWNET | CLONE_NEWIPC | CLONE_NEWUTS);
}

// ---- the files

// What the browser and the libraries below it read. Of /etc only what is named: the rest may hold secrets.
constexpr std::array kReadable{"/usr",
                               "/bin",
                               "/sbin",
                               "/lib",
                               "/lib32",
                               "/lib64",
                               "/libx32",
                               "/etc/fonts",
                               "/etc/ld.so.cache",
                               "/etc/localtime",
                               "/var/cache/fontconfig",
                               "/dev/null",
                               "/dev/zero",
                               "/dev/full",
                               "/dev/random",
                               "/dev/urandom",
                               "/sys/devices/system/cpu"};

/// A part of the file system, cut out of it to stand in another.
struct Piece {
    fs::path path;
    Descriptor tree;
    fs::path link;  // where the path is a symbolic link, what it holds
};

Descriptor cutOut(const fs::path& path, bool isReadOnly) {
    Descriptor tree(
        static_cast<int>(::syscall(SYS_open_tree, AT_FDCWD, path.c_str(), OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC | AT_RECURSIVE)));
    struct mount_attr attributes {};
    attributes.attr_set = MOUNT_ATTR_NOSUID | (isReadOnly ? MOUNT_ATTR_RDONLY : 0);
    attributes.propagation = MS_PRIVATE;
    if (tree.get() >= 0 &&
        ::syscall(SYS_mount_setattr, tree.get(), "", AT_EMPTY_PATH | AT_RECURSIVE, &attributes, sizeof(attributes)) != 0) {
        tree.close();
    }
    return tree;
}

bool liesIn(const fs::path& path, const fs::path& directory) {
    return std::mismatch(directory.begin(), directory.end(), path.begin(), path.end()).first == directory.end();
}

/// @return nothing when one of them cannot be had
std::vector<Piece> cutOutReadable(const fs::path& browserDirectory) {
    std::vector<fs::path> paths(kReadable.begin(), kReadable.end());
    if (std::none_of(paths.begin(), paths.end(), [&](const fs::path& path) { return liesIn(browserDirectory, path); })) {
        paths.push_back(browserDirectory);
    }
    std::vector<Piece> pieces;
    for (const fs::path& path : paths) {
        std::error_code error;
        if (fs::is_symlink(path, error)) {
            pieces.push_back({path, Descriptor(), fs::read_symlink(path)});
        } else if (fs::exists(path, error)) {
            pieces.push_back({path, cutOut(path, true), {}});
            if (pieces.back().tree.get() < 0) {
                return {};
            }
        }
    }
    return pieces;
}

bool place(const Descriptor& tree, const fs::path& target) {
    return ::syscall(SYS_move_mount, tree.get(), "", AT_FDCWD, target.c_str(), MOVE_MOUNT_F_EMPTY_PATH) == 0;
}

bool place(const Piece& piece, const fs::path& root) {
    const fs::path target = root / piece.path.relative_path();
    std::error_code error;
    fs::create_directories(target.parent_path(), error);
    if (!piece.link.empty()) {
        fs::create_symlink(piece.link, target, error);
        return !error;
    }
    struct stat information {};
    if (::fstat(piece.tree.get(), &information) != 0) {
        return false;
    }
    if (S_ISDIR(information.st_mode)) {
        fs::create_directory(target, error);
    } else {
        std::ofstream created(target);
    }
    return place(piece.tree, target);
}

/// The processes of the namespace only. In a container that hides parts of /proc no other one can be made, so that one stays.
bool placeProcesses(const fs::path& root, const Descriptor& present) {
    const fs::path target = root / "proc";
    return ::mkdir(target.c_str(), 0555) == 0 &&
           (::mount("proc", target.c_str(), "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) == 0 || place(present, target));
}

/// A root directory in memory, with the pieces in it and room to write.
std::string changeRoot(const fs::path& browserDirectory) {
    if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        return because("the file system cannot be closed off");
    }
    const std::vector<Piece> pieces = cutOutReadable(browserDirectory);
    const Descriptor processes = cutOut("/proc", false);
    const fs::path root = kSandboxDirectory;
    if (pieces.empty() || ::mount("tmpfs", root.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, kSpace) != 0) {
        return because("no root directory can be made");
    }
    for (const Piece& piece : pieces) {
        if (!place(piece, root)) {
            return because(piece.path.string() + " cannot be shown");
        }
    }
    std::error_code error;
    fs::create_directories(root / fs::path(kSandboxDirectory).relative_path(), error);
    if (error || !placeProcesses(root, processes)) {
        return because("processes cannot be shown");
    }
    // The old root lies over the new one for a moment, and is taken off.
    const bool changed = ::chdir(root.c_str()) == 0 && ::syscall(SYS_pivot_root, ".", ".") == 0 &&
                         ::umount2(".", MNT_DETACH) == 0 && ::chdir("/") == 0;
    return changed ? "" : because("the root directory cannot be changed");
}

bool dropCapabilities() {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    const std::array<__user_cap_data_struct, 2> none{};
    return ::syscall(SYS_capset, &header, none.data()) == 0;
}

}  // namespace

std::string enterBrowserSandbox(const std::string& browserDirectory) {
    if (!becomeOrdinary()) {
        return because("root's rights cannot be given up");
    }
    if (!enterNamespaces()) {
        return because("this system allows no user namespaces");
    }
    if (!splitOff()) {
        return because("there can be no further process");
    }
    if (std::string reason = changeRoot(browserDirectory); !reason.empty()) {
        return reason;
    }
    // Nor does the browser look into this process, which belongs to the same user.
    const bool done = dropCapabilities() && ::prctl(PR_SET_DUMPABLE, 0, 0, 0, 0) == 0;
    return done ? "" : because("rights cannot be given up");
}

std::string confineWithoutNamespaces(const std::string& directory) {
    // It stays root's, or nobody would remove it if the program were killed.
    if (::geteuid() == 0 && (::chown(directory.c_str(), 0, kNobody) != 0 || ::chmod(directory.c_str(), S_IRWXU | S_IRWXG) != 0)) {
        return because(directory + " cannot change its group");
    }
    if (!becomeOrdinary()) {
        return because("root's rights cannot be given up");
    }
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    return ::access(directory.c_str(), W_OK) == 0 ? "" : because(directory + " cannot be written");
}

}  // namespace ternview
