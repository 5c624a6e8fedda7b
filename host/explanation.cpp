#include "explanation.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <string>
#include <string_view>

namespace ternview {
namespace {

constexpr std::size_t kShortestMail = 12;
constexpr std::array<std::string_view, 10> kFieldsOfMail{
    "From:",         "Date:",        "Subject:",    "Received:",     "MIME-Version:",
    "Content-Type:", "Return-Path:", "Message-ID:", "Delivered-To:", "Reply-To:"};

bool hasField(std::string_view head, std::string_view name) {
    const auto sameLetter = [](char a, char b) {
        return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
    };
    for (std::size_t line = 0; line < head.size();) {
        const std::string_view rest = head.substr(line);
        if (rest.size() > name.size() && std::equal(name.begin(), name.end(), rest.begin(), sameLetter)) {
            return true;
        }
        const std::size_t lineEnd = head.find_first_of("\r\n", line);
        line = lineEnd == std::string_view::npos ? head.size() : lineEnd + 1;
    }
    return false;
}

}  // namespace

Failure explainStatus(const MailFile& file, ternkit::Status status) {
    if (file.size() == 0) {
        return Failure::kEmptyFile;
    }
    if (file.size() < kShortestMail) {
        return Failure::kTooShort;
    }
    if (status == ternkit::kNoMemory) {
        return Failure::kStatus;
    }
    const std::string head = file.beginning(std::size_t{1} << 16);
    if (head.starts_with("!BDN")) {
        return status == ternkit::kBadArgument ? Failure::kEmptyStore : Failure::kStatus;
    }
    if (status != ternkit::kUnusable || head.starts_with("\xD0\xCF\x11\xE0\xA1\xB1\x1A\xE1")) {
        return Failure::kStatus;
    }
    const auto has = [&head](std::string_view name) { return hasField(head, name); };
    if (std::ranges::none_of(kFieldsOfMail, has)) {
        return Failure::kNoMail;
    }
    if (head.find("\r\n") == std::string::npos && head.find('\n') != std::string::npos) {
        return Failure::kBareLineFeeds;
    }
    return has("Content-Type:") ? Failure::kNoText : Failure::kNoContentType;
}

}  // namespace ternview
