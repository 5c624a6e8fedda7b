#include "html_gradient.h"

#include "html_css_text.h"

#include <litehtml/litehtml.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <numbers>

namespace ternview {
namespace {

using namespace css;

constexpr std::size_t kMaxStops = 100;

std::vector<std::string_view> splitAtCommas(std::string_view text) {
    std::vector<std::string_view> parts;
    std::size_t start = 0;
    for (std::size_t at = 0; at <= text.size() && parts.size() <= kMaxStops;) {
        if (at == text.size() || text[at] == ',') {
            parts.push_back(trimmed(text.substr(start, at - start)));
            start = ++at;
        } else {
            at = text[at] == '(' ? behindBrackets(text, at) : at + 1;
        }
    }
    return parts;
}

std::optional<double> numberOf(std::string_view text, std::string_view unit) {
    double value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    const bool fits = error == std::errc() && text.substr(static_cast<std::size_t>(end - text.data())) == unit;
    return fits ? std::optional(value) : std::nullopt;
}

/// Sets the direction; false when the text is none.
bool readDirection(std::string_view text, GradientItem& gradient) {
    if (const auto degrees = numberOf(text, "deg")) {
        gradient.angle = *degrees * std::numbers::pi / 180;
        return true;
    }
    if (const auto turns = numberOf(text, "turn")) {
        gradient.angle = *turns * 2 * std::numbers::pi;
        return true;
    }
    if (!text.starts_with("to ")) {
        return false;
    }
    const auto has = [text](std::string_view side) { return text.find(side) != std::string_view::npos; };
    gradient.horizontal = has("left") ? -1 : has("right") ? 1 : 0;
    gradient.vertical = has("top") ? -1 : has("bottom") ? 1 : 0;
    gradient.toCorner = gradient.horizontal != 0 && gradient.vertical != 0;
    gradient.angle = std::atan2(gradient.horizontal, -gradient.vertical);
    return true;
}

/// What stands in front of the colours of a radial gradient; all of them are drawn as circles around the middle.
bool isShape(std::string_view text) {
    return std::ranges::any_of(std::array<std::string_view, 5>{"circle", "ellipse", "at ", "closest-", "farthest-"},
                               [text](std::string_view word) { return text.starts_with(word); });
}

std::optional<GradientItem::Stop> readStop(std::string_view text) {
    const std::size_t bracket = std::min(text.find('('), text.size());
    const std::size_t space = std::min(text.find(' '), text.size());
    const std::size_t end = bracket < space ? behindBrackets(text, bracket) : space;
    const std::string name(text.substr(0, end));
    if (!litehtml::web_color::is_color(name.c_str())) {
        return std::nullopt;
    }
    const litehtml::web_color color = litehtml::web_color::from_string(name.c_str(), nullptr);
    const auto part = [](litehtml::byte value) { return static_cast<float>(value) / 255; };
    const std::string_view place = trimmed(text.substr(end));
    const auto percent = numberOf(place.substr(0, place.find(' ')), "%");
    return GradientItem::Stop{{part(color.red), part(color.green), part(color.blue), part(color.alpha)},
                              percent ? *percent / 100 : -1};
}

/// Gives each stop without a place one between its neighbours.
void placeStops(std::vector<GradientItem::Stop>& stops) {
    stops.front().offset = std::max(stops.front().offset, 0.0);
    stops.back().offset = stops.back().offset < 0 ? 1 : stops.back().offset;
    for (std::size_t i = 1; i < stops.size(); ++i) {
        if (stops[i].offset >= 0) {
            stops[i].offset = std::max(stops[i].offset, stops[i - 1].offset);
            continue;
        }
        std::size_t next = i;
        while (stops[next].offset < 0) {
            ++next;
        }
        const double step = (stops[next].offset - stops[i - 1].offset) / static_cast<double>(next - i + 1);
        stops[i].offset = stops[i - 1].offset + std::max(step, 0.0);
    }
}

}  // namespace

std::optional<GradientItem> parseGradient(std::string_view value) {
    GradientItem gradient;
    constexpr std::string_view kLinear = "linear-gradient(";
    constexpr std::string_view kRadial = "radial-gradient(";
    gradient.radial = value.starts_with(kRadial);
    if ((!gradient.radial && !value.starts_with(kLinear)) || !value.ends_with(')')) {
        return std::nullopt;
    }
    value.remove_suffix(1);
    for (const std::string_view part : splitAtCommas(value.substr(kLinear.size()))) {
        if (gradient.stops.empty() && (gradient.radial ? isShape(part) : readDirection(part, gradient))) {
            continue;
        }
        const std::optional<GradientItem::Stop> stop = readStop(part);
        if (!stop) {
            return std::nullopt;
        }
        gradient.stops.push_back(*stop);
    }
    if (gradient.stops.empty()) {
        return std::nullopt;
    }
    placeStops(gradient.stops);
    return gradient;
}

}  // namespace ternview
