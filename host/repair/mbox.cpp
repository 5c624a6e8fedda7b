#include "repair/mbox.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "job.h"

namespace ternview {
namespace {

constexpr std::string_view kSeparator = "From ";
constexpr std::size_t kLongestSeparator = 1024;
constexpr std::uint64_t kLargestMessage = std::uint64_t{512} << 20;

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

/// "From sender date", where the date has a time and a year: a sentence that begins with "From" mostly has neither.
bool isSeparator(std::string_view line) {
    if (!line.starts_with(kSeparator) || line.size() > kLongestSeparator) {
        return false;
    }
    bool hasTime = false;
    bool hasYear = false;
    for (std::size_t at = kSeparator.size(); at + 4 < line.size() + 1; ++at) {
        const std::string_view four = line.substr(at, 4);
        hasYear = hasYear || std::all_of(four.begin(), four.end(), isDigit);
        const std::string_view five = line.substr(at, 5);
        hasTime = hasTime || (five.size() == 5 && isDigit(five[0]) && isDigit(five[1]) && five[2] == ':' && isDigit(five[3]) &&
                              isDigit(five[4]));
    }
    return hasTime && hasYear;
}

/// "From sender Tue Mar  5 ...": nothing else looks like that, so that it needs no blank line in front.
bool namesDay(std::string_view line) {
    constexpr std::string_view kDays = "Sun Mon Tue Wed Thu Fri Sat ";
    constexpr std::string_view kMonths = "Jan Feb Mar Apr May Jun Jul Aug Sep Oct Nov Dec ";
    const std::size_t sender = line.find(' ', kSeparator.size());
    const std::string_view date = sender == std::string_view::npos ? std::string_view() : line.substr(sender + 1);
    constexpr std::size_t kWord = 4;  // with its blank
    return date.size() > 2 * kWord && kDays.find(date.substr(0, kWord)) % kWord == 0 &&
           kMonths.find(date.substr(kWord, kWord)) % kWord == 0;
}

/// The first line of a header block, or the mark of a separator that was quoted there.
bool isField(std::string_view line) {
    const std::size_t colon = line.find(':');
    return line.starts_with(">From ") || (colon != std::string_view::npos && colon != 0 &&
                                          std::all_of(line.begin(), line.begin() + static_cast<std::ptrdiff_t>(colon),
                                                      [](unsigned char c) { return std::isgraph(c) != 0; }));
}

std::string_view withoutReturn(std::string_view line) {
    return line.ends_with('\r') ? line.substr(0, line.size() - 1) : line;
}

std::size_t readAt(int descriptor, std::uint64_t offset, char* target, std::size_t count) {
    std::size_t got = 0;
    while (got < count) {
        const ssize_t piece = ::pread(descriptor, target + got, count - got, static_cast<off_t>(offset + got));
        if (piece < 0 && errno == EINTR) {
            continue;
        }
        if (piece < 0) {
            throw JobError(Failure::kUnreadable, std::strerror(errno));
        }
        if (piece == 0) {
            break;
        }
        got += static_cast<std::size_t>(piece);
    }
    return got;
}

/// Gives a file's lines one after the other; of a very long one only the beginning.
class Lines {
public:
    Lines(int descriptor, const std::function<void()>& progress)
        : descriptor_(descriptor), progress_(progress), buffer_(std::size_t{1} << 18, '\0') {}

    struct Line {
        std::string_view text;  // without its line feed; valid until the next call
        std::uint64_t begin;
    };

    std::optional<Line> next() {
        const std::uint64_t begin = offset_ + at_;
        std::size_t end = findEnd();
        if (end == std::string::npos) {
            refill();
            end = findEnd();
        }
        if (end == std::string::npos) {
            if (at_ == filled_) {
                return std::nullopt;
            }
            end = filled_;  // the last line, or one that does not fit
        }
        const std::string_view text = std::string_view(buffer_).substr(at_, end - at_);
        if (end < filled_) {
            at_ = end + 1;
        } else {
            at_ = end;
            skipRest();
        }
        return Line{text, begin};
    }

