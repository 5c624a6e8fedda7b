#include "html_pages.h"

#include <algorithm>
#include <cmath>

namespace ternview {
namespace {

constexpr std::size_t kManyPages = 8;

/// Whether an item goes onto one page as a whole; a taller one is cut like a background.
bool staysWhole(const DisplayItem& item, double pageHeight) {
    return item.solid() && item.box.height <= pageHeight;
}

bool usable(const DisplayItem& item) {
    return std::isfinite(item.box.y) && std::isfinite(item.box.height) && item.box.bottom() > 0;
}

struct Extent {
    double top;
    double bottom;
};

/// The start of the page behind the one that starts at `top`.
double nextBreak(const std::vector<Extent>& extents, std::size_t& first, double top, double limit) {
    while (first < extents.size() && extents[first].top <= top) {
        ++first;
    }
    for (std::size_t i = first; i < extents.size() && extents[i].top < limit; ++i) {
        if (extents[i].bottom > limit) {
            return extents[i].top;  // the uppermost of all that do not fit, as they are in order
        }
    }
    return limit;
}

}  // namespace

PagePlan planPages(const DisplayItems& items, double pageHeight, std::size_t maxPages) {
    PagePlan plan;
    std::vector<Extent> extents;
    double end = 0;
    for (const DisplayItem& item : items) {
        if (!usable(item) || !item.visible()) {
            continue;
        }
        const Box seen = item.box.intersected(item.clip);
        end = std::max(end, seen.bottom());
        if (staysWhole(item, pageHeight)) {
            extents.push_back({item.box.y, item.box.bottom()});
        }
    }
    std::ranges::sort(extents, {}, &Extent::top);

    double top = 0;
    std::size_t first = 0;
    do {
        const double bottom = nextBreak(extents, first, top, top + pageHeight);
        plan.pages.push_back({top, bottom, {}});
        top = bottom;
    } while (top < end && plan.pages.size() < maxPages);
    plan.shortened = top < end;

    const auto pageAt = [&plan](double y) {
        const auto after = std::ranges::upper_bound(plan.pages, y, {}, &PagePlan::Page::top);
        return static_cast<std::size_t>(std::max<std::ptrdiff_t>(after - plan.pages.begin() - 1, 0));
    };
    for (std::size_t i = 0; i < items.size(); ++i) {
        const DisplayItem& item = items[i];
        if (!usable(item) || item.box.y >= plan.pages.back().bottom) {
            continue;
        }
        const auto index = static_cast<std::uint32_t>(i);
        const std::size_t from = pageAt(item.box.y);
        const std::size_t to = staysWhole(item, pageHeight) ? from : pageAt(std::nextafter(item.box.bottom(), 0));
        if (to - from >= kManyPages) {
            plan.spanning.push_back(index);
            continue;
        }
        for (std::size_t page = from; page <= to; ++page) {
            plan.pages[page].items.push_back(index);
        }
    }
    return plan;
}

}  // namespace ternview
