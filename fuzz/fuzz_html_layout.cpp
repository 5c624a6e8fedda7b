// Arbitrary bytes as an HTML document through the whole loader: guarded, laid out by the built-in engine, cut into pages, and the
// first and the last of them drawn. What its worker process would end for need of time or memory is a finding.

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "drawn_pages.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    fuzz::drawEnds(*ternview::layOutHtml(bytes, std::nullopt, fuzz::kSmallPaper), size);
    return 0;
}
