// What HTML that came out of RTF goes through behind the conversion.

#include <cstring>
#include <string_view>

#include "common/apiutils.h"
#include "fileformats/pst/common/rtftohtml.h"

namespace {

// Moves what stays of a text to its front, in one pass however many pieces there are.
class Compaction {
public:
    explicit Compaction(char* bytes) : m_bytes(bytes) {}

    /// Drops the bytes from `first` up to `last`. Both are offsets in the text as it was, not in front of earlier ones.
    void drop(std::uint64_t first, std::uint64_t last) {
        keepUpTo(first);
        m_read = last;
    }
    /// Keeps the rest. @return the size of what stays
    std::uint64_t finish(std::uint64_t size) {
        keepUpTo(size);
        return m_written;
    }

private:
    void keepUpTo(std::uint64_t offset) {
        if (m_written != m_read) {
            std::memmove(m_bytes + m_written, m_bytes + m_read, offset - m_read);
        }
        m_written += offset - m_read;
        m_read = offset;
    }

    char* m_bytes;
    std::uint64_t m_read = 0;
    std::uint64_t m_written = 0;
};

}  // namespace

void RewriteConditionalComments(OwnedBytes& text) {
    constexpr char kOpening[] = "<![if";
    constexpr std::string_view kCondition = "!V";
    constexpr std::uint64_t kConditionOffset = 6;
    constexpr std::uint64_t kKept = kConditionOffset + kCondition.size();
    const char* begin = text.data;
    const char* end = begin + text.textLength();
    Compaction compaction(text.data);
    const char* opening = FindLiteral(begin, end, kOpening);
    while (opening != nullptr) {
        const char* close = FindByte(opening, end, ']');
        if (close == nullptr) {
            break;
        }
        const std::uint64_t offset = static_cast<std::uint64_t>(opening - begin);
        const std::uint64_t closeOffset = static_cast<std::uint64_t>(close - begin);
        if (closeOffset - offset >= kKept) {  // a shorter one would have to grow
            std::memcpy(text.data + offset + kConditionOffset, kCondition.data(), kCondition.size());
            compaction.drop(offset + kKept, closeOffset);
        }
        opening = FindLiteral(close + 1, end, kOpening);
    }
    text.size = compaction.finish(text.size);
}

void TrimPaddedDivs(char* bytes, std::uint64_t& size) {
    constexpr char kOpening[] = "<div>";
    constexpr char kClosing[] = "</div>";
    constexpr std::ptrdiff_t kLongDiv = 10001;    // bytes from tag to tag
    constexpr std::ptrdiff_t kKeptPadding = 110;  // bytes from the start of the first space
    const char* end = bytes + size;
    Compaction compaction(bytes);
    const char* opening = FindNoCaseInRange(bytes, end, kOpening);
    while (opening != nullptr) {
        const char* closing = FindNoCaseInRange(opening, end, kClosing);
        if (closing == nullptr) {
            break;
        }
        if (closing - opening >= kLongDiv) {
            const char* space = FindNoCaseInRange(opening, closing, "&nbsp;");
            if (space != nullptr && closing - space >= kKeptPadding) {
                compaction.drop(static_cast<std::uint64_t>(space + kKeptPadding - bytes),
                                static_cast<std::uint64_t>(closing - bytes));
            }
        }
        opening = FindNoCaseInRange(closing + sizeof(kClosing) - 1, end, kOpening);
    }
    size = compaction.finish(size);
}
