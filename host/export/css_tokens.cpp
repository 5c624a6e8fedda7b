#include "export/css_tokens.h"

#include <algorithm>
#include <array>
#include <charconv>

#include "utf.h"

namespace ternview {
namespace {

using Kind = CssToken::Kind;

bool isSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f';
}
bool isLineEnd(char c) {
    return c == '\n' || c == '\r' || c == '\f';
}
bool isDigit(char c) {
    return c >= '0' && c <= '9';
}
bool isHexDigit(char c) {
    return isDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}
bool isNameStart(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || static_cast<unsigned char>(c) >= 0x80;
}
bool isNamePart(char c) {
    return isNameStart(c) || isDigit(c) || c == '-';
}

void appendEscaped(std::string& out, char c) {
    std::array<char, 4> digits;
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), static_cast<unsigned char>(c), 16).ptr;
    out += '\\';
    out.append(digits.data(), end);
    out += ' ';
}

}  // namespace

bool CssTokens::startsEscape(std::size_t ahead) const {
    return peek(ahead) == '\\' && m_at + ahead + 1 < m_source.size() && !isLineEnd(peek(ahead + 1));
}

bool CssTokens::startsName(std::size_t ahead) const {
    if (peek(ahead) == '-') {
        return isNameStart(peek(ahead + 1)) || peek(ahead + 1) == '-' || startsEscape(ahead + 1);
    }
    return isNameStart(peek(ahead)) || startsEscape(ahead);
}

bool CssTokens::startsNumber() const {
    const std::size_t sign = peek() == '+' || peek() == '-' ? 1 : 0;
    return isDigit(peek(sign)) || (peek(sign) == '.' && isDigit(peek(sign + 1)));
}

void CssTokens::skipWhitespace() {
    while (m_at < m_source.size() && isSpace(m_source[m_at])) {
        ++m_at;
    }
}

bool CssTokens::skipComment() {
    if (peek() != '/' || peek(1) != '*') {
        return false;
    }
    const std::size_t end = m_source.find("*/", m_at + 2);
    m_at = end == std::string_view::npos ? m_source.size() : end + 2;
    return true;
}

/// The bounds of a comment of HTML, which style sheets have stood in for browsers that knew none.
bool CssTokens::skipMarkupComment() {
    const std::string_view rest = m_source.substr(m_at);
    const std::size_t size = rest.starts_with("<!--") ? 4 : rest.starts_with("-->") ? 3 : 0;
    m_at += size;
    return size != 0;
}

/// Stands on the backslash.
void CssTokens::readEscape(std::string& out) {
    ++m_at;
    if (m_at == m_source.size() || !isHexDigit(m_source[m_at])) {
        const std::string_view rest = m_source.substr(m_at);
        const std::size_t size = rest.empty() ? 0 : readUtf8(rest).size;
        out += rest.substr(0, size);
        m_at += size;
        return;
    }
    constexpr std::size_t kMostDigits = 6;
    std::size_t end = m_at;
    while (end < m_source.size() && end - m_at < kMostDigits && isHexDigit(m_source[end])) {
        ++end;
    }
    unsigned code = 0;
    std::from_chars(m_source.data() + m_at, m_source.data() + end, code, 16);
    const bool valid = code != 0 && code <= 0x10FFFF && (code < 0xD800 || code > 0xDFFF);
    appendUtf8(out, valid ? static_cast<char32_t>(code) : U'\xFFFD');
    m_at = end;
    if (peek() == '\r' && peek(1) == '\n') {
        ++m_at;
    }
    if (isSpace(peek())) {
        ++m_at;
    }
}

std::string CssTokens::readName() {
    std::string name;
    while (m_at < m_source.size()) {
        if (isNamePart(m_source[m_at])) {
            name += m_source[m_at++];
        } else if (startsEscape(0)) {
            readEscape(name);
        } else {
            break;
        }
    }
    return name;
}

void CssTokens::readNumber(CssToken& token) {
    const std::size_t start = m_at;
    const auto skipDigits = [this] {
        while (isDigit(peek())) {
            ++m_at;
        }
    };
    m_at += peek() == '+' || peek() == '-' ? 1 : 0;
    skipDigits();
    if (peek() == '.' && isDigit(peek(1))) {
        ++m_at;
        skipDigits();
    }
    const std::size_t sign = peek(1) == '+' || peek(1) == '-' ? 1 : 0;
    if ((peek() == 'e' || peek() == 'E') && isDigit(peek(1 + sign))) {
        m_at += 1 + sign;
        skipDigits();
    }
    const std::size_t digits = start + (m_source[start] == '+' ? 1 : 0);  // which from_chars would not have
    const auto error = std::from_chars(m_source.data() + digits, m_source.data() + m_at, token.number).ec;
    if (error == std::errc::result_out_of_range) {
        token.number = 0;
    }
    token.kind = Kind::kNumber;
    if (startsName(0)) {
        token.kind = Kind::kDimension;
        token.text = readName();
    } else if (peek() == '%') {
        token.kind = Kind::kPercentage;
        ++m_at;
    }
}

