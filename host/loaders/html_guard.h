// Stands between strangers' HTML and the layout engine: whatever comes in, what goes on is a well nested document of bounded
// depth, size and number of elements, without anything active and without addresses.
#pragma once

#include "html_addresses.h"
#include "html_demands.h"

#include <string>
#include <string_view>

namespace ternview {

struct SafeHtml {
    std::string html;           // UTF-8
    std::string title;          // UTF-8, may be empty
    PictureAddresses pictures;  // what the short names in `html` stand for
    LinkAddresses links;        // what the "link" attributes in `html` stand for
    enum class Mode { Standards, Quirks };
    Mode mode = Mode::Quirks;  // in quirks mode text starts anew, with plain font and alignment, inside each table
    bool shortened = false;    // the document was over a limit, and says so at its end
    HtmlDemands demands;
};

/**
 * Makes an HTML document safe to lay out. The cost is linear in the text.
 *
 * @param text valid UTF-8
 */
SafeHtml guardHtml(std::string_view text);

}  // namespace ternview
