#include "html_charset.h"

#include "loaders/text_encoding.h"
#include "utf.h"

#include <iconv.h>
#include <uchardet/uchardet.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <type_traits>
#include <utility>

namespace ternview {
namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";
constexpr std::string_view kSevenBitMark = "+/v";
constexpr std::size_t kDeclarationRange = std::size_t{1} << 20;
constexpr std::size_t kDetectionRange = std::size_t{1} << 18;

class Converter {
public:
    Converter(const std::string& to, const std::string& from) : m_descriptor(iconv_open(to.c_str(), from.c_str())) {}
    ~Converter() {
        if (valid()) {
            iconv_close(m_descriptor);
        }
    }
    Converter(const Converter&) = delete;
    Converter& operator=(const Converter&) = delete;
    bool valid() const { return m_descriptor != reinterpret_cast<iconv_t>(-1); }

    /// Converts all of the input; each byte that cannot be converted becomes `replacement` and counts as one error.
    std::size_t convert(std::string_view input, std::string_view replacement, std::string& output) {
        char* in = const_cast<char*>(input.data());
        std::size_t left = input.size();
        std::size_t errors = 0;
        std::array<char, 16384> room;
        while (left > 0) {
            char* out = room.data();
            std::size_t free = room.size();
            const std::size_t result = iconv(m_descriptor, &in, &left, &out, &free);
            const int reason = errno;
            output.append(room.data(), room.size() - free);
            if (result != static_cast<std::size_t>(-1) || reason == E2BIG) {
                continue;
            }
            ++errors;
            output += replacement;
            ++in;
            --left;
        }
        return errors;
    }

private:
    iconv_t m_descriptor;
};

std::string lowered(std::string_view text) {
    std::string result(text);
    std::ranges::transform(result, result.begin(), [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
    return result;
}

}  // namespace

std::string webCharset(std::string_view declared) {
    struct Alias {
        std::string_view label;
        const char* name;
    };
    static constexpr Alias kAliases[] = {
        {"iso-8859-1", "CP1252"},   {"latin1", "CP1252"}, {"us-ascii", "CP1252"},       {"ascii", "CP1252"},
        {"iso-8859-9", "CP1254"},   {"tis-620", "CP874"}, {"iso-8859-11", "CP874"},     {"gb2312", "GB18030"},
        {"gbk", "GB18030"},         {"x-gbk", "GB18030"}, {"ks_c_5601-1987", "CP949"},  {"euc-kr", "CP949"},
        {"shift_jis", "CP932"},     {"x-sjis", "CP932"},  {"windows-31j", "CP932"},     {"big5", "BIG5-HKSCS"},
        {"iso-8859-8-i", "CP1255"}, {"utf8", "UTF-8"},    {"x-mac-roman", "MACINTOSH"}, {"macintosh", "MACINTOSH"},
    };
    const std::string label = lowered(declared);
    for (const Alias& alias : kAliases) {
        if (label == alias.label) {
            return alias.name;
        }
    }
    return label.starts_with("windows-") ? "CP" + label.substr(8) : label;
}

namespace {

/// Encodings that a declaration readable as ASCII cannot be telling the truth about, and UTF-7, which no browser accepts.
bool impossibleDeclaration(const std::string& label) {
    return label.empty() || label.starts_with("utf-16") || label.starts_with("utf-32") || label.starts_with("utf-7") ||
           label.starts_with("ucs-") || label.starts_with("unicode") || label.size() > 40 ||
           !std::ranges::all_of(label,
                                [](unsigned char c) { return std::isalnum(c) || c == '-' || c == '_' || c == ':' || c == '.'; });
}

/// The charset that the first meta element with one declares.
std::string declaredCharset(std::string_view bytes) {
    const std::string head = lowered(bytes.substr(0, kDeclarationRange));
    for (std::size_t meta = head.find("<meta"); meta != std::string::npos; meta = head.find("<meta", meta + 5)) {
        const std::string_view longest = std::string_view(head).substr(meta, 1024);
        const std::string_view tag = longest.substr(0, longest.find('>'));
        std::size_t at = tag.find("charset");
        if (at == std::string_view::npos) {
            continue;
        }
        at += 7;
        const std::size_t value = tag.find_first_not_of(" \t\r\n='\"", at);
        if (value == std::string_view::npos || tag.substr(at, value - at).find('=') == std::string_view::npos) {
            continue;
        }
        return std::string(tag.substr(value, tag.find_first_of(" \t\r\n'\";/>", value) - value));
    }
    return {};
}

std::string detectedCharset(std::string_view bytes) {
    const std::unique_ptr<std::remove_pointer_t<uchardet_t>, decltype(&uchardet_delete)> detector(uchardet_new(),
                                                                                                  &uchardet_delete);
    if (uchardet_handle_data(detector.get(), bytes.data(), std::min(bytes.size(), kDetectionRange)) != 0) {
        return {};
    }
    uchardet_data_end(detector.get());
    return uchardet_get_charset(detector.get());
}

bool tryCharset(std::string_view bytes, const std::string& name, DecodedHtml& result) {
    Converter converter("UTF-8", name);
    if (!converter.valid()) {
        return false;
    }
    result.text.clear();
    result.charset = name;
    converter.convert(bytes, kReplacement, result.text);
    return true;
}

bool tryUtf8(std::string_view bytes, DecodedHtml& result) {
    Converter converter("UTF-8", "UTF-8");
    result.text.clear();
    result.charset = "UTF-8";
    return converter.valid() && converter.convert(bytes, kReplacement, result.text) == 0;
}

bool tryByteOrderMark(std::string_view bytes, DecodedHtml& result) {
    if (bytes.starts_with("\xEF\xBB\xBF")) {
        return tryCharset(bytes.substr(3), "UTF-8", result);
    }
    if (bytes.starts_with("\xFF\xFE")) {
        return tryCharset(bytes.substr(2), "UTF-16LE", result);
    }
    return bytes.starts_with("\xFE\xFF") && tryCharset(bytes.substr(2), "UTF-16BE", result);
}

void removeSevenBitMark(std::string& text) {
    if (text.starts_with(kSevenBitMark)) {
        text.erase(0, kSevenBitMark.size());
        return;
    }
    constexpr std::string_view kBlockStart = "<html>";
    constexpr std::string_view kSeparator = "<p class=MsoNormal><o:p>&nbsp;</o:p></p>";
    constexpr std::string_view kBlockEnd = "</html>";
    if (!text.starts_with(kBlockStart)) {
        return;
    }
    const std::size_t end = text.find(kBlockEnd);
    if (end == std::string::npos || !std::string_view(text).substr(0, end).ends_with(kSeparator)) {
        return;
    }
    const std::size_t behind = end + kBlockEnd.size();
    if (std::string_view(text).substr(behind).starts_with(kSevenBitMark)) {
        text.erase(behind, kSevenBitMark.size());
    }
}

/// The value of a decimal character reference at the beginning of a text, with its length; a length of 0 when there is none.
std::pair<unsigned, std::size_t> decimalReference(std::string_view text) {
    constexpr std::size_t kLongest = 10;
    unsigned value = 0;
    std::size_t at = 2;
    for (; at < std::min(text.size(), kLongest) && text[at] >= '0' && text[at] <= '9'; ++at) {
        value = value * 10 + static_cast<unsigned>(text[at] - '0');
    }
    const bool complete = text.starts_with("&#") && at > 2 && at < text.size() && text[at] == ';';
    return complete ? std::pair(value, at + 1) : std::pair(0U, std::size_t{0});
}

/// Text that was taken out of RTF names a character outside the basic plane by two references, one for each of its UTF-16 units.
/// No HTML engine joins them.
void joinSurrogateReferences(std::string& text) {
    std::string joined;
    std::size_t copied = 0;
    for (std::size_t at = text.find("&#"); at != std::string::npos; at = text.find("&#", at)) {
        const std::string_view rest = std::string_view(text).substr(at);
        const auto [high, highSize] = decimalReference(rest);
        const auto [low, lowSize] = decimalReference(rest.substr(highSize));
        if (high < 0xD800 || high > 0xDBFF || low < 0xDC00 || low > 0xDFFF) {
            at += 2;
            continue;
        }
        joined.append(text, copied, at - copied);
        joined += "&#" + std::to_string(0x10000 + ((high - 0xD800) << 10) + (low - 0xDC00)) + ";";
        at += highSize + lowSize;
        copied = at;
    }
    if (copied != 0) {
        joined.append(text, copied);
        text = std::move(joined);
    }
}

}  // namespace

DecodedHtml decodeHtml(std::string_view bytes) {
    DecodedHtml result;
    if (!tryByteOrderMark(bytes, result)) {
        const std::string declared = declaredCharset(bytes);
        const std::string name = impossibleDeclaration(declared) ? std::string() : webCharset(declared);
        const bool usable = !name.empty() && name != "utf-8" && name != "UTF-8" && tryCharset(bytes, name, result);
        if (!usable && hasJapaneseEscapes(bytes)) {
            tryCharset(bytes, "ISO-2022-JP-2", result);
        } else if (!usable && !tryUtf8(bytes, result)) {
            const std::string detected = detectedCharset(bytes);
            if (detected.empty() || !tryCharset(bytes, webCharset(detected), result)) {
                tryCharset(bytes, "CP1252", result);
            }
        }
    }
    if (!isValidUtf8(result.text)) {  // some converters give surrogates, or characters beyond the last one
        result.text = repairedUtf8(result.text);
    }
    std::erase(result.text, '\0');
    removeSevenBitMark(result.text);
    joinSurrogateReferences(result.text);
    return result;
}

std::optional<std::string> encodeText(std::string_view text, const std::string& charset) {
    Converter converter(charset, "UTF-8");
    std::string result;
    if (!converter.valid() || converter.convert(text, {}, result) != 0) {
        return std::nullopt;
    }
    return result;
}

}  // namespace ternview
