#include "export_names.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <ctime>

#include "utf.h"

namespace ternview {
namespace {

constexpr std::size_t kLongestName = 255;
// " (99999)", "-100000" and ".html" behind a stem.
constexpr std::size_t kRoomBehindStem = 24;
constexpr char kNoSubject[] = "No subject";
constexpr char kReplacement = '_';
constexpr std::string_view kThumbnailExtension = ".png";

struct CharacterRange {
    char32_t first;
    char32_t last;
};

// Characters that direct, join or hide others, and those that no text is to hold: a name must not read as another than it is.
constexpr std::array kDropped{CharacterRange{0x7F, 0x9F},      CharacterRange{0xAD, 0xAD},     CharacterRange{0x61C, 0x61C},
                              CharacterRange{0x180E, 0x180E},  CharacterRange{0x200B, 0x200B}, CharacterRange{0x200E, 0x200F},
                              CharacterRange{0x202A, 0x202E},  CharacterRange{0x2060, 0x206F}, CharacterRange{0xFDD0, 0xFDEF},
                              CharacterRange{0xFEFF, 0xFEFF},  CharacterRange{0xFFF0, 0xFFFB}, CharacterRange{0xFFFE, 0xFFFF},
                              CharacterRange{0xE0000, 0xE007F}};
constexpr std::array kBlank{CharacterRange{0, 0x20}, CharacterRange{0xA0, 0xA0}, CharacterRange{0x2028, 0x2029},
                            CharacterRange{0x3000, 0x3000}};
constexpr std::u32string_view kForbidden = U"/\\:*?\"<>|";

template <std::size_t Count>
bool isIn(const std::array<CharacterRange, Count>& ranges, char32_t character) {
    return std::any_of(ranges.begin(), ranges.end(),
                       [character](CharacterRange range) { return range.first <= character && character <= range.last; });
}

/// Windows takes "aux.pdf" for a device, whatever its case.
bool isDeviceName(std::string_view name) {
    std::string stem(name.substr(0, name.find('.')));
    std::transform(stem.begin(), stem.end(), stem.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    for (const std::string_view device : {"con", "prn", "aux", "nul"}) {
        if (stem == device) {
            return true;
        }
    }
    return stem.size() == 4 && (stem.starts_with("com") || stem.starts_with("lpt")) && std::isdigit(stem[3]) != 0;
}

/// At least so many digits, so that names sort as numbers do.
constexpr std::size_t kDigits = 6;

std::string paddedNumber(std::uint32_t number) {
    std::string digits = std::to_string(number);
    digits.insert(0, kDigits - std::min(kDigits, digits.size()), '0');
    return digits;
}

std::size_t leadingDigits(std::string_view text) {
    return std::min(text.find_first_not_of("0123456789"), text.size());
}

std::optional<std::tm> localParts(std::int64_t seconds) {
    const auto time = static_cast<std::time_t>(seconds);
    std::tm parts{};
    if (::localtime_r(&time, &parts) == nullptr || parts.tm_year < 1000 - 1900 || parts.tm_year > 9999 - 1900) {
        return std::nullopt;
    }
    return parts;
}

std::string formatted(const std::tm& parts, const char* format) {
    std::array<char, 32> text;
    return {text.data(), std::strftime(text.data(), text.size(), format, &parts)};
}

std::string firstCharacters(std::string_view text, std::size_t count) {
    std::string_view rest = text;
    while (!rest.empty() && count-- > 0) {
        rest.remove_prefix(readUtf8(rest).size);
    }
    return std::string(text.substr(0, text.size() - rest.size()));
}

void trimEnd(std::string& text) {
    while (!text.empty() && (text.back() == ' ' || text.back() == '.')) {
        text.pop_back();
    }
}

}  // namespace

std::string safeNamePart(std::string_view text, std::size_t mostBytes) {
    std::string name;
    bool gap = false;
    while (!text.empty()) {
        const Utf8Step step = readUtf8(text);
        const std::string_view bytes = text.substr(0, step.size);
        text.remove_prefix(step.size);
        if (!step.valid || isIn(kDropped, step.character)) {
            continue;
        }
        if (isIn(kBlank, step.character)) {
            gap = true;
            continue;
        }
        if (name.empty() && step.character == U'.') {
            continue;
        }
        const bool forbidden = kForbidden.find(step.character) != std::u32string_view::npos;
        const std::size_t more = (gap && !name.empty() ? 1 : 0) + (forbidden ? 1 : bytes.size());
        if (name.size() + more > mostBytes) {
            break;
        }
        if (gap && !name.empty()) {
            name += ' ';
        }
        gap = false;
        name += forbidden ? std::string_view(&kReplacement, 1) : bytes;
    }
    trimEnd(name);
    return name;
}

std::string messageStem(std::uint32_t number, std::optional<std::int64_t> sentTime, std::string_view subject) {
    std::string stem = paddedNumber(number) + " ";
    if (const std::optional<std::tm> date = sentTime ? localParts(*sentTime) : std::nullopt) {
        stem += formatted(*date, "%Y-%m-%d ");
    }
    std::string shown = firstCharacters(safeNamePart(subject, subject.size()), kMostSubjectCharacters);
    shown = safeNamePart(shown, kLongestName - kRoomBehindStem - stem.size());
    return stem + (shown.empty() ? kNoSubject : shown);
}

std::string shortened(const std::string& stem) {
    const std::size_t start = stem.find(' ') + 1;
    const std::string_view rest = std::string_view(stem).substr(start);
    if (rest.size() <= 1) {
        return "";
    }
    const std::string half = safeNamePart(rest, rest.size() / 2);
    return stem.substr(0, start) + (half.empty() ? std::string(1, kReplacement) : half);
}

std::string storeDirectoryName(const std::filesystem::path& file) {
    std::string name = safeNamePart(file.stem().string(), kLongestName - kRoomBehindStem);
    if (name.empty()) {
        return "store";
    }
    return isDeviceName(name) ? kReplacement + name : name;
}

std::string numbered(const std::string& name, std::uint32_t attempt) {
    return attempt == 1 ? name : name + " (" + std::to_string(attempt) + ")";
}

std::string thumbnailName(std::optional<std::size_t> store, std::uint32_t number, std::uint32_t attempt) {
    const std::string stem = (store ? std::to_string(*store) + "-" : std::string()) + paddedNumber(number);
    return numbered(stem, attempt) + std::string(kThumbnailExtension);
}

bool isMessageStem(std::string_view name) {
    const std::size_t digits = leadingDigits(name);
    return isSafeName(name) && digits >= kDigits && name.substr(digits).starts_with(' ');
}

bool isThumbnailName(std::string_view name) {
    return isSafeName(name) && name.ends_with(kThumbnailExtension) && leadingDigits(name) > 0;
}

bool isSafeName(std::string_view name) {
    return !name.empty() && name.size() <= kLongestName && safeNamePart(name, kLongestName) == name;
}

std::string localTime(std::int64_t seconds) {
    const std::optional<std::tm> parts = localParts(seconds);
    return parts ? formatted(*parts, "%Y-%m-%d %H:%M") : std::string();
}

}  // namespace ternview
