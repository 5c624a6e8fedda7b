// The font table of an RTF document, and text of any script that is written under its fonts.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "fileformats/pst/common/rtfunicode.h"
#include "ternbase/ternbase.h"

using namespace ternkit;
using std::string_literals::operator""s;

namespace {

const std::string kGreekTable = "\\fonttbl{\\f0\\fswiss\\fcharset0 Arial;}{\\f6\\froman\\fcharset161 Times;}}";
const std::string kBegin = "{\\rtf1\\ansi\\ansicpg1252\\deff0{";
const std::string kDocument = kBegin + kGreekTable + "\\pard x}";

const std::string kKyiv = "\xD0\x9A\xD0\xB8\xD1\x97\xD0\xB2";  // only code page 1251 has its third letter
const std::string kKyivEscapes = "\\'ca\\'e8\\'bf\\'e2";
const std::string kOmegaTonos = "\xCF\x8E";    // in code page 1253 but not in the Greek of 932
const std::string kUncommon = "\xE4\xBB\xAC";  // U+4EEC, in no page that is tried

Status Parse(RtfFontTable& table, const std::string& document) {
    return ParseRtfFonts(table, document.data(), document.size());
}

/// "number/code page/name" of each entry.
std::vector<std::string> Entries(const RtfFontTable& table) {
    std::vector<std::string> all;
    for (const RtfFontEntry& entry : table.entries()) {
        const char* name = table.name(entry);
        all.push_back(std::to_string(entry.fontNumber) + "/" + std::to_string(entry.codePage) + "/" +
                      (name != nullptr ? name : "none"));
    }
    return all;
}

struct Escaped {
    Status status;
    std::string text;
    std::string tableText;
};

Escaped Escape(const std::string& document, const std::string& text) {
    HeaderComposer composer;
    EXPECT_EQ(Parse(composer.fonts, document), kOk);
    const Status status = EscapeRtfText(composer, text.data(), text.size());
    return {status, std::string(composer.headerText.data, composer.headerText.size), composer.fonts.tableText};
}

/// A table's text with fonts added in front of its closing brace.
std::string WithFonts(std::string table, const std::string& added) {
    return table.insert(table.size() - 1, added);
}

std::string WithoutFontWords(const std::string& text) {
    std::string left;
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (text.compare(at, 2, "\\f") == 0) {
            at = text.find(' ', at);
        } else {
            left.push_back(text[at]);
        }
    }
    return left;
}

bool HasGlyphs(const std::string& face, const std::u16string& text) {
    LogFont logFont = {};
    std::copy(face.begin(), face.end(), logFont.faceName);
    const DeviceContext context = TbDcCreate(nullptr, __LINE__, u"");
    const FontHandle font = TbFontCreate(&logFont, __LINE__, u"");
    const FontHandle before = SelectObject(context, font);
    std::uint16_t glyphs[2];
    ScriptCache cache = nullptr;
    const bool all = ScriptGetCMap(context, &cache, text.data(), static_cast<int>(text.size()), 0, glyphs) == 0;
    ScriptFreeCache(&cache);
    SelectObject(context, before);
    TbFontDelete(font, __LINE__, u"");
    TbDcDelete(context, __LINE__, u"");
    return all;
}

