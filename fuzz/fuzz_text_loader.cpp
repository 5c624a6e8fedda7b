// Arbitrary bytes as a text document: decoded, cut into pages, and the first and the last of them drawn.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "drawn_pages.h"
#include "loaders/text_encoding.h"
#include "utf.h"

constexpr std::string_view kControls("\r\0\x1B\x7F", 4);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    const std::string text = ternview::decodeText(bytes);
    if (!ternview::isValidUtf8(text) || text.find_first_of(kControls) != std::string::npos) {
        std::abort();
    }
    fuzz::drawEnds(*ternview::layOutText(bytes, fuzz::kSmallPaper), size);
    return 0;
}
