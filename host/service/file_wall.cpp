#include "service/file_wall.h"

#include <fcntl.h>
#include <linux/landlock.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <utility>

#include "sanitized.h"

namespace ternview {
namespace {

constexpr std::uint64_t kRead = LANDLOCK_ACCESS_FS_READ_FILE | LANDLOCK_ACCESS_FS_READ_DIR | LANDLOCK_ACCESS_FS_EXECUTE;

// What came with later versions of Landlock than headers may know.
constexpr std::uint64_t kRefer = std::uint64_t{1} << 13;     // moving from one directory to another; the second version
constexpr std::uint64_t kTruncate = std::uint64_t{1} << 14;  // the third

constexpr std::uint64_t kChange = LANDLOCK_ACCESS_FS_WRITE_FILE | LANDLOCK_ACCESS_FS_REMOVE_DIR | LANDLOCK_ACCESS_FS_REMOVE_FILE |
                                  LANDLOCK_ACCESS_FS_MAKE_DIR | LANDLOCK_ACCESS_FS_MAKE_REG | kRefer | kTruncate;
constexpr std::uint64_t kAll = kRead | kChange | LANDLOCK_ACCESS_FS_MAKE_CHAR | LANDLOCK_ACCESS_FS_MAKE_SOCK |
                               LANDLOCK_ACCESS_FS_MAKE_FIFO | LANDLOCK_ACCESS_FS_MAKE_BLOCK | LANDLOCK_ACCESS_FS_MAKE_SYM;
constexpr std::uint64_t kOfFiles =
    LANDLOCK_ACCESS_FS_READ_FILE | LANDLOCK_ACCESS_FS_WRITE_FILE | LANDLOCK_ACCESS_FS_EXECUTE | kTruncate;

// Of /etc only what is named: the rest may hold secrets.
constexpr std::array kOfTheSystem{
    "/usr",
    "/lib",
    "/lib64",
    "/etc/ld.so.cache",
    "/etc/fonts",
    "/etc/localtime",
    "/etc/locale.alias",
    "/var/cache/fontconfig",
    "/dev/urandom",
    "/proc/cpuinfo",
    "/proc/meminfo",
    "/sys/devices/system/cpu",
#ifdef TERNVIEW_SANITIZED
    "/proc",  // the sanitizers read the memory map
#endif
};

/// Of what this process may have open, most is for others.
std::size_t mostKept() {
    constexpr long kPart = 4;
    return static_cast<std::size_t>(std::max(::sysconf(_SC_OPEN_MAX), 0L) / kPart);
}

/// Of all accesses, those that this kernel can refuse.
std::uint64_t refusable() {
    const long version = ::syscall(SYS_landlock_create_ruleset, nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION);
    return kAll & ~(version < 2 ? kRefer : 0) & ~(version < 3 ? kTruncate : 0);
}

}  // namespace

FileWall::FileWall() : refused_(refusable()) {
    landlock_ruleset_attr attributes{};
    attributes.handled_access_fs = refused_;
    rules_ = Descriptor(static_cast<int>(::syscall(SYS_landlock_create_ruleset, &attributes, sizeof(attributes), 0)));
    // Where there is none, it is a kernel, or a container, without Landlock.
    isSound_ = rules_.get() >= 0 || errno == ENOSYS || errno == EOPNOTSUPP || errno == EPERM;
    for (const char* path : kOfTheSystem) {
        allowReading(path);
    }
    allow("/dev/null", kRead | LANDLOCK_ACCESS_FS_WRITE_FILE);
}

void FileWall::allowReading(const std::filesystem::path& path) {
    allow(path, kRead);
}

void FileWall::allowChanging(const std::filesystem::path& path) {
    allow(path, kRead | kChange);
}

void FileWall::allow(const std::filesystem::path& path, std::uint64_t access) {
    Descriptor target(rules_.get() >= 0 ? ::open(path.c_str(), O_PATH | O_CLOEXEC) : -1);
    struct stat status {};
    if (target.get() < 0 || ::fstat(target.get(), &status) != 0) {
        return;
    }
    const bool isDirectory = S_ISDIR(status.st_mode);
    landlock_path_beneath_attr rule{};
    rule.allowed_access = access & refused_ & (isDirectory ? kAll : kOfFiles);
    rule.parent_fd = target.get();
    const long added = ::syscall(SYS_landlock_add_rule, rules_.get(), LANDLOCK_RULE_PATH_BENEATH, &rule, 0);
    isSound_ = isSound_ && (added == 0 || errno == EBADFD);  // a pipe, which has no place in the file system
    if (!isDirectory && kept_.size() < mostKept()) {
        kept_.push_back(std::move(target));
    }
}

bool FileWall::raise() {
    if (isSound_ && rules_.get() >= 0) {
        isSound_ = ::syscall(SYS_landlock_restrict_self, rules_.get(), 0) == 0 || errno == E2BIG;  // too many stand already
    }
    rules_.close();
    return isSound_;
}

}  // namespace ternview