TEST(FontTable, Read) {
    struct {
        std::string text;
        std::vector<std::string> entries;
    } const cases[] = {
        {"{\\f0\\fswiss\\fcharset0\\fprq2{\\*\\panose 020b}Arial;}}", {"0/1252/Arial"}},
        {"{\\f2\\fswiss\\fcharset0 Arial{\\*\\falt Helvetica};}}", {"2/1252/Arial"}},
        {"\r\n{\\f1\\fcharset204 \"Times New\" ;}\r\n{\\f3\\fcpg950 Ming}}", {"1/1251/Times New", "3/950/Ming"}},
        {"{\\f1 One;\\fcharset7 Two;}}", {"1/0/Two"}},                                  // the later name; a charset of no page
        {"{\\f1\\fcharset Arial;}{\\fcharset254;}}", {"1/1252/Arial", "-1/437/none"}},  // no digits are 0
        {"{\\f1\\fcharset204\\f5 A;}{B;}}", {"5/1251/A", "-1/0/B"}},
        {"{\\f4294967297\\fcharset4294967500 A;}{\\f2147483648 B;}}", {"1/1251/A", "-2147483648/0/B"}},
        {"\\f0\\fcharset0 Arial;}", {}},
        {"{}}", {"-1/0/none"}},
        {"{\\f1 A\"B\";}}", {"1/0/B"}},
        {"{\\f1 Arial;}{\\f2 Never clos", {"1/0/Arial"}},
    };
    for (const auto& one : cases) {
        RtfFontTable table;
        const std::string rest = one.text.ends_with("}") ? "{\\f9 Not in it;}" : "";
        const std::string document = one.text + rest;
        const char* position = document.data();
        EXPECT_EQ(ReadFontTable(table, position, document.data() + document.size()), kOk) << one.text;
        EXPECT_EQ(position, document.data() + one.text.size()) << one.text;
        EXPECT_EQ(Entries(table), one.entries) << one.text;
    }
    for (const std::string broken : {"{\\f1 A;\\", "{\\f1 A;\\f", "\\"}) {
        RtfFontTable table;
        const char* position = broken.data();
        EXPECT_EQ(ReadFontTable(table, position, broken.data() + broken.size()), kUnusable) << broken;
    }
}

TEST(FontTable, FoundInDocument) {
    RtfFontTable table;
    ASSERT_EQ(Parse(table, "{\\rtf1\\ansicpg1250\\deff4294967298{" + kGreekTable + "\\pard}"), kOk);
    EXPECT_EQ(table.ansiCodePage, 1250U);
    EXPECT_EQ(table.defaultFont, 2);
    EXPECT_EQ(table.tableText, kGreekTable);
    EXPECT_EQ(table.tableEnd - table.tableStart, kGreekTable.size());
    EXPECT_EQ(table.nextFontNumber, 7);
    EXPECT_EQ(Parse(table, kDocument), kOk);  // it is read already
    EXPECT_EQ(table.entries().size(), 2U);
    EXPECT_EQ(table.ansiCodePage, 1250U);

    RtfFontTable none;
    EXPECT_EQ(Parse(none, "{\\rtf1\\ansi\\pard x}"), kUnusable);
    EXPECT_EQ(Parse(none, "{\\rtf1\0\\fonttbl}\\from"s), kUnusable);  // behind the end of the text
    EXPECT_EQ(Parse(none, ""), kUnusable);
    EXPECT_EQ(ParseRtfFonts(none, nullptr, 0), kUnusable);
    EXPECT_EQ(Parse(none, "{\\rtf1\\fromtext"), kOk);
    EXPECT_EQ(none.tableStart, 6U);
    EXPECT_EQ(none.tableEnd, 6U);
    EXPECT_EQ(none.ansiCodePage, 1252U);
    EXPECT_FALSE(none.parsed);
}

TEST(FontTable, FontForCodePage) {
    RtfFontTable table;
    ASSERT_EQ(Parse(table, "{\\rtf1\\ansicpg1251{\\fonttbl{\\f3 A;}{\\f4\\fcharset204 B;}}\\pard}"), kOk);
    std::int32_t font = 0;
    EXPECT_EQ(FontForCodePage(table, 1251, font), kOk);
    EXPECT_EQ(font, 3);  // a font without a charset has the document's own page
    EXPECT_EQ(FontForCodePage(table, 1234, font), kBadArgument);
    EXPECT_FALSE(table.changed);
    // Each page goes by its first charset: 1361 by the Macintosh one.
    const std::uint32_t pages[] = {1252, 42, 932, 1361, 1253, 1256, 1250, 1250};
    for (const std::uint32_t page : pages) {
        EXPECT_EQ(FontForCodePage(table, page, font), kOk) << page;
    }
    EXPECT_EQ(font, 11);
    EXPECT_EQ(table.tableText,
              "\\fonttbl{\\f3 A;}{\\f4\\fcharset204 B;}{\\f5 \\swiss \\fcharset0 Arial}{\\f6 \\nil \\fcharset2 Symbol}"
              "{\\f7 \\swiss \\fcharset128 MS Gothic}{\\f8 \\swiss \\fcharset82 Batang}{\\f9 \\swiss \\fcharset161 Batang}"
              "{\\f10 \\swiss \\fcharset178 Arial}{\\f11 \\swiss \\fcharset238 Arial}}");
}

