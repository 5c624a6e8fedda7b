#include "html_pages.h"

#include <algorithm>
#include <cmath>
#include <memory>
#include <variant>

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

double area(const Box& box) {
    return box.empty() ? 0 : box.width * box.height;
}

/// From one dot or dash of a border to the next at least; 0 when it has none.
double distanceOfDots(const BorderItem& border) {
    double least = 0;
    for (const BorderItem::Side& side : border.sides) {
        const bool dotted = side.style == BorderItem::Style::Dotted;
        if (side.width > 0 && (dotted || side.style == BorderItem::Style::Dashed)) {
            const double distance = dotted ? side.width * 2 : std::max(side.width * 3.5, 5.0);
            least = least > 0 ? std::min(least, distance) : distance;
        }
    }
    return least;
}

/// What painting an item on a page costs at most, in units of filling half of a square as high as the page.
double paintingCost(const DisplayItem& item, const PagePlan::Page& page, double pageHeight) {
    constexpr double kFill = 2;
    constexpr double kGradient = 6;
    constexpr double kPicture = 40;
    constexpr double kDot = 0.01;
    const Box band{std::max(item.box.x, 0.0), page.top, pageHeight, page.bottom - page.top};
    const Box seen = item.box.intersected(item.clip).intersected(band);
    const double share = area(seen) / (pageHeight * pageHeight);
    if (const auto* picture = std::get_if<std::unique_ptr<PictureItem>>(&item.content)) {
        cairo_surface_t* surface = (*picture)->picture->surface.get();
        const double points =
            static_cast<double>(cairo_image_surface_get_width(surface)) * cairo_image_surface_get_height(surface);
        return share * kPicture * (1 + points / std::max(area((*picture)->tile), 1.0));
    }
    if (const auto* border = std::get_if<std::unique_ptr<BorderItem>>(&item.content)) {
        const double distance = distanceOfDots(**border) * item.scale;
        const double dots = distance > 0 && !seen.empty() ? 2 * (seen.width + seen.height) / distance : 0;
        return share * kFill + dots * kDot;
    }
    const bool gradient = std::holds_alternative<std::unique_ptr<GradientItem>>(item.content);
    return gradient ? share * kGradient : std::holds_alternative<FillItem>(item.content) ? share * kFill : 0;
}

/// Finds the lowest layer of each page that is worth painting: hundreds of pictures of the page's size may lie upon each other.
void limitLayers(PagePlan& plan, const DisplayItems& items, double pageHeight) {
    constexpr double kFreeOnEachPage = 5;
    double left = 25'000;  // for pages that take more
    for (PagePlan::Page& page : plan.pages) {
        double spent = 0;
        auto own = page.items.rbegin();
        auto spanning = plan.spanning.rbegin();
        while (own != page.items.rend() || spanning != plan.spanning.rend()) {
            const bool takeOwn = spanning == plan.spanning.rend() || (own != page.items.rend() && *own > *spanning);
            const std::uint32_t index = takeOwn ? *own++ : *spanning++;
            spent += paintingCost(items[index], page, pageHeight);
            if (spent > kFreeOnEachPage + left) {
                page.firstLayer = index + 1;
                break;
            }
        }
        left -= std::clamp(spent - kFreeOnEachPage, 0.0, left);
    }
}

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
    limitLayers(plan, items, pageHeight);
    return plan;
}

}  // namespace ternview
