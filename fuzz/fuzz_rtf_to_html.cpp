// Arbitrary bytes as RTF that wraps HTML, and as HTML for the passes behind the conversion, which are compared with the same
// passes on a string that moves its tail at every cut.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "fileformats/pst/common/rtftohtml.h"

namespace {

constexpr std::size_t kRepetitions = 1700;  // makes a long division of a short input

void require(bool condition) {
    if (!condition) {
        std::abort();
    }
}

OwnedBytes owned(std::string_view bytes) {
    OwnedBytes copy;
    require(copy.appendText(bytes.data(), static_cast<std::int64_t>(bytes.size())) == ternkit::kOk);
    return copy;
}

std::string lowered(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](char byte) { return byte >= 'A' && byte <= 'Z' ? static_cast<char>(byte + 32) : byte; });
    return text;
}

std::string rewrittenBytewise(std::string text) {
    for (std::size_t at = text.find("<![if"); at != std::string::npos;) {
        const std::size_t close = text.find(']', at);
        if (close == std::string::npos) {
            break;
        }
        std::size_t behind = close + 1;
        if (close - at >= 8) {
            text.replace(at + 6, close - at - 6, "!V");
            behind = at + 9;
        }
        at = text.find("<![if", behind);
    }
    return text;
}

std::string trimmedBytewise(std::string text) {
    for (std::size_t from = 0;;) {
        const std::string search = lowered(text);
        const std::size_t open = search.find("<div>", from);
        std::size_t close = open == std::string::npos ? open : search.find("</div>", open);
        if (close == std::string::npos) {
            return text;
        }
        const std::size_t space = search.find("&nbsp;", open);
        if (close - open >= 10001 && space != std::string::npos && space + 110 <= close) {
            text.erase(space + 110, close - space - 110);
            close = space + 110;
        }
        from = close + 6;
    }
}

void convert(std::string_view rtf) {
    OwnedBytes text = owned(rtf);
    const std::uint64_t size = text.size;
    if (ExtractHtmlFromRtf(text) == ternkit::kOk) {
        require(text.size != 0 && text.data[text.size - 1] == '\0');
        require(text.size <= 4 * size + 64);
    } else {
        require(text.size == size && std::string_view(text.data, rtf.size()) == rtf);
    }
    text = owned(rtf);
    ConvertRtfToHtml(text);
}

void runPasses(const std::string& html) {
    OwnedBytes text = owned(html);
    const std::string before(text.data, text.size);
    RewriteConditionalComments(text);
    require(std::string(text.data, text.size) == rewrittenBytewise(before));
    text = owned(html);
    TrimPaddedDivs(text.data, text.size);
    require(std::string(text.data, text.size) == trimmedBytewise(before));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    convert(bytes);
    convert(
        "{\\rtf1\\ansi\\ansicpg1251\\fromhtml1\\deff0{\\fonttbl{\\f0\\fcharset204 Arial;}{\\f1\\fcharset128 Mincho;}} "
        "{\\*\\htmltag64 <p>}" +
        bytes);
    runPasses(bytes);
    if (size >= 2 && size < 200) {  // the first byte stands for thousands
        runPasses(bytes.substr(1, data[0] % size) + std::string(6 * kRepetitions, bytes[0]) + bytes);
    }
    return 0;
}
