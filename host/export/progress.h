// How far an export is, in one line on a terminal.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace ternview {

struct ExportCounts {
    std::uint64_t done = 0;     // in this run
    std::uint64_t skipped = 0;  // done in an earlier one
    std::uint64_t failed = 0;
    std::uint64_t known = 0;  // messages of the files that were looked into
    bool knowsAll = false;    // all files were

    std::uint64_t finished() const { return done + skipped + failed; }
};

/// The line, without control characters. @param elapsed since the run began
std::string progressLine(const ExportCounts& counts, std::chrono::milliseconds elapsed, std::size_t columns);

class Progress {
public:
    using Clock = std::chrono::steady_clock;

    /// Shows something only when standard error is a terminal and `wanted`.
    explicit Progress(bool wanted);
    ~Progress() { clear(); }
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    bool isShown() const { return isShown_; }
    /// Shows the counts, unless that was done just now.
    void show(const ExportCounts& counts);
    /// Takes the line away, so that something else can be said.
    void clear();

private:
    bool isShown_;
    bool isOnScreen_ = false;
    Clock::time_point begin_ = Clock::now();
    Clock::time_point next_ = begin_;
};

/// How often the line changes.
inline constexpr std::chrono::milliseconds kProgressInterval{250};

}  // namespace ternview
