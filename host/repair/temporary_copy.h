// A message in a file of its own, for the filter, which opens files only.
#pragma once

#include <memory>
#include <string>
#include <string_view>

namespace ternview {

/// Lies in the private directory that a process for strangers' mail is given ($XDG_RUNTIME_DIR), and goes with the object.
class TemporaryCopy {
public:
    /// @throws JobError when it cannot be written
    explicit TemporaryCopy(std::string_view bytes);
    ~TemporaryCopy();
    TemporaryCopy(const TemporaryCopy&) = delete;
    TemporaryCopy& operator=(const TemporaryCopy&) = delete;

    /// For a copy that may be done without. @return null when it cannot be written
    static std::unique_ptr<TemporaryCopy> ifThereIsRoom(std::string_view bytes);

    const std::string& path() const { return path_; }

private:
    std::string path_;
};

}  // namespace ternview
