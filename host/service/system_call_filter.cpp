#include "service/system_call_filter.h"

#include <asm/sockios.h>
#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/fs.h>
#include <linux/fsverity.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <string>
#include <vector>

#include "descriptor.h"

namespace ternview {
namespace {

#if defined(__x86_64__)
constexpr __u32 kArchitecture = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
constexpr __u32 kArchitecture = AUDIT_ARCH_AARCH64;
#else
#error "the system-call filter does not know this processor"
#endif

// Newer than headers may be.
constexpr long kSetPermissionsAt = 452;  // fchmodat2
constexpr long kSetAttributeAt = 463;
constexpr long kRemoveAttributeAt = 466;

// A change of user is among them as it would take the end with the program away.
constexpr long kRefused[] = {
    SYS_socket,
    SYS_connect,
    SYS_bind,
    SYS_listen,
    SYS_shutdown,
    SYS_execve,
    SYS_execveat,
    SYS_ptrace,
    SYS_process_vm_readv,
    SYS_process_vm_writev,
    SYS_process_madvise,
    SYS_migrate_pages,
    SYS_move_pages,
    SYS_setpriority,
    SYS_ioprio_set,
    SYS_shmget,
    SYS_shmat,
    SYS_shmctl,
    SYS_semget,
    SYS_semop,
    SYS_semtimedop,
    SYS_semctl,
    SYS_msgget,
    SYS_msgsnd,
    SYS_msgrcv,
    SYS_msgctl,
    SYS_mq_open,
    SYS_mq_unlink,
    SYS_io_uring_setup,
    SYS_kill,
    SYS_tkill,
    SYS_rt_sigqueueinfo,
    SYS_rt_tgsigqueueinfo,
    SYS_pidfd_send_signal,
    SYS_pidfd_getfd,
    SYS_perf_event_open,
    SYS_bpf,
    SYS_userfaultfd,
    SYS_unshare,
    SYS_setns,
    SYS_mount,
    SYS_umount2,
    SYS_open_tree,
    SYS_move_mount,
    SYS_fsopen,
    SYS_fspick,
    SYS_fsmount,
    SYS_mount_setattr,
    SYS_pivot_root,
    SYS_chroot,
    SYS_keyctl,
    SYS_add_key,
    SYS_request_key,
    SYS_init_module,
    SYS_finit_module,
    SYS_delete_module,
    SYS_kexec_load,
    SYS_kexec_file_load,
    SYS_reboot,
    SYS_open_by_handle_at,
    SYS_setuid,
    SYS_setgid,
    SYS_setreuid,
    SYS_setregid,
    SYS_setresuid,
    SYS_setresgid,
    SYS_setfsuid,
    SYS_setfsgid,
// What a wall around files leaves open, as these go by names.
#ifdef SYS_chmod
    SYS_chmod,
    SYS_chown,
    SYS_lchown,
    SYS_utime,
    SYS_utimes,
    SYS_futimesat,
#endif
    SYS_fchmodat,
    SYS_fchownat,
    SYS_setxattr,
    SYS_lsetxattr,
    SYS_removexattr,
    SYS_lremovexattr,
    SYS_utimensat,
    SYS_inotify_add_watch,
    SYS_fanotify_mark,
    kSetPermissionsAt,
    kSetAttributeAt,
    kRemoveAttributeAt,
    // What needs a file that is open for reading only.
    SYS_fchmod,
    SYS_fchown,
    SYS_fsetxattr,
    SYS_fremovexattr,
};

enum class Allowed { kOnly, kNever };

/// What one argument of a system call that is needed may be.
struct ArgumentRule {
    long number;
    unsigned argument;
    Allowed allowed;
    __u32 value;
    __u32 mask = ~__u32{0};
};

constexpr __u32 kNamespaces =
    CLONE_NEWNS | CLONE_NEWCGROUP | CLONE_NEWUTS | CLONE_NEWIPC | CLONE_NEWUSER | CLONE_NEWPID | CLONE_NEWNET;
constexpr __u32 kSocketType = 0xF;  // the rest are flags

/// @param process this one
std::array<ArgumentRule, 19> argumentRules(pid_t process) {
    return {{
        {SYS_clone, 0, Allowed::kOnly, 0, kNamespaces},
        // Whoever has one end of a pair of datagram sockets can send to every other local socket.
        {SYS_socketpair, 0, Allowed::kOnly, AF_UNIX},
        {SYS_socketpair, 1, Allowed::kOnly, SOCK_STREAM, kSocketType},
        // Such as the signal by which abort() ends the process.
        {SYS_tgkill, 0, Allowed::kOnly, static_cast<__u32>(process)},
        {SYS_prlimit64, 0, Allowed::kOnly, 0},
        {SYS_sched_setaffinity, 0, Allowed::kOnly, 0},
        {SYS_sched_setparam, 0, Allowed::kOnly, 0},
        {SYS_sched_setscheduler, 0, Allowed::kOnly, 0},
        {SYS_sched_setattr, 0, Allowed::kOnly, 0},
        // Input for the terminal is a command as soon as the shell is back.
        {SYS_ioctl, 1, Allowed::kNever, TIOCSTI},
        {SYS_ioctl, 1, Allowed::kNever, TIOCLINUX},
        // A file that is open for reading only can be changed by these, or never be changed again.
        {SYS_ioctl, 1, Allowed::kNever, FS_IOC_SETFLAGS},
        {SYS_ioctl, 1, Allowed::kNever, FS_IOC_FSSETXATTR},
        {SYS_ioctl, 1, Allowed::kNever, FS_IOC_ENABLE_VERITY},
        // The owner of a descriptor gets signals from it, of whatever number.
        {SYS_ioctl, 1, Allowed::kNever, FIOSETOWN},
        {SYS_ioctl, 1, Allowed::kNever, SIOCSPGRP},
        {SYS_fcntl, 1, Allowed::kNever, F_SETOWN},
        {SYS_fcntl, 1, Allowed::kNever, F_SETOWN_EX},
        {SYS_fcntl, 1, Allowed::kNever, F_SETSIG},
    }};
}

constexpr sock_filter statement(unsigned code, __u32 value) {
    return {static_cast<__u16>(code), 0, 0, value};
}

/// Jumps by so many statements.
constexpr sock_filter jump(unsigned code, __u32 value, __u8 ifTrue, __u8 ifFalse) {
    return {static_cast<__u16>(code), ifTrue, ifFalse, value};
}

constexpr sock_filter refuseWith(__u32 error) {
    return statement(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | error);
}

constexpr sock_filter loadNumber() {
    return statement(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr));
}

/// Arguments that are numbers of 32 bits stand in the lower half; the kernel does not look at the upper one either.
constexpr sock_filter loadArgument(unsigned index) {
    return statement(BPF_LD | BPF_W | BPF_ABS, static_cast<__u32>(offsetof(seccomp_data, args) + index * sizeof(__u64)));
}

/// The end with the parent can be asked for again, by a child for itself, but not be called off.
void appendEndWithParent(std::vector<sock_filter>& filter) {
    filter.insert(filter.end(), {loadNumber(), jump(BPF_JMP | BPF_JEQ | BPF_K, SYS_prctl, 0, 5), loadArgument(0),
                                 jump(BPF_JMP | BPF_JEQ | BPF_K, PR_SET_PDEATHSIG, 0, 3), loadArgument(1),
                                 jump(BPF_JMP | BPF_JEQ | BPF_K, SIGKILL, 1, 0), refuseWith(EPERM)});
}

std::vector<sock_filter> program() {
    std::vector<sock_filter> filter{
        statement(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch)),
        jump(BPF_JMP | BPF_JEQ | BPF_K, kArchitecture, 1, 0),
        statement(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS),
        loadNumber(),
    };
    for (const auto number : kRefused) {
        filter.push_back(jump(BPF_JMP | BPF_JEQ | BPF_K, static_cast<__u32>(number), 0, 1));
        filter.push_back(refuseWith(EPERM));
    }
    // The second set of numbers that 64-bit PCs have begins with this bit; nothing uses it, and it would be a way around.
    constexpr __u32 kSecondNumbers = 0x40000000;
    filter.push_back(jump(BPF_JMP | BPF_JGE | BPF_K, kSecondNumbers, 0, 1));
    filter.push_back(refuseWith(EPERM));
    // Its flags lie in memory, where a filter cannot see them; libraries take the older call where it does not exist.
    filter.push_back(jump(BPF_JMP | BPF_JEQ | BPF_K, SYS_clone3, 0, 1));
    filter.push_back(refuseWith(ENOSYS));
    for (const ArgumentRule& rule : argumentRules(::getpid())) {
        const bool isOnly = rule.allowed == Allowed::kOnly;
        filter.push_back(loadNumber());
        filter.push_back(jump(BPF_JMP | BPF_JEQ | BPF_K, static_cast<__u32>(rule.number), 0, 4));
        filter.push_back(loadArgument(rule.argument));
        filter.push_back(statement(BPF_ALU | BPF_AND | BPF_K, rule.mask));
        filter.push_back(jump(BPF_JMP | BPF_JEQ | BPF_K, rule.value, isOnly ? 1 : 0, isOnly ? 0 : 1));
        filter.push_back(refuseWith(EPERM));
    }
    appendEndWithParent(filter);
    filter.push_back(statement(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    return filter;
}

bool writeFile(const char* path, const std::string& text) {
    const Descriptor file(::open(path, O_WRONLY | O_CLOEXEC));
    return ::write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

}  // namespace

bool refuseSystemCalls() {
    std::vector<sock_filter> filter = program();
    const sock_fprog described{static_cast<unsigned short>(filter.size()), filter.data()};
    return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &described, 0, 0) == 0;
}

bool enterUserNamespace(int others) {
    const auto itself = [](unsigned id) { return std::to_string(id) + " " + std::to_string(id) + " 1"; };
    const std::string user = itself(::geteuid());
    const std::string group = itself(::getegid());
    return ::unshare(CLONE_NEWUSER | others) == 0 && writeFile("/proc/self/setgroups", "deny") &&
           writeFile("/proc/self/gid_map", group) && writeFile("/proc/self/uid_map", user);
}

bool leaveNetwork() {
    return ::unshare(CLONE_NEWNET) == 0 || enterUserNamespace(CLONE_NEWNET);
}

}  // namespace ternview
