// Cuts CSS into tokens as browsers do ([CSS-SYNTAX-3]), in one pass and with all escapes resolved, so that whoever writes the
// tokens again writes what he has read.
#pragma once

#include <string>
#include <string_view>

namespace ternview {

struct CssToken {
    enum class Kind {
        kEnd,
        kWhitespace,  // or a comment
        kIdent,
        kFunction,  // a name and its opening parenthesis
        kAtKeyword,
        kHash,
        kString,
        kUrl,  // with or without quotes, complete
        kBad,  // a string or address that does not end
        kNumber,
        kPercentage,
        kDimension,
        kMark,  // one character of punctuation
    };
    Kind kind = Kind::kEnd;
    std::string text;  // name, content, address, unit, or the mark
    double number = 0;
    std::size_t begin = 0;  // in the source

    bool isMark(char c) const { return kind == Kind::kMark && text[0] == c; }
};

class CssTokens {
public:
    /// The source must outlive this.
    explicit CssTokens(std::string_view source) : m_source(source) {}

    CssToken next();
    /// Where the next token begins.
    std::size_t position() const { return m_at; }

private:
    char peek(std::size_t ahead = 0) const { return m_at + ahead < m_source.size() ? m_source[m_at + ahead] : '\0'; }
    bool startsName(std::size_t ahead) const;
    bool startsNumber() const;
    bool startsEscape(std::size_t ahead) const;
    void skipWhitespace();
    bool skipComment();
    bool skipMarkupComment();
    std::string readName();
    void readEscape(std::string& out);
    void readNumber(CssToken& token);
    void readString(CssToken& token);
    void readUrl(CssToken& token);
    void readWord(CssToken& token);

    std::string_view m_source;
    std::size_t m_at = 0;
};

/// A name with everything escaped that could be anything but a part of it.
std::string cssName(std::string_view name);
/// The same behind "#", where a digit may come first.
std::string cssHash(std::string_view name);

/// A string in single quotes that contains no quote, no backslash but its own escapes, and none of the characters of markup.
std::string cssString(std::string_view content);

}  // namespace ternview
