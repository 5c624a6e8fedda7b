// What a process that reads a stranger's mail must not be able to do.
#pragma once

#include <fcntl.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <sys/ipc.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

using Attempts = std::vector<std::pair<const char*, std::function<long()>>>;

/// @return those that were not refused outright
inline std::string succeeding(const Attempts& attempts, const std::initializer_list<int>& refusals) {
    std::string open;
    for (const auto& [what, attempt] : attempts) {
        errno = 0;
        const long result = attempt();
        if (result >= 0 || std::find(refusals.begin(), refusals.end(), errno) == refusals.end()) {
            open += (open.empty() ? "" : ", ") + std::string(what);
        }
    }
    return open;
}

/// Tries it all.
/// @param other another process, which there is
/// @return what was not refused outright; empty behind the wall
inline std::string waysOut(pid_t other = ::getppid()) {
    constexpr key_t kNoQueue = 1;
    const auto connects = [] {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(9);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return ::connect(-1, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0;
    };
    const Attempts attempts{
        {"IPv4", [] { return ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0); }},
        {"IPv4 datagrams", [] { return ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0); }},
        {"IPv6", [] { return ::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0); }},
        {"netlink", [] { return ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, 0); }},
        {"local sockets", [] { return ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0); }},
        {"connecting", [&connects] { return connects() ? -1 : 0; }},
        {"programs", [] { return ::execl("/nonexistent", "nonexistent", nullptr); }},
        {"programs by descriptor", [] { return ::syscall(SYS_execveat, -1, "", nullptr, nullptr, AT_EMPTY_PATH); }},
        {"tracing", [other] { return ::ptrace(PTRACE_PEEKDATA, other, nullptr, nullptr); }},
        {"reading memory", [other] { return ::syscall(SYS_process_vm_readv, other, nullptr, 0, nullptr, 0, 0); }},
        {"datagrams to local sockets",
         [] {
             std::array<int, 2> ends{-1, -1};
             return ::socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends.data());
         }},
        {"signals", [other] { return ::kill(other, 0); }},
        {"signals to threads", [other] { return ::syscall(SYS_tgkill, other, other, 0); }},
        {"signals from descriptors", [other] { return ::fcntl(STDIN_FILENO, F_SETOWN, other); }},
        {"limits of others", [other] { return ::syscall(SYS_prlimit64, other, RLIMIT_CORE, nullptr, nullptr); }},
        {"priorities of others", [other] { return ::syscall(SYS_setpriority, -1, other, 0); }},
        {"input and output priorities of others", [other] { return ::syscall(SYS_ioprio_set, -1, other, 0); }},
        {"processors of others", [other] { return ::syscall(SYS_sched_setaffinity, other, 0, nullptr); }},
        {"scheduling of others", [other] { return ::syscall(SYS_sched_setscheduler, other, -1, nullptr); }},
        {"scheduling parameters of others", [other] { return ::syscall(SYS_sched_setparam, other, nullptr); }},
        {"scheduling attributes of others", [other] { return ::syscall(SYS_sched_setattr, other, nullptr, 0); }},
        {"shared memory", [] { return ::syscall(SYS_shmget, IPC_PRIVATE, 0, 0); }},
        {"shared memory of others", [] { return ::syscall(SYS_shmat, -1, nullptr, 0); }},
        {"semaphores", [] { return ::syscall(SYS_semget, IPC_PRIVATE, -1, 0); }},
        {"message queues", [] { return ::syscall(SYS_msgget, kNoQueue, 0); }},
        {"named message queues", [] { return ::syscall(SYS_mq_open, nullptr, 0); }},
        {"shutting what others share", [] { return ::shutdown(-1, SHUT_RDWR); }},
        {"outliving the program", [] { return ::prctl(PR_SET_PDEATHSIG, 0); }},
        {"another user", [] { return ::syscall(SYS_setuid, ::getuid()); }},
        {"typing", [] { return ::ioctl(-1, TIOCSTI, ""); }},
        {"typing by a wider number", [] { return ::syscall(SYS_ioctl, -1, (1UL << 32) | TIOCSTI, ""); }},
        {"io_uring", [] { return ::syscall(SYS_io_uring_setup, 0, nullptr); }},
        {"namespaces", [] { return ::unshare(CLONE_NEWUSER); }},
        {"namespaces of a child", [] { return ::syscall(SYS_clone, CLONE_NEWUSER | CLONE_FS, nullptr, nullptr, 0, 0); }},
        {"mounts", [] { return ::syscall(SYS_mount, "none", "/nonexistent", "tmpfs", 0, nullptr); }},
    };
    return succeeding(attempts, {EPERM});
}

/// Tries what can be done to files.
/// @param directory that holds "kept" and "lost"
/// @return what was not refused outright; empty behind the wall
inline std::string waysToFiles(const std::string& directory) {
    const std::string kept = directory + "/kept";
    const std::string lost = directory + "/lost";
    const std::string made = directory + "/made";
    const auto opened = [](const std::string& path, int flags) {
        return [path, flags] { return ::open(path.c_str(), flags | O_CLOEXEC, 0600); };
    };
    const Attempts attempts{
        {"reading", opened(kept, O_RDONLY)},
        {"reading by another name", opened("/proc/self/root" + std::filesystem::absolute(kept).string(), O_RDONLY)},
        {"directories", opened(directory, O_RDONLY | O_DIRECTORY)},
        {"users", opened("/etc/passwd", O_RDONLY)},
        {"processes", opened("/proc/" + std::to_string(::getppid()) + "/maps", O_RDONLY)},
        {"writing", opened(kept, O_WRONLY)},
        {"cutting off", [&kept] { return ::truncate(kept.c_str(), 1); }},
        {"permissions", [&kept] { return ::chmod(kept.c_str(), 0666); }},
        {"permissions in a directory", [&kept] { return ::fchmodat(AT_FDCWD, kept.c_str(), 0666, 0); }},
        {"owners", [&kept] { return ::chown(kept.c_str(), ::getuid(), ::getgid()); }},
        {"attributes", [&kept] { return ::setxattr(kept.c_str(), "user.a", "b", 1, 0); }},
        {"times", [&kept] { return ::utimensat(AT_FDCWD, kept.c_str(), nullptr, 0); }},
        {"watching", [&directory] { return ::inotify_add_watch(::inotify_init1(IN_CLOEXEC), directory.c_str(), IN_ALL_EVENTS); }},
        {"making", opened(made, O_WRONLY | O_CREAT)},
        {"directories in the making", [&made] { return ::mkdir((made + "-directory").c_str(), 0700); }},
        {"symbolic links", [&made] { return ::symlink("/", (made + "-symbolic").c_str()); }},
        {"links", [&kept, &made] { return ::link(kept.c_str(), (made + "-link").c_str()); }},
        {"pipes", [&made] { return ::mkfifo((made + "-pipe").c_str(), 0600); }},
        {"moving", [&kept, &made] { return ::rename(kept.c_str(), (made + "-moved").c_str()); }},
        {"removing", [&lost] { return ::unlink(lost.c_str()); }},
    };
    return succeeding(attempts, {EACCES, EPERM, EXDEV});
}
