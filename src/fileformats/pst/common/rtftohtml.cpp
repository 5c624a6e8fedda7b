#include "fileformats/pst/common/rtftohtml.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <limits>
#include <new>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "common/apiutils.h"
#include "fileformats/pst/common/rtffonts.h"
#include "ternbase/ternbase.h"
#include "ternbase/windows.h"

TB_SOURCE(u"src/fileformats/pst/common/pst")

using ternkit::Status;

namespace {

constexpr std::int32_t kNoCodePage = -1;
constexpr std::int32_t kNoPendingTag = -1;
constexpr std::int32_t kLowestCodePage = 2;  // below are the names of the system's own pages

// Control words that write a fixed text and carry no meaning. Each is a prefix, so that "\li" also takes the beginning of
// "\line", and the first that fits takes the word.
enum class Behind { Stays, SpaceGoes, DigitsAndSpaceGo };

struct FixedWord {
    std::string_view prefix;
    std::string_view writes;
    Behind behind;
};

constexpr FixedWord kFixedWords[] = {
    {"\\intbl", " ", Behind::Stays},         {"\\qc", " ", Behind::Stays},           {"\\pard", "&nbsp;", Behind::Stays},
    {"\\par", "\r\n", Behind::SpaceGoes},    {"\\tab", "   ", Behind::SpaceGoes},    {"\\cbpat2", "      ", Behind::SpaceGoes},
    {"\\ltrch", "     ", Behind::SpaceGoes}, {"\\rtlch", "", Behind::SpaceGoes},     {"\\li", "", Behind::DigitsAndSpaceGo},
    {"\\sb", "", Behind::DigitsAndSpaceGo},  {"\\qr", "", Behind::DigitsAndSpaceGo}, {"\\plain", "", Behind::Stays},
    {"\\fi-", "", Behind::DigitsAndSpaceGo},
};

bool isDigit(char byte) {
    return byte >= '0' && byte <= '9';
}

/// True for the bytes that the scan copies as they are.
constexpr std::array<bool, 256> kIsPlain = [] {
    std::array<bool, 256> plain{};
    plain.fill(true);
    for (const char byte : {'{', '}', '\\', '\r', '\n'}) {
        plain[static_cast<unsigned char>(byte)] = false;
    }
    return plain;
}();

std::int32_t codePageOfLanguage(std::uint32_t language) {
    switch (language) {
        case 1033:
            return 1252;
        case 1041:
            return 932;
        case 1049:
            return 1251;
        default:
            return static_cast<std::int32_t>(language);
    }
}

/// The value of a hexadecimal digit, which letters behind "F" continue; any other byte counts with its own value.
unsigned nibble(char byte) {
    if (isDigit(byte)) {
        return static_cast<unsigned>(byte - '0');
    }
    if (byte >= 'A' && byte <= 'Z') {
        return static_cast<unsigned>(byte - 'A') + 10;
    }
    if (byte >= 'a' && byte <= 'z') {
        return static_cast<unsigned>(byte - 'a') + 10;
    }
    return static_cast<unsigned char>(byte);
}

// A text that grows in steps which grow with it.
class Output {
public:
    static constexpr std::uint64_t kStartSize = 2048;

    /// Makes room for `count` more bytes, which the writing calls do not check.
    bool reserve(std::uint64_t count) {
        if (m_capacity - m_size >= count) {
            return true;
        }
        const std::uint64_t capacity = m_size + count + std::max(m_size / 2, kStartSize);
        void* grown = TbMemRealloc(m_text.data, capacity, TB_HERE);
        if (grown == nullptr) {
            return false;
        }
        m_text.data = static_cast<char*>(grown);
        m_capacity = capacity;
        return true;
    }

    void put(char byte) { m_text.data[m_size++] = byte; }
    void put(std::string_view bytes) {
        std::memcpy(m_text.data + m_size, bytes.data(), bytes.size());
        m_size += bytes.size();
    }
    template <typename Number>
    void putNumber(Number number) {
        constexpr std::uint64_t kMostDigits = 16;
        char* start = m_text.data + m_size;
        m_size += static_cast<std::uint64_t>(std::to_chars(start, start + kMostDigits, number).ptr - start);
    }
    void putUpperHex(std::uint32_t number) {
        int shift = 28;
        while (shift > 0 && number >> shift == 0) {
            shift -= 4;
        }
        for (; shift >= 0; shift -= 4) {
            put("0123456789ABCDEF"[(number >> shift) & 15]);
        }
    }

