#include "fileformats/pst/common/rtffonts.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <new>
#include <string_view>

#include "common/apiutils.h"
#include "ternbase/ternbase.h"
#include "ternbase/windows.h"

TB_SOURCE(u"src/fileformats/pst/common/pst")

using ternkit::Status;

namespace {

constexpr std::uint64_t kFirstEntries = 16;

enum class Probed : bool { No, Yes };

struct CharsetRow {
    std::uint32_t charset;
    std::uint32_t codePage;
    Probed probed;
};

// The values of \fcharset and their code pages, by charset.
constexpr CharsetRow kCharsets[] = {
    {0, 1252, Probed::Yes},   {1, 0, Probed::No},       {2, 42, Probed::Yes},     {77, 10000, Probed::No},
    {78, 10001, Probed::No},  {79, 10003, Probed::No},  {80, 10008, Probed::No},  {81, 10002, Probed::No},
    {82, 1361, Probed::No},   {83, 10005, Probed::No},  {84, 10004, Probed::No},  {85, 10006, Probed::No},
    {86, 10081, Probed::No},  {87, 10021, Probed::No},  {88, 10029, Probed::No},  {89, 10007, Probed::No},
    {128, 932, Probed::Yes},  {129, 949, Probed::Yes},  {130, 1361, Probed::Yes}, {134, 936, Probed::No},
    {136, 950, Probed::No},   {161, 1253, Probed::Yes}, {162, 1254, Probed::Yes}, {163, 1258, Probed::Yes},
    {177, 1255, Probed::Yes}, {178, 1256, Probed::Yes}, {179, 1256, Probed::No},  {180, 1256, Probed::No},
    {181, 1255, Probed::No},  {186, 1257, Probed::Yes}, {204, 1251, Probed::Yes}, {222, 874, Probed::Yes},
    {238, 1250, Probed::Yes}, {254, 437, Probed::No},   {255, 850, Probed::No},
};

constexpr auto kProbedCodePages = [] {
    constexpr auto isProbed = [](const CharsetRow& row) { return row.probed == Probed::Yes; };
    std::array<std::uint32_t, std::count_if(std::begin(kCharsets), std::end(kCharsets), isProbed)> pages{};
    auto out = pages.begin();
    for (const CharsetRow& row : kCharsets) {
        if (isProbed(row)) {
            *out++ = row.codePage;
        }
    }
    return pages;
}();

struct CharsetFont {
    const char* name;
    const char* family;
};

CharsetFont fontForCharset(std::uint32_t charset) {
    switch (charset) {
        case 0:
        case 178:
        case 204:
        case 238:
            return {"Arial", "swiss"};
        case 2:
            return {"Symbol", "nil"};
        case 128:
            return {"MS Gothic", "swiss"};
        default:
            return {"Batang", "swiss"};
    }
}

std::uint32_t codePageOfCharset(std::uint32_t charset) {
    const CharsetRow* row =
        std::find_if(std::begin(kCharsets), std::end(kCharsets), [charset](const CharsetRow& r) { return r.charset == charset; });
    return row != std::end(kCharsets) ? row->codePage : 0;
}

/// Takes decimal digits off the text. No digits are 0, and too many wrap at 32 bits.
std::uint32_t takeNumber(const char*& position, const char* end) {
    std::uint32_t number = 0;
    for (; position < end && *position >= '0' && *position <= '9'; ++position) {
        number = number * 10 + static_cast<std::uint32_t>(*position - '0');
    }
    return number;
}

/// The same for a control word's parameter, whose delimiting blank belongs to the word.
std::uint32_t takeParameter(const char*& position, const char* end) {
    const std::uint32_t number = takeNumber(position, end);
    if (position < end && *position == ' ') {
        ++position;
    }
    return number;
}

template <std::size_t Size>
bool takeLiteral(const char*& position, const char* end, const char (&literal)[Size]) {
    constexpr std::size_t kLength = Size - 1;
    if (static_cast<std::size_t>(end - position) < kLength || std::memcmp(position, literal, kLength) != 0) {
        return false;
    }
    position += kLength;
    return true;
}

const char* findFirstOf(const char* position, const char* end, std::string_view stops) {
    return std::find_if(position, end, [stops](char byte) { return stops.find(byte) != std::string_view::npos; });
}

// Reads a table's text into entries. An entry is what stands in a group directly inside the table's own; groups further in, such
// as {\*\falt ...}, hold no names.
class FontTableReader {
public:
    FontTableReader(RtfFontTable& table, const char* position, const char* end)
        : m_table(table), m_position(position), m_end(end) {}

