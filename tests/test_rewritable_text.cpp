// The chunked text against a flat one: the same random searches and edits on both, with chunks so small that everything happens
// across their seams, and with a small alphabet, so that texts nearly match, or a large one, so that the filters have much to
// leave out.

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <string_view>

#include "fileformats/pst/common/rewritabletext.h"

namespace {

using Position = RewritableText::Position;

class RewritableTextModel : public testing::TestWithParam<unsigned> {
protected:
    std::string randomText(std::size_t longest) {
        std::string text(m_random() % (longest + 1), 'a');
        std::generate(text.begin(), text.end(), [this] { return m_alphabet[m_random() % m_alphabet.size()]; });
        return text;
    }

    std::mt19937 m_random{GetParam()};
    const bool m_large = GetParam() % 2 == 0;
    const std::string_view m_alphabet = m_large ? "\"<abcdefghijklmnopqrstuvwxyz0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ" : "ab\"<";
    const std::size_t m_size = m_large ? 2000 : 120;
    const std::size_t m_longest = m_large ? 20 : 7;  // of chunks, and about of what is looked for
};

std::size_t offsetOf(RewritableText& text, Position position) {
    // Everything from the place on, taken off the whole.
    return text.size() - text.bytesAt(position, text.size()).size();
}

std::string contentOf(const RewritableText& text) {
    std::string content(text.size(), '?');
    text.copyTo(content.data());
    return content;
}

TEST_P(RewritableTextModel, FindsAndReplacesAsAFlatTextDoes) {
    std::string flat = randomText(m_size);
    RewritableText text(flat, 1 + m_random() % m_longest);
    for (int step = 0; step < 300; ++step) {
        const std::size_t from = m_random() % (flat.size() + 1);
        const std::size_t to = from + m_random() % (std::min<std::size_t>(flat.size() - from, 120) + 1);
        const Position fromPlace = text.advance(text.begin(), from);
        const Position toPlace = text.advance(text.begin(), to);
        std::string needle =
            m_random() % 2 != 0 ? flat.substr(from, 1 + m_random() % (m_longest + 2)) : randomText(m_longest + 2);
        needle += needle.empty() ? "a" : "";

        const auto found = text.find(needle, fromPlace);
        ASSERT_EQ(found ? offsetOf(text, *found) : std::string::npos, flat.find(needle, from)) << needle;
        const auto quote = text.findByte('"', fromPlace);
        ASSERT_EQ(quote ? offsetOf(text, *quote) : std::string::npos, flat.find('"', from));
        const auto angle = text.findLastByte('<', fromPlace, toPlace);
        const std::size_t inRange = flat.substr(from, to - from).rfind('<');
        ASSERT_EQ(angle ? offsetOf(text, *angle) : std::string::npos, inRange == std::string::npos ? inRange : from + inRange);

        if (m_random() % 3 == 0) {
            const std::string replacement = randomText(flat.size() > m_size + 80 ? 2 : m_large ? 250 : 25);
            const Position behind = text.replace(fromPlace, toPlace, replacement);
            flat.replace(from, to - from, replacement);
            ASSERT_EQ(offsetOf(text, behind), from + replacement.size());
            ASSERT_EQ(contentOf(text), flat);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, RewritableTextModel, testing::Range(1U, 200U));

}  // namespace
