#include "private_directory.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>

#include "job.h"
#include "stale_files.h"

namespace ternview {

namespace {

constexpr int kMostAttempts = 100;

/// Without those in which the filter would find no place of its own, because it takes a backslash for a separator.
std::vector<std::string> usualParents() {
    std::vector<std::string> parents;
    for (const char* variable : {"XDG_RUNTIME_DIR", "TMPDIR"}) {
        if (const char* parent = std::getenv(variable);
            parent != nullptr && *parent == '/' && std::strchr(parent, '\\') == nullptr) {
            parents.emplace_back(parent);
        }
    }
    parents.emplace_back("/tmp");
    return parents;
}

}  // namespace

PrivateDirectory::PrivateDirectory() {
    static std::once_flag cleaned;
    std::call_once(cleaned, [] {
        for (const std::string& parent : usualParents()) {
            removeStaleDirectories(parent);
        }
    });
    for (const std::string& parent : usualParents()) {
        if (make(parent)) {
            return;
        }
    }
    fail("/tmp");
}

PrivateDirectory::PrivateDirectory(const std::string& parent) {
    if (!make(parent)) {
        fail(parent);
    }
}

PrivateDirectory::~PrivateDirectory() {
    removeContent(lock_);
    ::rmdir(path_.c_str());
}

void PrivateDirectory::fail(const std::string& parent) {
    throw JobError(Failure::kTemporaryFile,
                   "no directory for temporary files can be made in " + parent + ": " + std::strerror(errno));
}

bool PrivateDirectory::make(const std::string& parent) {
    for (int attempt = 0; attempt < kMostAttempts && lock_.get() < 0; ++attempt) {
        path_ = parent + "/" + kPrivateDirectoryName;
        if (::mkdtemp(path_.data()) == nullptr) {
            return false;
        }
        lock_ = lockPrivateDirectory(path_);
    }
    // Where a disk has no room for the filter's own directory, the filter would look for another place by itself.
    const std::string forFilter = path_ + "/" + filterDirectoryName();
    if (lock_.get() >= 0 && ::mkdir(forFilter.c_str(), S_IRWXU) != 0) {
        const int reason = errno;
        ::rmdir(path_.c_str());
        lock_.close();
        errno = reason;
    }
    return lock_.get() >= 0;
}

}  // namespace ternview