TEST(RtfText, Escaped) {
    struct {
        std::string text;
        std::string escapes;
        std::string addedFonts;
    } const cases[] = {
        {"", "", ""},
        {"a\\b{c}\t\x7F", "a\\'5cb\\'7bc\\'7d\\'09\x7F", ""},
        {"\xC3\xA9t\xC3\xA9 {", "\\'e9t\\'e9 \\'7b", ""},
        {kKyiv, "\\f7 " + kKyivEscapes + "\\f0 ", "{\\f7 \\swiss \\fcharset204 Arial}"},
        {"a" + kKyiv + " b\\" + kKyiv, "a\\f7 " + kKyivEscapes + "\\f0  b\\'5c\\f7 " + kKyivEscapes + "\\f0 ",
         "{\\f7 \\swiss \\fcharset204 Arial}"},
        {kOmegaTonos, "\\f6 \\'fe\\f0 ", ""},
        // 932 comes before the Cyrillic pages and has the Russian letters; a second byte may be a backslash or a brace.
        {"\xD0\x9F\xD1\x80\xD0\xAB\xD0\xBA", "\\f7 \\'84P\\'84\\'82\\'84\\'5c\\'84\\'7b\\f0 ",
         "{\\f7 \\swiss \\fcharset128 MS Gothic}"},
        {kKyiv + " ab " + kOmegaTonos + "c", "\\f7 \\'84K\\'84y\\f8 \\'bf\\'e2\\f0  ab \\f6 \\'fe\\f0 c",
         "{\\f7 \\swiss \\fcharset128 MS Gothic}{\\f8 \\swiss \\fcharset204 Arial}"},
        {"\xEA\xB0\x80", "\\f7 \\'b0\\'a1\\f0 ", "{\\f7 \\swiss \\fcharset129 Batang}"},
        {"\xD7\xA9\xD8\xB4", "\\f7 \\'f9\\f8 \\'d4\\f0 ",
         "{\\f7 \\swiss \\fcharset177 Batang}{\\f8 \\swiss \\fcharset178 Arial}"},
    };
    for (const auto& one : cases) {
        const Escaped escaped = Escape(kDocument, one.text);
        EXPECT_EQ(escaped.status, kOk) << one.text;
        EXPECT_EQ(escaped.text, one.escapes) << one.text;
        EXPECT_EQ(escaped.tableText, WithFonts(kGreekTable, one.addedFonts)) << one.text;
    }
    // A NUL among text that is escaped has no form.
    EXPECT_EQ(Escape(kDocument, "\xC3\xA9\0x"s).status, kBadArgument);
}

TEST(RtfText, FontsOfTheDocument) {
    struct {
        std::string document;
        std::string text;
        std::string escapes;
        std::string tableText;
    } const cases[] = {
        // The default font stands at the end.
        {"{\\rtf1\\deff6{" + kGreekTable, "a\xC3\xA9 b", "a\\f0 \\'e9\\f6  b", kGreekTable},
        {"{\\rtf1\\deff6{" + kGreekTable, kOmegaTonos, "\\'fe", kGreekTable},
        // A document without a table gets a whole group, once there is a font for it.
        {"{\\rtf1\\fromtext", "plain", "plain", ""},
        {"{\\rtf1\\fromtext\\deff3", kKyiv + kOmegaTonos, "\\f0 \\'84K\\'84y\\f1 \\'bf\\'e2\\f2 \\'fe\\f3 ",
         "{\\fonttbl{\\f0 \\swiss \\fcharset128 MS Gothic}{\\f1 \\swiss \\fcharset204 Arial}{\\f2 \\swiss \\fcharset161 "
         "Batang}}"},
        {"{{\\fonttbl{\\f2147483647 A;}}", kOmegaTonos, "\\f-2147483648 \\'fe\\f0 ",
         "\\fonttbl{\\f2147483647 A;}{\\f-2147483648 \\swiss \\fcharset161 Batang}}"},
    };
    for (const auto& one : cases) {
        const Escaped escaped = Escape(one.document, one.text);
        EXPECT_EQ(escaped.text, one.escapes);
        EXPECT_EQ(escaped.tableText, one.tableText);
    }
}