/// Stands on the opening quote.
void CssTokens::readString(CssToken& token) {
    const char quote = m_source[m_at++];
    token.kind = Kind::kString;
    while (m_at < m_source.size()) {
        const char c = m_source[m_at];
        if (c == quote) {
            ++m_at;
            return;
        }
        if (isLineEnd(c)) {
            token.kind = Kind::kBad;
            return;
        }
        if (c != '\\') {
            token.text += c;
            ++m_at;
        } else if (startsEscape(0)) {
            readEscape(token.text);
        } else {  // an escaped line end is none
            m_at += peek(1) == '\r' && peek(2) == '\n' ? 3 : 2;
            m_at = std::min(m_at, m_source.size());
        }
    }
}

/// Stands behind "url(".
void CssTokens::readUrl(CssToken& token) {
    skipWhitespace();
    token.text.clear();
    token.kind = Kind::kUrl;
    if (peek() == '"' || peek() == '\'') {
        readString(token);
        token.kind = token.kind == Kind::kString ? Kind::kUrl : Kind::kBad;
        skipWhitespace();
    } else {
        while (m_at < m_source.size() && peek() != ')') {
            if (isSpace(peek())) {
                skipWhitespace();
                token.kind = peek() == ')' || m_at == m_source.size() ? token.kind : Kind::kBad;
            } else if (startsEscape(0)) {
                readEscape(token.text);
            } else {
                const char c = m_source[m_at++];
                token.kind = c == '"' || c == '\'' || c == '(' || c == '\\' ? Kind::kBad : token.kind;
                token.text += c;
            }
        }
    }
    // What stands behind a string that is not the end of the address makes all of it void.
    while (m_at < m_source.size() && peek() != ')') {
        token.kind = Kind::kBad;
        m_at += startsEscape(0) ? 2 : 1;
    }
    m_at = std::min(m_at + 1, m_source.size());
}

void CssTokens::readWord(CssToken& token) {
    token.kind = Kind::kIdent;
    token.text = readName();
    if (peek() != '(') {
        return;
    }
    ++m_at;
    token.kind = Kind::kFunction;
    constexpr std::string_view kUrl = "url";
    const auto same = [](char a, char b) { return (a >= 'A' && a <= 'Z' ? static_cast<char>(a + 32) : a) == b; };
    if (std::ranges::equal(token.text, kUrl, same)) {
        readUrl(token);
    }
}

CssToken CssTokens::next() {
    CssToken token;
    token.begin = m_at;
    if (m_at == m_source.size()) {
        return token;
    }
    if (isSpace(peek()) || skipComment() || skipMarkupComment()) {
        skipWhitespace();
        token.kind = Kind::kWhitespace;
    } else if (peek() == '"' || peek() == '\'') {
        readString(token);
    } else if (startsNumber()) {
        readNumber(token);
    } else if (startsName(0)) {
        readWord(token);
    } else if ((peek() == '#' && (isNamePart(peek(1)) || startsEscape(1))) || (peek() == '@' && startsName(1))) {
        token.kind = peek() == '#' ? Kind::kHash : Kind::kAtKeyword;
        ++m_at;
        token.text = readName();
    } else {
        token.kind = Kind::kMark;
        token.text = m_source[m_at++];
    }
    return token;
}

std::string cssName(std::string_view name) {
    const std::size_t dash = name.size() > 1 && name[0] == '-' ? 1 : 0;
    std::string result(name.substr(0, dash));
    if (dash < name.size() && (isDigit(name[dash]) || name == "-")) {
        appendEscaped(result, name[dash]);
        return result + cssHash(name.substr(dash + 1));
    }
    return result + cssHash(name.substr(dash));
}

std::string cssHash(std::string_view name) {
    std::string result;
    for (const char c : name) {
        if (isNamePart(c)) {
            result += c;
        } else {
            appendEscaped(result, c);
        }
    }
    return result;
}

std::string cssString(std::string_view content) {
    std::string result = "'";
    for (const char c : content) {
        const bool plain = static_cast<unsigned char>(c) >= 0x20 && c != '\'' && c != '"' && c != '\\' && c != '<' && c != '>' &&
                           c != '&' && c != 0x7F;
        if (plain) {
            result += c;
        } else {
            appendEscaped(result, c);
        }
    }
    return result + "'";
}

}  // namespace ternview
