#include "progress.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>

namespace ternview {
namespace {

constexpr std::size_t kBarColumns = 24;
constexpr std::size_t kUsualColumns = 80;
constexpr std::chrono::milliseconds kTimeToTellTheRate{1000};

std::string bar(std::uint64_t finished, std::uint64_t all) {
    const std::uint64_t filled = all == 0 ? 0 : std::min<std::uint64_t>(kBarColumns, finished * kBarColumns / all);
    return "[" + std::string(filled, '#') + std::string(kBarColumns - filled, '.') + "] ";
}

std::string duration(std::uint64_t seconds) {
    std::array<char, 32> text;
    if (seconds >= 3600) {
        std::snprintf(text.data(), text.size(), "%llu:%02llu:%02llu", static_cast<unsigned long long>(seconds / 3600),
                      static_cast<unsigned long long>(seconds / 60 % 60), static_cast<unsigned long long>(seconds % 60));
    } else {
        std::snprintf(text.data(), text.size(), "%llu:%02llu", static_cast<unsigned long long>(seconds / 60),
                      static_cast<unsigned long long>(seconds % 60));
    }
    return text.data();
}

std::size_t terminalColumns() {
    winsize size{};
    return ::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : kUsualColumns;
}

void say(const std::string& text) {
    // A terminal that went away is no reason to stop.
    [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, text.data(), text.size());
}

}  // namespace

std::string progressLine(const ExportCounts& counts, std::chrono::milliseconds elapsed, std::size_t columns) {
    const std::uint64_t all = std::max(counts.known, counts.finished());
    std::string line = counts.knowsAll ? bar(counts.finished(), all) : "";
    line += std::to_string(counts.finished()) + " of " + std::to_string(all) + (counts.knowsAll ? "" : "+");
    const std::uint64_t worked = counts.done + counts.failed;
    if (elapsed >= kTimeToTellTheRate && worked > 0) {
        const double rate = static_cast<double>(worked) * 1000 / static_cast<double>(elapsed.count());
        std::array<char, 32> text;
        std::snprintf(text.data(), text.size(), rate < 10 ? ", %.1f/s" : ", %.0f/s", rate);
        line += text.data();
        if (counts.knowsAll) {
            line += ", " + duration(static_cast<std::uint64_t>(static_cast<double>(all - counts.finished()) / rate)) + " left";
        }
    }
    if (counts.failed > 0) {
        line += ", " + std::to_string(counts.failed) + " failed";
    }
    return line.substr(0, columns);
}

Progress::Progress(bool wanted) : isShown_(wanted && ::isatty(STDERR_FILENO) == 1) {}

void Progress::show(const ExportCounts& counts) {
    const auto now = Clock::now();
    if (!isShown_ || now < next_) {
        return;
    }
    next_ = now + kProgressInterval;
    const auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(now - begin_);
    say("\r" + progressLine(counts, elapsed, terminalColumns() - 1) + "\x1B[K");
    isOnScreen_ = true;
}

void Progress::clear() {
    if (isOnScreen_) {
        say("\r\x1B[K");
        isOnScreen_ = false;
    }
}

}  // namespace ternview
