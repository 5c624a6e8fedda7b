// Code pages, language of labels, glyph coverage, and the table of JIS X 0208.
#include <gtest/gtest.h>
#include <iconv.h>

#include <cstdlib>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "fileformats/pst/common/jisrowtable.h"
#include "ternbase/ternbase.h"
#include "ternbase/windows.h"

namespace {

/** What MultiByteToWideChar makes of the bytes, asked for the size first; nothing when it fails. */
std::optional<std::u16string> Decode(std::uint32_t codePage, std::string_view bytes) {
    const int count = static_cast<int>(bytes.size());
    const int needed = MultiByteToWideChar(codePage, 0, bytes.data(), count, nullptr, 0);
    if (needed <= 0) {
        return std::nullopt;
    }
    std::u16string text(static_cast<std::size_t>(needed), u'\0');
    EXPECT_EQ(MultiByteToWideChar(codePage, 0, bytes.data(), count, text.data(), needed), needed);
    return text;
}

struct Encoded {
    std::string bytes;
    bool usedDefault;
};

/** The reverse. The pages of Unicode refuse to be asked for lacking characters. */
Encoded Encode(std::uint32_t codePage, std::u16string_view text, const char* defaultCharacter = nullptr) {
    const int count = static_cast<int>(text.size());
    const int needed = WideCharToMultiByte(codePage, 0, text.data(), count, nullptr, 0, defaultCharacter, nullptr);
    std::string bytes(static_cast<std::size_t>(needed), '\0');
    int usedDefault = -1;
    EXPECT_EQ(WideCharToMultiByte(codePage, 0, text.data(), count, bytes.data(), needed, defaultCharacter,
                                  codePage == kCodePageUtf8 ? nullptr : &usedDefault),
              needed);
    return {bytes, usedDefault == 1};
}

/** The system's converter, used directly. */
class SystemConverter {
public:
    explicit SystemConverter(const char* name) : m_descriptor(iconv_open("UTF-16LE", name)) {}
    ~SystemConverter() {
        if (valid()) {
            iconv_close(m_descriptor);
        }
    }
    SystemConverter(const SystemConverter&) = delete;
    SystemConverter& operator=(const SystemConverter&) = delete;

    // NOLINTNEXTLINE(performance-no-int-to-ptr)
    bool valid() const { return m_descriptor != reinterpret_cast<iconv_t>(-1); }

