// Fonts for characters that no code page has: which font of an RTF document shows a character, and which well-known font does
// when none of the document's own can.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "fileformats/pst/common/rtffonts.h"
#include "ternbase/windows.h"

// Goes with one font table. Fonts and answers are kept, so that a long text costs one search for each different character.
class RtfCoverage {
public:
    /**
     * The number of the first font with a glyph for a character: of the table's entries in their order, else of a well-known font
     * that the table lacks, which is added to it.
     *
     * @param character one character in UTF-16
     * @param units 1 or 2
     */
    std::optional<std::int32_t> fontFor(RtfFontTable& table, const char16_t* character, std::uint64_t units);

private:
    struct ContextDelete {
        void operator()(DeviceContext context) const;
    };
    struct FontDelete {
        void operator()(FontHandle font) const;
    };
    struct Face {
        std::string name;
        std::int32_t fontNumber;
        bool made = false;
        std::unique_ptr<FontTag, FontDelete> font;  // null before `made`, and when the system gives none
    };

    void readNewEntries(const RtfFontTable& table);
    std::optional<std::int32_t> search(RtfFontTable& table, const char16_t* character, std::uint64_t units);
    bool covers(Face& face, const char16_t* character, std::uint64_t units);

    std::unique_ptr<DeviceContextTag, ContextDelete> m_context;
    std::uint64_t m_entriesRead = 0;
    std::vector<Face> m_faces;                // of the table, each name once, in the table's order
    std::unordered_set<std::string> m_names;  // of m_faces
    std::unordered_map<std::uint32_t, std::optional<std::int32_t>> m_answers;  // by the character's units
};
