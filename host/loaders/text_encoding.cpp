#include "loaders/text_encoding.h"

#include <iconv.h>
#include <uchardet/uchardet.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>

#include "utf.h"

namespace ternview {
namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";
// The mark that decoding a seven-bit body leaves at a document's very start. It says nothing to a reader.
constexpr std::string_view kSevenBitMark = "+/v";
constexpr std::string_view kUtf8Mark = "\xEF\xBB\xBF";
constexpr std::string_view kUtf16LittleEndianMark = "\xFF\xFE";
constexpr std::string_view kUtf16BigEndianMark = "\xFE\xFF";
constexpr char kDefaultCharset[] = "WINDOWS-1252";
// A guess at a charset does not get better with more text than this.
constexpr std::size_t kGuessSample = std::size_t{1} << 20;

bool skip(std::string_view& bytes, std::string_view prefix) {
    if (!bytes.starts_with(prefix)) {
        return false;
    }
    bytes.remove_prefix(prefix.size());
    return true;
}

std::string_view withoutTrailingNuls(std::string_view bytes) {
    return bytes.substr(0, bytes.find_last_not_of('\0') + 1);
}

/// True for UTF-8 that was damaged, such as text cut within a character: no other charset gives so many valid sequences.
bool looksLikeDamagedUtf8(std::string_view bytes) {
    std::size_t valid = 0;
    std::size_t invalid = 0;
    while (!bytes.empty()) {
        const Utf8Step step = readUtf8(bytes);
        valid += step.valid && step.size > 1 ? 1 : 0;
        invalid += step.valid ? 0 : 1;
        bytes.remove_prefix(step.size);
    }
    return valid >= 8 * invalid;
}

std::string guessCharset(std::string_view bytes) {
    const std::unique_ptr<uchardet, decltype(&uchardet_delete)> detector(uchardet_new(), &uchardet_delete);
    const auto isForeign = [](char byte) { return static_cast<unsigned char>(byte) >= 0x80; };
    const auto foreign = static_cast<std::size_t>(std::find_if(bytes.begin(), bytes.end(), isForeign) - bytes.begin());
    const std::string_view sample = bytes.substr(foreign - std::min<std::size_t>(foreign, 256), kGuessSample);
    if (uchardet_handle_data(detector.get(), sample.data(), sample.size()) != 0) {
        return kDefaultCharset;
    }
    uchardet_data_end(detector.get());
    const std::string charset = uchardet_get_charset(detector.get());
    return charset.empty() ? kDefaultCharset : charset;
}

class Converter {
public:
    explicit Converter(const std::string& charset) : descriptor_(iconv_open("UTF-8", charset.c_str())) {
        if (!valid()) {
            descriptor_ = iconv_open("UTF-8", kDefaultCharset);
        }
    }
    ~Converter() {
        if (valid()) {
            iconv_close(descriptor_);
        }
    }
    Converter(const Converter&) = delete;
    Converter& operator=(const Converter&) = delete;

    bool valid() const { return descriptor_ != reinterpret_cast<iconv_t>(-1); }

    std::string convert(std::string_view bytes) {
        std::string out;
        std::array<char, 16384> chunk;
        char* in = const_cast<char*>(bytes.data());  // iconv's signature; it does not write there
        std::size_t inLeft = bytes.size();
        while (inLeft > 0) {
            char* to = chunk.data();
            std::size_t room = chunk.size();
            const bool failed = iconv(descriptor_, &in, &inLeft, &to, &room) == static_cast<std::size_t>(-1);
            const int reason = errno;
            out.append(chunk.data(), chunk.size() - room);
            if (failed && reason == EINVAL) {  // the text ends within a character
                out.append(kReplacement);
                break;
            }
            if (failed && reason != E2BIG) {
                out.append(kReplacement);
                ++in;
                --inLeft;
            }
        }
        return out;
    }

private:
    iconv_t descriptor_;
};

std::string decodeUnmarked(std::string_view bytes) {
    if (hasJapaneseEscapes(bytes)) {
        Converter japanese("ISO-2022-JP-2");
        return repairedUtf8(japanese.valid() ? japanese.convert(bytes) : bytes);
    }
    if (isValidUtf8(bytes)) {
        return std::string(bytes);
    }
    if (looksLikeDamagedUtf8(bytes)) {
        return repairedUtf8(bytes);
    }
    Converter converter(guessCharset(bytes));
    // Some converters give characters that UTF-8 does not allow, such as surrogates.
    return repairedUtf8(converter.valid() ? converter.convert(bytes) : bytes);
}

bool isLineBreak(char32_t character) {
    return character == '\n' || character == '\r' || character == '\v' || character == '\f' || character == 0x85 ||
           character == 0x2028 || character == 0x2029;
}

bool isShown(char32_t character) {
    const bool isControl = character < 0x20 || (character >= 0x7F && character < 0xA0);
    return character == '\t' || (!isControl && character != 0xFEFF && !isNoncharacter(character));
}

/// Brings line breaks to one form and takes out what would show as a box, in place: the text only gets shorter.
void clean(std::string& text) {
    std::size_t from = 0;
    std::size_t to = 0;
    while (from < text.size()) {
        const Utf8Step step = readUtf8(std::string_view(text).substr(from));
        if (isLineBreak(step.character)) {
            const bool pair = step.character == '\r' && from + 1 < text.size() && text[from + 1] == '\n';
            from += pair ? 2 : step.size;
            text[to++] = '\n';
            continue;
        }
        if (isShown(step.character)) {
            std::copy_n(text.begin() + static_cast<std::ptrdiff_t>(from), step.size,
                        text.begin() + static_cast<std::ptrdiff_t>(to));
            to += step.size;
        }
        from += step.size;
    }
    text.resize(to);
}

}  // namespace

bool hasJapaneseEscapes(std::string_view bytes) {
    const bool isSevenBit =
        std::none_of(bytes.begin(), bytes.end(), [](char c) { return static_cast<unsigned char>(c) >= 0x80; });
    return isSevenBit && (bytes.find("\x1B$B") != std::string_view::npos || bytes.find("\x1B$@") != std::string_view::npos);
}

std::string decodeText(std::string_view bytes) {
    skip(bytes, kSevenBitMark);
    std::string text;
    if (skip(bytes, kUtf16LittleEndianMark)) {
        text = utf8FromUtf16(bytes, ByteOrder::kLittleEndian);
    } else if (skip(bytes, kUtf16BigEndianMark)) {
        text = utf8FromUtf16(bytes, ByteOrder::kBigEndian);
    } else if (skip(bytes, kUtf8Mark)) {
        text = repairedUtf8(bytes);
    } else {
        text = decodeUnmarked(withoutTrailingNuls(bytes));
    }
    clean(text);
    return text;
}

}  // namespace ternview
