#include "module_search.h"

#include <cstdlib>
#include <filesystem>

namespace ternview {

std::vector<std::string> libraryCandidates(const RuntimeLibrary& library) {
    if (const char* named = std::getenv(library.variable); named != nullptr && *named != '\0') {
        return {named};
    }
    std::vector<std::string> candidates;
    std::error_code error;
    const auto program = std::filesystem::read_symlink("/proc/self/exe", error);
    if (!error) {
        for (const char* directory : {"../lib", TERNVIEW_MODULE_DIRECTORY}) {
            candidates.push_back((program.parent_path() / directory / library.file).lexically_normal().string());
        }
    }
    return candidates;
}

}  // namespace ternview