    std::uint64_t size() const { return m_size; }
    void truncate(std::uint64_t size) { m_size = size; }
    const char* from(std::uint64_t offset) const { return m_text.data + offset; }

    /// Gives the text with a closing NUL. There must be room for it.
    OwnedBytes take() {
        if (m_size == 0 || m_text.data[m_size - 1] != '\0') {
            put('\0');
        }
        if (m_capacity / 2 > m_size + kStartSize) {
            if (void* trimmed = TbMemRealloc(m_text.data, m_size, TB_HERE)) {
                m_text.data = static_cast<char*>(trimmed);
            }
        }
        m_text.size = m_size;
        return std::move(m_text);
    }

private:
    OwnedBytes m_text;  // has its size only at the end
    std::uint64_t m_size = 0;
    std::uint64_t m_capacity = 0;
};

// The code pages that the open groups go back to. Equal neighbours share an entry: a text of nothing but braces stays small.
class CodePageStack {
public:
    void push(std::int32_t codePage) {
        if (m_entries.empty() || m_entries.back().codePage != codePage) {
            m_entries.push_back({codePage, 0});
        }
        ++m_entries.back().count;
    }

    /// Puts the last entry into `codePage`, if there is one.
    void popInto(std::int32_t& codePage) {
        if (!m_entries.empty()) {
            codePage = m_entries.back().codePage;
            if (--m_entries.back().count == 0) {
                m_entries.pop_back();
            }
        }
    }

private:
    struct Entry {
        std::int32_t codePage;
        std::uint32_t count;
    };
    std::vector<Entry> m_entries;
};

// Takes its factor from the address, which the writer of a mail does not know: no font numbers can be chosen to collide.
struct FontHash {
    std::uint64_t factor = reinterpret_cast<std::uintptr_t>(this) * 0x9E3779B97F4A7C15U | 1U;
    std::size_t operator()(std::int32_t number) const { return static_cast<std::uint32_t>(number) * factor >> 32U; }
};

// The code page of each font. A document may name its fonts a million times, so they are not sought in the table itself.
class FontCodePages {
public:
    Status read(const char*& position, const char* end) {
        const Status status = ReadFontTable(m_table, position, end);
        const auto entries = m_table.entries();
        m_codePages.reserve(entries.size());
        for (; m_known < entries.size(); ++m_known) {
            m_codePages.try_emplace(entries[m_known].fontNumber, static_cast<std::int32_t>(entries[m_known].codePage));
        }
        return status;
    }

    /// Sets `codePage` to that of a font the document has.
    void find(std::int32_t fontNumber, std::int32_t& codePage) const {
        const auto found = m_codePages.find(fontNumber);
        if (found != m_codePages.end()) {
            codePage = found->second;
        }
    }

private:
    RtfFontTable m_table;
    std::size_t m_known = 0;
    std::unordered_map<std::int32_t, std::int32_t, FontHash> m_codePages;
};

// One conversion.
class HtmlFromRtf {
public:
    HtmlFromRtf(const char* begin, const char* end) : m_position(begin), m_end(end) {}

    Status convert(OwnedBytes& html) {
        Status status = passPrelude();
        if (status == ternkit::kOk) {
            status = scan();
        }
        if (status == ternkit::kOk && !m_output.reserve(kSpare)) {
            status = ternkit::kNoMemory;
        }
        if (status == ternkit::kOk) {
            html = m_output.take();
        }
        return status;
    }

private:
    static constexpr std::uint64_t kSpare = 64;  // more than any control word writes, but for a run of hexadecimal escapes
    static constexpr std::uint64_t kLongestEntity = 8;
    static constexpr std::uint64_t kHexEscapeSize = 4;

    std::uint64_t left() const { return static_cast<std::uint64_t>(m_end - m_position); }
    bool isAt(std::string_view prefix, std::uint64_t offset = 0) const {
        return left() >= offset + prefix.size() && std::memcmp(m_position + offset, prefix.data(), prefix.size()) == 0;
    }
    bool isDigitAt(std::uint64_t offset) const { return left() > offset && isDigit(m_position[offset]); }
    bool isFontWord() const { return isAt("\\f") && isDigitAt(2); }

