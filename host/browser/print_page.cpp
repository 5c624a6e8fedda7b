#include "browser/print_page.h"

#include <glib.h>

#include <algorithm>
#include <array>
#include <cmath>

namespace ternview {
namespace {

using Json = DevTools::Json;

constexpr double kPixelsPerInch = 96;
constexpr int kMaxPages = 2000;
constexpr double kSmallestScale = 0.1;  // the browser takes no smaller one
constexpr std::size_t kLargestPdf = std::size_t{256} << 20;
constexpr std::size_t kPdfChunk = std::size_t{1} << 20;

/// A page in a browser context of its own, which shares no storage with others.
class Page {
public:
    Page(DevTools& devTools, int width, int height) : devTools_(devTools) {
        context_ = devTools_.call("Target.createBrowserContext", {{"disposeOnDetach", true}}).at("browserContextId");
        const std::string target =
            devTools_
                .call("Target.createTarget",
                      {{"url", "about:blank"}, {"browserContextId", context_}, {"width", width}, {"height", height}})
                .at("targetId");
        session_ = devTools_.call("Target.attachToTarget", {{"targetId", target}, {"flatten", true}}).at("sessionId");
    }
    Page(const Page&) = delete;
    Page& operator=(const Page&) = delete;

    Json call(const std::string& method, const Json& parameters = Json::object()) {
        return devTools_.call(method, parameters, session_);
    }

    void dispose() { devTools_.call("Target.disposeBrowserContext", {{"browserContextId", context_}}); }

private:
    DevTools& devTools_;
    std::string context_;
    std::string session_;
};

struct Extent {
    double width;
    double height;
};

void closeOff(Page& page) {
    page.call("Inspector.enable");  // tells of a crash of the page
    page.call("Emulation.setScriptExecutionDisabled", {{"value", true}});
    page.call("Fetch.enable", {{"patterns", Json::array({{{"urlPattern", "*"}}})}});  // DevTools lets every request fail
    page.call("Page.enable");
    page.call("Emulation.setEmulatedMedia", {{"media", "print"}});
}

/// @return how much room it takes in the window
Extent setContent(Page& page, std::string_view html) {
    const Json frame = page.call("Page.getFrameTree").at("frameTree").at("frame").at("id");
    page.call("Page.setDocumentContent", {{"frameId", frame}, {"html", html}});
    const Json size = page.call("Page.getLayoutMetrics").at("cssContentSize");
    return {size.at("width").get<double>(), size.at("height").get<double>()};
}

/// A window has a margin of its own, for want of paper around it. What a page says of its margin stands behind this, and wins.
std::string withoutWindowMargin(std::string_view html) {
    constexpr std::string_view kHead = "<head>";
    std::string page(html);
    if (const std::size_t head = page.find(kHead); head != std::string::npos) {
        page.insert(head + kHead.size(), "<style>body{margin:0}</style>");
    }
    return page;
}

/// The browser lays all pages out before it prints the first ones, which takes minutes for boxes of millions of pixels. What
/// stands below the limit must be gone from the document.
std::string cutOff(const std::string& html, double height) {
    return html + "<style>html,body{max-height:" + std::to_string(std::lround(height)) +
           "px!important;overflow:clip!important}</style>";
}

std::string readStream(Page& page, const Json& handle) {
    std::string pdf;
    bool isAtEnd = false;
    while (!isAtEnd) {
        const Json chunk = page.call("IO.read", {{"handle", handle}, {"size", kPdfChunk}});
        std::string data = chunk.at("data");
        if (chunk.value("base64Encoded", false) && !data.empty()) {
            gsize size = 0;
            g_base64_decode_inplace(data.data(), &size);
            data.resize(size);
        }
        isAtEnd = chunk.at("eof");
        if (data.size() > kLargestPdf - pdf.size() || (data.empty() && !isAtEnd)) {
            throw BrowserFailure(BrowserFailure::Kind::kRefused, "too much came of it");
        }
        pdf += data;
    }
    page.call("IO.close", {{"handle", handle}});
    return pdf;
}

std::string print(Page& page, const PrintSetup& setup, double scale) {
    const double margin = setup.margin / kPixelsPerInch;
    const Json printed = page.call("Page.printToPDF", {{"paperWidth", setup.width / kPixelsPerInch},
                                                       {"paperHeight", setup.height / kPixelsPerInch},
                                                       {"marginTop", margin},
                                                       {"marginBottom", margin},
                                                       {"marginLeft", margin},
                                                       {"marginRight", margin},
                                                       {"scale", scale},
                                                       {"pageRanges", "1-" + std::to_string(kMaxPages)},
                                                       {"printBackground", true},
                                                       {"preferCSSPageSize", false},
                                                       // Its structure takes more time than all the rest, and nobody reads it.
                                                       {"generateTaggedPDF", false},
                                                       {"transferMode", "ReturnAsStream"}});
    return readStream(page, printed.at("stream"));
}

}  // namespace

std::string printPage(DevTools& devTools, std::string_view html, const PrintSetup& setup) {
    const double width = std::floor(setup.width - 2 * setup.margin);
    const double height = std::floor(setup.height - 2 * setup.margin);
    Page page(devTools, static_cast<int>(width), static_cast<int>(height));
    closeOff(page);
    const std::string document = withoutWindowMargin(html);
    const Extent extent = setContent(page, document);
    const double scale = std::clamp(width / std::max(extent.width, 1.0), kSmallestScale, 1.0);
    const double room = kMaxPages * height / scale;
    if (extent.height > room) {
        setContent(page, cutOff(document, room));
    }
    std::string pdf = print(page, setup, scale);
    page.dispose();
    return pdf;
}

}  // namespace ternview
