#include "fileformats/pst/common/maildate.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <vector>

namespace {

using std::chrono::days;
using std::chrono::hours;
using std::chrono::minutes;
using std::chrono::seconds;

constexpr std::size_t kLongestDate = 1024;  // bytes that are looked at; a date has some forty
constexpr std::size_t kNameLength = 3;

char lower(char byte) {
    return byte >= 'A' && byte <= 'Z' ? static_cast<char>(byte + ('a' - 'A')) : byte;
}

bool isDigit(char byte) {
    return byte >= '0' && byte <= '9';
}

bool isLetter(char byte) {
    return lower(byte) >= 'a' && lower(byte) <= 'z';
}

/// Words, numbers with their sign, and colons; what else there is separates them. Comments nest.
std::vector<std::string_view> tokensOf(std::string_view text) {
    std::vector<std::string_view> tokens;
    int depth = 0;
    for (std::size_t at = 0; at < text.size();) {
        const char first = text[at];
        depth += first == '(' ? 1 : 0;
        const bool outside = depth == 0;
        depth -= first == ')' && depth > 0 ? 1 : 0;
        const std::size_t start = at++;
        if (!outside) {
            continue;
        }
        const bool signedNumber = (first == '+' || first == '-') && at < text.size() && isDigit(text[at]);
        if (isDigit(first) || signedNumber) {
            at = std::min(text.find_first_not_of("0123456789", at), text.size());
        } else if (isLetter(first)) {
            at = static_cast<std::size_t>(std::find_if_not(text.begin() + static_cast<std::ptrdiff_t>(at), text.end(), isLetter) -
                                          text.begin());
        } else if (first != ':') {
            continue;
        }
        tokens.push_back(text.substr(start, at - start));
    }
    return tokens;
}

/// A name's place in a list of names of three letters, of which it may be a longer form.
template <std::size_t Size>
std::optional<unsigned> placeOf(std::string_view word, const std::array<std::string_view, Size>& names) {
    if (word.size() < kNameLength) {
        return std::nullopt;
    }
    for (unsigned place = 0; place < Size; ++place) {
        if (std::equal(names[place].begin(), names[place].end(), word.begin(), [](char a, char b) { return a == lower(b); })) {
            return place;
        }
    }
    return std::nullopt;
}

/// A number without sign.
std::optional<int> numberOf(std::string_view token) {
    constexpr std::size_t kMostDigits = 8;
    if (token.empty() || token.size() > kMostDigits || !isDigit(token.front())) {
        return std::nullopt;
    }
    int value = 0;
    for (const char digit : token) {
        value = value * 10 + (digit - '0');
    }
    return value;
}

// Reads the tokens of a date from the first to the last.
class DateReader {
public:
    explicit DateReader(std::vector<std::string_view> tokens) : m_tokens(std::move(tokens)) {}

    std::optional<std::int64_t> read() {
        if (!number() && m_at < m_tokens.size()) {
            ++m_at;  // the name of the day
        }
        const auto day = takeNumber();
        const auto month = takeMonth();
        const auto year = takeYear();
        if (!day || !month || !year) {
            return std::nullopt;
        }
        const std::chrono::year_month_day date(std::chrono::year(*year), std::chrono::month(*month),
                                               std::chrono::day(static_cast<unsigned>(*day)));
        const auto time = takeTime();
        const auto offset = takeZone();
        if (!date.ok() || !time || !offset) {
            return std::nullopt;
        }
        return (std::chrono::sys_days(date).time_since_epoch() + *time - *offset).count();
    }

private:
    std::string_view token() const { return m_at < m_tokens.size() ? m_tokens[m_at] : std::string_view(); }
    std::optional<int> number() const { return numberOf(token()); }

    std::optional<int> takeNumber() {
        const auto value = number();
        m_at += value ? 1 : 0;
        return value;
    }

    std::optional<unsigned> takeMonth() {
        static constexpr std::array<std::string_view, 12> kMonths = {"jan", "feb", "mar", "apr", "may", "jun",
                                                                     "jul", "aug", "sep", "oct", "nov", "dec"};
        const auto place = placeOf(token(), kMonths);
        ++m_at;
        return place ? std::optional(*place + 1) : std::nullopt;
    }

    /// Years of two and three digits are those of RFC 5322, 4.3.
    std::optional<int> takeYear() {
        if (!token().empty() && token().front() == '-') {
            m_tokens[m_at].remove_prefix(1);  // of "5-Mar-2024"
        }
        const std::size_t digits = token().size();
        const auto year = takeNumber();
        if (!year || digits > 4) {
            return std::nullopt;
        }
        if (digits == 2) {
            return *year < 50 ? *year + 2000 : *year + 1900;
        }
        return digits == 3 ? *year + 1900 : *year;
    }

    /// Hours, minutes and, if they are there, seconds. A date without a time is one of midnight.
    std::optional<seconds> takeTime() {
        if (!number()) {
            return seconds(0);
        }
        std::array<int, 3> parts = {};
        for (std::size_t part = 0; part < parts.size(); ++part) {
            if (part != 0) {
                if (token() != ":") {
                    break;
                }
                ++m_at;
            }
            const auto value = takeNumber();
            if (!value) {
                return std::nullopt;
            }
            parts[part] = *value;
        }
        constexpr int kLastSecond = 60;  // a leap second
        if (parts[0] > 23 || parts[1] > 59 || parts[2] > kLastSecond) {
            return std::nullopt;
        }
        return hours(parts[0]) + minutes(parts[1]) + seconds(parts[2]);
    }

    /// The offset from UTC. Zones that nobody knows count as UTC, as do military ones (RFC 5322, 4.3).
    std::optional<seconds> takeZone() {
        const std::string_view zone = token();
        if (!zone.empty() && (zone.front() == '+' || zone.front() == '-')) {
            const auto value = numberOf(zone.substr(1));
            if (!value || zone.size() != 5 || *value % 100 > 59) {
                return std::nullopt;
            }
            const seconds offset = hours(*value / 100) + minutes(*value % 100);
            return zone.front() == '-' ? -offset : offset;
        }
        static constexpr std::array<std::string_view, 8> kZones = {"edt", "est", "cdt", "cst", "mdt", "mst", "pdt", "pst"};
        static constexpr std::array<int, 8> kHours = {-4, -5, -5, -6, -6, -7, -7, -8};
        const auto place = zone.size() == kNameLength ? placeOf(zone, kZones) : std::nullopt;
        return place ? hours(kHours[*place]) : hours(0);
    }

    std::vector<std::string_view> m_tokens;
    std::size_t m_at = 0;
};

}  // namespace

std::optional<std::int64_t> ParseMailDate(std::string_view text) {
    return DateReader(tokensOf(text.substr(0, kLongestDate))).read();
}
