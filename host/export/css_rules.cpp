#include "export/css_rules.h"

#include <algorithm>

namespace ternview {
namespace {

using Kind = CssToken::Kind;

constexpr std::size_t kMostValueTokens = 1000;

/// What is open, by what closes it. A closing mark without its opening one is no different from any other mark.
class Nesting {
public:
    void take(const CssToken& token) {
        if (token.kind == Kind::kFunction || token.isMark('(')) {
            m_closers += ')';
        } else if (token.isMark('{')) {
            m_closers += '}';
        } else if (token.isMark('[')) {
            m_closers += ']';
        } else if (token.kind == Kind::kMark && !m_closers.empty() && token.text[0] == m_closers.back()) {
            m_closers.pop_back();
        }
    }
    bool isOutside() const { return m_closers.empty(); }

private:
    std::string m_closers;
};

std::string lowered(std::string text) {
    std::ranges::transform(text, text.begin(), [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
    return text;
}

CssToken nextVisible(CssTokens& tokens) {
    CssToken token = tokens.next();
    while (token.kind == Kind::kWhitespace) {
        token = tokens.next();
    }
    return token;
}

/// Goes behind the semicolon that ends what begins with a token.
void skipDeclaration(CssTokens& tokens, CssToken token) {
    Nesting nesting;
    for (; token.kind != Kind::kEnd && !(nesting.isOutside() && token.isMark(';')); token = tokens.next()) {
        nesting.take(token);
    }
}

/// @return whether it was of reasonable length and its parts can stand in a value
bool readValue(CssTokens& tokens, std::vector<CssToken>& value) {
    Nesting nesting;
    bool good = true;
    value.clear();
    for (CssToken token = nextVisible(tokens); token.kind != Kind::kEnd; token = tokens.next()) {
        if (nesting.isOutside() && token.isMark(';')) {
            break;
        }
        nesting.take(token);
        good = good && token.kind != Kind::kBad && value.size() < kMostValueTokens;
        if (good) {
            value.push_back(std::move(token));
        }
    }
    while (!value.empty() && value.back().kind == Kind::kWhitespace) {
        value.pop_back();
    }
    return good && !value.empty();
}

/// Goes behind the brace that ends a block.
/// @return where it stands
std::size_t skipBlock(CssTokens& tokens) {
    Nesting nesting;
    CssToken token = tokens.next();
    for (; token.kind != Kind::kEnd && !(nesting.isOutside() && token.isMark('}')); token = tokens.next()) {
        nesting.take(token);
    }
    return token.begin;
}

}  // namespace

void readDeclarations(std::string_view css, const DeclarationSink& sink) {
    CssTokens tokens(css);
    std::vector<CssToken> value;
    for (CssToken token = nextVisible(tokens); token.kind != Kind::kEnd; token = nextVisible(tokens)) {
        if (token.kind != Kind::kIdent) {
            skipDeclaration(tokens, std::move(token));
            continue;
        }
        CssToken colon = nextVisible(tokens);
        if (!colon.isMark(':')) {
            skipDeclaration(tokens, std::move(colon));
        } else if (readValue(tokens, value)) {
            sink(lowered(std::move(token.text)), value);
        }
    }
}

void readRules(std::string_view css, const RuleSink& sink) {
    CssTokens tokens(css);
    while (true) {
        const CssToken first = nextVisible(tokens);
        Nesting nesting;
        CssToken token = first;
        while (token.kind != Kind::kEnd && !(nesting.isOutside() && token.isMark('{')) &&
               !(nesting.isOutside() && token.isMark(';') && first.kind == Kind::kAtKeyword)) {
            nesting.take(token);
            token = tokens.next();
        }
        if (token.kind == Kind::kEnd) {
            return;
        }
        if (token.isMark('{')) {
            const std::size_t block = tokens.position();
            const std::size_t end = skipBlock(tokens);
            sink(css.substr(first.begin, token.begin - first.begin), css.substr(block, end - block));
        }
    }
}

}  // namespace ternview