    std::uint64_t offset() const { return offset_ + at_; }

private:
    std::size_t findEnd() const {
        const void* found = std::memchr(buffer_.data() + at_, '\n', filled_ - at_);
        return found == nullptr ? std::string::npos : static_cast<std::size_t>(static_cast<const char*>(found) - buffer_.data());
    }

    std::size_t readNext(std::uint64_t offset, char* target, std::size_t count) const {
        if (progress_) {
            progress_();
        }
        return readAt(descriptor_, offset, target, count);
    }

    void refill() {
        std::copy(buffer_.begin() + static_cast<std::ptrdiff_t>(at_), buffer_.begin() + static_cast<std::ptrdiff_t>(filled_),
                  buffer_.begin());
        offset_ += at_;
        filled_ -= at_;
        at_ = 0;
        filled_ += readNext(offset_ + filled_, buffer_.data() + filled_, buffer_.size() - filled_);
    }

    /// What is left of a line that was longer than the buffer. The text that was given stays where it is.
    void skipRest() {
        std::array<char, 65536> piece;
        while (true) {
            const std::size_t got = readNext(offset_ + at_, piece.data(), piece.size());
            const void* found = std::memchr(piece.data(), '\n', got);
            const std::size_t passed =
                found == nullptr ? got : static_cast<std::size_t>(static_cast<const char*>(found) - piece.data()) + 1;
            offset_ += passed;
            if (found != nullptr || got < piece.size()) {
                break;
            }
        }
        offset_ += at_;
        at_ = filled_ = 0;
    }

    int descriptor_;
    const std::function<void()>& progress_;
    std::string buffer_;
    std::uint64_t offset_ = 0;  // of the buffer in the file
    std::size_t at_ = 0;
    std::size_t filled_ = 0;
};

}  // namespace

std::optional<Mbox> Mbox::open(int descriptor, const std::function<void()>& progress) {
    std::array<char, kSeparator.size()> beginning;
    if (readAt(descriptor, 0, beginning.data(), beginning.size()) != beginning.size() ||
        std::string_view(beginning.data(), beginning.size()) != kSeparator) {
        return std::nullopt;
    }
    Lines lines(descriptor, progress);
    std::vector<std::uint64_t> begins;
    bool afterBlank = true;
    bool afterSeparator = false;
    std::uint64_t separator = 0;  // begin of the line that looked like one
    while (const std::optional<Lines::Line> line = lines.next()) {
        const std::string_view text = withoutReturn(line->text);
        if (afterSeparator && isField(text)) {
            begins.push_back(separator);
        }
        afterSeparator = isSeparator(text) && (afterBlank || namesDay(text));
        separator = line->begin;
        afterBlank = text.empty();
        const bool isSecond = line->begin != 0;
        if (isSecond && begins.empty()) {
            return std::nullopt;
        }
    }
    return begins.empty() ? std::nullopt : std::optional(Mbox(descriptor, std::move(begins), lines.offset()));
}

std::string Mbox::message(std::size_t index) const {
    const std::uint64_t begin = begins_.at(index);
    const std::uint64_t end = index + 1 < begins_.size() ? begins_[index + 1] : end_;
    if (end - begin > kLargestMessage) {
        throw JobError(Failure::kOutOfMemory);
    }
    std::string raw(static_cast<std::size_t>(end - begin), '\0');
    raw.resize(readAt(descriptor_, begin, raw.data(), raw.size()));
    std::string message;
    message.reserve(raw.size() + raw.size() / 32);
    std::string_view rest = raw;
    for (bool isFirst = true; !rest.empty(); isFirst = false) {
        const std::size_t feed = rest.find('\n');
        std::string_view line = withoutReturn(rest.substr(0, feed));
        rest.remove_prefix(feed == std::string_view::npos ? rest.size() : feed + 1);
        if (isFirst) {
            continue;
        }
        if (const std::size_t marks = line.find_first_not_of('>');
            marks != 0 && marks != std::string_view::npos && line.substr(marks).starts_with(kSeparator)) {
            line.remove_prefix(1);
        }
        message.append(line);
        message += "\r\n";
    }
    return message;
}

}  // namespace ternview