    const char* position() const { return m_position; }

    Status read() {
        while (m_position < m_end) {
            Status status = ternkit::kOk;
            switch (*m_position) {
                case '{':
                    ++m_position;
                    if (++m_depth == 1) {
                        m_entry.fontNumber = -1;
                    }
                    break;
                case '}':
                    ++m_position;
                    if (--m_depth < 0) {
                        return ternkit::kOk;
                    }
                    if (m_depth == 0) {
                        status = finishEntry();
                    }
                    break;
                case '\\':
                    status = readControlWord();
                    break;
                case '"':
                    ++m_position;
                    if (m_depth == 1) {
                        readName("\"\\{}");
                    }
                    break;
                case '\r':
                case '\n':
                case ' ':
                case ';':
                    ++m_position;
                    break;
                default:
                    if (m_depth == 1) {
                        readName("\";\\{}");
                    } else {
                        ++m_position;
                    }
            }
            if (status != ternkit::kOk) {
                return status;
            }
        }
        return ternkit::kOk;
    }

private:
    Status finishEntry() {
        const Status status = m_table.append(m_entry, m_name.data(), m_name.size());
        m_entry = RtfFontEntry();
        m_name = std::string_view();
        return status;
    }

    Status readControlWord() {
        if (m_end - m_position <= 2) {
            return ternkit::kUnusable;
        }
        const char* word = m_position + 1;
        if (*word == 'f') {
            const char* rest = word + 1;
            if (*rest >= '0' && *rest <= '9') {
                m_entry.fontNumber = static_cast<std::int32_t>(takeParameter(rest, m_end));
                m_position = rest;
                return ternkit::kOk;
            }
            if (takeLiteral(rest, m_end, "charset")) {
                m_entry.codePage = codePageOfCharset(takeParameter(rest, m_end));
                m_position = rest;
                return ternkit::kOk;
            }
            if (takeLiteral(rest, m_end, "cpg")) {
                m_entry.codePage = takeParameter(rest, m_end);
                m_position = rest;
                return ternkit::kOk;
            }
        }
        // Two bytes are passed unseen, which takes the backslash of the destination's word in "\*\falt" along.
        m_position = findFirstOf(word + 2, m_end, " \\{}");
        return ternkit::kOk;
    }

    /// The name goes up to one of the stops; one that closes it is passed.
    void readName(std::string_view stops) {
        const char* nameEnd = findFirstOf(m_position, m_end, stops);
        m_name = std::string_view(m_position, static_cast<std::size_t>(nameEnd - m_position));
        m_position = nameEnd;
        if (m_position < m_end && (*m_position == '"' || *m_position == ';')) {
            ++m_position;
        }
    }

    RtfFontTable& m_table;
    const char* m_position;
    const char* m_end;
    std::int64_t m_depth = 0;
    RtfFontEntry m_entry;
    std::string_view m_name;  // without data when there is none
};

}  // namespace

RtfFontTable::RtfFontTable() : ansiCodePage(GetACP()) {}

std::span<const RtfFontEntry> RtfFontTable::entries() const {
    return {static_cast<const RtfFontEntry*>(m_entries.block), m_count};
}

const char* RtfFontTable::name(const RtfFontEntry& entry) const {
    return entry.nameOffset != kNoFontName ? m_names.data + entry.nameOffset : nullptr;
}

Status RtfFontTable::append(const RtfFontEntry& entry, const char* name, std::uint64_t nameLength) {
    if (m_count == m_capacity) {
        const std::uint64_t capacity = std::max(kFirstEntries, 2 * m_capacity);
        void* grown = TbMemRealloc(m_entries.block, capacity * sizeof(RtfFontEntry), TB_HERE);
        if (grown == nullptr) {
            return ternkit::kNoMemory;
        }
        m_entries.block = grown;
        m_capacity = capacity;
    }
    std::uint64_t nameOffset = kNoFontName;
    if (name != nullptr) {
        const char terminator = '\0';
        nameOffset = m_names.size;
        if (m_names.append(name, nameLength) != ternkit::kOk || m_names.append(&terminator, 1) != ternkit::kOk) {
            return ternkit::kNoMemory;
        }
    }
    RtfFontEntry* added = new (static_cast<RtfFontEntry*>(m_entries.block) + m_count) RtfFontEntry(entry);
    added->nameOffset = nameOffset;
    ++m_count;
    return ternkit::kOk;
}

