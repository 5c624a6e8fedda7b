#include "stale_files.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <map>
#include <mutex>
#include <set>
#include <string_view>
#include <utility>
#include <vector>

namespace ternview {
namespace {

namespace fs = std::filesystem;

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

/// By way of the descriptor: what now has the directory's name may be something else.
void removeContent(const Descriptor& directory) {
    std::error_code error;
    const fs::path path = "/proc/self/fd/" + std::to_string(directory.get());
    std::vector<fs::path> entries;
    for (auto entry = fs::directory_iterator(path, error); !error && entry != fs::directory_iterator(); entry.increment(error)) {
        entries.push_back(entry->path());
    }
    for (const fs::path& entry : entries) {
        fs::remove_all(entry, error);
    }
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

void removeStaleDirectories(const std::string& parent) {
    for (const std::string& name : namesOf(parent, kPrivateDirectoryName)) {
        const fs::path path = fs::path(parent) / name;
        const Descriptor directory = openDirectory(path);
        struct stat status {};
        if (directory.get() >= 0 && ::fstat(directory.get(), &status) == 0 && isMine(status) &&
            ::flock(directory.get(), LOCK_EX | LOCK_NB) == 0) {
            removeContent(directory);
            ::rmdir(path.c_str());
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
