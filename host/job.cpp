#include "job.h"

#include <algorithm>
#include <charconv>
#include <limits>

namespace ternview {
namespace {

constexpr int kLastPage = std::numeric_limits<int>::max();

std::optional<int> parsePage(std::string_view text) {
    int page = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), page);
    if (error != std::errc() || end != text.data() + text.size() || page < 1) {
        return std::nullopt;
    }
    return page;
}

}  // namespace

std::optional<PageSelection> PageSelection::parse(std::string_view text) {
    PageSelection selection;
    while (true) {
        const std::size_t comma = text.find(',');
        const std::string_view item = text.substr(0, comma);
        const std::size_t dash = item.find('-');
        const std::optional<int> first = parsePage(item.substr(0, dash));
        std::optional<int> last = first;
        if (dash != std::string_view::npos) {
            last = dash + 1 == item.size() ? kLastPage : parsePage(item.substr(dash + 1));
        }
        if (!first || !last || *last < *first) {
            return std::nullopt;
        }
        selection.ranges_.push_back({*first, *last});
        if (comma == std::string_view::npos) {
            return selection;
        }
        text.remove_prefix(comma + 1);
    }
}

bool PageSelection::contains(int page) const {
    return ranges_.empty() ||
           std::any_of(ranges_.begin(), ranges_.end(), [page](Range range) { return range.first <= page && page <= range.last; });
}

}  // namespace ternview
