// Cuts HTML text into tags and text, in one pass and without ever going back, whatever the input is.
#pragma once

#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

namespace ternview {

struct HtmlAttribute {
    std::string name;        // in lower case
    std::string_view value;  // as it stands in the source, until somebody resolves its character references
};

struct HtmlToken {
    enum class Kind { Text, StartTag, EndTag, Doctype, End };
    Kind kind = Kind::End;
    std::string name;       // of a tag, in lower case
    std::string_view text;  // of a text
    std::vector<HtmlAttribute> attributes;

    /// The value of an attribute; empty when it is not there.
    std::string_view attribute(std::string_view wanted) const;
};

class HtmlScanner {
public:
    /// The source must outlive the scanner and all tokens.
    explicit HtmlScanner(std::string_view source) : m_source(source) {}

    /// The next token; comments and other declarations are passed over. A tag that is not closed at the end is dropped.
    HtmlToken next();

    /**
     * The source up to the end tag of an element whose content is no markup, and goes behind that end tag. Without an end tag
     * the content is empty and nothing is skipped: one lost end tag must not hide a whole message.
     */
    std::string_view skipElement(const std::string& name);

private:
    HtmlToken readText();
    bool readTag(HtmlToken& token);
    void readAttributes(HtmlToken& token, std::size_t& at) const;
    bool readDeclaration(HtmlToken& token);

    std::string_view m_source;
    std::size_t m_at = 0;
    std::unordered_set<std::string>
        m_withoutEnd;  // elements that have no end tag from here on: a search again would be quadratic
};

}  // namespace ternview
