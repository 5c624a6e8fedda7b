// Prints a page of HTML to PDF in a running browser.
#pragma once

#include <string>
#include <string_view>

#include "browser/devtools.h"

namespace ternview {

/// Paper and margin in CSS pixels.
struct PrintSetup {
    double width;
    double height;
    double margin;
};

/**
 * The page stands alone in a browser context of its own, which goes afterwards. No script runs in it and no request of it leaves
 * the browser. What is wider than the paper makes all of it smaller.
 *
 * @param html valid UTF-8, with its pictures as data: URIs
 * @return the PDF; of a page that needs too many sheets of paper the first ones
 * @throws BrowserFailure
 */
std::string printPage(DevTools& devTools, std::string_view html, const PrintSetup& setup);

}  // namespace ternview
