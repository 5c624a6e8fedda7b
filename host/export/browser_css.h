// Style sheets and style attributes of mail, for a browser.
//
// Nothing of the source is copied: it is read as browsers read it, what is known to be harmless is written anew, and the rest is
// left out. Harmless is what only changes the look of the message itself: no address but those of embedded pictures, nothing that
// stands outside the flow of the page, no names of functions and at-rules that are not listed.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace ternview {

/// Gives a data: URI in place of a picture's address; empty when there is no such picture.
using PictureUri = std::function<std::string(const std::string& address)>;

/// The declarations of a style attribute. What comes out contains neither markup nor double quotes.
std::string browserDeclarations(std::string_view css, const PictureUri& pictureUri);

/// Collects the style sheets of a document.
class BrowserStyleSheet {
public:
    /// @param media the attribute of the style element; may be empty
    void append(std::string_view css, std::string_view media, const PictureUri& pictureUri);

    /// The rules, in their order, as many as a browser can compare with that many elements; without any "<".
    std::string text(std::size_t elements) const;

private:
    struct Rule {
        std::string media;  // of the surrounding @media; empty for none
        std::string selectors;
        std::size_t selectorCount = 0;
        std::string declarations;
    };
    void appendRules(std::string_view css, const std::string& media, const PictureUri& pictureUri);

    std::vector<Rule> m_rules;
    std::size_t m_sourceBytes = 0;
};

}  // namespace ternview
