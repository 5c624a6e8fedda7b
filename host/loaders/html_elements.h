// Elements of the layout engine with what it lacks: links that are known while they are drawn, numbers of list items, letter
// spacing, greatest heights, tables as browsers lay them out, and frames of missing pictures.
#pragma once

#include <litehtml/litehtml.h>

#include <memory>
#include <optional>
#include <string>

namespace ternview {

/// What elements ask and tell whoever lays out and draws their document.
class HtmlElementObserver {
public:
    /// The size of the frame for a picture that is not there; nothing for one that is.
    /// @param width that it has in any case; 0 when that is open
    virtual std::optional<litehtml::size> frameSize(const char* source, int width) = 0;
    /// @param number of the link, as in the markup
    virtual void enterLink(std::size_t number) = 0;
    virtual void leaveLink() = 0;
    /// @param opacity of what is drawn now, on top of that of what is around
    virtual void enterOpacity(float opacity) = 0;
    virtual void leaveOpacity() = 0;

protected:
    ~HtmlElementObserver() = default;
};

/**
 * Makes an element for a name.
 *
 * @param observer outlives the document
 * @return null when the engine's own element will do
 */
std::shared_ptr<litehtml::element> createHtmlElement(const std::string& name, const std::shared_ptr<litehtml::document>& document,
                                                     HtmlElementObserver& observer);

/// What comes with the font families that the engine hands over.
struct FontDetails {
    double size = 0;           // in CSS pixels; 0 for the size that the engine says
    double letterSpacing = 0;  // in CSS pixels
};

/// Takes the details out of a list of families.
FontDetails takeFontDetails(std::string& families);

/// Makes the lines of a document as high as in documents without a modern document type; after parsing, before layout.
void applyLineQuirks(const litehtml::element::ptr& root);

}  // namespace ternview