TEST(RtfText, UnicodeEscapes) {
    struct {
        std::string text;
        std::string escapes;
    } const cases[] = {
        {kUncommon, "\\u20204 ?"},
        {"a\xE9\xBE\x99 b", "a\\u-24679 ? b"},
        {"\xF0\x9F\x98\x80", "\\u-10179 ?\\u-8704 ?"},
        {"\xC3\xA9"
         "a" +
             kUncommon + "{" + kOmegaTonos,
         "\\'e9a\\u20204 ?\\'7b\\'fe"},
        {"\xFFx", "\\u-3 ?x"},
        {kUncommon + "\xD0\x9A", "\\u20204 ?\\'84K"},
    };
    for (const auto& one : cases) {
        const Escaped escaped = Escape(kDocument, one.text);
        EXPECT_EQ(escaped.status, kOk) << one.text;
        EXPECT_EQ(WithoutFontWords(escaped.text), one.escapes) << one.text;
    }
}

// Which fonts there are is the system's; the rule is that the first one with the glyph is taken.
TEST(RtfText, CoverageDecidesForCharactersOfNoPage) {
    for (const std::u16string& character : {u"\u4EEC"s, u"\U0001F600"s, u"\uE923"s, u"\u10A0"s}) {
        const std::string table = "\\fonttbl{\\f5 gulim;}{\\f6 Times;}}";  // so Gulim is not tried again
        std::string font;
        std::string added;
        for (const std::string name : {"gulim", "Times", "Arial", "Symbol", "MS Gothic", "Batang"}) {
            if (font.empty() && HasGlyphs(name, character)) {
                font = name == "gulim" ? "\\f5 " : name == "Times" ? "\\f6 " : "\\f7 ";
                added = font == "\\f7 " ? "{\\f7 \\ \\fcharset0 " + name + "}" : "";
            }
        }
        std::string written = font;
        for (const char16_t unit : character) {
            written += "\\u" + std::to_string(static_cast<std::int16_t>(unit)) + " ?";
        }
        written += font.empty() ? "" : "\\f0 ";
        char utf8[4];
        const std::string value(utf8, TbUtf8FromWide(character.data(), character.size(), utf8, sizeof(utf8)));
        const Escaped escaped = Escape("{\\rtf1{" + table + "\\pard}", value + " " + value);
        EXPECT_EQ(escaped.text, written + " " + written);
        EXPECT_EQ(escaped.tableText, WithFonts(table, added));
    }
}

// Work that grew with entries times characters would not come to an end here.
TEST(RtfText, LongTablesAndLongValues) {
    constexpr std::size_t kCount = 100'000;
    std::string table = "\\fonttbl";
    for (std::size_t font = 0; font < kCount; ++font) {
        table += "{\\f" + std::to_string(font) + "\\fcharset161 Font " + std::to_string(font) + ";}";
    }
    table += "}";
    std::string value;
    for (std::size_t at = 0; at < kCount; ++at) {
        value += kOmegaTonos + "\xD1\x97";
        const char16_t rare[] = {static_cast<char16_t>(0x3400 + at % 0x1900)};
        char bytes[4];
        value.append(bytes, TbUtf8FromWide(rare, 1, bytes, sizeof(bytes)));
    }
    const Escaped escaped = Escape("{\\rtf1{" + table + "\\pard}", value);
    EXPECT_EQ(escaped.status, kOk);
    EXPECT_EQ(escaped.text.substr(0, 17), "\\'fe\\f100000 \\'bf");
    EXPECT_GT(escaped.text.size(), kCount * std::string("\\'fe\\'bf\\u-1 ?").size());

    std::string cyrillic;
    std::string escapes;
    for (std::size_t at = 0; at < 10'000; ++at) {
        cyrillic += kKyiv;
        escapes += kKyivEscapes;
    }
    EXPECT_EQ(Escape(kDocument, cyrillic).text, "\\f7 " + escapes + "\\f0 ");
}

}  // namespace
