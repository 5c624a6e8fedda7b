#include "export/embedded_pictures.h"

#include <string_view>

namespace ternview {
namespace {

constexpr std::size_t kMaxBytes = std::size_t{192} << 20;         // of all data: URIs
constexpr std::size_t kMaxRepeatedBytes = std::size_t{24} << 20;  // of those of files that stand in the page already

/// The media type of a picture by its first bytes; empty for one of another kind. Vector pictures are none of these: they are
/// programs, which browsers promise not to run in pictures.
std::string_view mediaType(std::string_view data) {
    using namespace std::string_view_literals;
    struct Signature {
        std::string_view start;
        std::string_view type;
    };
    static constexpr Signature kSignatures[] = {
        {"\x89PNG\r\n\x1A\n"sv, "image/png"},
        {"\xFF\xD8\xFF"sv, "image/jpeg"},
        {"GIF87a"sv, "image/gif"},
        {"GIF89a"sv, "image/gif"},
        {"BM"sv, "image/bmp"},
    };
    for (const Signature& signature : kSignatures) {
        if (data.starts_with(signature.start)) {
            return signature.type;
        }
    }
    return data.starts_with("RIFF") && data.size() >= 12 && data.substr(8, 4) == "WEBP" ? "image/webp" : "";
}

constexpr std::size_t base64Size(std::size_t size) {
    return (size + 2) / 3 * 4;
}

void appendBase64(std::string& out, std::string_view data) {
    constexpr std::string_view kDigits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    const auto byteAt = [data](std::size_t i) { return i < data.size() ? static_cast<unsigned char>(data[i]) : 0U; };
    for (std::size_t i = 0; i < data.size(); i += 3) {
        const unsigned bits = byteAt(i) << 16 | byteAt(i + 1) << 8 | byteAt(i + 2);
        out += kDigits[bits >> 18];
        out += kDigits[bits >> 12 & 63];
        out += i + 1 < data.size() ? kDigits[bits >> 6 & 63] : '=';
        out += i + 2 < data.size() ? kDigits[bits & 63] : '=';
    }
}

}  // namespace

std::string EmbeddedPictures::uri(const std::string& address) {
    if (isDataUri(address)) {
        return take(address, false);
    }
    const auto known = m_files.find(address);
    if (known != m_files.end() && known->second == FileState::kRefused) {
        return {};
    }
    std::string result = take(address, known != m_files.end());
    m_files[address] = result.empty() ? FileState::kRefused : FileState::kShown;
    return result;
}

std::string EmbeddedPictures::take(const std::string& address, bool isRepeated) {
    const std::optional<std::string> data = m_data.load(address);
    const std::string_view type = data ? mediaType(*data) : std::string_view();
    if (type.empty()) {
        return {};
    }
    const std::size_t size = base64Size(data->size());
    if (size > kMaxBytes - m_bytes || (isRepeated && size > kMaxRepeatedBytes - m_repeatedBytes)) {
        return {};
    }
    m_bytes += size;
    m_repeatedBytes += isRepeated ? size : 0;
    std::string result = "data:";
    result.reserve(size + 32);
    result += type;
    result += ";base64,";
    appendBase64(result, *data);
    return result;
}

}  // namespace ternview
