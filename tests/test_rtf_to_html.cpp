// HTML out of RTF, byte for byte: control words, tag pairs, suppressed stretches, fonts and code pages, and the passes behind.
#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "fileformats/pst/common/rtftohtml.h"
#include "ternbase/ternbase.h"

using namespace std::string_literals;
using ternkit::Status;

namespace {

OwnedBytes Owned(std::string_view bytes) {
    OwnedBytes owned;
    owned.appendText(bytes.data(), static_cast<std::int64_t>(bytes.size()));
    return owned;
}

/** A text whose size counts its closing NUL, without it. */
std::string Text(const OwnedBytes& text) {
    EXPECT_TRUE(text.size != 0 && text.data[text.size - 1] == '\0');
    return std::string(text.data, text.textLength());
}

std::string Extracted(std::string_view rtf) {
    OwnedBytes text = Owned(rtf);
    EXPECT_EQ(ExtractHtmlFromRtf(text), ternkit::kOk);
    return Text(text);
}

std::string Converted(std::string_view rtf) {
    OwnedBytes text = Owned(rtf);
    ConvertRtfToHtml(text);
    return Text(text);
}

/** What a piece of RTF gives behind the first tag of a document. */
std::string Piece(const std::string& rtf) {
    return Extracted("{\\rtf1\\ansi\\ansicpg1252\\fromhtml1 {\\*\\htmltag0 }" + rtf);
}

struct Case {
    std::string rtf;
    std::string html;
};

/** Fonts of five scripts, the last two without a known one. */
const std::string kFonts =
    "{\\rtf1\\ansi\\ansicpg1252\\fromhtml1 \\deff0{\\fonttbl\r\n{\\f0\\fswiss\\fcharset0 Arial;}{\\f1\\fmodern\\fcharset128 MS "
    "Mincho;}{\\f2\\fnil\\fcharset134 SimSun;}{\\f3\\fcharset204 Arial Cyr;}{\\f5\\fnil Other;}}\r\n";

TEST(RtfToHtml, ADocumentOfAMailClient) {
    const std::string rtf =
        "{\\rtf1\\ansi\\ansicpg1252\\fromhtml1 \\fbidis \\deff0{\\fonttbl\r\n{\\f0\\fswiss\\fcharset0 Arial;}\r\n{\\f1\\fmodern "
        "Courier "
        "New;}\r\n{\\f2\\fnil\\fcharset2 Symbol;}\r\n{\\f4\\fswiss\\fcharset204 \"Arial\";}}\r\n"
        "{\\colortbl\\red0\\green0\\blue0;\\red0\\green0\\blue255;}\r\n\\uc1\\pard\\plain\\deftab360 \\f0\\fs24 \r\n"
        "{\\*\\htmltag19 <html>}\r\n{\\*\\htmltag34 <head>}\r\n{\\*\\htmltag161 <meta name=\"Generator\" content=\"x\">}\r\n"
        "{\\*\\htmltag41 </head>}\r\n{\\*\\htmltag50 <body lang=EN>}\\htmlrtf \\lang1033 \\htmlrtf0 \r\n"
        "{\\*\\htmltag64 <p class=MsoNormal>}\\htmlrtf {\\htmlrtf0 \\htmlrtf {\\f4\\lang1049 \\htmlrtf0 \r\n"
        "\\'cf\\'f0\\'e8\\'e2\\'e5\\'f2, {\\*\\htmltag84 <b>}\\htmlrtf {\\b \\htmlrtf0 Tern \\{1\\}{\\*\\htmltag92 "
        "</b>}\\htmlrtf "
        "}\\htmlrtf0 \\htmlrtf }\\htmlrtf0\r\n\\u8364 ?\\tab 5 caf\\'e9{\\*\\mhtmltag84 <a href=\"http://a\">}{\\*\\htmltag84 <a "
        "href=\"cid:a\">}here{\\*\\htmltag92 </a>}{\\*\\htmltag244 <o:p>}{\\*\\htmltag252 </o:p>}\\htmlrtf\\par}\\htmlrtf0 \r\n"
        "{\\*\\htmltag72 </p>}\r\n{\\*\\htmltag104 \\par }\r\n{\\*\\htmltag58 </body>}\r\n{\\*\\htmltag27 </html>}}\r\n";
    EXPECT_EQ(Converted(rtf),
              "<html><head><meta name=\"Generator\" content=\"x\"></head><body lang=EN><p class=MsoNormal>"
              "&#x41F;&#x440;&#x438;&#x432;&#x435;&#x442;, <b>Tern {1}</b>&#8364;   5 caf&#xE9;<a href=\"http://a\">here</a>"
              "<o:p></o:p></p>\r\n</body></html>");
}

TEST(RtfToHtml, OnlyTextThatSaysItHoldsHtmlIsConverted) {
    for (const std::string word : {"\\fromtext", "\\from", "\\fromhtm", "\\FROMHTML1", "\\fromtext\\fromhtml1", "\\pard"}) {
        const std::string rtf = "{\\rtf1" + word + " {\\*\\htmltag64 <p>}<![if !x]>}";
        EXPECT_EQ(Converted(rtf), rtf);
    }
    EXPECT_EQ(Converted("{\\rtf1\\from"), "{\\rtf1\\from");
    EXPECT_EQ(Converted("{\\rtf1\\fromhtml0 {\\*\\htmltag64 <p>}}"), "<p>");
    EXPECT_EQ(Converted("{\\rtf1\\fromhtml1 no tag}"), "");
}

TEST(RtfToHtml, AFontTableThatBreaksOffLeavesTheRtf) {
    const std::string rtf = "{\\rtf1\\fromhtml1 {\\*\\htmltag64 <p>}<![if !long]>{\\fonttbl{\\f0 A;}\\";
    OwnedBytes text = Owned(rtf);
    EXPECT_EQ(ExtractHtmlFromRtf(text), ternkit::kUnusable);
    EXPECT_EQ(Text(text), rtf);
    // The passes run on what is there.
    EXPECT_EQ(Converted(rtf), "{\\rtf1\\fromhtml1 {\\*\\htmltag64 <p>}<![if !V]>{\\fonttbl{\\f0 A;}\\");
    EXPECT_EQ(Converted("{\\rtf1\\fromhtml1{\\fonttbl{\\f"), "{\\rtf1\\fromhtml1{\\fonttbl{\\f");
}

TEST(RtfToHtml, ControlWords) {
    const Case cases[] = {
        {"a\\intbl b", "a  b"},
        {"a\\qc b", "a  b"},
        {"a\\pard b", "a&nbsp; b"},
        {"a\\pardirnatural b", "a&nbsp;irnatural b"},
        {"a\\par b", "a\r\nb"},
        {"a\\par  b", "a\r\n b"},
        {"a\\tab b", "a   b"},
        {"a\\cbpat2 b", "a      b"},
        {"a\\cbpat25 b", "a      5 b"},
        {"a\\ltrch b", "a     b"},
        {"a\\rtlch b", "ab"},
        {"a\\li720 b", "ab"},
        {"a\\line b", "ane b"},
        {"a\\sb100 b", "ab"},
        {"a\\sbasedon b", "aasedon b"},
        {"a\\qr b", "ab"},
        {"a\\f7 b", "ab"},
        {"a\\fx b", "a\\fx b"},
        {"a\\plain b", "a b"},
        {"a\\fi-360 b", "ab"},
        {"a\\fi360 b", "a\\fi360 b"},
        {"a\\{b\\}c", "a{b}c"},
        {"a\\ansicpg1251 b", "ab"},
        {"a\\lang1033 b", "ab"},
        {"a\\deff0 b", "ab"},
        {"a{\\fonttbl{\\f9 Arial;}}b", "ab"},
        {"a{\\pntext\\f1 1.\\'e9}b", "ab"},
        {"a{\\pntext b", "a"},
        // What is not known stays.
        {"a\\b bold\\b0 \\fs20 c", "a\\b bold\\b0 \\fs20 c"},
        {"C:\\\\dir", "C:\\\\dir"},
        {"a\\", "a\\"},
        {"a\\*\\unknown b", "a\\*\\unknown b"},
        {"a\\PAR b", "a\\PAR b"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(Piece(c.rtf), c.html) << c.rtf;
    }
}

TEST(RtfToHtml, LineEndsOfTheRtfGoAndLoneBytesStay) {
    EXPECT_EQ(Piece("a\r\nb\n\rc\rd\ne\r\n\r\nf\n\n\r\rg\r"), "abc\rd\nef\n\rg\r");
}

TEST(RtfToHtml, NumbersWrapAt32BitsAndMissingOnesAre0) {
    EXPECT_EQ(Piece("{\\*\\mhtmltag4294967300 x}{\\*\\htmltag4 y}"), "x");
    EXPECT_EQ(Piece("{\\*\\mhtmltag x}{\\*\\htmltag0 y}"), "x");
    EXPECT_EQ(Piece("{\\*\\htmltag"), "");
}

TEST(RtfToHtml, OfAPairOfTagsTheFirstCounts) {
    EXPECT_EQ(Piece("{\\*\\mhtmltag12 x}{\\*\\htmltag12 y}z"), "xz");
    EXPECT_EQ(Piece("{\\*\\htmltag12 y}z"), "yz");
    EXPECT_EQ(Piece("{\\*\\mhtmltag12 x}{\\*\\htmltag13 y}{\\*\\htmltag12 z}"), "xyz") << "another tag ends the pair";
    EXPECT_EQ(Piece("{\\*\\mhtmltag1 x}{\\*\\htmltag1 y}{\\*\\htmltag1 z}"), "xz");
    EXPECT_EQ(Piece("{\\*\\mhtmltag1 x}{\\*\\htmltag1 y"), "x") << "no closing brace";
    EXPECT_EQ(Piece("{\\*\\htmltag1   two}"), "  two") << "one space belongs to the number";
}

// The entry of a group whose text is passed over stays on the stack, so that each closing brace behind it goes back one too few.
TEST(RtfToHtml, ATagPassedOverLeavesItsEntryOnTheStack) {
    const std::string inGroup = "{\\f3 {\\*\\mhtmltag1 x}{\\*\\htmltag1 y}";
    EXPECT_EQ(Extracted(kFonts + "{\\*\\htmltag0 }" + inGroup + "\\f0 }\\'ff}\\'ff"), "x&#x44F;&#xFF;");
}

TEST(RtfToHtml, SuppressedStretches) {
    const std::string tail(9, '.');
    const Case cases[] = {
        {"a\\htmlrtf hidden\\par \\'e9\\u8364 ?\\htmlrtf0 b" + tail, "ab" + tail},
        {"a\\htmlrtf hidden\\htmlrtf0  b" + tail, "a b" + tail},
        {"a\\htmlrtf1 hidden\\htmlrtf0 b" + tail, "ab" + tail},
        {"a\\htmlrtf hid\\htmlrtf den\\htmlrtf0 b" + tail, "ab" + tail},
        {"a\\htmlrtf no end, 123456789", "a123456789"},
        {"a\\htmlrtf 12", "a12"},
        {"a\\htmlrtf x\\htmlrtf0", "a0"},  // in the last nine bytes the closing word opens a stretch
        {"a\\htmlrtf x\\htmlrtf0 ", "a"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(Piece(c.rtf), c.html) << c.rtf;
    }
}

TEST(RtfToHtml, FontsAndLanguagesOfSuppressedStretchesCount) {
    const auto html = [](const std::string& rtf) { return Extracted(kFonts + "{\\*\\htmltag0 }" + rtf + std::string(9, '.')); };
    const std::string tail(9, '.');
    EXPECT_EQ(html("\\htmlrtf \\f3 \\htmlrtf0 \\'ff"), "&#x44F;" + tail);
    EXPECT_EQ(html("\\htmlrtf {\\f3 \\htmlrtf0 \\'ff\\htmlrtf }\\htmlrtf0 \\'ff"), "&#x44F;&#xFF;" + tail);
    EXPECT_EQ(html("\\f5 \\htmlrtf \\lang1049 \\htmlrtf0 \\'ff"), "&#x44F;" + tail);
}

TEST(RtfToHtml, HexRunsInTheCodePageOfTheFont) {
    const auto html = [](const std::string& rtf) { return Extracted(kFonts + "{\\*\\htmltag0 }" + rtf); };
    EXPECT_EQ(html("\\'e9t\\'C9"), "&#xE9;t&#xC9;");
    EXPECT_EQ(html("\\f1 \\'82\\'a0\\'83\\'41\\'41."), "&#x3042;&#x30A2;A.") << "a lead byte takes the next escape with it";
    EXPECT_EQ(html("\\f1 \\'83A."), "&#x30FB;A.") << "and nothing else";
    EXPECT_EQ(html("\\f1 \\'93\\'fa\\'96\\'7b\\'b1"), "&#x65E5;&#x672C;&#xFF71;");
    EXPECT_EQ(html("\\f2 \\'d6\\'d0\\'ce\\'c4"), "&#x4E2D;&#x6587;");
    EXPECT_EQ(html("\\f3 \\'dF\\'FF"), "&#x42F;&#x44F;");
    EXPECT_EQ(html("{\\f3 \\'ff{\\f2 \\'d6\\'d0}\\'ff}\\'ff"), "&#x44F;&#x4E2D;&#x44F;&#xFF;") << "a group's end brings it back";
    EXPECT_EQ(html("\\f3 \\f77 \\'ff"), "&#x44F;") << "an unknown font changes nothing";
    EXPECT_EQ(html("}}}\\'ff"), "&#xFF;") << "more closing braces than groups";
    EXPECT_EQ(html("{\\fonttbl{\\f8\\fcharset161 G;}{\\f3\\fcharset0 again;}}\\f8\\'e1\\f3\\'ff"), "&#x3B1;&#x44F;")
        << "a second table adds fonts, and the first font of a number counts";
}

TEST(RtfToHtml, WhereTheFontHasNoCodePageTheLanguageOrTheDocumentHasOne) {
    const auto html = [](const std::string& rtf) { return Extracted(kFonts + "{\\*\\htmltag0 }\\f5 " + rtf); };
    EXPECT_EQ(html("\\'ff"), "&#xFF;");
    EXPECT_EQ(html("\\ansicpg1251 \\'ff"), "&#x44F;");
    EXPECT_EQ(html("\\lang1049 \\'ff"), "&#x44F;");
    EXPECT_EQ(html("\\lang1041 \\'82\\'a0"), "&#x3042;");
    EXPECT_EQ(html("\\lang1031 \\'ff"), "\xFF") << "a language without a code page is taken for one";
    EXPECT_EQ(html("\\lang0 \\'ff"), "&#xFF;");
    EXPECT_EQ(html("\\lang1041 \\f0\\'ff"), "&#xFF;") << "the font goes in front";
    EXPECT_EQ(Extracted("{\\rtf1\\fromhtml1 {\\*\\htmltag0 }\\'e9\\'00x}"), "\xE9\0x"s) << "no code page at all";
}

TEST(RtfToHtml, HexDigitsOutOfRangeAndAtTheEnd) {
    EXPECT_EQ(Piece("\\'4g"), "P");
    EXPECT_EQ(Piece("\\'4!"), "a") << "a byte that is no digit counts with its value";
    EXPECT_EQ(Piece("\\'4"), "@");
    EXPECT_EQ(Piece("a\\'41\\'4"), "aA@");
    EXPECT_EQ(Piece("\\'41\\'"), "A\0"s.substr(0, 1)) << "the NUL ends the text";
}

TEST(RtfToHtml, UnicodeEscapes) {
    const Case cases[] = {
        {"\\u8364 ?x", "&#8364;x"},
        {"\\u8364?x", "&#8364;x"},
        {"\\u8364  ?x", "&#8364;x"},
        {"\\u-4064 ?x", "&#61472;x"},
        {"\\u-10179 ?\\u-8704 ?x", "&#55357;&#56832;x"},
        {"\\u4294967295 ?x", "&#-1;x"},
        {"\\u-2147549185 ?x", "&#2147483647;x"},
        {"\\u- ?x", "&#65536;x"},
        {"\\_-1 ?x", "&#65535;x"},
        {"\\\\-1 ?x", "&#65535;x"},
        {"\\uc1 x", "\\uc1 x"},
        {"\\u65", "&#65;"},
        {"\\u65 ", "&#65;"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(Piece(c.rtf), c.html) << c.rtf;
    }
}

TEST(RtfToHtml, WhatStandsInFrontOfTheFirstTag) {
    // The last font counts, else the default font; one byte behind each thing read is not looked at.
    const auto html = [](const std::string& prelude) {
        return Extracted("{\\rtf1\\fromhtml1 {\\fonttbl{\\f0\\fcharset0 A;}{\\f3\\fcharset204 B;}}" + prelude +
                         "{\\*\\htmltag0 }\\'ff");
    };
    EXPECT_EQ(html(" \\deff3 x"), "&#x44F;");
    EXPECT_EQ(html(" \\f0 x\\deff3 x"), "&#xFF;");
    EXPECT_EQ(html(" \\deff0 x\\f3 x"), "&#x44F;");
    EXPECT_EQ(html(" \\deff0\\f3 x"), "&#xFF;") << "the backslash behind the number goes";
    EXPECT_EQ(html(" \\ansicpg1251 x"), "&#x44F;");
    EXPECT_EQ(html(" \\f9 x"), "\xFF") << "no such font, and no other code page";
    EXPECT_EQ(html(" \\'41 text }"), "\xFF") << "nothing else counts";
    EXPECT_EQ(Extracted("{\\deff0{\\*\\htmltag0 a}{\\*\\htmltag0 b}"), "b") << "the first tag's brace goes with the number";
}

TEST(ConditionalComments, AreRewrittenUpToTheirBracket) {
    const auto rewritten = [](std::string_view html) {
        OwnedBytes text = Owned(html);
        RewriteConditionalComments(text);
        return Text(text);
    };
    const Case cases[] = {
        {"<![if !supportLists]>1.<![endif]>", "<![if !V]>1.<![endif]>"},
        {"a<![if !vml]>b<![if gte mso 9]>c<![if !x]>d", "a<![if !V]>b<![if !V]>c<![if !V]>d"},
        {"<![if]><![if !x]><![if !xyz]>", "<![if]><![if !V]><![if !V]>"},  // the first is too short to hold it
        {"<![if xy]<![if abcdef]", "<![if !V]<![if !V]"},
        {"<![if a <![if b]>", "<![if !V]>"},
        {"<![if !x]> <![if !never closed", "<![if !V]> <![if !never closed"},
        {"<![IF !supportLists]>", "<![IF !supportLists]>"},
        {"", ""},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(rewritten(c.rtf), c.html);
    }
}

TEST(PaddedDivs, AreCutBehindTheirFirstNonBreakingSpaces) {
    const auto trimmed = [](std::string html) {
        std::uint64_t size = html.size();
        TrimPaddedDivs(html.data(), size);
        return html.substr(0, size);
    };
    // `length` bytes from "<div>" to "</div>", with the space at `space`.
    const auto div = [](std::size_t length, std::size_t space, const std::string& padding = "&nbsp;") {
        std::string html = "<div>" + std::string(length - 5, '.');
        return html.replace(space, padding.size(), padding) + "</div>";
    };
    const std::string longDiv = div(10001, 50);
    const std::string cut = longDiv.substr(0, 160) + "</div>";
    EXPECT_EQ(trimmed(div(10000, 50)), div(10000, 50));
    EXPECT_EQ(trimmed(longDiv), cut);
    EXPECT_EQ(trimmed("a" + longDiv + longDiv + "b" + div(12000, 50) + "c"), "a" + cut + cut + "b" + cut + "c");
    EXPECT_EQ(trimmed("<DIV>" + div(11000, 20, "&NBSP;").substr(5, 10995) + "</Div>x"),
              "<DIV>" + div(11000, 20, "&NBSP;").substr(5, 125) + "</Div>x");
    EXPECT_EQ(trimmed(div(10500, 10390)), div(10500, 10390)) << "nothing is left to cut";
    EXPECT_EQ(trimmed(div(10500, 10391)), div(10500, 10391)) << "the kept bytes would reach past the end";
    EXPECT_EQ(trimmed(div(10500, 10389)), div(10499, 10389)) << "one byte";
    for (const std::string& html : {"<div>" + std::string(20'000, '.') + "</div>&nbsp;", "<div class=x>" + longDiv.substr(5),
                                    longDiv.substr(0, 10001), "</div>" + longDiv.substr(0, 10001) + "<div>"}) {
        EXPECT_EQ(trimmed(html), html);
    }
}

TEST(RtfToHtml, ThePassesRunBehindTheConversion) {
    const std::string padding(10'000, '.');
    EXPECT_EQ(Converted("{\\rtf1\\fromhtml1 {\\*\\htmltag64 <![if !supportLists]>}{\\*\\htmltag96 <div>}&nbsp;" + padding +
                        "{\\*\\htmltag104 </div>}}"),
              "<![if !V]><div>&nbsp;" + padding.substr(0, 104) + "</div>");
}

// Each of these would take very long if something were sought or moved anew from the start for each piece.
TEST(RtfToHtml, TextsMadeToBeSlow) {
    const auto repeated = [](std::string_view piece, std::size_t count) {
        std::string text;
        for (; count != 0; --count) {
            text += piece;
        }
        return text;
    };
    constexpr std::size_t kCount = 200'000;
    EXPECT_EQ(Piece(repeated("{", kCount)), "");
    EXPECT_EQ(Piece(repeated("\\'41", kCount)), std::string(kCount, 'A'));
    EXPECT_EQ(Piece(repeated("\\'41x", kCount)), repeated("Ax", kCount));
    EXPECT_EQ(Piece(repeated("\\pntext}", kCount)), "");
    EXPECT_EQ(Piece(repeated("\\htmlrtf {\\f0 \\htmlrtf0 ", kCount)), "");
    EXPECT_EQ(Piece(repeated("{\\fonttbl{\\f1 A;}}", kCount)), "");
    EXPECT_EQ(Converted("{\\fromhtml1 {\\*\\htmltag0 }" + repeated("<![if x", kCount)), repeated("<![if x", kCount));
    EXPECT_EQ(Converted("{\\fromhtml1 {\\*\\htmltag0 }" + repeated("<![if xyz]", kCount)), repeated("<![if !V]", kCount));
    EXPECT_EQ(Converted("{\\fromhtml1 {\\*\\htmltag0 }" + repeated("<div>", kCount)), repeated("<div>", kCount));
    std::string fonts = "{\\fromhtml1 {\\fonttbl";
    for (std::size_t font = 0; font < kCount / 8; ++font) {
        fonts += "{\\f" + std::to_string(font) + " A;}";
    }
    EXPECT_EQ(Converted(fonts + "} {\\*\\htmltag0 }" + repeated("\\f24999 ", kCount)), "");
}

TEST(RtfToHtml, WithoutMemoryTheRtfStays) {
    const std::string rtf = "{\\rtf1\\fromhtml1 {\\*\\htmltag0 }" + std::string(2000, 'x') + std::string(5000, '.');
    OwnedBytes text = Owned(rtf);
    const std::uint64_t oldLimit = TbMemBlockLimit();
    TbHostSetBlockLimit(6000);
    const Status status = ExtractHtmlFromRtf(text);
    TbHostSetBlockLimit(oldLimit);
    EXPECT_EQ(status, ternkit::kNoMemory);
    EXPECT_EQ(Text(text), rtf);
}

}  // namespace
