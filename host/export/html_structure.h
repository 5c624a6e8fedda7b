// The structure of an HTML document as browsers understand it: which elements really begin and end where, whatever the tags do.
//
// Tags that are missing are implied and misplaced ones are put in order, much as [HTML] tells browsers to, so that what is told
// is always well nested: rows stand in tables and cells in rows, paragraphs hold no blocks, and formatting that was left open
// goes on in the next block. Depth, the number of elements and the repetitions of formatting are bounded.
#pragma once

#include <string>
#include <string_view>

#include "loaders/html_scanner.h"
#include "loaders/html_tags.h"

namespace ternview {

enum class HtmlMode { kQuirks, kLimitedQuirks, kStandards };

/// Told the parts of a document in their order.
class HtmlVisitor {
public:
    virtual ~HtmlVisitor() = default;

    /// An html or body tag, of which there may be several anywhere. Only its attributes mean something.
    virtual void document(const HtmlToken& tag) = 0;
    virtual void styleSheet(const HtmlToken& tag, std::string_view css) = 0;

    enum class Begin { kNew, kAgain };
    /// An element begins, or one goes on that was closed since its tags cross those of another.
    virtual void open(const HtmlToken& tag, TagKind kind, Begin begin) = 0;
    virtual void close(const HtmlToken& tag, TagKind kind) = 0;
    /// br, hr, img, or col.
    virtual void empty(const HtmlToken& tag) = 0;
    /// @param text as it stands in the source
    virtual void text(std::string_view text) = 0;
    /// From here on there are no more elements, only text.
    virtual void tooManyElements() {}
};

/**
 * Goes through a document. The cost is linear in the text.
 *
 * @param html valid UTF-8
 * @return by which rules browsers lay the document out
 */
HtmlMode walkHtml(std::string_view html, HtmlVisitor& visitor);

}  // namespace ternview
