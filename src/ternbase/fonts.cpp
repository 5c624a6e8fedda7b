// Fonts and glyph coverage over fontconfig. A logical font is the font that fontconfig matches for the face name, and its
// coverage is the character set that fontconfig has on record; no font file is opened.
#include <fontconfig/fontconfig.h>

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <utility>

#include "ternbase/ternbase.h"
#include "ternbase/utf.h"
#include "ternbase/windows.h"

struct FontTag {
    std::shared_ptr<FcPattern> match;
    const FcCharSet* coverage = nullptr;  // part of match; null covers nothing
};

struct DeviceContextTag {
    FontHandle selected;
};

namespace {

constexpr std::int32_t kInvalidArgument = static_cast<std::int32_t>(0x80070057U);
constexpr std::int32_t kGlyphsMissing = 1;

// Fontconfig knows which characters a font has but not their glyph numbers; any value but 0 says that there is one.
constexpr std::uint16_t kSomeGlyph = 1;

struct PatternDelete {
    void operator()(FcPattern* pattern) const { FcPatternDestroy(pattern); }
};

/**
 * Matches face names and keeps the answers: coverage is asked for character by character under the same few names, and a match
 * costs a third of a millisecond. The configuration is one of its own, because the library's default one leaks at exit unless
 * FcFini is called, which would pull it from under a host that still draws with it.
 */
class FontMatcher {
public:
    FontMatcher() : m_config(FcInitLoadConfigAndFonts()) {}
    ~FontMatcher() {
        m_matches.clear();
        if (m_config) {
            FcConfigDestroy(m_config);
        }
    }
    FontMatcher(const FontMatcher&) = delete;
    FontMatcher& operator=(const FontMatcher&) = delete;

    /** Null when there is no font at all. */
    std::shared_ptr<FcPattern> Match(const std::string& faceName) {
        const std::lock_guard lock(m_mutex);
        if (!m_config) {
            return nullptr;
        }
        if (const auto known = m_matches.find(faceName); known != m_matches.end()) {
            return known->second;
        }
        std::shared_ptr<FcPattern> match = Search(faceName);
        if (match) {
            // Documents choose the names, so the number of those that are kept has a limit.
            if (m_matches.size() >= kKeptMatches) {
                m_matches.clear();
            }
            m_matches.emplace(faceName, match);
        }
        return match;
    }

private:
    static constexpr std::size_t kKeptMatches = 4096;

    std::shared_ptr<FcPattern> Search(const std::string& faceName) const {
        const std::unique_ptr<FcPattern, PatternDelete> wanted(FcPatternCreate());
        if (!wanted) {
            return nullptr;
        }
        if (!faceName.empty() &&
            !FcPatternAddString(wanted.get(), FC_FAMILY, reinterpret_cast<const FcChar8*>(faceName.c_str()))) {
            return nullptr;
        }
        if (!FcConfigSubstitute(m_config, wanted.get(), FcMatchPattern)) {
            return nullptr;
        }
        FcDefaultSubstitute(wanted.get());
        FcResult result = FcResultNoMatch;
        return {FcFontMatch(m_config, wanted.get(), &result), [](FcPattern* pattern) {
                    if (pattern) {
                        FcPatternDestroy(pattern);
                    }
                }};
    }

    std::mutex m_mutex;
    FcConfig* m_config;
    std::map<std::string, std::shared_ptr<FcPattern>> m_matches;
};

FontMatcher& Matcher() {
    static FontMatcher matcher;
    return matcher;
}

/** The font of a new context, as Windows selects one: a caller may take a null from SelectObject for a failure. */
FontTag& StockFont() {
    static FontTag font;
    return font;
}

/** Four bytes of UTF-8 are enough for each unit. A name of 32 units has no NUL behind it. */
std::string FaceName(const LogFont& font) {
    std::size_t units = 0;
    while (units < std::size(font.faceName) && font.faceName[units] != 0) {
        ++units;
    }
    char name[std::size(font.faceName) * 4];
    const std::uint64_t bytes = TbUtf8FromWide(font.faceName, units, name, sizeof name);
    return {name, bytes};
}

}  // namespace

DeviceContext TbDcCreate([[maybe_unused]] void* reserved, [[maybe_unused]] int line, [[maybe_unused]] const char16_t* file) {
    return new (std::nothrow) DeviceContextTag{&StockFont()};
}

void TbDcDelete(DeviceContext context, [[maybe_unused]] int line, [[maybe_unused]] const char16_t* file) {
    delete context;
}

FontHandle TbFontCreate(const LogFont* font, [[maybe_unused]] int line, [[maybe_unused]] const char16_t* file) {
    if (!font) {
        return nullptr;
    }
    try {
        auto created = std::make_unique<FontTag>();
        created->match = Matcher().Match(FaceName(*font));
        if (!created->match) {
            return nullptr;
        }
        FcCharSet* coverage = nullptr;
        if (FcPatternGetCharSet(created->match.get(), FC_CHARSET, 0, &coverage) == FcResultMatch) {
            created->coverage = coverage;
        }
        return created.release();
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

void TbFontDelete(FontHandle font, [[maybe_unused]] int line, [[maybe_unused]] const char16_t* file) {
    if (font != &StockFont()) {
        delete font;
    }
}

FontHandle SelectObject(DeviceContext context, FontHandle font) {
    if (!context || !font) {
        return nullptr;
    }
    return std::exchange(context->selected, font);
}

std::int32_t ScriptGetCMap(DeviceContext context, ScriptCache* cache, const char16_t* text, int units,
                           [[maybe_unused]] std::uint32_t flags, std::uint16_t* glyphs) {
    if (!context || !cache || !text || units <= 0 || !glyphs) {
        return kInvalidArgument;
    }
    const FcCharSet* coverage = context->selected->coverage;
    std::int32_t result = 0;
    const char16_t* position = text;
    const char16_t* const end = text + units;
    while (position != end) {
        const char16_t first = *position;
        const char16_t* const start = position;
        const char32_t character = ternbase::takeUtf16(position, end);
        // The stand-in for an unpaired surrogate has a glyph in many fonts, the surrogate has none.
        const bool valid = character != ternbase::kReplacementCharacter || first == ternbase::kReplacementCharacter;
        const bool covered = valid && coverage && FcCharSetHasChar(coverage, character);
        if (!covered) {
            result = kGlyphsMissing;
        }
        glyphs = std::fill_n(glyphs, position - start, covered ? kSomeGlyph : std::uint16_t{0});
    }
    return result;
}

std::int32_t ScriptFreeCache(ScriptCache* cache) {
    if (!cache) {
        return kInvalidArgument;
    }
    *cache = nullptr;
    return 0;
}
