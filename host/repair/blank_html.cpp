#include "repair/blank_html.h"

#include <algorithm>

#include "repair/ascii_case.h"

namespace ternview {
namespace {

/// Finds what is not shown of an HTML text.
class HiddenParts {
public:
    explicit HiddenParts(std::string_view html) : html_(html) {}

    /// @return the place behind a comment or an element whose content is not shown, or `open` when none begins there
    std::size_t behind(std::size_t open) {
        for (Kind& kind : kinds_) {
            if (kind.isEnded && begins(open, kind)) {
                const std::size_t end = endOf(kind, open + 2);  // a comment may be "<!-->"
                kind.isEnded = end != std::string_view::npos;
                return kind.isEnded ? end : open;
            }
        }
        return open;
    }

private:
    struct Kind {
        std::string_view begin;
        std::string_view end;
        bool isEnded = true;  // as far as is known; what has no end must not be looked for again and again
    };

    /// The name of an element ends there, too.
    bool begins(std::size_t open, const Kind& kind) const {
        const std::string_view rest = html_.substr(open);
        if (!startsWithNoCase(rest, kind.begin)) {
            return false;
        }
        const bool isComment = kind.begin.ends_with('-');
        return isComment || rest.substr(kind.begin.size(), 1).find_first_of(" \t\r\n\f/>") == 0;
    }

    std::size_t endOf(const Kind& kind, std::size_t from) const {
        for (std::size_t at = html_.find(kind.end.front(), from); at != std::string_view::npos;
             at = html_.find(kind.end.front(), at + 1)) {
            if (startsWithNoCase(html_.substr(at), kind.end)) {
                return at + kind.end.size();
            }
        }
        return std::string_view::npos;
    }

    std::string_view html_;
    // The head is not one of them: what is to be seen in it ends it, with or without an end tag.
    Kind kinds_[4] = {{"<!--", "-->"}, {"<style", "</style"}, {"<script", "</script"}, {"<title", "</title"}};
};

}  // namespace

bool showsNothing(std::string_view html) {
    constexpr std::string_view kBlank = "&nbsp;";
    HiddenParts hidden(html);
    std::size_t at = 0;
    while (at < html.size()) {
        const std::string_view rest = html.substr(at);
        if (rest.front() == '<') {
            const std::string_view tag = rest.substr(0, rest.find('>'));
            if (startsWithNoCase(tag, "<img") || tag.find("background") != std::string_view::npos) {
                return false;
            }
            const std::size_t behind = hidden.behind(at);
            const bool isComment = behind != at && html[behind - 1] == '>';
            at = isComment ? behind : std::min(html.find('>', behind), html.size() - 1) + 1;
        } else if (rest.starts_with(kBlank)) {
            at += kBlank.size();
        } else if (rest.front() == ' ' || (rest.front() >= '\t' && rest.front() <= '\r')) {
            ++at;
        } else {
            return false;
        }
    }
    return true;
}

}  // namespace ternview
