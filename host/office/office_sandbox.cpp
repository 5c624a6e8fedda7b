#include "office_sandbox.h"

#include <fcntl.h>
#include <linux/landlock.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <filesystem>

#include "descriptor.h"
#include "sanitized.h"
#include "service/system_call_filter.h"

namespace ternview {
namespace {

constexpr rlim_t kMemoryLimit = rlim_t{2} << 30;
constexpr rlim_t kFileLimit = rlim_t{1} << 30;

bool setLimit(__rlimit_resource resource, rlim_t value) {
    const struct rlimit limit { value, value };
    return ::setrlimit(resource, &limit) == 0;
}

bool setLimits() {
    bool done = setLimit(RLIMIT_CORE, 0) && setLimit(RLIMIT_FSIZE, kFileLimit);
#ifndef TERNVIEW_SANITIZED
    done = done && setLimit(RLIMIT_AS, kMemoryLimit);
#endif
    return done;
}

// ---- files

constexpr __u64 kRead = LANDLOCK_ACCESS_FS_READ_FILE | LANDLOCK_ACCESS_FS_READ_DIR | LANDLOCK_ACCESS_FS_EXECUTE;
constexpr __u64 kChange = LANDLOCK_ACCESS_FS_WRITE_FILE | LANDLOCK_ACCESS_FS_REMOVE_DIR | LANDLOCK_ACCESS_FS_REMOVE_FILE |
                          LANDLOCK_ACCESS_FS_MAKE_DIR | LANDLOCK_ACCESS_FS_MAKE_REG;
constexpr __u64 kHandled = kRead | kChange | LANDLOCK_ACCESS_FS_MAKE_CHAR | LANDLOCK_ACCESS_FS_MAKE_SOCK |
                           LANDLOCK_ACCESS_FS_MAKE_FIFO | LANDLOCK_ACCESS_FS_MAKE_BLOCK | LANDLOCK_ACCESS_FS_MAKE_SYM;
constexpr __u64 kOfFiles = LANDLOCK_ACCESS_FS_READ_FILE | LANDLOCK_ACCESS_FS_WRITE_FILE | LANDLOCK_ACCESS_FS_EXECUTE;

// What the suite and the libraries below it read. Of /etc only what is named: the rest may hold secrets.
constexpr std::array kReadable{"/usr",
                               "/lib",
                               "/lib64",
                               "/etc/ld.so.cache",
                               "/etc/fonts",
                               "/etc/libreoffice",
                               "/etc/localtime",
                               "/var/cache/fontconfig",
                               "/var/lib/libreoffice",
                               "/var/spool/libreoffice",
                               "/dev/urandom",
                               "/proc/cpuinfo",
                               "/proc/meminfo",
                               "/sys/devices/system/cpu"};

/// A path that does not exist has nothing to allow.
bool allow(int rules, const std::filesystem::path& path, __u64 access) {
    const Descriptor target(::open(path.c_str(), O_PATH | O_CLOEXEC));
    if (target.get() < 0) {
        return true;
    }
    std::error_code error;
    const bool isDirectory = std::filesystem::is_directory(path, error);
    landlock_path_beneath_attr rule{};
    rule.allowed_access = isDirectory ? access : access & kOfFiles;
    rule.parent_fd = target.get();
    return ::syscall(SYS_landlock_add_rule, rules, LANDLOCK_RULE_PATH_BENEATH, &rule, 0) == 0;
}

bool restrictFiles(const std::string& privateDirectory, const std::string& suiteDirectory) {
    landlock_ruleset_attr attributes{};
    attributes.handled_access_fs = kHandled;
    const Descriptor rules(static_cast<int>(::syscall(SYS_landlock_create_ruleset, &attributes, sizeof(attributes), 0)));
    if (rules.get() < 0) {
        return errno == ENOSYS || errno == EOPNOTSUPP || errno == EPERM;  // a kernel, or a container, without it
    }
    std::error_code error;
    const auto suite = std::filesystem::canonical(suiteDirectory, error);
    bool done = allow(rules.get(), privateDirectory, kRead | kChange) && allow(rules.get(), suite.parent_path(), kRead) &&
                allow(rules.get(), "/dev/null", kRead | LANDLOCK_ACCESS_FS_WRITE_FILE);
    for (const char* path : kReadable) {
        done = done && allow(rules.get(), path, kRead);
    }
    return done && ::syscall(SYS_landlock_restrict_self, rules.get(), 0) == 0;
}

}  // namespace

bool enterOfficeSandbox(const std::string& privateDirectory, const std::string& suiteDirectory) {
    return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && setLimits() && restrictFiles(privateDirectory, suiteDirectory) &&
           refuseSystemCalls();
}

}  // namespace ternview
