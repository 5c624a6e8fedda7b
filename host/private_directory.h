// A directory for temporary files that nobody else can look into.
#pragma once

#include <string>

#include "descriptor.h"

namespace ternview {

/// Lies in $XDG_RUNTIME_DIR, $TMPDIR or /tmp, with mode 0700, and goes with everything that was left in it.
/// The directory that the filter uses below it is there already.
/// Those of programs that were killed go when the next one makes its first.
class PrivateDirectory {
public:
    /// @throws JobError when none can be made
    PrivateDirectory();
    /// Lies in that directory instead.
    /// @throws JobError likewise
    explicit PrivateDirectory(const std::string& parent);
    ~PrivateDirectory();
    PrivateDirectory(const PrivateDirectory&) = delete;
    PrivateDirectory& operator=(const PrivateDirectory&) = delete;

    const std::string& path() const { return path_; }

private:
    bool make(const std::string& parent);
    [[noreturn]] static void fail(const std::string& parent);

    std::string path_;
    Descriptor lock_;  // says that it is in use
};

}  // namespace ternview
