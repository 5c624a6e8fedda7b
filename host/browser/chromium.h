// A running browser: starting it so that it fetches nothing, runs nothing and shows nothing, and watching how much it takes.
#pragma once

#include <sys/types.h>

#include <chrono>
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
    /// Limits the processor time that it may take from now on; a call of its DevTools then ends as one that takes too long.
    void limitProcessorTime(std::chrono::seconds limit);

private:
    void watch() const;

    pid_t process_ = 0;
    std::chrono::milliseconds mostTime_ = std::chrono::milliseconds::max();
    std::unique_ptr<DevTools> devTools_;
};

/// What a process and all its descendants take.
struct FamilyFigures {
    std::uint64_t memory = 0;                // bytes; what they share with each other counts once
    std::uint64_t largest = 0;               // bytes, of one of them
    std::chrono::milliseconds processor{0};  // of those that live
};
FamilyFigures figuresOfFamily(pid_t process);

}  // namespace ternview