    void skip(std::uint64_t count) { m_position += std::min(count, left()); }
    void skipSpace() { m_position += isAt(" ") ? 1 : 0; }
    void skipDigits() {
        while (isDigitAt(0)) {
            ++m_position;
        }
    }
    std::uint32_t readNumber() {
        std::uint32_t number = 0;
        for (; isDigitAt(0); ++m_position) {
            number = number * 10 + static_cast<std::uint32_t>(*m_position - '0');
        }
        return number;
    }
    /// The number behind a word of `wordSize` bytes, and one space behind it.
    std::int32_t takeNumber(std::uint64_t wordSize) {
        skip(wordSize);
        const std::uint32_t number = readNumber();
        skipSpace();
        return static_cast<std::int32_t>(number);
    }

    Status passPrelude();
    Status scan();
    Status takePlainBytes();
    void takeLineByte();
    Status takeControlWord();
    bool takeTag();
    bool takeMeaningfulWord();
    bool takeFixedWord();
    void takeFont() { m_fonts.find(takeNumber(std::string_view("\\f").size()), m_fontCodePage); }
    void takeLanguage() {
        m_languageCodePage = codePageOfLanguage(static_cast<std::uint32_t>(takeNumber(std::string_view("\\lang").size())));
    }
    void takeUnicodeEscape();
    void passSuppressed();
    Status ConvertHexRun(std::int32_t codePage);
    std::int32_t hexCodePage() const;

