// What a document asks for that the built-in layout engine cannot give: a reason to hand it to a browser engine where there is
// one.
#pragma once

#include <string_view>

namespace ternview {

struct HtmlDemands {
    bool rightToLeft = false;  // letters of a right-to-left script, or a direction that says so
    bool flexLayout = false;   // elements that are flexible boxes or grids
    bool deepTables = false;   // tables nested deeper than the engine can lay out in time: their innermost ones lose their grid
    bool overLimits = false;   // more of anything than the engine can hold: the document is shown shortened

    bool any() const { return rightToLeft || flexLayout || deepTables || overLimits; }
};

/**
 * Looks through an HTML document, in time linear in its size.
 *
 * @param bytes the document as it was handed over, in whatever encoding
 */
HtmlDemands htmlDemands(std::string_view bytes);

}  // namespace ternview
