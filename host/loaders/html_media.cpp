#include "html_media.h"

#include "html_css_text.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <optional>
#include <string>

namespace ternview {
namespace {

using namespace css;

constexpr double kWidth = 794;  // A4 in CSS pixels: wide enough for the layouts that senders make for computers
constexpr double kHeight = 1123;
constexpr std::size_t kMaxLength = 1000;

/// Calls `each` for the parts between separators that stand outside brackets.
template <typename Each>
void forEachPart(std::string_view text, char separator, Each each) {
    int level = 0;
    std::size_t start = 0;
    for (std::size_t i = 0; i <= text.size(); ++i) {
        if (i == text.size() || (text[i] == separator && level == 0)) {
            each(trimmed(text.substr(start, i - start)));
            start = i + 1;
        } else {
            level += text[i] == '(' ? 1 : text[i] == ')' ? -1 : 0;
        }
    }
}

/// A length in pixels, or a plain number.
std::optional<double> numberOf(std::string_view text) {
    double value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc()) {
        return std::nullopt;
    }
    const std::string_view unit = trimmed(text.substr(static_cast<std::size_t>(end - text.data())));
    if (unit == "em" || unit == "rem") {
        return value * 16;
    }
    if (unit == "pt") {
        return value * 96 / 72;
    }
    if (unit == "dpi") {
        return value / 96;
    }
    return value;
}

/// What the paper has of a feature that is measured.
std::optional<double> measureOf(std::string_view feature) {
    struct Measure {
        std::string_view name;
        double value;
    };
    static constexpr std::array<Measure, 9> kMeasures{{{"width", kWidth},
                                                       {"device-width", kWidth},
                                                       {"height", kHeight},
                                                       {"device-height", kHeight},
                                                       {"resolution", 1},
                                                       {"device-pixel-ratio", 1},
                                                       {"color", 8},
                                                       {"monochrome", 0},
                                                       {"color-index", 0}}};
    const auto found = std::ranges::find(kMeasures, feature, &Measure::name);
    return found == kMeasures.end() ? std::nullopt : std::optional(found->value);
}

/// Comparisons as in "(400px <= width < 700px)".
bool rangeHolds(std::string_view condition) {
    const auto valueOf = [](std::string_view text) {
        const auto measure = measureOf(text);
        return measure ? measure : numberOf(text);
    };
    std::size_t start = 0;
    std::optional<double> before;
    char sign = '=';
    bool inclusive = true;
    for (;;) {
        const std::size_t end = std::min(condition.find_first_of("<>=", start), condition.size());
        const std::optional<double> value = valueOf(trimmed(condition.substr(start, end - start)));
        if (!value) {
            return false;
        }
        if (before && ((sign == '<' && *before > *value) || (sign == '>' && *before < *value) ||
                       (sign == '=' && *before != *value) || (!inclusive && *before == *value))) {
            return false;
        }
        if (end == condition.size()) {
            return true;
        }
        before = value;
        sign = condition[end];
        start = end + 1;
        inclusive = sign == '=' || (start < condition.size() && condition[start] == '=');
        start += sign != '=' && inclusive ? 1 : 0;
    }
}

bool featureHolds(std::string_view condition) {
    const std::size_t colon = condition.find(':');
    std::string_view name = trimmed(condition.substr(0, colon));
    for (const std::string_view prefix : {"-webkit-", "-moz-", "-o-"}) {
        name.remove_prefix(name.starts_with(prefix) ? prefix.size() : 0);
    }
    if (colon == std::string_view::npos) {
        return condition.find_first_of("<>=") != std::string_view::npos ? rangeHolds(condition) : measureOf(name).value_or(0) > 0;
    }
    const std::string_view value = trimmed(condition.substr(colon + 1));
    if (name == "prefers-color-scheme") {
        return value == "light";
    }
    if (name == "orientation") {
        return value == "portrait";
    }
    const bool least = name.starts_with("min-");
    const bool most = name.starts_with("max-");
    name.remove_prefix(least || most ? 4 : 0);
    const std::optional<double> measure = measureOf(name);
    const std::optional<double> wanted = numberOf(value);
    return measure && wanted && (least ? *measure >= *wanted : most ? *measure <= *wanted : *measure == *wanted);
}

/// The next word or group in brackets, taken off the text.
std::string_view takePart(std::string_view& text) {
    std::size_t end = 0;
    if (text.starts_with('(')) {
        end = behindBrackets(text, 0);
    } else {
        while (end < text.size() && !isSpace(text[end]) && text[end] != '(') {
            ++end;
        }
    }
    const std::string_view part = text.substr(0, end);
    text = trimmed(text.substr(end));
    return part;
}

bool queryHolds(std::string_view query) {
    bool holds = true;
    bool all = true;            // what comes next must hold as well, or instead
    bool negatedQuery = false;  // "not" in front of a type is for the whole query
    bool negated = false;
    bool any = false;
    while (!query.empty()) {
        const std::string_view part = takePart(query);
        if (part == "and" || part == "or") {
            all = part == "and";
        } else if (part == "not") {
            negated = query.starts_with('(');
            negatedQuery = negatedQuery || !negated;
        } else if (part != "only") {
            const bool group = part.size() > 2 && part.starts_with('(') && part.ends_with(')');
            const bool value = group ? featureHolds(trimmed(part.substr(1, part.size() - 2))) != negated
                                     : part == "all" || part == "screen" || part == "print";
            holds = all ? holds && value : holds || value;
            negated = false;
            any = true;
        }
    }
    return any && holds != negatedQuery;
}

}  // namespace

bool mediaApply(std::string_view queries) {
    if (queries.size() > kMaxLength) {
        return false;
    }
    const std::string list = lowered(trimmed(queries));
    bool any = list.empty();
    forEachPart(list, ',', [&any](std::string_view query) { any = any || queryHolds(query); });
    return any;
}

}  // namespace ternview
