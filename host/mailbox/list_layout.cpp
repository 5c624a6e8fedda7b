#include "list_layout.h"

#include <glib.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <nlohmann/json.hpp>
#include <vector>

#include <ternkit/batch.h>

#include "json_output.h"
#include "messages.h"
#include "utf.h"

namespace ternview {
namespace {

constexpr std::string_view kGap = "  ";
constexpr std::string_view kEllipsis = "\u2026";
constexpr std::size_t kDateWidth = 16;
constexpr std::size_t kSizeWidth = 4;
constexpr std::size_t kBodiesWidth = 9;  // of two kinds; three are rare
constexpr std::size_t kSenderWidth = 24;
constexpr std::size_t kLeastSenderWidth = 8;

struct BodyName {
    ternkit::BatchBodies body;
    const char* name;
};
constexpr std::array kBodyNames{BodyName{ternkit::kBatchBodyText, "text"}, BodyName{ternkit::kBatchBodyHtml, "html"},
                                BodyName{ternkit::kBatchBodyRtf, "rtf"}};

std::vector<std::string> bodyNames(std::uint32_t bodies) {
    std::vector<std::string> names;
    for (const BodyName& body : kBodyNames) {
        if ((bodies & body.body) != 0) {
            names.emplace_back(body.name);
        }
    }
    return names;
}

std::size_t characterWidth(char32_t character) {
    if (character < 0x80) {
        return 1;
    }
    if (g_unichar_iszerowidth(character) != FALSE) {
        return 0;
    }
    return g_unichar_iswide(character) != FALSE ? 2 : 1;
}

enum class Align { kLeft, kRight };

/// A cell at least as wide as its column.
std::string padded(std::string text, std::size_t width, Align align) {
    const std::size_t used = displayWidth(text);
    if (used < width) {
        text.insert(align == Align::kLeft ? text.size() : 0, width - used, ' ');
    }
    return text;
}

/// A field of a mail on one line of a terminal: runs of white space are one space.
std::string cellText(std::string_view field) {
    std::string text;
    for (const char c : field) {
        const bool isSpace = std::isspace(static_cast<unsigned char>(c)) != 0;
        if (!isSpace) {
            text += c;
        } else if (!text.empty() && text.back() != ' ') {
            text += ' ';
        }
    }
    if (!text.empty() && text.back() == ' ') {
        text.pop_back();
    }
    return printableName(text);
}

/// @param convert gmtime_r or localtime_r
std::optional<std::string> formatTime(std::int64_t seconds, std::tm* (*convert)(const std::time_t*, std::tm*),
                                      const char* format) {
    const std::time_t time = seconds;
    std::tm parts{};
    if (convert(&time, &parts) == nullptr || parts.tm_year < -1900 || parts.tm_year > 9999 - 1900) {
        return std::nullopt;
    }
    std::array<char, 32> text;
    return std::string(text.data(), std::strftime(text.data(), text.size(), format, &parts));
}

std::string dateCell(const MessageSummary& message) {
    std::optional<std::string> date;
    if (message.sentTime) {
        date = formatTime(*message.sentTime, ::localtime_r, "%Y-%m-%d %H:%M");
    }
    return padded(date ? *date : cutToWidth(cellText(message.date), kDateWidth), kDateWidth, Align::kLeft);
}

std::string bodiesCell(const MessageSummary& message) {
    std::string text;
    for (const std::string& name : bodyNames(message.bodies)) {
        text += (text.empty() ? "" : "+") + name;
    }
    return padded(text.empty() ? "-" : text, kBodiesWidth, Align::kLeft);
}

/// On a terminal the sender has a third of what is left, within bounds.
std::string senderCell(const MessageSummary& message, std::optional<std::size_t> left) {
    std::string text = cellText(message.senderName.empty() ? message.senderAddress : message.senderName);
    std::size_t width = kSenderWidth;
    if (left) {
        width = std::clamp(*left / 3, kLeastSenderWidth, kSenderWidth);
        text = cutToWidth(text, width);
    }
    return padded(text, width, Align::kLeft);
}

JobResult asResult(const MessageSummary& message) {
    JobResult result;
    result.status = message.status;
    result.failure = message.failure;
    result.detail = message.detail;
    return result;
}

bool hasHeader(const MessageSummary& message) {
    return !message.subject.empty() || !message.senderName.empty() || !message.senderAddress.empty() || !message.date.empty();
}

std::string numberCell(const MessageSummary& message) {
    std::string number = std::to_string(message.number);
    if (message.run > 1) {
        number += "-" + std::to_string(message.number + static_cast<std::int64_t>(message.run) - 1);
    }
    return padded(number, std::to_string(message.count).size(), Align::kRight);
}

// Texts come out of mails and may hold bytes that are no UTF-8; JSON cannot carry those.
std::string asLine(const nlohmann::ordered_json& object) {
    return printableJson(object.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace)) + "\n";
}

}  // namespace

