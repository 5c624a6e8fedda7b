// Arbitrary bytes as an HTML document: what becomes of it as a page for a browser, as plain text, and for the layout engine.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "export/browser_page.h"
#include "export/readable_text.h"
#include "loaders/html_charset.h"
#include "loaders/html_guard.h"
#include "page_checker.h"
#include "utf.h"

namespace {

void require(const std::string& complaint) {
    if (!complaint.empty()) {
        std::fprintf(stderr, "%s\n", complaint.c_str());
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace ternview;
    const DecodedHtml decoded = decodeHtml(std::string_view(reinterpret_cast<const char*>(data), size));
    const std::size_t length = decoded.text.size();

    const std::string page = browserPage(decoded.text, EmbeddedPictures(HtmlPictureData(std::nullopt, decoded.charset)), "title");
    require(complaintAbout(page));
    constexpr std::size_t kRepeated = std::size_t{1} << 20;
    require(page.size() <= kRepeated * 8 + length * 32 ? "" : "the page is too long");

    const std::string text = readableText(decoded.text);
    require(complaintAboutText(text));
    require(isValidUtf8(text) ? "" : "the text is no UTF-8");
    require(text.size() <= 100 + length * 50 ? "" : "the text is too long");

    const SafeHtml guarded = guardHtml(decoded.text);
    require(isValidUtf8(guarded.html) ? "" : "no UTF-8 behind the guard");
    require(guarded.html.find("<script") == std::string::npos ? "" : "a script behind the guard");
    return 0;
}
