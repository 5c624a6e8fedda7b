// A running browser: starting it so that it fetches nothing, runs nothing and shows nothing, and watching how much it takes.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <memory>

#include "browser/devtools.h"

namespace ternview {

class Chromium {
public:
    struct Options {
        std::filesystem::path program;
        std::filesystem::path directory;  // for its profile and temporary files
        bool ownSandbox = true;           // Chromium's, around the process that reads pages
    };

    /// Starts it; whether it runs, the first call tells.
    /// @throws BrowserFailure
    explicit Chromium(const Options& options);
    ~Chromium();
    Chromium(const Chromium&) = delete;
    Chromium& operator=(const Chromium&) = delete;

    DevTools& devTools() { return *devTools_; }

private:
    pid_t process_ = 0;
    std::unique_ptr<DevTools> devTools_;
};

/// The memory in bytes that a process and all its descendants hold; what they share with each other counts once.
std::uint64_t memoryOfFamily(pid_t process);

}  // namespace ternview
