#include "repair/lenient_form.h"

#include <algorithm>
#include <cctype>

#include "utf.h"

namespace ternview {
namespace {

constexpr std::size_t kHeadSize = std::size_t{1} << 16;
constexpr std::string_view kUtf8Mark = "\xEF\xBB\xBF";
constexpr std::string_view kUtf16LittleEndianMark = "\xFF\xFE";
constexpr std::string_view kUtf16BigEndianMark = "\xFE\xFF";
constexpr std::size_t kLongestBoundary = 1000;  // a line of mail has at most 998 characters (RFC 5322 2.1.1)

bool hasOnlyReturns(std::string_view message) {
    const std::string_view head = message.substr(0, kHeadSize);
    return head.find('\r') != std::string_view::npos && head.find('\n') == std::string_view::npos;
}

/// Takes the first line off a text. @return the line without its end
std::string_view takeLine(std::string_view& text) {
    const std::size_t feed = text.find('\n');
    std::string_view line = text.substr(0, feed);
    text.remove_prefix(feed == std::string_view::npos ? text.size() : feed + 1);
    if (line.ends_with('\r')) {
        line.remove_suffix(1);
    }
    return line;
}

bool isField(std::string_view line) {
    const std::size_t colon = line.find(':');
    const auto isOfName = [](unsigned char c) { return std::isgraph(c) != 0; };
    return colon != std::string_view::npos && colon != 0 && std::all_of(line.begin(), line.begin() + colon, isOfName);
}

}  // namespace

bool hasForeignForm(std::string_view message) {
    const auto begins = [message](std::string_view mark) { return message.starts_with(mark); };
    return begins(kUtf8Mark) || begins(kUtf16LittleEndianMark) || begins(kUtf16BigEndianMark) || begins("\r") || begins("\n") ||
           hasOnlyReturns(message);
}

std::string inCommonForm(std::string_view message) {
    std::string text;
    if (message.starts_with(kUtf16LittleEndianMark)) {
        text = utf8FromUtf16(message.substr(kUtf16LittleEndianMark.size()), ByteOrder::kLittleEndian);
    } else if (message.starts_with(kUtf16BigEndianMark)) {
        text = utf8FromUtf16(message.substr(kUtf16BigEndianMark.size()), ByteOrder::kBigEndian);
    } else {
        text = message.substr(message.starts_with(kUtf8Mark) ? kUtf8Mark.size() : 0);
    }
    if (hasOnlyReturns(text)) {
        std::ranges::replace(text, '\r', '\n');
    }
    text.erase(0, text.find_first_not_of("\r\n"));
    return text;
}

std::string_view bodyBehindHeader(std::string_view message) {
    std::string_view rest = message;
    for (bool isFirst = true; !rest.empty(); isFirst = false) {
        const std::string_view here = rest;
        const std::string_view line = takeLine(rest);
        if (line.empty()) {
            return rest;
        }
        const bool isFolded = line.front() == ' ' || line.front() == '\t';
        const bool isSeparator = isFirst && (line.starts_with("From ") || line.starts_with(">From "));
        if (!isFolded && !isSeparator && !isField(line)) {
            return here;
        }
    }
    return rest;
}

std::string_view boundaryInUse(std::string_view body) {
    std::string_view delimiter;
    while (!body.empty()) {
        const std::string_view line = takeLine(body);
        if (!delimiter.empty() && isField(line)) {
            return delimiter.substr(2, delimiter.find_last_not_of(" \t") - 1);
        }
        const bool isDelimiter = line.size() > 2 && line.size() < kLongestBoundary && line.starts_with("--") &&
                                 line.find('"') == std::string_view::npos;
        delimiter = isDelimiter ? line : std::string_view();
    }
    return {};
}

}  // namespace ternview
