#include "stale_files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <map>
#include <mutex>
#include <set>
#include <string_view>
#include <utility>
#include <vector>

namespace ternview {
namespace {

namespace fs = std::filesystem;

// The group that the directory of a browser without a sandbox of its own gets when root starts it.
constexpr gid_t kNobody = 65534;

/// Whether mkstemp could have made the name of the template.
bool isMadeOf(std::string_view name, std::string_view pattern) {
    const std::size_t fixed = pattern.size() - 6;
    return name.size() == pattern.size() && name.starts_with(pattern.substr(0, fixed)) &&
           std::all_of(name.begin() + static_cast<std::ptrdiff_t>(fixed), name.end(),
                       [](unsigned char c) { return c < 0x80 && std::isalnum(c) != 0; });
}

/// The names that are such, whatever they stand for.
std::vector<std::string> namesOf(const fs::path& directory, std::string_view pattern) {
    std::vector<std::string> names;
    std::error_code error;
    for (auto entry = fs::directory_iterator(directory, error); !error && entry != fs::directory_iterator();
         entry.increment(error)) {
        if (std::string name = entry->path().filename().string(); isMadeOf(name, pattern)) {
            names.push_back(std::move(name));
        }
    }
    return names;
}

Descriptor openDirectory(const fs::path& path) {
    return Descriptor(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
}

bool isMine(const struct stat& status) {
    return status.st_uid == ::geteuid();
}

bool hasOurPermissions(const struct stat& status) {
    const mode_t permissions = status.st_mode & ACCESSPERMS;
    const bool isBrowsers = ::geteuid() == 0 && status.st_gid == kNobody && permissions == (S_IRWXU | S_IRWXG);
    return isMine(status) && (permissions == S_IRWXU || isBrowsers);
}

bool hasFilterDirectory(const Descriptor& directory) {
    struct stat status {};
    return ::fstatat(directory.get(), filterDirectoryName().c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
           S_ISDIR(status.st_mode) && isMine(status);
}

struct StreamClose {
    void operator()(DIR* stream) const { ::closedir(stream); }
};

/// Without keeping them: there may be very many. What is removed or added meanwhile may be told or not.
template <typename Take>
void forEachName(const Descriptor& directory, const Take& take) {
    const int own = ::openat(directory.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const std::unique_ptr<DIR, StreamClose> stream(own >= 0 ? ::fdopendir(own) : nullptr);
    while (const dirent* entry = stream ? ::readdir(stream.get()) : nullptr) {
        if (const std::string name = entry->d_name; name != "." && name != "..") {
            take(name);
        }
    }
}

/// Gives it the permissions that its removal needs. No link is followed.
Descriptor openForRemoval(const Descriptor& parent, const std::string& name) {
    const Descriptor place(::openat(parent.get(), name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (place.get() >= 0) {
        // fchmod wants a descriptor that can be read, and there is none as long as the permissions are missing.
        ::chmod(("/proc/self/fd/" + std::to_string(place.get())).c_str(), S_IRWXU);
    }
    return Descriptor(::openat(place.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

/// @param number from which a free name is looked for
bool moveTo(const Descriptor& top, const Descriptor& parent, const std::string& name, std::uint64_t& number) {
    openForRemoval(parent, name);  // one that may not be written to cannot be moved
    do {
        if (::renameat(parent.get(), name.c_str(), top.get(), std::to_string(number++).c_str()) == 0) {
            return true;
        }
    } while (errno == ENOTEMPTY || errno == EEXIST || errno == ENOTDIR);
    return false;
}

/// Directories within one are moved to the top, and removed later: they may be nested deeper than a process may have files open.
/// @return whether anything has changed
bool removeEntry(const Descriptor& top, const std::string& name, std::uint64_t& number) {
    if (::unlinkat(top.get(), name.c_str(), 0) == 0) {
        return true;
    }
    bool isChanged = false;
    bool isLeft = false;
    if (const Descriptor directory = openForRemoval(top, name); directory.get() >= 0) {
        forEachName(directory, [&](const std::string& child) {
            if (::unlinkat(directory.get(), child.c_str(), 0) == 0) {
                isChanged = true;
            } else if (moveTo(top, directory, child, number)) {
                isLeft = true;
            }
        });
    }
    return isLeft || ::unlinkat(top.get(), name.c_str(), AT_REMOVEDIR) == 0 || isChanged;
}

/// Who looks for stale files has it locked for a moment. Nobody waits long for whoever locks it for other reasons: that lock
/// keeps others away as well as ours would.
void lockShared(const Descriptor& directory) {
    constexpr int kMostAttempts = 100;
    for (int attempt = 0; attempt < kMostAttempts && ::flock(directory.get(), LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
         ++attempt) {
        ::usleep(10'000);
    }
}

}  // namespace

Descriptor lockPrivateDirectory(const std::string& path) {
    Descriptor directory = openDirectory(path);
    // Who looks for stale ones holds the lock for a moment only. A file system without locks is one without stale ones.
    while (directory.get() >= 0 && ::flock(directory.get(), LOCK_EX) != 0 && errno == EINTR) {
    }
    struct stat status {};
    return directory.get() >= 0 && ::fstat(directory.get(), &status) == 0 && status.st_nlink > 0 ? std::move(directory)
                                                                                                 : Descriptor();
}

std::string filterDirectoryName() {
    return "ternkit-" + std::to_string(::geteuid());
}

void removeContent(const Descriptor& directory) {
    ::fchmod(directory.get(), S_IRWXU);
    std::uint64_t number = 0;
    for (bool isChanged = true; isChanged;) {
        isChanged = false;
        bool isLast = true;
        forEachName(directory, [&](const std::string& name) {
            if (name != filterDirectoryName()) {
                isLast = false;
                isChanged = removeEntry(directory, name, number) || isChanged;
            }
        });
        isChanged = isChanged || (isLast && removeEntry(directory, filterDirectoryName(), number));
    }
}

void removeStaleDirectories(const std::string& parent) {
    for (const std::string& name : namesOf(parent, kPrivateDirectoryName)) {
        const fs::path path = fs::path(parent) / name;
        const Descriptor directory = openDirectory(path);
        struct stat status {};
        if (directory.get() >= 0 && ::fstat(directory.get(), &status) == 0 && hasOurPermissions(status) &&
            ::flock(directory.get(), LOCK_EX | LOCK_NB) == 0) {
            if (hasFilterDirectory(directory)) {
                removeContent(directory);
            }
            ::rmdir(path.c_str());  // an empty one, whatever now has the name
        }
    }
}

std::shared_ptr<const OutputDirectory> OutputDirectory::use(const fs::path& path) {
    static std::mutex mutex;
    static std::set<fs::path> cleaned;
    static std::map<fs::path, std::weak_ptr<const OutputDirectory>> used;
    const std::lock_guard lock(mutex);
    if (auto known = used[path].lock()) {
        return known;
    }
    Descriptor directory(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (cleaned.insert(path).second && directory.get() >= 0 && ::flock(directory.get(), LOCK_EX | LOCK_NB) == 0) {
        for (const std::string& name : namesOf(path, kPendingFileName)) {
            struct stat status {};
            if (::fstatat(directory.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(status.st_mode) &&
                isMine(status)) {
                ::unlinkat(directory.get(), name.c_str(), 0);
            }
        }
    }
    lockShared(directory);
    auto result = std::make_shared<const OutputDirectory>(std::move(directory));
    used[path] = result;
    return result;
}

}  // namespace ternview
