#include "office_sandbox.h"

#include <sys/prctl.h>
#include <sys/resource.h>

#include <filesystem>
#include <system_error>

#include "sanitized.h"
#include "service/file_wall.h"
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

bool restrictFiles(const std::string& privateDirectory, const std::string& suiteDirectory) {
    static FileWall wall;
    wall.allowChanging(privateDirectory);
    std::error_code error;
    wall.allowReading(std::filesystem::canonical(suiteDirectory, error).parent_path());
    for (const char* path : {"/etc/libreoffice", "/var/lib/libreoffice", "/var/spool/libreoffice"}) {
        wall.allowReading(path);
    }
    return wall.raise();
}

}  // namespace

bool enterOfficeSandbox(const std::string& privateDirectory, const std::string& suiteDirectory) {
    return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && setLimits() && restrictFiles(privateDirectory, suiteDirectory) &&
           refuseSystemCalls();
}

}  // namespace ternview