    const char* m_position;
    const char* m_end;
    Output m_output;
    FontCodePages m_fonts;
    std::int32_t m_ansiCodePage = kNoCodePage;
    std::int32_t m_languageCodePage = kNoCodePage;
    std::int32_t m_fontCodePage = kNoCodePage;
    CodePageStack m_fontStack;
    std::int32_t m_pendingTag = kNoPendingTag;
    ScopedBlock m_wide;
    std::uint64_t m_wideUnits = 0;
};

/// What stands in front of the first tag says which fonts and code pages there are. One byte goes with each thing read, whatever
/// it is, so a word directly behind a number is not seen.
Status HtmlFromRtf::passPrelude() {
    std::optional<std::int32_t> lastFont;
    std::optional<std::int32_t> defaultFont;
    for (; m_position < m_end; skip(1)) {
        if (*m_position == '{' && isAt("\\*\\htmltag", 1)) {
            break;
        }
        if (*m_position != '\\') {
            continue;
        }
        if (isAt("\\ansicpg")) {
            m_ansiCodePage = takeNumber(std::string_view("\\ansicpg").size());
        } else if (isAt("\\deff")) {
            defaultFont = takeNumber(std::string_view("\\deff").size());
        } else if (isFontWord()) {
            lastFont = takeNumber(std::string_view("\\f").size());
        } else if (isAt("\\fonttbl")) {
            skip(std::string_view("\\fonttbl").size());
            const Status status = m_fonts.read(m_position, m_end);
            if (status != ternkit::kOk) {
                return status;
            }
        }
    }
    if (const auto font = lastFont ? lastFont : defaultFont) {
        m_fonts.find(*font, m_fontCodePage);
    }
    m_fontStack.push(m_fontCodePage);
    return ternkit::kOk;
}

Status HtmlFromRtf::scan() {
    Status status = ternkit::kOk;
    while (m_position < m_end && status == ternkit::kOk) {
        if (!m_output.reserve(kSpare)) {
            return ternkit::kNoMemory;
        }
        switch (*m_position) {
            case '{':
                m_fontStack.push(m_fontCodePage);
                ++m_position;
                break;
            case '}':
                ++m_position;
                m_fontStack.popInto(m_fontCodePage);
                break;
            case '\\':
                status = takeControlWord();
                break;
            case '\r':
            case '\n':
                takeLineByte();
                break;
            default:
                status = takePlainBytes();
                break;
        }
    }
    return status;
}

Status HtmlFromRtf::takePlainBytes() {
    const char* start = m_position;
    while (m_position < m_end && kIsPlain[static_cast<unsigned char>(*m_position)]) {
        ++m_position;
    }
    const std::uint64_t count = static_cast<std::uint64_t>(m_position - start);
    if (!m_output.reserve(count)) {
        return ternkit::kNoMemory;
    }
    m_output.put({start, count});
    return ternkit::kOk;
}

/// Both bytes of a line end, in either order, are the RTF's own; one alone belongs to the HTML.
void HtmlFromRtf::takeLineByte() {
    const char other = *m_position == '\r' ? '\n' : '\r';
    if (left() > 1 && m_position[1] == other) {
        m_position += 2;
    } else {
        m_output.put(*m_position++);
    }
}

Status HtmlFromRtf::takeControlWord() {
    switch (left() > 1 ? m_position[1] : '\0') {
        case '\'':
            return ConvertHexRun(hexCodePage());
        case '{':
        case '}':
            m_output.put(m_position[1]);
            m_position += 2;
            return ternkit::kOk;
        case '*':
            if (takeTag()) {
                return ternkit::kOk;
            }
            break;
        case 'f':
            if (isAt("\\fonttbl")) {
                skip(std::string_view("\\fonttbl").size());
                return m_fonts.read(m_position, m_end);
            }
            [[fallthrough]];
        case 'a':
        case 'd':
        case 'h':
        case 'l':
        case 'p':
            if (takeMeaningfulWord() || takeFixedWord()) {
                return ternkit::kOk;
            }
            break;
        case 'c':
        case 'i':
        case 'q':
        case 'r':
        case 's':
        case 't':
            if (takeFixedWord()) {
                return ternkit::kOk;
            }
            break;
        default:
            break;
    }
    if (isAt("-", 2) || (isAt("\\u") && isDigitAt(2))) {
        takeUnicodeEscape();
    } else {
        m_output.put(*m_position++);
    }
    return ternkit::kOk;
}

bool HtmlFromRtf::takeMeaningfulWord() {
    if (isAt("\\htmlrtf")) {
        passSuppressed();
    } else if (isFontWord()) {
        takeFont();
    } else if (isAt("\\lang")) {
        takeLanguage();
    } else if (isAt("\\ansicpg")) {
        m_ansiCodePage = takeNumber(std::string_view("\\ansicpg").size());
    } else if (isAt("\\deff")) {
        takeNumber(std::string_view("\\deff").size());
    } else if (isAt("\\pntext")) {
        const char* close = FindByte(m_position, m_end, '}');
        m_position = close != nullptr ? close : m_end;
    } else {
        return false;
    }
    return true;
}

bool HtmlFromRtf::takeFixedWord() {
    for (const FixedWord& word : kFixedWords) {
        if (left() < word.prefix.size() || m_position[1] != word.prefix[1] || !isAt(word.prefix)) {
            continue;
        }
        m_output.put(word.writes);
        skip(word.prefix.size());
        if (word.behind == Behind::DigitsAndSpaceGo) {
            skipDigits();
        }
        if (word.behind != Behind::Stays) {
            skipSpace();
        }
        return true;
    }
    return false;
}

/// The text of a tag counts unless the group in front of it gave another for the same tag. The closing brace of a text that is
/// passed over goes with it, and so the group's entry stays on the stack.
bool HtmlFromRtf::takeTag() {
    if (isAt("\\*\\mhtmltag")) {
        m_pendingTag = takeNumber(std::string_view("\\*\\mhtmltag").size());
        return true;
    }
    if (!isAt("\\*\\htmltag")) {
        return false;
    }
    const std::int32_t number = takeNumber(std::string_view("\\*\\htmltag").size());
    if (number == m_pendingTag) {
        const char* close = FindByte(m_position, m_end, '}');
        m_position = close != nullptr ? close + 1 : m_end;
    }
    m_pendingTag = kNoPendingTag;
    return true;
}

/// "\u" with a number, or any word of one letter with a negative one. A replacement character of one byte stands behind it.
void HtmlFromRtf::takeUnicodeEscape() {
    constexpr std::uint32_t kBehindLastUnit = 65536;
    const bool negative = isAt("-", 2);
    skip(negative ? 3 : 2);
    const std::uint32_t number = readNumber();
    m_output.put("&#");
    m_output.putNumber(static_cast<std::int32_t>(negative ? kBehindLastUnit - number : number));
    m_output.put(';');
    skipSpace();
    skipSpace();
    skip(1);
}

/// What is meant for readers of RTF only, from "\htmlrtf" to "\htmlrtf0". The last bytes of a text are never passed over.
void HtmlFromRtf::passSuppressed() {
    constexpr std::string_view kOpening = "\\htmlrtf";
    constexpr std::string_view kClosing = "\\htmlrtf0";
    skip(kOpening.size());
    while (left() > kClosing.size()) {
        if (*m_position == '{') {
            m_fontStack.push(m_fontCodePage);
        } else if (*m_position == '}') {
            m_fontStack.popInto(m_fontCodePage);
        } else if (*m_position == '\\') {
            if (isAt(kClosing)) {
                skip(kClosing.size());
                break;
            }
            if (isAt("\\lang")) {
                takeLanguage();
                continue;
            }
            if (isFontWord()) {
                takeFont();
                continue;
            }
        }
        ++m_position;
    }
    skipSpace();
}

std::int32_t HtmlFromRtf::hexCodePage() const {
    if (m_fontCodePage >= kLowestCodePage) {
        return m_fontCodePage;
    }
    return m_languageCodePage >= kLowestCodePage ? m_languageCodePage : m_ansiCodePage;
}

/// A run of "\'hh" escapes, converted as one, since a character may take more than one of them. Bytes that the code page cannot
/// convert stay as they are; digits that are missing at the end of the text count as 0.
Status HtmlFromRtf::ConvertHexRun(std::int32_t codePage) {
    const std::uint64_t start = m_output.size();
    bool goesOn = true;
    while (goesOn) {
        if (!m_output.reserve(1)) {
            return ternkit::kNoMemory;
        }
        const unsigned high = left() > 2 ? nibble(m_position[2]) : 0;
        const unsigned low = left() > 3 ? nibble(m_position[3]) : 0;
        m_output.put(static_cast<char>(high * 16 + low));
        goesOn = left() >= 2 * kHexEscapeSize && isAt("\\'", kHexEscapeSize);
        skip(kHexEscapeSize);
    }
    const std::uint64_t count = m_output.size() - start;
    const std::uint64_t units = 2 * count + 2;
    if (units > static_cast<std::uint64_t>(std::numeric_limits<int>::max())) {
        return ternkit::kNoMemory;
    }
    if (m_wideUnits < units) {
        m_wide = ScopedBlock(TbMemAlloc(units, sizeof(char16_t), TB_HERE));
        m_wideUnits = m_wide ? units : 0;
        if (!m_wide) {
            return ternkit::kNoMemory;
        }
    }
    const int converted = MultiByteToWideChar(static_cast<std::uint32_t>(codePage), 0, m_output.from(start),
                                              static_cast<int>(count), m_wide.wide(), static_cast<int>(units));
    if (converted <= 0) {
        return ternkit::kOk;
    }
    m_output.truncate(start);
    if (!m_output.reserve(kLongestEntity * std::max(count, static_cast<std::uint64_t>(converted)))) {
        return ternkit::kNoMemory;
    }
    for (int at = 0; at < converted; ++at) {
        const char16_t unit = m_wide.wide()[at];
        if (unit < 0x80) {
            m_output.put(static_cast<char>(unit));
        } else {
            m_output.put("&#x");
            m_output.putUpperHex(unit);
            m_output.put(';');
        }
    }
    return ternkit::kOk;
}

bool wrapsHtml(const OwnedBytes& text) {
    constexpr std::string_view kFrom = "\\from";
    constexpr std::string_view kHtml = "html";
    const char* end = text.data + text.textLength();
    const char* from = FindBytes(text.data, end, kFrom.data(), kFrom.size());
    return from != nullptr &&
           std::string_view(from, static_cast<std::size_t>(end - from)).substr(kFrom.size(), kHtml.size()) == kHtml;
}

}  // namespace

Status ExtractHtmlFromRtf(OwnedBytes& text) {
    try {
        return HtmlFromRtf(text.data, text.data + text.textLength()).convert(text);
    } catch (const std::bad_alloc&) {
        return ternkit::kNoMemory;
    }
}

void ConvertRtfToHtml(OwnedBytes& text) {
    if (!wrapsHtml(text)) {
        return;
    }
    ExtractHtmlFromRtf(text);  // a failure has left the RTF, which the passes take as they would take HTML
    RewriteConditionalComments(text);
    TrimPaddedDivs(text.data, text.size);
}
