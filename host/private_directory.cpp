#include "private_directory.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "job.h"

namespace ternview {

PrivateDirectory::PrivateDirectory() {
    for (const char* variable : {"XDG_RUNTIME_DIR", "TMPDIR"}) {
        const char* parent = std::getenv(variable);
        if (parent != nullptr && *parent == '/' && make(parent)) {
            return;
        }
    }
    makeOrThrow("/tmp");
}

PrivateDirectory::PrivateDirectory(const std::string& parent) {
    makeOrThrow(parent);
}

PrivateDirectory::~PrivateDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

void PrivateDirectory::makeOrThrow(const std::string& parent) {
    if (!make(parent)) {
        throw JobError(Failure::kOutput,
                       "no directory for temporary files can be made in " + parent + ": " + std::strerror(errno));
    }
}

bool PrivateDirectory::make(const std::string& parent) {
    path_ = parent + "/tv-XXXXXX";
    return ::mkdtemp(path_.data()) != nullptr;
}

}  // namespace ternview
