#include "html_picture_data.h"

#include "html_charset.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <utility>
#include <vector>

namespace ternview {
namespace {

constexpr std::size_t kMaxFileBytes = std::size_t{64} << 20;

int hexDigit(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    const char l = static_cast<char>(c | 0x20);
    return l >= 'a' && l <= 'f' ? l - 'a' + 10 : -1;
}

std::string percentDecoded(std::string_view text) {
    std::string result;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const int high = text[i] == '%' && i + 2 < text.size() ? hexDigit(text[i + 1]) : -1;
        const int low = high >= 0 ? hexDigit(text[i + 2]) : -1;
        if (low >= 0) {
            result += static_cast<char>(high * 16 + low);
            i += 2;
        } else {
            result += text[i];
        }
    }
    return result;
}

std::string base64Decoded(std::string_view text) {
    std::string result;
    result.reserve(text.size() / 4 * 3);
    unsigned bits = 0;
    int count = 0;
    for (const char c : text) {
        unsigned value;
        if (c >= 'A' && c <= 'Z') {
            value = static_cast<unsigned>(c - 'A');
        } else if (c >= 'a' && c <= 'z') {
            value = static_cast<unsigned>(c - 'a') + 26;
        } else if (c >= '0' && c <= '9') {
            value = static_cast<unsigned>(c - '0') + 52;
        } else if (c == '+' || c == '-') {
            value = 62;
        } else if (c == '/' || c == '_') {
            value = 63;
        } else {
            continue;  // line ends, padding, and what transport has left in between
        }
        bits = (bits << 6) | value;
        if (++count == 4) {
            result += static_cast<char>(bits >> 16);
            result += static_cast<char>(bits >> 8);
            result += static_cast<char>(bits);
            bits = 0;
            count = 0;
        }
    }
    if (count >= 2) {
        bits <<= 6 * (4 - count);
        result += static_cast<char>(bits >> 16);
        if (count == 3) {
            result += static_cast<char>(bits >> 8);
        }
    }
    return result;
}

/// @param start in lower case
bool startsWithIgnoringCase(std::string_view text, std::string_view start) {
    const auto same = [](char wanted, char c) { return wanted == (c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c); };
    return text.size() >= start.size() && std::equal(start.begin(), start.end(), text.begin(), same);
}

std::optional<std::string> dataFromUri(std::string_view uri) {
    const std::size_t comma = uri.find(',');
    if (comma == std::string_view::npos) {
        return std::nullopt;
    }
    const std::string_view type = uri.substr(0, comma);
    const std::string_view data = uri.substr(comma + 1);
    const std::size_t base64 = type.rfind(';');
    if (base64 != std::string_view::npos && startsWithIgnoringCase(type.substr(base64 + 1), "base64")) {
        return data.find('%') == std::string_view::npos ? base64Decoded(data) : base64Decoded(percentDecoded(data));
    }
    return percentDecoded(data);
}

/// A name that can only mean a file of the directory itself.
bool isPlainName(const std::string& name) {
    return !name.empty() && name.size() <= 255 && name != "." && name != ".." &&
           name.find_first_of(std::string_view("/\\\0", 3)) == std::string::npos;
}

bool hasForeignScheme(std::string_view address) {
    for (const char* scheme :
         {"http:", "https:", "cid:", "mid:", "file:", "ftp:", "ftps:", "about:", "blob:", "javascript:", "data:"}) {
        if (startsWithIgnoringCase(address, scheme)) {
            return true;
        }
    }
    return false;
}

/// Reads a regular file of a directory, never through a link.
std::optional<std::string> readPlainFile(int directory, const std::string& name) {
    const int file = openat(directory, name.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (file < 0) {
        return std::nullopt;
    }
    std::optional<std::string> content;
    struct stat status {};
    if (fstat(file, &status) == 0 && S_ISREG(status.st_mode) && static_cast<std::size_t>(status.st_size) <= kMaxFileBytes) {
        content.emplace(static_cast<std::size_t>(status.st_size), '\0');
        std::size_t done = 0;
        while (done < content->size()) {
            const ssize_t count = read(file, content->data() + done, content->size() - done);
            if (count <= 0) {
                break;
            }
            done += static_cast<std::size_t>(count);
        }
        content->resize(done);
    }
    close(file);
    return content;
}

}  // namespace

HtmlPictureData::HtmlPictureData(std::optional<std::filesystem::path> directory, std::string charset)
    : m_directory(std::move(directory)), m_charset(std::move(charset)) {}

std::optional<std::string> HtmlPictureData::readFile(const std::string& address) const {
    if (!m_directory || hasForeignScheme(address)) {
        return std::nullopt;
    }
    const int directory = open(m_directory->c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (directory < 0) {
        return std::nullopt;
    }
    std::vector<std::string> names{address};
    if (const auto encoded = encodeText(address, m_charset); encoded && *encoded != address) {
        names.push_back(*encoded);
    }
    for (std::size_t i = 0, literal = names.size(); i < literal; ++i) {
        names.push_back(percentDecoded(names[i]));
    }
    std::optional<std::string> content;
    for (const std::string& name : names) {
        if (isPlainName(name) && (content = readPlainFile(directory, name))) {
            break;
        }
    }
    close(directory);
    return content;
}

std::optional<std::string> HtmlPictureData::load(const std::string& address) const {
    return isDataUri(address) ? dataFromUri(address) : readFile(address);
}

bool isDataUri(std::string_view address) {
    return startsWithIgnoringCase(address, "data:");
}

}  // namespace ternview
