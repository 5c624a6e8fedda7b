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
    if (!make("/tmp")) {
        throw JobError(Failure::kOutput,
                       std::string("no directory for temporary files can be made in /tmp: ") + std::strerror(errno));
    }
}

PrivateDirectory::~PrivateDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

bool PrivateDirectory::make(const std::string& parent) {
    path_ = parent + "/tv-XXXXXX";
    return ::mkdtemp(path_.data()) != nullptr;
}

}  // namespace ternview