    /** Empty for bytes that are no whole and valid text. */
    std::u16string decode(std::string bytes) {
        char16_t units[8];
        char* source = bytes.data();
        char* target = reinterpret_cast<char*>(units);
        std::size_t sourceLeft = bytes.size();
        std::size_t targetLeft = sizeof units;
        iconv(m_descriptor, nullptr, nullptr, nullptr, nullptr);
        if (iconv(m_descriptor, &source, &sourceLeft, &target, &targetLeft) == static_cast<std::size_t>(-1)) {
            return {};
        }
        iconv(m_descriptor, nullptr, nullptr, &target, &targetLeft);
        return {units, (sizeof units - targetLeft) / sizeof(char16_t)};
    }

private:
    iconv_t m_descriptor;
};

std::string Byte(unsigned value) {
    return {static_cast<char>(value)};
}

std::string Pair(unsigned first, unsigned second) {
    return {static_cast<char>(first), static_cast<char>(second)};
}

struct NamedPage {
    std::uint32_t codePage;
    const char* name;
};

TEST(CodePage, SingleBytePagesAgreeWithTheSystemAndGoBothWays) {
    const NamedPage pages[] = {{437, "IBM437"},        {850, "IBM850"},
                               {874, "CP874"},         {1250, "WINDOWS-1250"},
                               {1251, "WINDOWS-1251"}, {1252, "WINDOWS-1252"},
                               {1253, "WINDOWS-1253"}, {1254, "WINDOWS-1254"},
                               {1255, "WINDOWS-1255"}, {1256, "WINDOWS-1256"},
                               {1257, "WINDOWS-1257"}, {1258, "WINDOWS-1258"},
                               {10007, "CP10007"},     {10029, "MAC-CENTRALEUROPE"},
                               {852, "IBM852"},        {866, "IBM866"},
                               {20866, "KOI8-R"},      {28605, "ISO-8859-15"}};
    for (const NamedPage& page : pages) {
        SCOPED_TRACE(page.name);
        SystemConverter system(page.name);
        ASSERT_TRUE(system.valid());
        for (unsigned byte = 0; byte < 256; ++byte) {
            const std::optional<std::u16string> text = Decode(page.codePage, Byte(byte));
            ASSERT_TRUE(text && text->size() == 1) << byte;
            const std::u16string expected = system.decode(Byte(byte));
            if (!expected.empty()) {
                EXPECT_EQ(*text, expected) << byte;
            } else if (byte < 0xA0) {
                EXPECT_EQ((*text)[0], byte) << "an undefined byte is the control character of its value";
            }
            const Encoded back = Encode(page.codePage, *text);
            EXPECT_EQ(back.bytes, Byte(byte));
            EXPECT_FALSE(back.usedDefault) << byte;
        }
    }
}

TEST(CodePage, UndefinedBytesDoNotTakeLettersOfOtherPages) {
    // 0xD2 means nothing in the Greek page. Were it U+00D2, a text of Greek letters and that letter would seem to fit the page.
    EXPECT_EQ(Decode(1253, "\xD2"), u"\uF8FA");
    EXPECT_TRUE(Encode(1253, u"\u00D2").usedDefault);
    EXPECT_TRUE(Encode(1255, u"\u00DF").usedDefault);
    EXPECT_EQ(Encode(1255, u"\uF893").bytes, "\xDF");
}

TEST(CodePage, DoubleBytePagesAgreeWithTheSystem) {
    const NamedPage pages[] = {{932, "WINDOWS-31J"}, {936, "GBK"},      {949, "UHC"},     {950, "CP950"},
                               {1361, "JOHAB"},      {10003, "EUC-KR"}, {10008, "EUC-CN"}};
    for (const NamedPage& page : pages) {
        SCOPED_TRACE(page.name);
        SystemConverter system(page.name);
        ASSERT_TRUE(system.valid());
        unsigned pairs = 0;
        for (unsigned lead = 0x81; lead < 0xFF; ++lead) {
            if (system.decode(Byte(lead)).size() == 1) {
                continue;
            }
            for (unsigned trail = 0x40; trail < 0xFF; ++trail) {
                const std::u16string expected = system.decode(Pair(lead, trail));
                if (expected.size() != 1) {
                    continue;
                }
                ++pairs;
                ASSERT_EQ(Decode(page.codePage, Pair(lead, trail)), expected) << std::hex << lead << trail;
                const Encoded back = Encode(page.codePage, expected);
                ASSERT_FALSE(back.usedDefault) << std::hex << lead << trail;
                ASSERT_EQ(Decode(page.codePage, back.bytes), expected) << std::hex << lead << trail;
            }
        }
        EXPECT_GT(pairs, 7000U);
        for (unsigned byte = 0; byte < 0x80; ++byte) {
            EXPECT_EQ(Decode(page.codePage, Byte(byte)), std::u16string(1, static_cast<char16_t>(byte)));
        }
    }
}

TEST(CodePage, KnownValuesWhereWindowsDiffersFromOtherTables) {
    struct Case {
        std::uint32_t codePage;
        const char* bytes;
        const char16_t* text;
    };
    const Case cases[] = {
        {0, "\x80", u"\u20AC"},
        {932, "\\~\x81\x60\x81\x61\x81\x7C\x81\x91\x81\xCA", u"\\~\uFF5E\u2225\uFF0D\uFFE0\uFFE2"},
        {932, "\xB1\x80", u"\uFF71\u0080"},
        {932, "\x87\x54\xFA\x40\xF0\x40", u"\u2160\u2170\uE000"},  // NEC row 13, IBM extension, user-defined
        {936, "\x80\xA1\xAA\xA3\xAC\xAA\xA1\xA1\x40", u"\u20AC\u2014\uFF0C\uE000\uE4C6"},
        {949, "\xB0\xA1\x81\x41\xC9\xA1", u"\uAC00\uAC02\uE000"},
        {950, "\xA4\xA4\xA3\xE1\xFA\x40\x8E\x40\xA4\x51", u"\u4E2D\u20AC\uE000\uE311\u5341"},
        {1361, "\\\x88\x61", u"\\\uAC00"},
        {1255, "\xE0\xC7", u"\u05D0\u05B7"},  // the letter and its mark stay apart
        {1258, "\x61\xEC", u"a\u0301"},
        {10000, "\x8A\xC6\xF0", u"\u00E4\u2206\uF8FF"},
        {10001, "\x5C\x80\x82\xA0\xFD\xFE\xFF", u"\u00A5\\\u3042\u00A9\u2122\u2026"},
        {10002, "\xA4\xA4\x81\xFE", u"\u4E2D\uF880\u2122"},
        {10003, "\x81\xB0\xA1\xFF", u"\u20A9\uAC00\u2026"},
        {10004, "\xC7\x8C\xB0", u"\u0627\u00AB\u0660"},
        {10005, "\xE0\xA6\xFA", u"\u05D0\u20AA\u05EA"},
        {10006, "\xE1\xB0\xF9", u"\u03B1\u0391\u03C5"},
        {10008, "\x80\xD6\xD0\xFD", u"\u00FC\u4E2D\u00A9"},
        {10021, "\xA1\x8D\xEE", u"\u0E01\u201C\u2122"},
        {10081, "\xDA\xDC\xDF", u"\u011E\u0130\u015F"},
    };
    for (const Case& known : cases) {
        SCOPED_TRACE(known.codePage);
        EXPECT_EQ(Decode(known.codePage, known.bytes), known.text);
        EXPECT_EQ(Encode(known.codePage, known.text).bytes, known.bytes);
    }
}

TEST(CodePage, OneCodeOfSeveralStandsForACharacter) {
    EXPECT_EQ(Encode(932, *Decode(932, "\xED\x40")).bytes, "\xFA\x5C") << "the IBM extension before NEC's copy";
    EXPECT_EQ(Encode(932, *Decode(932, "\x87\x90")).bytes, "\x81\xE0") << "the standard before NEC row 13";
    EXPECT_EQ(Encode(950, *Decode(950, "\xA2\xCC")).bytes, "\xA4\x51");
    EXPECT_EQ(Encode(10004, u" 1").bytes, " 1") << "ASCII before the copies for right-to-left text";
}

TEST(CodePage, InvalidSequencesGiveThePagesSign) {
    struct Case {
        std::uint32_t codePage;
        std::string_view bytes;
        std::u16string_view text;
    };
    using namespace std::string_view_literals;
    const Case cases[] = {
        {932, "a\x81"sv, u"a\u30FB"},            // cut short
        {932, "\x81\x20z"sv, u"\u30FBz"},        // no such second byte: both go
        {932, "\x81\0z"sv, u"\u30FB\0z"sv},      // but a NUL stays
        {932, "\xFF\xA0z"sv, u"\u30FB\u30FBz"},  // bytes that begin nothing
        {936, "\xFF z"sv, u"? z"},
        {949, "\xB0"sv, u"?"},
        {950, "\xA1\x20z"sv, u"?z"},
        {1361, "\xFF"sv, u"?"},
        {10001, "\x81\x20z"sv, u"?z"},
        {65001, "a\xFFz"sv, u"a\uFFFDz"},
        {65001, "\xC0\xAF"sv, u"\uFFFD\uFFFD"},                      // a long form
        {65001, "\xED\xA0\x80"sv, u"\uFFFD\uFFFD\uFFFD"},            // a surrogate
        {65001, "\xF4\x90\x80\x80"sv, u"\uFFFD\uFFFD\uFFFD\uFFFD"},  // above U+10FFFF
        {65001, "\xE2\x82z\xF0\x9F\x98"sv, u"\uFFFDz\uFFFD"},        // cut short, twice
    };
    for (const Case& damaged : cases) {
        EXPECT_EQ(Decode(damaged.codePage, damaged.bytes), damaged.text)
            << damaged.codePage << " " << testing::PrintToString(damaged.bytes);
    }
}

TEST(CodePage, Utf8GoesBothWays) {
    const std::string bytes = "a\xC3\xA4\xE2\x82\xAC\xEF\xBF\xBF\xF0\x9F\x98\x80\xF4\x8F\xBF\xBF";
    const std::u16string text = u"a\u00E4\u20AC\uFFFF\U0001F600\U0010FFFF";
    EXPECT_EQ(Decode(kCodePageUtf8, bytes), text);
    EXPECT_EQ(Encode(kCodePageUtf8, text).bytes, bytes);
    EXPECT_EQ(Encode(kCodePageUtf8, std::u16string{0xD83D, u'z', 0xDE00, 0xD83D}).bytes, "\xEF\xBF\xBDz\xEF\xBF\xBD\xEF\xBF\xBD");
}

TEST(CodePage, SymbolBytesLieInThePrivateUseArea) {
    EXPECT_EQ(Decode(kCodePageSymbol, "\t\x1F \x80\xFF"), u"\t\u001F\uF020\uF080\uF0FF");
    const Encoded back = Encode(kCodePageSymbol, u"\t\uF020\uF0FF");
    EXPECT_EQ(back.bytes, "\t \xFF");
    EXPECT_FALSE(back.usedDefault);
    const Encoded plain = Encode(kCodePageSymbol, u"a\uF01F\uF100", "!");
    EXPECT_EQ(plain.bytes, "!!!");
    EXPECT_TRUE(plain.usedDefault);
}

TEST(CodePage, LackingCharactersBecomeTheDefaultCharacter) {
    EXPECT_EQ(Encode(1252, u"a\u0416\U0001F600z").bytes, "a???z") << "one for each unit, as on Windows";
    EXPECT_TRUE(Encode(1252, u"\u0416").usedDefault);
    EXPECT_EQ(Encode(1252, u"\u0416", "#").bytes, "#");
    EXPECT_EQ(Encode(932, u"\u00C4", "\x81\xA0").bytes, "\x81\xA0");
    EXPECT_FALSE(Encode(932, u"\u25A1").usedDefault);
}

TEST(CodePage, SizesAndBuffers) {
    char16_t wide[4] = {1, 1, 1, 1};
    EXPECT_EQ(MultiByteToWideChar(1252, 0, "abc", -1, nullptr, 0), 4);
    EXPECT_EQ(MultiByteToWideChar(1252, 0, "abc", -1, wide, 4), 4);
    EXPECT_EQ(wide[3], 0);
    char bytes[3] = {1, 1, 1};
    EXPECT_EQ(WideCharToMultiByte(1252, 0, u"ab", -1, bytes, 3, nullptr, nullptr), 3);
    EXPECT_EQ(bytes[2], 0);

    for (const std::uint32_t codePage : {42U, 932U, 1252U, kCodePageUtf8}) {
        SCOPED_TRACE(codePage);
        std::vector<char16_t> exactWide(2);
        EXPECT_EQ(MultiByteToWideChar(codePage, 0, "\x01\x02\x03", 3, exactWide.data(), 2), 0);
        EXPECT_EQ(GetLastError(), 122U);
        std::vector<char> exactBytes(2);
        EXPECT_EQ(WideCharToMultiByte(codePage, 0, u"\u0001\u0002\u0003", 3, exactBytes.data(), 2, nullptr, nullptr), 0);
        EXPECT_EQ(GetLastError(), 122U);
    }
    std::vector<char> oneByte(1);
    EXPECT_EQ(WideCharToMultiByte(932, 0, u"\u3042", 1, oneByte.data(), 1, nullptr, nullptr), 0);
    EXPECT_EQ(WideCharToMultiByte(kCodePageUtf8, 0, u"\u00E4", 1, oneByte.data(), 1, nullptr, nullptr), 0);
    std::vector<char16_t> oneUnit(1);
    EXPECT_EQ(MultiByteToWideChar(kCodePageUtf8, 0, "\xF0\x9F\x98\x80", 4, oneUnit.data(), 1), 0);
}

TEST(CodePage, BadArgumentsAndUnknownPagesFail) {
    char16_t wide[4];
    EXPECT_EQ(GetACP(), 1252U);
    for (const std::uint32_t unknown : {1U, 31U, 1249U, 1259U, 12345U, 65000U, 0xFFFFFFFFU}) {
        EXPECT_EQ(MultiByteToWideChar(unknown, 0, "a", 1, wide, 4), 0) << unknown;
        EXPECT_EQ(GetLastError(), 87U);
        EXPECT_EQ(WideCharToMultiByte(unknown, 0, u"a", 1, nullptr, 0, nullptr, nullptr), 0) << unknown;
    }
    EXPECT_EQ(MultiByteToWideChar(1252, 0, nullptr, 1, wide, 4), 0);
    EXPECT_EQ(MultiByteToWideChar(1252, 0, "a", 0, wide, 4), 0);
    EXPECT_EQ(MultiByteToWideChar(1252, 0, "a", -2, wide, 4), 0);
    EXPECT_EQ(MultiByteToWideChar(1252, 0, "a", 1, nullptr, 4), 0);
    EXPECT_EQ(MultiByteToWideChar(1252, 0, "a", 1, wide, -1), 0);
    int usedDefault = 0;
    EXPECT_EQ(WideCharToMultiByte(kCodePageUtf8, 0, u"a", 1, nullptr, 0, nullptr, &usedDefault), 0);
}

TEST(CodePage, FirstUseFromManyThreads) {
    std::vector<std::thread> threads;
    threads.reserve(8);
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([] {
            for (const std::uint32_t codePage : {10001U, 10003U, 869U, 28592U}) {
                EXPECT_EQ(Decode(codePage, "abc"), u"abc");
            }
            EXPECT_EQ(MultiByteToWideChar(1, 0, "a", 1, nullptr, 0), 0);
            EXPECT_EQ(GetLastError(), 87U);
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

/** Puts the environment's language into a known state and back. */
class UiLanguage : public testing::Test {
protected:
    static constexpr const char* kVariables[] = {"TERN_UI_LANGUAGE", "LC_ALL", "LC_MESSAGES", "LANG"};

    UiLanguage() {
        for (const char* variable : kVariables) {
            if (const char* value = std::getenv(variable)) {
                m_saved[variable] = value;
            }
            unsetenv(variable);
        }
        TbHostSetUiLanguage(0);
    }
    ~UiLanguage() override {
        TbHostSetUiLanguage(0);
        for (const char* variable : kVariables) {
            unsetenv(variable);
        }
        for (const auto& [variable, value] : m_saved) {
            setenv(variable.c_str(), value.c_str(), 1);
        }
    }

private:
    std::map<std::string, std::string> m_saved;
};

TEST_F(UiLanguage, HostThenVariableThenLocale) {
    EXPECT_EQ(TbUiLanguage(), 0x0409U);
    setenv("LANG", "ja_JP.UTF-8", 1);
    EXPECT_EQ(TbUiLanguage(), 0x0411U);
    setenv("LC_MESSAGES", "ko_KR.UTF-8", 1);
    EXPECT_EQ(TbUiLanguage(), 0x0412U);
    setenv("LC_ALL", "", 1);
    EXPECT_EQ(TbUiLanguage(), 0x0412U) << "an empty variable counts as unset";
    setenv("LC_ALL", "nl_NL", 1);
    EXPECT_EQ(TbUiLanguage(), 0x0409U) << "the first variable decides alone";
    setenv("TERN_UI_LANGUAGE", "0418", 1);
    EXPECT_EQ(TbUiLanguage(), 0x0418U);
    setenv("TERN_UI_LANGUAGE", "0x0c0C", 1);
    EXPECT_EQ(TbUiLanguage(), 0x0C0CU);
    TbHostSetUiLanguage(0x0407);
    EXPECT_EQ(TbUiLanguage(), 0x0407U);
    TbHostSetUiLanguage(0);
    for (const char* wrong : {"", "0", "german", "0407 ", "10407", "-407", "123456789012"}) {
        setenv("TERN_UI_LANGUAGE", wrong, 1);
        EXPECT_EQ(TbUiLanguage(), 0x0409U) << wrong;
    }
}

TEST_F(UiLanguage, LocalesOfAllLanguagesWithLabels) {
    const std::map<std::string, std::uint32_t> locales = {
        {"C", 0x0409},           {"C.UTF-8", 0x0409}, {"POSIX", 0x0409}, {"en_GB.UTF-8", 0x0409}, {"de_AT@euro", 0x0407},
        {"ro_RO", 0x0418},       {"fr_CA", 0x040C},   {"FR", 0x040C},    {"ja", 0x0411},          {"ko_KR.eucKR", 0x0412},
        {"zh", 0x0804},          {"zh_CN", 0x0804},   {"zh_SG", 0x1004}, {"zh-Hans", 0x0004},     {"zh_Hans_CN", 0x0004},
        {"zh_TW.Big5", 0x0404},  {"zh_HK", 0x0C04},   {"zh_MO", 0x1404}, {"zh-Hant-TW", 0x7C04},  {"ar", 0x2C01},
        {"ar_SA", 0x0401},       {"ar_EG", 0x0C01},   {"ar_DZ", 0x1401}, {"ar_BH", 0x3C01},       {"ar_KW", 0x3401},
        {"ar_LB", 0x3001},       {"ar_LY", 0x1001},   {"ar_MA", 0x1801}, {"ar_OM", 0x2001},       {"ar_QA", 0x4001},
        {"ar_SY", 0x2801},       {"ar_TN", 0x1C01},   {"ar_AE", 0x3801}, {"ar_YE", 0x2401},       {"ar_JO", 0x2C01},
        {"ar_IQ.UTF-8", 0x2C01}, {"arn_CL", 0x0409},  {"den_CA", 0x0409}};
    for (const auto& [locale, languageId] : locales) {
        setenv("LC_ALL", locale.c_str(), 1);
        EXPECT_EQ(TbUiLanguage(), languageId) << locale;
    }
}

LogFont FontNamed(std::u16string_view name) {
    LogFont font = {};
    name.copy(font.faceName, std::size(font.faceName));
    return font;
}

/** ScriptGetCMap's answer in a context of its own. */
std::int32_t Coverage(std::u16string_view faceName, std::u16string_view text, std::vector<std::uint16_t>& glyphs) {
    const LogFont logical = FontNamed(faceName);
    DeviceContext context = TbDcCreate(nullptr, 0, nullptr);
    FontHandle font = TbFontCreate(&logical, 0, nullptr);
    EXPECT_NE(context, nullptr);
    EXPECT_NE(font, nullptr);
    FontHandle before = SelectObject(context, font);
    EXPECT_NE(before, nullptr) << "a null would be a failure";
    ScriptCache cache = nullptr;
    glyphs.assign(text.size(), 0xABCD);
    const std::int32_t result = ScriptGetCMap(context, &cache, text.data(), static_cast<int>(text.size()), 0, glyphs.data());
    EXPECT_EQ(ScriptFreeCache(&cache), 0);
    EXPECT_EQ(cache, nullptr);
    EXPECT_EQ(SelectObject(context, before), font);
    TbFontDelete(font, 0, nullptr);
    TbDcDelete(context, 0, nullptr);
    return result;
}

TEST(GlyphCoverage, AllUnitsMustHaveAGlyph) {
    std::vector<std::uint16_t> glyphs;
    EXPECT_EQ(Coverage(u"Arial", u"abc\u00E4", glyphs), 0);
    EXPECT_NE(glyphs[3], 0);
    // U+0378 and U+50000 are assigned to nothing, so no font has them.
    EXPECT_EQ(Coverage(u"Arial", u"a\u0378b", glyphs), 1);
    EXPECT_NE(glyphs[0], 0);
    EXPECT_EQ(glyphs[1], 0);
    EXPECT_NE(glyphs[2], 0);
    EXPECT_EQ(Coverage(u"Arial", u"\U00050000", glyphs), 1);
    EXPECT_EQ(glyphs, (std::vector<std::uint16_t>{0, 0}));
    EXPECT_EQ(Coverage(u"Arial", std::u16string(1, 0xD83D), glyphs), 1) << "half a pair is no character";
}

TEST(GlyphCoverage, FaceNamesFromDocuments) {
    std::vector<std::uint16_t> glyphs;
    EXPECT_EQ(Coverage(u"", u"a", glyphs), 0);
    EXPECT_EQ(Coverage(u"No Such Face, Really: weight=5", u"a", glyphs), 0);
    EXPECT_EQ(Coverage(std::u16string(32, u'\uFFFD'), u"a", glyphs), 0) << "32 units leave no room for a NUL";
    EXPECT_EQ(Coverage(std::u16string(3, 0xDC00), u"a", glyphs), 0);
}

TEST(GlyphCoverage, BadArgumentsAndAnEmptyContext) {
    EXPECT_EQ(TbFontCreate(nullptr, 0, nullptr), nullptr);
    TbFontDelete(nullptr, 0, nullptr);
    DeviceContext context = TbDcCreate(nullptr, 0, nullptr);
    EXPECT_EQ(SelectObject(context, nullptr), nullptr);
    EXPECT_EQ(SelectObject(nullptr, nullptr), nullptr);
    ScriptCache cache = nullptr;
    std::uint16_t glyph = 7;
    EXPECT_EQ(ScriptGetCMap(context, &cache, u"a", 1, 0, &glyph), 1) << "no font, no glyph";
    EXPECT_EQ(glyph, 0);
    EXPECT_LT(ScriptGetCMap(context, &cache, u"a", 0, 0, &glyph), 0);
    EXPECT_LT(ScriptGetCMap(context, nullptr, u"a", 1, 0, &glyph), 0);
    EXPECT_LT(ScriptGetCMap(context, &cache, nullptr, 1, 0, &glyph), 0);
    EXPECT_LT(ScriptGetCMap(nullptr, &cache, u"a", 1, 0, &glyph), 0);
    EXPECT_LT(ScriptFreeCache(nullptr), 0);
    TbDcDelete(context, 0, nullptr);
}

/** The Shift_JIS form of a cell of JIS X 0208, both bytes from 0x21. */
std::string ShiftJis(unsigned first, unsigned second) {
    const unsigned lead = (first + 1) / 2 + (first < 0x5F ? 0x70 : 0xB0);
    const unsigned trail = first % 2 == 0 ? second + 0x7E : second + 0x1F + (second >= 0x60 ? 1 : 0);
    return Pair(lead, trail);
}

TEST(JisRowTable, EveryCellAgreesWithTheSystem) {
    const std::map<unsigned, std::uint32_t> shortRows = {{6, 56}, {7, 81}, {8, 32}, {47, 51}, {84, 6}};
    SystemConverter system("CP932");
    ASSERT_TRUE(system.valid());
    unsigned assigned = 0;
    for (unsigned first = 0x21; first <= 0x74; first = first == 0x28 ? 0x30 : first + 1) {
        const unsigned row = first - 0x20;
        SCOPED_TRACE(row);
        const JisRow& entry = kJisRowTable[first <= 0x28 ? first - 0x21 : first - 0x27];
        const auto shortRow = shortRows.find(row);
        ASSERT_EQ(entry.count, shortRow != shortRows.end() ? shortRow->second : 94U);
        for (unsigned second = 0x21; second <= 0x7E; ++second) {
            const std::u16string expected = system.decode(ShiftJis(first, second));
            if (second - 0x21 >= entry.count) {
                EXPECT_TRUE(expected.empty()) << "a cell past the row's end is assigned: " << second;
                continue;
            }
            ASSERT_EQ(entry.values[second - 0x21], expected.size() == 1 ? expected[0] : u'\uFFFD') << second;
            assigned += expected.size() == 1 ? 1 : 0;
        }
    }
    EXPECT_EQ(assigned, 6879U) << "the characters of JIS X 0208";
    EXPECT_EQ(kJisRowTable[8].count, 0U);
    EXPECT_EQ(kJisRowTable[0].values[0x41 - 0x21], 0xFF5E);
    EXPECT_EQ(kJisRowTable[0].values[0x42 - 0x21], 0x2225);
    EXPECT_EQ(kJisRowTable[0].values[0x5D - 0x21], 0xFF0D);
    EXPECT_EQ(kJisRowTable[1].values[0x4C - 0x21], 0xFFE2);
    EXPECT_EQ(kJisRowTable[9].values[0], 0x4E9C);
}

}  // namespace
