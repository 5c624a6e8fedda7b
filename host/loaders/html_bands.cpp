#include "html_bands.h"

#include <algorithm>

namespace ternview {
namespace {

constexpr double kSmallestScale = 0.01;
constexpr double kWithoutEnd = 1e9;

struct Band {
    double top;
    double right = 0;
    double scale = 1;
    double offset = 0;
};

/// How far to the right anything of an item can be seen.
double rightOf(const DisplayItem& item) {
    return item.visible() ? item.box.intersected(item.clip).right() : 0;
}

/// The bands, from above down: between tops that no item crosses.
std::vector<Band> bandsOf(const DisplayItems& items, std::vector<double> tops) {
    std::ranges::sort(tops);
    tops.erase(std::unique(tops.begin(), tops.end()), tops.end());
    std::vector<std::ptrdiff_t> crossings(tops.size() + 1);  // as differences from one top to the next
    for (const DisplayItem& item : items) {
        const auto first = std::ranges::upper_bound(tops, item.box.y) - tops.begin();
        const auto behind = std::ranges::lower_bound(tops, item.box.bottom()) - tops.begin();
        if (first < behind) {
            ++crossings[static_cast<std::size_t>(first)];
            --crossings[static_cast<std::size_t>(behind)];
        }
    }
    std::vector<Band> bands{{-kWithoutEnd}};
    std::ptrdiff_t open = 0;
    for (std::size_t i = 0; i < tops.size(); ++i) {
        open += crossings[i];
        if (open == 0) {
            bands.push_back({tops[i]});
        }
    }
    return bands;
}

Box placed(const Box& box, const Band& band) {
    return {box.x * band.scale, box.y * band.scale + band.offset, box.width * band.scale, box.height * band.scale};
}

}  // namespace

void fitToWidth(DisplayItems& items, std::vector<double> tops, double width) {
    if (std::ranges::all_of(items, [width](const DisplayItem& item) { return rightOf(item) <= width; })) {
        return;
    }
    std::vector<Band> bands = bandsOf(items, std::move(tops));
    const auto bandOf = [&bands](const DisplayItem& item) -> Band& {
        return *std::prev(std::ranges::upper_bound(bands.begin() + 1, bands.end(), item.box.y, {}, &Band::top));
    };
    for (const DisplayItem& item : items) {
        Band& band = bandOf(item);
        band.right = std::max(band.right, rightOf(item));
    }
    bands[0].top = 0;
    double top = 0;
    for (std::size_t i = 0; i < bands.size(); ++i) {
        Band& band = bands[i];
        band.scale = std::clamp(width / std::max(band.right, 1.0), kSmallestScale, 1.0);
        band.offset = top - band.top * band.scale;
        top += i + 1 < bands.size() ? (bands[i + 1].top - band.top) * band.scale : 0;
    }
    bands[0].top = -kWithoutEnd;
    for (DisplayItem& item : items) {
        const Band& band = bandOf(item);
        item.scale = band.scale;
        item.offset = band.offset;
        item.box = placed(item.box, band);
        item.clip = placed(item.clip, band);
    }
}

}  // namespace ternview