std::size_t displayWidth(std::string_view text) {
    std::size_t width = 0;
    while (!text.empty()) {
        const Utf8Step step = readUtf8(text);
        width += characterWidth(step.character);
        text.remove_prefix(step.size);
    }
    return width;
}

std::string cutToWidth(std::string_view text, std::size_t width) {
    std::size_t used = 0;
    std::size_t fits = 0;  // bytes that leave room for the ellipsis
    for (std::size_t at = 0; at < text.size();) {
        const Utf8Step step = readUtf8(text.substr(at));
        used += characterWidth(step.character);
        if (used > width) {
            return width == 0 ? std::string() : std::string(text.substr(0, fits)) + std::string(kEllipsis);
        }
        at += step.size;
        if (used < width) {
            fits = at;
        }
    }
    return std::string(text);
}

std::string humanSize(std::uint64_t bytes) {
    constexpr std::string_view kUnits = "KMGTPE";
    if (bytes < 1000) {
        return std::to_string(bytes);
    }
    double value = static_cast<double>(bytes);
    std::size_t unit = 0;
    for (value /= 1024; value >= 999.5 && unit + 1 < kUnits.size(); ++unit) {
        value /= 1024;
    }
    std::array<char, 16> text;
    std::snprintf(text.data(), text.size(), value < 9.95 ? "%.1f%c" : "%.0f%c", value, kUnits[unit]);
    return text.data();
}

std::string messageLine(const MessageSummary& message, std::optional<std::size_t> width) {
    std::string line = numberCell(message);
    line += kGap;
    const bool isShown = message.failure == Failure::kNone;
    if (isShown || hasHeader(message)) {
        line += dateCell(message);
        line += kGap;
        line += padded(humanSize(message.size), kSizeWidth, Align::kRight);
        line += kGap;
        line += bodiesCell(message);
        line += kGap;
        const std::size_t used = displayWidth(line);
        line += senderCell(message, width ? std::optional(*width > used ? *width - used : 0) : std::nullopt);
        line += kGap;
    }
    if (!isShown) {
        line += "(" + failureReason(asResult(message)) + ") ";
    }
    line += cellText(message.subject);
    line.erase(line.find_last_not_of(' ') + 1);
    return (width ? cutToWidth(line, *width) : line) + "\n";
}

std::string messageObject(const MessageSummary& message, const std::string& file) {
    nlohmann::ordered_json object{{"file", file}, {"number", message.number}, {"count", message.count}};
    if (message.run > 1) {
        object["run"] = message.run;
    }
    const auto sent = message.sentTime ? formatTime(*message.sentTime, ::gmtime_r, "%Y-%m-%dT%H:%M:%SZ") : std::nullopt;
    object["sent"] = sent ? nlohmann::ordered_json(*sent) : nlohmann::ordered_json();
    object["date"] = message.date;
    object["subject"] = message.subject;
    object["from"] = message.senderName;
    object["fromAddress"] = message.senderAddress;
    object["to"] = message.displayTo;
    object["cc"] = message.displayCc;
    object["bcc"] = message.displayBcc;
    object["bodies"] = bodyNames(message.bodies);
    object["size"] = message.size;
    object["sourceFormat"] = message.sourceFormat;
    object["status"] = message.status;
    object["helps"] = helpNames(message.helps);
    if (message.failure != Failure::kNone) {
        object["error"] = failureReason(asResult(message));
    }
    return asLine(object);
}

std::string fileObject(const JobResult& result, const std::string& file) {
    return asLine({{"file", file}, {"status", result.status}, {"error", failureReason(result)}});
}

}  // namespace ternview
