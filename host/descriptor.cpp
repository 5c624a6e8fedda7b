#include "descriptor.h"

#include <algorithm>
#include <filesystem>
#include <string>
#include <system_error>

namespace ternview {
namespace {

/// Kernels before 5.9, and containers that were made for them, cannot close many descriptors at once.
/// @param end behind the last one
void closeRange(unsigned first, unsigned end) {
    if (first >= end || ::close_range(first, end - 1, 0) == 0) {
        return;
    }
    std::vector<unsigned> open;
    std::error_code error;
    for (auto entry = std::filesystem::directory_iterator("/proc/self/fd", error);
         !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
        open.push_back(static_cast<unsigned>(std::stoul(entry->path().filename())));
    }
    for (const unsigned descriptor : open) {
        if (descriptor >= first && descriptor < end) {
            ::close(static_cast<int>(descriptor));
        }
    }
}

}  // namespace

void closeAllBut(std::vector<int> kept) {
    std::sort(kept.begin(), kept.end());
    unsigned first = STDERR_FILENO + 1;
    for (const int descriptor : kept) {
        const auto number = static_cast<unsigned>(std::max(descriptor, 0));
        closeRange(first, number);
        first = std::max(first, number + 1);
    }
    closeRange(first, ~0U);
}

}  // namespace ternview
