#include "html_budget.h"

#include "html_attributes.h"

#include <algorithm>
#include <utility>

namespace ternview {
namespace {

bool isSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f';
}

/**
 * The start of a text with as many pieces as there may be. Pieces are what the engine makes elements of: words, spaces, each
 * character that a line may break behind, and the parts of words that are too long.
 *
 * @param count receives the pieces of that start
 */
std::string_view firstPieces(std::string_view text, std::size_t most, std::size_t& count) {
    constexpr std::size_t kLongWord = 32;
    constexpr std::size_t kPartOfLongWord = 10;
    std::size_t length = 0;  // of the word so far
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        std::size_t pieces = 0;
        if (isSpace(text[i])) {
            pieces = 1;
            length = 0;
        } else if (c >= 0xE2) {  // as one character of three or four bytes
            pieces = 1;
            length = 1;
        } else {
            const bool part = length >= kLongWord && length % kPartOfLongWord == 0;
            pieces = length == 0 || part ? 1 : 0;
            ++length;
        }
        if (c == '&' && i + 1 < text.size() && (text[i + 1] == '#' || text[i + 1] == 'T' || text[i + 1] == 'N')) {
            pieces += 2;  // a reference that may stand for a space or any character
        }
        if (count + pieces > most) {
            while (i > 0 && (static_cast<unsigned char>(text[i]) & 0xC0) == 0x80) {
                --i;
            }
            return text.substr(0, i);
        }
        count += pieces;
    }
    return text;
}

}  // namespace

/// The names by which rules of style sheets find an element.
void HtmlBudget::countNames(const std::string& name, std::string_view attributes) {
    const auto count = [this](std::string wanted) {
        if (m_counts.size() < kMaxElementCounts || m_counts.contains(wanted)) {
            ++m_counts[std::move(wanted)];
        }
    };
    count(name);
    const std::string_view classes = writtenAttribute(attributes, "class").value_or(std::string_view());
    std::string found = ".";
    for (std::size_t i = 0; i <= classes.size(); ++i) {
        const char c = i < classes.size() ? classes[i] : ' ';
        if (!isSpace(c)) {
            found += c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
        } else if (found.size() > 1) {
            count(std::exchange(found, "."));
        }
    }
}

bool HtmlBudget::payElement(const std::string& name, std::string_view attributes) {
    // A quotation has its marks in elements of their own, and a button much style.
    const std::size_t factor = name == "q" ? 3 : name == "button" ? 2 : 1;
    const std::size_t memory = kElementBytes * factor + attributes.size() * kAttributeFactor;
    if (m_elements >= kMaxElements || m_elementMemory + memory > kMaxElementMemory) {
        m_shortened = true;
        return false;
    }
    m_elementMemory += memory;
    countNames(name, attributes);
    ++m_elements;
    return true;
}

std::string_view HtmlBudget::payText(std::string_view text, std::size_t written, std::size_t depth, std::size_t tableDepth) {
    const double price = std::max(1.0, static_cast<double>(depth) / kDepthOfOnePiece);
    std::size_t pieces = 0;
    const std::size_t used = m_elementMemory + m_pieces * kPieceBytes;
    const std::size_t left = used < kMaxMemory ? (kMaxMemory - used) / kPieceBytes : 0;
    const std::size_t room = kMaxTextBytes - std::min(written, kMaxTextBytes);
    const auto affordable = static_cast<std::size_t>(static_cast<double>(left) / price);
    const std::string_view fitting = firstPieces(text.substr(0, room), affordable, pieces);
    m_full = m_full || fitting.size() < text.size();
    m_shortened = m_shortened || m_full;
    m_pieces += static_cast<std::size_t>(static_cast<double>(pieces) * price);
    payLayouts(static_cast<double>(pieces), tableDepth);
    return fitting;
}

double HtmlBudget::pieces(std::string_view text) {
    std::size_t count = 0;
    firstPieces(text, static_cast<std::size_t>(-1), count);
    return static_cast<double>(count);
}

bool HtmlBudget::paySpan(std::size_t cells) {
    const bool affordable = m_spanned + cells <= kMaxSpanned;
    m_spanned += affordable ? cells : 1;
    return affordable;
}

void HtmlBudget::payLayouts(double words, std::size_t tableDepth) {
    double factor = 1;
    for (std::size_t i = 0; i < tableDepth; ++i) {
        factor *= kLayoutsPerTable;
    }
    m_layouts += tableDepth > kTableDepthWhenCostly ? words * factor : 0;
}

bool HtmlBudget::isTableTooDeep(std::size_t depth) const {
    return depth > kMaxTableDepth || (m_layouts > kMaxLayouts && depth > kTableDepthWhenCostly);
}

bool HtmlBudget::isTableFull(std::size_t rows, std::size_t columns) {
    const std::size_t width = std::max<std::size_t>(columns, 1);
    const auto height = static_cast<double>(rows + 1);
    return !fitsGrid(rows + 1, width) || height * height * static_cast<double>(width) > kMaxRowComparisons;
}

}  // namespace ternview
