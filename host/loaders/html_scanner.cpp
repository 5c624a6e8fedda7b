#include "html_scanner.h"

#include <algorithm>

namespace ternview {
namespace {

constexpr std::size_t kMaxAttributes = 64;
constexpr std::size_t kMaxNameLength = 40;

bool isSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f';
}
bool isLetter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}
char lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
}

std::string loweredName(std::string_view name) {
    std::string result(name.substr(0, kMaxNameLength));
    std::ranges::transform(result, result.begin(), lower);
    return result;
}

}  // namespace

std::string_view HtmlToken::attribute(std::string_view wanted) const {
    const auto found = std::ranges::find(attributes, wanted, &HtmlAttribute::name);
    return found == attributes.end() ? std::string_view() : found->value;
}

HtmlToken HtmlScanner::next() {
    while (m_at < m_source.size()) {
        if (m_source[m_at] != '<') {
            return readText();
        }
        const char following = m_at + 1 < m_source.size() ? m_source[m_at + 1] : '\0';
        HtmlToken token;
        if (following == '!' || following == '?') {
            if (readDeclaration(token)) {
                return token;
            }
        } else if (isLetter(following) || following == '/') {
            if (readTag(token)) {
                return token;
            }
        } else {
            return readText();
        }
    }
    return {};
}

HtmlToken HtmlScanner::readText() {
    HtmlToken token;
    token.kind = HtmlToken::Kind::Text;
    const std::size_t end = std::min(m_source.find('<', m_at + 1), m_source.size());
    token.text = m_source.substr(m_at, end - m_at);
    m_at = end;
    return token;
}

bool HtmlScanner::readTag(HtmlToken& token) {
    std::size_t at = m_at + 1;
    token.kind = HtmlToken::Kind::StartTag;
    if (m_source[at] == '/') {
        token.kind = HtmlToken::Kind::EndTag;
        ++at;
    }
    const std::size_t start = at;
    while (at < m_source.size() && !isSpace(m_source[at]) && m_source[at] != '/' && m_source[at] != '>') {
        ++at;
    }
    token.name = loweredName(m_source.substr(start, at - start));
    readAttributes(token, at);
    m_at = at;
    return !token.name.empty() && isLetter(token.name[0]) && at <= m_source.size() && at > 0 && m_source[at - 1] == '>';
}

void HtmlScanner::readAttributes(HtmlToken& token, std::size_t& at) const {
    const std::size_t size = m_source.size();
    while (at < size) {
        while (at < size && (isSpace(m_source[at]) || m_source[at] == '/')) {
            ++at;
        }
        if (at >= size) {
            return;
        }
        if (m_source[at] == '>') {
            ++at;
            return;
        }
        const std::size_t nameStart = at++;  // a "=" in first place belongs to the name
        while (at < size && !isSpace(m_source[at]) && m_source[at] != '/' && m_source[at] != '>' && m_source[at] != '=') {
            ++at;
        }
        HtmlAttribute attribute{loweredName(m_source.substr(nameStart, at - nameStart)), {}};
        std::size_t equals = at;
        while (equals < size && isSpace(m_source[equals])) {
            ++equals;
        }
        if (equals < size && m_source[equals] == '=') {
            at = equals + 1;
            while (at < size && isSpace(m_source[at])) {
                ++at;
            }
            if (at < size && (m_source[at] == '"' || m_source[at] == '\'')) {
                const std::size_t end = m_source.find(m_source[at], at + 1);
                if (end == std::string_view::npos) {
                    at = size + 1;
                    return;
                }
                attribute.value = m_source.substr(at + 1, end - at - 1);
                at = end + 1;
            } else {
                const std::size_t valueStart = at;
                while (at < size && !isSpace(m_source[at]) && m_source[at] != '>') {
                    ++at;
                }
                attribute.value = m_source.substr(valueStart, at - valueStart);
            }
        }
        if (token.attributes.size() < kMaxAttributes) {
            token.attributes.push_back(std::move(attribute));
        }
    }
}

bool HtmlScanner::readDeclaration(HtmlToken& token) {
    const std::string_view rest = m_source.substr(m_at);
    std::size_t end;
    if (rest.starts_with("<!--")) {
        if (rest.starts_with("<!-->")) {
            m_at += 5;
            return false;
        }
        end = rest.find("-->", 4);
        m_at = end == std::string_view::npos ? m_source.size() : m_at + end + 3;
        return false;
    }
    end = rest.find('>');
    m_at = end == std::string_view::npos ? m_source.size() : m_at + end + 1;
    if (loweredName(rest.substr(0, 9)) == "<!doctype") {
        token.kind = HtmlToken::Kind::Doctype;
        token.text = rest.substr(0, std::min(end, rest.size()));
        return true;
    }
    return false;
}

std::string_view HtmlScanner::skipElement(const std::string& name) {
    if (m_withoutEnd.contains(name)) {
        return {};
    }
    for (std::size_t at = m_source.find("</", m_at); at != std::string_view::npos; at = m_source.find("</", at + 2)) {
        const std::size_t behind = at + 2 + name.size();
        if (behind <= m_source.size() && loweredName(m_source.substr(at + 2, name.size())) == name &&
            (behind == m_source.size() || isSpace(m_source[behind]) || m_source[behind] == '>' || m_source[behind] == '/')) {
            const std::string_view content = m_source.substr(m_at, at - m_at);
            m_at = std::min(m_source.find('>', behind), m_source.size() - 1) + 1;
            return content;
        }
    }
    m_withoutEnd.insert(name);
    return {};
}

}  // namespace ternview
