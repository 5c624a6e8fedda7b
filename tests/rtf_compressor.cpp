#include "rtf_compressor.h"

#include <algorithm>
#include <cstddef>
#include <vector>

namespace rtf {

namespace {

constexpr std::string_view kPreload =
    "{\\rtf1\\ansi\\mac\\deff0\\deftab720{\\fonttbl;}{\\f0\\fnil \\froman \\fswiss \\fmodern \\fscript \\fdecor MS Sans "
    "SerifSymbolArialTimes New RomanCourier{\\colortbl\\red0\\green0\\blue0\r\n\\par \\pard\\plain\\f0\\fs20\\b\\i\\u\\tab\\tx";
// Readers differ in the order of the preload's CR and LF, so no reference touches them.
constexpr std::size_t kLineEnd = 168;
constexpr std::size_t kBehindLineEnd = kLineEnd + 2;
constexpr std::size_t kWindow = 4096;
constexpr std::size_t kShortestMatch = 3;
constexpr std::size_t kLongestMatch = 17;
constexpr int kMostProbes = 64;
constexpr std::size_t kNowhere = SIZE_MAX;

void put32(std::string& out, std::uint32_t value) {
    for (int shift = 0; shift < 32; shift += 8) {
        out += static_cast<char>(value >> shift);
    }
}

// Tokens in groups of eight behind their flags.
class TokenWriter {
public:
    void literal(char byte) {
        begin(false);
        m_bytes += byte;
    }
    void reference(std::size_t ringOffset, std::size_t length) {
        begin(true);
        const std::size_t bits = ringOffset << 4 | (length - 2);
        m_bytes += static_cast<char>(bits >> 8);
        m_bytes += static_cast<char>(bits);
    }
    const std::string& bytes() const { return m_bytes; }

private:
    void begin(bool isReference) {
        if (m_tokens % 8 == 0) {
            m_flags = m_bytes.size();
            m_bytes += '\0';
        }
        if (isReference) {
            m_bytes[m_flags] = static_cast<char>(m_bytes[m_flags] | 1 << m_tokens % 8);
        }
        ++m_tokens;
    }

    std::string m_bytes;
    std::size_t m_flags = 0;
    std::size_t m_tokens = 0;
};

struct Match {
    std::size_t start = 0;
    std::size_t length = 0;
};

// Earlier places of the same three bytes, each linked to the one in front of it.
class MatchFinder {
public:
    explicit MatchFinder(std::string_view text) : m_text(text), m_last(1U << 16, kNowhere), m_previous(text.size(), kNowhere) {}

    void enter(std::size_t position) {
        if (position + kShortestMatch <= m_text.size()) {
            std::size_t& last = m_last[hash(position)];
            m_previous[position] = last;
            last = position;
        }
    }

    Match find(std::size_t position) const {
        Match best;
        const std::size_t most = std::min(kLongestMatch, m_text.size() - position);
        if (most < kShortestMatch) {
            return best;
        }
        std::size_t start = m_last[hash(position)];
        for (int probe = 0; probe < kMostProbes && start != kNowhere && position - start < kWindow; ++probe) {
            const std::size_t mostHere = start < kBehindLineEnd ? std::min(most, kLineEnd - std::min(start, kLineEnd)) : most;
            std::size_t length = 0;
            while (length < mostHere && m_text[start + length] == m_text[position + length]) {
                ++length;
            }
            if (length > best.length) {
                best = {start, length};
            }
            start = m_previous[start];
        }
        return best;
    }

private:
    std::size_t hash(std::size_t position) const {
        std::size_t value = 0;
        for (std::size_t at = 0; at < kShortestMatch; ++at) {
            value = value * 251 + static_cast<unsigned char>(m_text[position + at]);
        }
        return value & (m_last.size() - 1);
    }

    std::string_view m_text;
    std::vector<std::size_t> m_last;
    std::vector<std::size_t> m_previous;
};

}  // namespace

std::uint32_t Crc(std::string_view content) {
    std::uint32_t crc = 0;
    for (const char byte : content) {
        crc ^= static_cast<unsigned char>(byte);
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc >> 1) ^ ((crc & 1) != 0 ? 0xEDB88320U : 0U);
        }
    }
    return crc;
}

std::string Block(std::uint32_t type, std::uint32_t rawSize, std::string_view content, std::uint32_t crc) {
    std::string block;
    put32(block, static_cast<std::uint32_t>(content.size() + 12));
    put32(block, rawSize);
    put32(block, type);
    put32(block, crc);
    return block.append(content);
}

std::string FromTokens(std::uint32_t rawSize, std::string_view tokens) {
    return Block(kCompressed, rawSize, tokens, Crc(tokens));
}

std::string Compressed(std::string_view text) {
    const std::string all = std::string(kPreload).append(text);
    MatchFinder finder(all);
    TokenWriter tokens;
    std::size_t entered = 0;
    for (std::size_t position = kPreload.size(); position < all.size();) {
        for (; entered < position; ++entered) {
            finder.enter(entered);
        }
        const Match match = finder.find(position);
        if (match.length >= kShortestMatch) {
            tokens.reference(match.start % kWindow, match.length);
            position += match.length;
        } else {
            tokens.literal(all[position++]);
        }
    }
    tokens.reference(all.size() % kWindow, 2);  // a reference to the write position ends the text
    return FromTokens(static_cast<std::uint32_t>(text.size()), tokens.bytes());
}

std::string Stored(std::string_view text) {
    return Block(kStored, static_cast<std::uint32_t>(text.size()), text, 0);
}

}  // namespace rtf
