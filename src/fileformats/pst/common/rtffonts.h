// The fonts of an RTF document. A byte of RTF text stands for a character of the current font's charset, so text that is merged
// into a document needs a font of the right code page: the document's own, or one that is added to its table.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "internal/ternclasses_.h"

inline constexpr std::uint64_t kNoFontName = UINT64_MAX;

struct RtfFontEntry {
    std::int32_t fontNumber = -1;            // the number of \f; -1 when the entry's group gives none
    std::uint32_t codePage = 0;              // 0 when it is not known
    std::uint32_t charset = 0;               // of a font added here; 0 for one read from a document
    std::uint64_t nameOffset = kNoFontName;  // see RtfFontTable::name
};

// Lives for one composition or conversion. Entries are only ever added, behind those that are there.
class RtfFontTable {
public:
    RtfFontTable();

    std::span<const RtfFontEntry> entries() const;
    /// The NUL-terminated name of an entry, in the document's bytes, or null; valid until the next entry is added.
    const char* name(const RtfFontEntry& entry) const;

    /// Adds an entry; `name` may be null. @return 1 or -1
    ternkit::Status append(const RtfFontEntry& entry, const char* name, std::uint64_t nameLength);

    bool parsed = false;               // the document's table has been read
    bool changed = false;              // fonts were added: `tableText` differs from the document
    std::uint32_t ansiCodePage;        // of \ansicpg, else the system's own
    std::int32_t defaultFont = 0;      // of \deff
    std::int32_t nextFontNumber = -1;  // of the next font added
    std::uint64_t tableStart = 0;      // offset in the document of the backslash of \fonttbl
    std::uint64_t tableEnd = 0;        // offset behind the table's closing brace
    std::string tableText;             // what belongs between the two offsets

private:
    friend ternkit::Status FontForCodePage(RtfFontTable& table, std::uint32_t codePage, std::int32_t& fontNumber);

    struct KnownFont {
        std::uint32_t codePage;
        std::int32_t fontNumber;
    };

    ScopedBlock m_entries;
    std::uint64_t m_count = 0;
    std::uint64_t m_capacity = 0;
    ByteBuffer m_names;                   // one behind the other, each with its NUL
    std::vector<KnownFont> m_knownFonts;  // answers of FontForCodePage
};

/// Code pages that are tried for a text, in the order in which they are tried.
std::span<const std::uint32_t> ProbedCodePages();

/**
 * Reads the font table, default font and code page of a document; a table that has been read is left alone.
 *
 * @param size bytes without a closing NUL; the control words are looked for up to the first NUL
 * @return 1; -9 when the document has neither \fonttbl nor \from, where a table could go, or its table ends in a broken control
 * word; -1 without memory
 */
ternkit::Status ParseRtfFonts(RtfFontTable& table, const char* document, std::uint64_t size);

/**
 * Adds the entries of a font table's text.
 *
 * @param position at or behind \fonttbl, moved behind the brace that closes the table, or to `end`
 * @return 1; -9 for a backslash with fewer than two bytes behind it; -1 without memory
 */
ternkit::Status ReadFontTable(RtfFontTable& table, const char*& position, const char* end);

/// Gives the first font of a code page, added to the table when there is none. @return 1; -13 for a code page that no charset
/// has; -1 without memory
ternkit::Status FontForCodePage(RtfFontTable& table, std::uint32_t codePage, std::int32_t& fontNumber);

/// Adds a font under the next free number, to the entries and to `tableText`. @return 1 or -1
ternkit::Status AddFont(RtfFontTable& table, const char* name, const char* family, std::uint32_t codePage, std::uint32_t charset,
                        std::int32_t& fontNumber);
