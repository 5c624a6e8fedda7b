// Arbitrary bytes as a picture of an HTML document: decoded, drawn, and taken over into a PDF.

#include <glib.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "drawn_pages.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::unique_ptr<char, decltype(&g_free)> encoded(g_base64_encode(data, size), &g_free);
    const std::string page = "<img src=\"data:image/png;base64," + std::string(encoded.get()) + "\" height=100>";
    fuzz::drawEnds(*ternview::layOutHtml(page, std::nullopt, fuzz::kSmallPaper), size);
    return 0;
}