std::span<const std::uint32_t> ProbedCodePages() {
    return kProbedCodePages;
}

Status ReadFontTable(RtfFontTable& table, const char*& position, const char* end) {
    FontTableReader reader(table, position, end);
    const Status status = reader.read();
    position = reader.position();
    return status;
}

Status ParseRtfFonts(RtfFontTable& table, const char* document, std::uint64_t size) {
    if (table.parsed) {
        return ternkit::kOk;
    }
    const char* end = document + size;
    const char* textEnd = document + BoundedLength(document, size);
    const auto takeSetting = [&](std::string_view word, auto& setting) {
        if (const char* found = FindBytes(document, textEnd, word.data(), word.size())) {
            found += word.size();
            setting = static_cast<std::remove_reference_t<decltype(setting)>>(takeNumber(found, textEnd));
        }
    };
    takeSetting("\\ansicpg", table.ansiCodePage);
    takeSetting("\\deff", table.defaultFont);
    if (const char* start = FindLiteral(document, textEnd, "\\fonttbl")) {
        table.tableStart = static_cast<std::uint64_t>(start - document);
        const char* position = start;
        const Status status = ReadFontTable(table, position, end);
        if (status != ternkit::kOk) {
            return status;
        }
        table.tableEnd = static_cast<std::uint64_t>(position - document);
        table.tableText.assign(start, position);
        const auto entries = table.entries();
        // In unsigned arithmetic, since the document may have given the highest number that there is.
        table.nextFontNumber =
            entries.empty() ? 0 : static_cast<std::int32_t>(static_cast<std::uint32_t>(entries.back().fontNumber) + 1);
        table.parsed = true;
        return ternkit::kOk;
    }
    const char* from = FindLiteral(document, textEnd, "\\from");
    if (from == nullptr) {
        return ternkit::kUnusable;
    }
    table.tableStart = static_cast<std::uint64_t>(from - document);
    table.tableEnd = table.tableStart;
    table.nextFontNumber = 0;
    return ternkit::kOk;
}

Status FontForCodePage(RtfFontTable& table, std::uint32_t codePage, std::int32_t& fontNumber) {
    // Entries are only added behind the others, so the first that fits stays the first; a long table is walked once a code page.
    for (const RtfFontTable::KnownFont& known : table.m_knownFonts) {
        if (known.codePage == codePage) {
            fontNumber = known.fontNumber;
            return ternkit::kOk;
        }
    }
    const auto entries = table.entries();
    const auto fitting = std::find_if(entries.begin(), entries.end(), [&](const RtfFontEntry& entry) {
        return entry.codePage == codePage || (entry.codePage == 0 && codePage == table.ansiCodePage);
    });
    if (fitting != entries.end()) {
        fontNumber = fitting->fontNumber;
    } else {
        const CharsetRow* row = std::find_if(std::begin(kCharsets), std::end(kCharsets),
                                             [codePage](const CharsetRow& r) { return r.codePage == codePage; });
        if (row == std::end(kCharsets)) {
            return ternkit::kBadArgument;
        }
        const CharsetFont font = fontForCharset(row->charset);
        const Status status = AddFont(table, font.name, font.family, codePage, row->charset, fontNumber);
        if (status != ternkit::kOk) {
            return status;
        }
    }
    table.m_knownFonts.push_back({codePage, fontNumber});
    return ternkit::kOk;
}

Status AddFont(RtfFontTable& table, const char* name, const char* family, std::uint32_t codePage, std::uint32_t charset,
               std::int32_t& fontNumber) {
    fontNumber = table.nextFontNumber;
    const Status status = table.append({fontNumber, codePage, charset}, name, std::strlen(name));
    if (status != ternkit::kOk) {
        return status;
    }
    table.changed = true;
    if (table.tableText.empty()) {
        // A document that has no table gets a whole group; the braces of an existing one are the document's.
        table.tableText = "{\\fonttbl}";
    }
    char text[100];
    std::snprintf(text, sizeof(text), "{\\f%d \\%s \\fcharset%d %s}", fontNumber, family, static_cast<int>(charset), name);
    table.nextFontNumber = static_cast<std::int32_t>(static_cast<std::uint32_t>(fontNumber) + 1);
    table.tableText.insert(table.tableText.size() - 1, text);
    return ternkit::kOk;
}
