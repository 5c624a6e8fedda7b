#include "fileformats/pst/common/rtfcoverage.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include "common/apiutils.h"
#include "ternbase/ternbase.h"

TB_SOURCE(u"src/fileformats/pst/common/pst")

namespace {

// Tried in this order where no font of the document has a glyph.
constexpr const char* kCandidates[] = {"Arial", "Symbol", "MS Gothic", "Batang", "Gulim"};

// Faces of the document that are looked at. A table may list as many as its size allows, and each character that no font has is
// looked for in all of them.
constexpr std::size_t kMostFaces = 512;

constexpr std::size_t kFaceNameSize = 32;
static_assert(kFaceNameSize == std::size(decltype(LogFont::faceName){}));

bool isNamed(const std::string& name, const char* candidate) {
    return name.size() == std::strlen(candidate) && StartsWithNoCase(name.data(), name.data() + name.size(), candidate);
}

bool isCandidate(const std::string& name) {
    return std::any_of(std::begin(kCandidates), std::end(kCandidates),
                       [&name](const char* candidate) { return isNamed(name, candidate); });
}

FontHandle makeFont(const std::string& name) {
    LogFont font = {};
    MultiByteToWideChar(GetACP(), 0, name.data(), static_cast<int>(name.size()), font.faceName, static_cast<int>(kFaceNameSize));
    return TbFontCreate(&font, TB_HERE);
}

bool FontHasGlyphs(DeviceContext context, FontHandle font, const char16_t* character, std::uint64_t units) {
    const FontHandle before = SelectObject(context, font);
    if (before == nullptr) {
        return false;
    }
    std::uint16_t glyphs[2];
    ScriptCache cache = nullptr;
    const bool covered = ScriptGetCMap(context, &cache, character, static_cast<int>(units), 0, glyphs) == 0;
    ScriptFreeCache(&cache);
    SelectObject(context, before);
    return covered;
}

}  // namespace

void RtfCoverage::ContextDelete::operator()(DeviceContext context) const {
    TbDcDelete(context, TB_HERE);
}

void RtfCoverage::FontDelete::operator()(FontHandle font) const {
    TbFontDelete(font, TB_HERE);
}

bool RtfCoverage::covers(Face& face, const char16_t* character, std::uint64_t units) {
    if (!face.made) {
        face.made = true;
        face.font.reset(makeFont(face.name));
    }
    return face.font != nullptr && FontHasGlyphs(m_context.get(), face.font.get(), character, units);
}

void RtfCoverage::readNewEntries(const RtfFontTable& table) {
    const auto entries = table.entries();
    for (; m_entriesRead < entries.size(); ++m_entriesRead) {
        const RtfFontEntry& entry = entries[m_entriesRead];
        const char* text = table.name(entry);
        if (text == nullptr) {
            continue;
        }
        const std::string name(text, std::min(std::strlen(text), kFaceNameSize));
        // What may be added here later is always looked at: it is no candidate any more once it stands in the table.
        if ((m_faces.size() < kMostFaces || isCandidate(name)) && m_names.insert(name).second) {
            m_faces.push_back({name, entry.fontNumber, false, nullptr});
        }
    }
}

std::optional<std::int32_t> RtfCoverage::search(RtfFontTable& table, const char16_t* character, std::uint64_t units) {
    if (m_context == nullptr) {
        m_context.reset(TbDcCreate(nullptr, TB_HERE));
    }
    readNewEntries(table);
    for (Face& face : m_faces) {
        if (covers(face, character, units)) {
            return face.fontNumber;
        }
    }
    for (const char* candidate : kCandidates) {
        const bool inTable =
            std::any_of(m_faces.begin(), m_faces.end(), [candidate](const Face& face) { return isNamed(face.name, candidate); });
        Face face = {candidate, 0, false, nullptr};
        if (!inTable && covers(face, character, units)) {
            std::int32_t fontNumber = 0;
            const bool added = AddFont(table, candidate, "", 0, 0, fontNumber) == ternkit::kOk;
            return added ? std::optional(fontNumber) : std::nullopt;
        }
    }
    return std::nullopt;
}

std::optional<std::int32_t> RtfCoverage::fontFor(RtfFontTable& table, const char16_t* character, std::uint64_t units) {
    // An answer stays right when fonts are added: they stand behind what the search has found, or have been tried in vain.
    const std::uint32_t key = character[0] | (units > 1 ? static_cast<std::uint32_t>(character[1]) << 16 : 0U);
    const auto known = m_answers.find(key);
    if (known != m_answers.end()) {
        return known->second;
    }
    const std::optional<std::int32_t> answer = search(table, character, units);
    m_answers.emplace(key, answer);
    return answer;
}
