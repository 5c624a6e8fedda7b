// Where the HTML loader puts things: what browsers do and the layout engine does not do by itself.

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <string_view>
#include <vector>

#include "loaders/html_fonts.h"
#include "loaders/html_guard.h"
#include "loaders/html_media.h"
#include "loaders/html_tables.h"
#include "test_host_html.h"

namespace {

using namespace html_test;
using ternview::guardHtml;
using ternview::mediaApply;
using ternview::shareTableWidth;
using ternview::TableColumn;

using Extent = Pixels::Extent;

/// A green box.
std::string box(int width, int height, const std::string& style = {}) {
    return "<div style='width:" + std::to_string(width) + "px;height:" + std::to_string(height) + "px;background:#00ff00;" +
           style + "'></div>";
}

std::string picture(int width, int height, const std::string& attributes, std::uint32_t color = kGreen) {
    return "<img src=\"data:image/png;base64," + base64(png(width, height, color)) + "\" " + attributes + ">";
}

const std::string kBox = box(30, 20);

TEST(HtmlLayout, PutsBoxesWhereBrowsersPutThem) {
    struct Case {
        const char* name;
        std::string html;
        Extent expected;
    };
    const std::string plain = "<table cellpadding=0 cellspacing=0 ";
    const Case cases[] = {
        {"percentage of a table",
         plain + "width=400><tr><td width=25%><td height=20 bgcolor=#00ff00></table>",
         {100, 0, 300, 20}},
        {"table in the middle", plain + "align=CENTER><tr><td>" + kBox + "</table>", {335, 0, 30, 20}},
        {"table at the right", plain + "align=right><tr><td>" + kBox + "</table>text", {670, 0, 30, 20}},
        {"table in a centre", "<center>" + plain + "style='margin:0'><tr><td>" + kBox + "</table></center>", {335, 0, 30, 20}},
        {"greatest width of a table",
         plain + "style='width:100%;max-width:300px;margin:0 auto'><tr><td bgcolor=#00ff00 height=20></table>",
         {200, 0, 300, 20}},
        {"greatest width by a rule",
         "<style>.c{max-width:300px}</style>" + plain + "class=c width=100%><tr><td bgcolor=#00ff00 height=20></table>",
         {0, 0, 300, 20}},
        {"cell padding", "<table cellpadding=10 cellspacing=0><tr><td>" + kBox + "</table>", {10, 10, 30, 20}},
        {"cell spacing", "<table cellpadding=0 cellspacing=7><tr><td>" + kBox + "</table>", {7, 7, 30, 20}},
        {"rules say more than attributes",
         "<style>td{padding:25px}</style><table cellpadding=3 cellspacing=0><tr><td>" + kBox + "</table>",
         {25, 25, 30, 20}},
        {"padding on top of the width",
         plain + "><tr><td width=100 style='padding:0 10px'><td>" + kBox + "</table>",
         {120, 0, 30, 20}},
        {"fixed columns give way to the table",
         plain + "width=300><tr><td width=300><td width=300 bgcolor=#00ff00 height=20></table>",
         {150, 0, 150, 20}},
        {"in proportion to what they can spare",
         plain + "width=300><tr><td width=300>" + box(200, 20, "background:#ff0000") + "<td width=300 bgcolor=#00ff00></table>",
         {225, 0, 75, 20}},
        {"columns share by their content",
         plain + "width=600><tr><td>" + box(100, 20, "background:#ff0000") + "<td bgcolor=#00ff00>" +
             box(200, 20, "background:#ff0000") + "</table>",
         {400, 0, 200, 20}},
        {"columns of lines that end by themselves",
         plain + "><tr><td>" + box(40, 20, "background:#ff0000") + "<td>x<br>y<br><td valign=top>" + kBox + "</table>",
         extentOf(plain + "><tr><td>" + box(40, 20, "background:#ff0000") + "<td>x<td>" + kBox + "</table>")},
        {"fixed layout shares evenly",
         plain + "style='table-layout:fixed;width:600px'><tr><td>word word word<td bgcolor=#00ff00 height=20></table>",
         {300, 0, 300, 20}},
        {"rows of a head", plain + "><thead><tr><th>" + kBox + "</thead><tr><td>x</table>", {0, 0, 30, 20}},
        {"at the bottom", plain + "><tr><td height=100 valign=bottom>" + kBox + "</table>", {0, 80, 30, 20}},
        {"a row's alignment", plain + "><tr VALIGN=TOP><td height=100>" + kBox + "</table>", {0, 0, 30, 20}},
        {"a row's style",
         "<style>tr{vertical-align:bottom}</style>" + plain + "><tr><th height=100>" + kBox + "</table>",
         {0, 80, 30, 20}},
        {"height of a row", plain + "><tr height=60><td bgcolor=#00ff00 width=30></table>", {0, 0, 30, 60}},
        {"height of a table", plain + "height=80><tr><td bgcolor=#00ff00 width=30></table>", {0, 0, 30, 80}},
        {"table in a line",
         plain + "style='display:inline-table'><tr><td width=40 height=20></table>" + plain +
             "style='display:inline-table'><tr><td>" + kBox + "</table>",
         {40, 0, 30, 20}},
        {"cells as blocks",
         plain + "width=600><tr><td width=200 style='display:block'>x<td>" + kBox + "</table>",
         {200, 0, 30, 20}},
        {"table as a block",
         plain + "style='display:block;width:100%'><tr><td bgcolor=#00ff00>" + kBox + "</table>",
         {0, 0, 30, 20}},
        {"nested tables",
         plain + "width=600><tr><td width=100><td>" + plain + "width=100%><tr><td width=50%><td bgcolor=#00ff00 height=20>" +
             "</table></table>",
         {350, 0, 250, 20}},
        {"text starts anew in a table",
         "<div align=right>" + plain + "width=100%><tr><td>" + picture(30, 20, "") + "</table></div>",
         {0, 0, 30, 20}},
        {"block in a centred cell", plain + "width=500><tr><td align=center>" + kBox + "</table>", {235, 0, 30, 20}},
        {"picture as a block in a centred cell",
         plain + "width=500><tr><td align=center>" + picture(30, 20, "style='display:block'") + "</table>",
         {235, 0, 30, 20}},
        {"aligned text places no blocks", "<div style='text-align:center'>" + kBox + "</div>", {0, 0, 30, 20}},
        {"greatest width", "<div style='max-width:200px;margin:0 auto;background:#00ff00;height:20px'></div>", {250, 0, 200, 20}},
        {"padding within the width",
         "<div style='box-sizing:border-box;width:200px;padding:10px'><div style='height:20px;background:#00ff00'></div></div>",
         {10, 10, 180, 20}},
        {"float", "<div style='float:left;width:80px;height:50px'></div>" + picture(30, 20, ""), {80, 0, 30, 20}},
        {"end of floats", "<div style='float:left;width:80px;height:50px'></div>x<br clear=all>" + kBox, {0, 50, 30, 20}},
        {"one dimension", picture(30, 20, "width=60"), {0, 0, 60, 40}},
        {"the other dimension", picture(30, 20, "height=60"), {0, 0, 90, 60}},
        {"picture of a greatest width",
         "<div style='width:60px'>" + picture(120, 80, "width=120 style='max-width:100%;height:auto'") + "</div>",
         {0, 0, 60, 40}},
        {"picture that is said to be inline", picture(30, 20, "style='display:inline !important'"), {0, 0, 30, 20}},
        {"picture with room", "<div>" + picture(30, 20, "align=left hspace=5 vspace=7") + "</div>", {5, 7, 30, 20}},
        {"x-heights", "<div style='font-size:20px'>" + box(30, 20, "margin-left:2ex") + "</div>", {20, 0, 30, 20}},
        {"points with fractions", box(30, 20, "margin-left:10.5pt"), {14, 0, 30, 20}},
        {"font size of the document",
         "<div style='font-size:30px'>" + box(30, 20, "margin-left:2rem") + "</div>",
         {32, 0, 30, 20}},
        {"rule", "<hr width=50% size=3 color=#00ff00 align=left style='margin:0'>", {0, 0, 350, 3}},
        {"rule without shade", "<hr noshade size=4 color=#00ff00 style='margin:0'>", {0, 0, 700, 4}},
        {"right to left table",
         "<table dir=rtl cellpadding=0 cellspacing=0 width=600><tr><td width=200>" + kBox + "<td>\xD7\x90</table>",
         {400, 0, 30, 20}},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(extentOf(c.html), c.expected) << c.name << ": " << c.html;
    }
    EXPECT_EQ(extentOf("<table bgcolor=#00ff00><tr><td>" + repeated("word ", 100) + "</table>").width, 700) << "text without end";
}

TEST(HtmlLayout, LinesAreWhereBrowsersHaveThem) {
    struct Case {
        std::string html;
        std::string same;  // puts what follows at the same height
    };
    const std::string line = "<div>x</div>";
    for (const Case& c : {
             Case{"<div><br></div>", line},
             Case{"<div><span><br></span></div>", line},
             Case{"<p style='margin:0'>&nbsp;</p>", line},
             Case{"x<br>", line},
             Case{line + "<br>", line + line},
             Case{"x<br><br>", line + line},
             Case{"x<br><b> </b>", line},
             Case{"<div>x<br></div>", line},
             Case{"<div>x<br><br>y</div>", line + line + line},
             Case{"<p style='margin:0'><span style='font-size:10px'>x</span></p>", "<div style='font-size:10px'>x</div>"},
             Case{"<table cellpadding=0 cellspacing=0><tr><td><p>x</p></table>",
                  "<table cellpadding=0 cellspacing=0><tr><td>x</table>"},
             Case{"<div style='font-size:30px'><table cellpadding=0 cellspacing=0><tr><td>x</table></div>", line},
             Case{"<div style='max-height:20px;overflow:hidden'>x<br>y<br>z</div>", "<div style='height:20px'></div>"},
             Case{"<img src=http://a/b width=600><br>", "<img src=http://a/b width=600 height=20><br>"},
             Case{"<div style='display:none'>x</div>", ""},
             Case{"<div style='max-height:0;overflow:hidden'>x</div>", ""},
             Case{"<div style='font-size:0'>x y z</div>", ""},
             Case{"<div style='font:0/0 a'>x y z</div>", ""},
             Case{"<div hidden>x</div>", ""},
             Case{"<style>.p{display:none!important}</style><div class=p>x</div>", ""},
             Case{"<style>@media(max-width:600px){.m{display:none}}</style><div class=m>x</div>", line},
             Case{"<style>div[class=\"q\"]{display:none}</style><div class='a b'>x</div>", line},
             Case{"<style>div[class=\"q\"]{display:none}</style><div class=q>x</div>", ""},
         }) {
        EXPECT_EQ(extentOf(c.html + kBox).y, extentOf(c.same + kBox).y) << c.html;
    }
}

TEST(HtmlLayout, HidesWhatSendersHide) {
    for (const char* hidden : {
             "<div style='display:none'>SECRET</div>",
             "<div style='max-height:0px;overflow:hidden'>SECRET</div>",
             "<div style='height:0;overflow:hidden'>SECRET</div>",
             "<span style='font-size:0px'>SECRET</span>",
             "<span style='visibility:hidden'>SECRET</span>",
             "<span style='opacity:0.0'>SECRET</span>",
             "<div "
             "style='display:none;font-size:1px;color:#fff;line-height:1px;max-height:0;opacity:0;mso-hide:all'>SECRET</div>",
             "<style>@media print{.x{display:none}}</style><p class=x>SECRET",
         }) {
        EXPECT_EQ(textOf("<p>before" + std::string(hidden) + "<p>behind").find("SECRET"), std::string::npos) << hidden;
    }
    // Hidden from one program only, as what stands in its place is from the others.
    EXPECT_NE(textOf("<a style='mso-hide:all'>Button</a>").find("Button"), std::string::npos);
}

TEST(HtmlLayout, ShowsWhatIsSaidInAttributesAndStyles) {
    struct Case {
        const char* html;
        const char* contained;
    };
    for (const Case& c : {
             Case{"<ol type=a start=3><li>x<li>y</ol>", "d. y"},
             Case{"<ol type=I><li>x<li>y<li>z<li>v</ol>", "IV. v"},
             Case{"<ol><li>x<li value=10>y<li>z</ol>", "11. z"},
             Case{"<ol style='list-style-type:lower-greek'><li>x<li>y</ol>", "\xCE\xB2. y"},
             Case{"<table><thead><tr><th>Head<tbody><tr><td>body</table>", "Head"},
             Case{"<table><tr><td>body<tfoot><tr><td>Foot</table>", "Foot"},
             Case{"<p><q>said</q>", "\xE2\x80\x9Csaid\xE2\x80\x9D"},
             Case{"<style>p:before{content:'\\2014 x'}</style><p>y", "\xE2\x80\x94xy"},
             Case{"<img src=http://a/b.png alt='Two words' width=60>", "words"},
             Case{"<p style='text-transform:uppercase'>shout", "SHOUT"},
         }) {
        EXPECT_NE(textOf(c.html).find(c.contained), std::string::npos) << c.html << ": " << textOf(c.html);
    }
    std::string items;
    for (int i = 0; i < 300; ++i) {
        items += "<li>item";
    }
    std::string all;
    for (const std::string& page : textOfPages("<ol>" + items + "</ol>")) {
        all += page;
    }
    EXPECT_NE(all.find("300. item"), std::string::npos);
    EXPECT_NE(textOf("<pre>a\tb\nabcdefg\tc</pre>").find("a       b"), std::string::npos);
}

TEST(HtmlLayout, DrawsColorsOfAllKinds) {
    const auto drawn = [](const std::string& style) {
        const auto document = layOutHtml("<div style='width:100px;height:100px;" + style + "'></div>", {}, kPaper);
        return Pixels(*document, 0);
    };
    for (const char* color : {"#0f0", "#00ff00ff", "#0f0f", "hsl(120,100%,50%)", "hsl(120deg 100% 50%)", "rgb(0 255 0)",
                              "rgb(0%,100%,0%)", "rgba(0,255,0,1)", "lime"}) {
        EXPECT_EQ(drawn("background:" + std::string(color)).count(kGreen), 100 * 100) << color;
    }
    for (const char* style : {"background:#00ff0080", "background:#00ff00;opacity:.5", "background:hsla(120,100%,50%,.5)"}) {
        const std::uint32_t mixed = drawn(style).at(60, 60);
        EXPECT_NEAR(static_cast<int>(mixed >> 16), 0x80, 2) << style;
        EXPECT_EQ(mixed >> 8 & 0xFF, 0xFFU) << style;
    }
    // From left to right, from above down, and a single layer of several.
    const Pixels across = drawn("background:linear-gradient(to right,#ff0000,#0000ff)");
    EXPECT_GT(across.at(55, 100) >> 16, 0xE0U);
    EXPECT_GT(across.at(145, 100) & 0xFF, 0xE0U);
    const Pixels down = drawn("background-image:linear-gradient(#ff0000 50%,rgb(0,0,255) 50%)");
    EXPECT_EQ(down.at(100, 90), kRed);
    EXPECT_EQ(down.at(100, 110), 0x0000FFU);
    EXPECT_EQ(drawn("background:url(http://a/b.png),linear-gradient(#00ff00,#00ff00)").count(kGreen), 100 * 100);
    EXPECT_EQ(drawn("background:#00ff00;background:conic-gradient(red,blue)").count(kGreen), 100 * 100) << "not understood";
    // Rounded corners, also where the sides differ.
    for (const char* style :
         {"background:#00ff00;border-radius:50px", "border:50px solid #00ff00;width:0;height:0;border-radius:50px",
          "border:#00ff00 solid;border-width:50px 50px 50px 0;width:50px;height:0;border-radius:50px"}) {
        const Pixels round = drawn(style);
        EXPECT_EQ(round.at(51, 51), 0xFFFFFFU) << style;
        EXPECT_EQ(round.at(100, 60), kGreen) << style;
    }
    // A data address that ends with its bracket only.
    EXPECT_EQ(drawn("background-color:#00ff00;background-image:url(data:image/png;base64,AA);color:red").count(kGreen),
              100 * 100);
}

TEST(HtmlLayout, ComposesText) {
    const auto width = [](const std::string& style, const std::string& text = repeated("m", 30)) {
        const auto document = layOutHtml("<p style='font-family:Arial;" + style + "'>" + text, {}, kPaper);
        return Pixels(*document, 0).rightmost() - kPaper.margin;
    };
    EXPECT_NEAR(width("letter-spacing:2.5px") - width(""), 29 * 2.5, 2);
    EXPECT_NEAR(width("font-size:20px;letter-spacing:.1em") - width("font-size:20px"), 29 * 2, 2);
    EXPECT_NEAR(width("font-size:11pt") / width("font-size:15px"), 14.667 / 15, 0.01) << "not a whole number of pixels";
    EXPECT_GT(width("font-weight:600"), 0);
    EXPECT_EQ(width("font-weight:600", "Bold"), width("font-weight:700", "Bold"));
    // Fixed pitch stays in columns, whatever its blanks are.
    const auto columns = layOutHtml("<pre>" + repeated("x", 40) + "<b style='color:#00ff00'>|</b>\n" + repeated(" ", 40) +
                                        "<b style='color:#ff0000'>|</b></pre>",
                                    {}, kPaper);
    const Pixels page(*columns, 0);
    EXPECT_NEAR(page.extent(kGreen).x, page.extent(kRed).x, 2);
    // In colour.
    const auto emoji = layOutHtml("<p style='font-size:60px'>\xF0\x9F\x98\x80", {}, kPaper);
    const Pixels face(*emoji, 0);
    int colored = 0;
    for (int y = 50; y < 150; ++y) {
        for (int x = 50; x < 150; ++x) {
            colored += static_cast<int>(face.at(x, y) >> 16) - static_cast<int>(face.at(x, y) & 0xFF) > 100 ? 1 : 0;
        }
    }
    EXPECT_GT(colored, 500);
}

TEST(HtmlLayout, SetsRightToLeftTextFromTheRight) {
    const auto extents = [](const std::string& html) {
        const auto document = layOutHtml(html, {}, kPaper);
        const Pixels page(*document, 0);
        return std::pair(page.extent(kRed), page.extent(kGreen));
    };
    const auto span = [](const char* color, const std::string& text) {
        return "<span style='font-size:40px;color:" + std::string(color) + "'>" + text + "</span>";
    };
    const std::string shalom = "\xD7\xA9\xD7\x9C\xD7\x95\xD7\x9D";
    const std::string arabic = "\xD8\xB3\xD9\x84\xD8\xA7\xD9\x85";
    struct Case {
        const char* name;
        std::string html;
        bool redFirst;  // from the left
    };
    const std::string red = span("#ff0000", shalom);
    const std::string green = span("#00ff00", arabic);
    for (const Case& c : {
             Case{"words", "<p dir=rtl>" + red + " " + green, false},
             Case{"words by style", "<p style='direction:rtl'>" + red + " " + green, false},
             Case{"words found out", "<p dir=auto>" + red + " " + green, false},
             Case{"words of the whole document", "<html dir=rtl><body><p>" + red + " " + green, false},
             Case{"words among others", "<p>some " + red + " " + green + " here", false},
             Case{"others among words", "<p dir=rtl>" + shalom + " " + span("#ff0000", "one") + " " + span("#00ff00", "two"),
                  true},
             Case{"a full stop", "<p dir=rtl>" + red + span("#00ff00", "."), false},
             Case{"a number", "<p dir=rtl>" + red + " " + span("#00ff00", "123"), false},
             Case{"a picture", "<p dir=rtl>" + red + " " + picture(30, 20, ""), false},
             Case{"columns", "<table dir=rtl width=300><tr><td>" + red + "<td>" + green + "</table>", false},
             Case{"a mark", "<ul dir=rtl><li style='color:#00ff00'>" + span("#ff0000", "x"), true},
             Case{"a number of a list", "<ol dir=rtl><li style='font-size:40px;color:#00ff00'>" + span("#ff0000", shalom), true},
             Case{"no right to left text", "<p>" + span("#ff0000", "one") + " " + span("#00ff00", "two"), true},
         }) {
        const auto [first, second] = extents(c.html);
        ASSERT_GT(first.width, 0) << c.name;
        ASSERT_GT(second.width, 0) << c.name;
        EXPECT_EQ(first.x + first.width <= second.x + 1, c.redFirst) << c.name << " " << first << " " << second;
        EXPECT_EQ(second.x + second.width <= first.x + 1, !c.redFirst) << c.name << " " << first << " " << second;
    }
    const Extent aligned = extents("<p dir=rtl>" + red).first;
    EXPECT_NEAR(aligned.x + aligned.width, 700, 3);
    EXPECT_LT(extents("<p dir=rtl style='text-align:left'>" + red).first.x, 10);
    const Extent item = extents("<ul dir=rtl><li>" + red).first;
    EXPECT_NEAR(item.x + item.width, 660, 3);
    // Brackets are turned around, and stand around what they did.
    EXPECT_NE(textOf("<p dir=rtl>(" + shalom + ") abc").find("abc"), std::string::npos);
}

TEST(HtmlLayout, ManyWordsAreAsLongAsTheirLine) {
    ternview::HtmlFonts fonts;
    for (const double size : {10.0, 13.0, 14.667, 16.0, 18.0}) {
        ternview::HtmlFont* font = fonts.create({.families = "Arial", .size = size});
        const std::string words[] = {"The", "quick", "brown", "fox", "jumps", "over", "the", "lazy", "dog", "again"};
        int sum = 0;
        std::string line;
        for (int i = 0; i < 20; ++i) {
            for (const std::string& word : words) {
                sum += font->textWidth(word) + font->textWidth(" ");
                line += word + " ";
            }
        }
        EXPECT_NEAR(sum, font->textWidth(line), font->textWidth(line) * 0.005) << size;
    }
}

TEST(HtmlFonts, TakesTheFirstFamilyThatIsThere) {
    ternview::HtmlFonts fonts;
    const auto chosen = [&fonts](const char* families) { return fonts.create({.families = families})->style().families; };
    struct Case {
        const char* families;
        const char* like;
    };
    for (const Case& c : {
             Case{"Helvetica", "Arial"},
             Case{"-apple-system, BlinkMacSystemFont, 'Segoe UI', Roboto", "sans-serif"},
             Case{"Unheard Of, Georgia, Arial", "Georgia"},
             Case{"Unheard Of, monospace", "monospace"},
             Case{"Unheard Of", "serif"},
             Case{"", "serif"},
             Case{"\"Times New Roman\",Times", "serif"},
         }) {
        EXPECT_EQ(chosen(c.families), chosen(c.like)) << c.families;
    }
    EXPECT_NE(chosen("serif"), chosen("sans-serif"));
    EXPECT_NE(chosen("DejaVu Sans, Arial"), chosen("Arial"));
}

TEST(HtmlMedia, KeepsWhatIsMeantForPaperOrScreen) {
    for (const char* holds :
         {"", "all", "screen", "print", "only screen", "SCREEN and (min-width:480px)", "(min-width:600px)",
          "screen and (max-width:900px)", "handheld, print", "screen and (orientation:portrait)", "(prefers-color-scheme:light)",
          "not all and (max-width:600px)", "(width >= 480px)", "(400px <= width < 800px)", "not (max-width:600px)",
          "screen and (-webkit-min-device-pixel-ratio:0)", "(max-width:20em) or (min-width:20em)", "screen and (color)"}) {
        EXPECT_TRUE(mediaApply(holds)) << holds;
    }
    for (const char* fails :
         {"handheld", "only screen and (max-width:600px)", "screen and (max-device-width:480px)", "(prefers-color-scheme:dark)",
          "not screen", "not all", "screen and (min-width:480px) and (max-width:599px)", "(width < 480px)",
          "(400px <= width < 700px)", "screen and (orientation:landscape)", "(unheard-of:1)", "screen and",
          "tv and (min-width:1px)", "(-webkit-min-device-pixel-ratio:2)", "(monochrome)", "(((", "not"}) {
        EXPECT_EQ(mediaApply(fails), std::string_view(fails) == "screen and") << fails;
    }
}

TEST(HtmlTables, ShareTheirWidth) {
    using Kind = TableColumn::Kind;
    struct Case {
        const char* name;
        std::vector<TableColumn> columns;
        int width;
        std::vector<int> expected;
    };
    for (const Case& c : {
             Case{"by content", {{Kind::Auto, 0, 10, 100}, {Kind::Auto, 0, 10, 300}}, 800, {200, 600}},
             Case{"by what is wanted beyond the least", {{Kind::Auto, 0, 100, 100}, {Kind::Auto, 0, 100, 1100}}, 600, {100, 500}},
             Case{"the rest",
                  {{Kind::Fixed, 150, 10, 10}, {Kind::Auto, 0, 10, 10}, {Kind::Percent, 100, 0, 0}},
                  600,
                  {150, 350, 100}},
             Case{"fixed ones grow", {{Kind::Fixed, 100, 0, 0}, {Kind::Fixed, 300, 0, 0}}, 800, {200, 600}},
             Case{"relative ones grow", {{Kind::Percent, 100, 0, 0}, {Kind::Percent, 100, 0, 0}}, 600, {300, 300}},
             Case{"fixed ones shrink", {{Kind::Fixed, 300, 0, 0}, {Kind::Fixed, 300, 200, 200}}, 400, {150, 250}},
             Case{"down to the least", {{Kind::Fixed, 300, 100, 0}, {Kind::Auto, 0, 200, 0}}, 100, {100, 200}},
             Case{"nothing wanted", {{Kind::Auto, 0, 0, 0}, {Kind::Auto, 0, 0, 0}}, 100, {50, 50}},
             Case{"no columns", {}, 100, {}},
         }) {
        EXPECT_EQ(shareTableWidth(c.columns, c.width), c.expected) << c.name;
    }
}

TEST(HtmlGuard, PutsHintsBelowRules) {
    const std::string html = guardHtml("<table cellpadding=4 align=center><tr><td nowrap><font color=red size=5>x").html;
    EXPECT_NE(html.find("hints=\"padding:4px;white-space:nowrap;\""), std::string::npos) << html;
    EXPECT_NE(html.find("hints=\"color:red;font-size:24px;\""), std::string::npos) << html;
    // In tables of documents without a modern document type, only fonts and colours go on.
    const std::string cell = "<font color=red face=Arial size=5><b><table><tr><td>x";
    EXPECT_NE(guardHtml(cell).html.find("<td><span style=\"color:red;font-family:Arial;\">x"), std::string::npos)
        << guardHtml(cell).html;
    // The innermost ones do, once, however many there are.
    const std::string nested = "<b style='color:red!important;color:blue;color:" + std::string(600, 'x') + "'>" +
                               "<i style='font-family:A;color:inherit;font-family:B'><table><td>x";
    EXPECT_NE(guardHtml(nested).html.find("<td><span style=\"color:red!important;font-family:B;\">x"), std::string::npos)
        << guardHtml(nested).html;
    EXPECT_NE(guardHtml("<!DOCTYPE html>" + cell).html.find("size:24px;\"><b>x"), std::string::npos);
}

TEST(HtmlGuard, StandsUnfinishedMends) {
    for (const char* piece : {"<p style='background:linear-gradient(",
                              "<p style='color:rgb(",
                              "<p style='color:hsl(1,",
                              "<p style='content:\"\\",
                              "<p style='font:0 ",
                              "<style>@media (",
                              "<style>@media (width<",
                              "<style>[class=",
                              "<ol><li value=9999999999>",
                              "<pre>\t",
                              "<br clear=all>",
                              "<br><hr>",
                              "<a href=http://a/>",
                              "<b>\xD7\x90 ",
                              "<div dir=rtl>",
                              "<div dir=auto>",
                              "<q>",
                              "<table style='display:inline-table;max-width:1px'>",
                              "<img width=1>",
                              "<font face='a;b\"c'>",
                              "<p style='letter-spacing:1e99px;opacity:-5;max-height:-1px'>"}) {
        const std::string input = repeated(piece, 3000);
        SCOPED_TRACE(piece);
        EXPECT_GE(layOutHtml(input + "x", {}, {})->pageCount(), 1);
        EXPECT_GE(layOutHtml("<table dir=rtl width=50%><tr><td>\xD7\x90" + input + "<td>x", {}, {})->pageCount(), 1);
    }
}

TEST(HtmlGuard, NestedTablesOfAnyKindAreLaidOut) {
    for (const char* table :
         {"<table><tr><td>a b<td>", "<table width=100%><tr><td>a b<td>", "<table width=50%><tr><td>",
          "<table align=left><tr><td width=300>a<td width=400>", "<table width=90%><tr><td colspan=2>x<td>y<tr><td>a<td>",
          "<table style='display:inline-table'><tr><td>a<td>", "<table style='max-width:300px'><tr><td>a<td>",
          "<table style='table-layout:fixed;width:100%'><tr><td>a<td>", "<table><tr><td style='display:block'>a<td>",
          "<style>tr,tbody{display:block}</style><table><tr><td>a<td>"}) {
        const auto document = layOutHtml(repeated(table, 30) + repeated("word ", 300) + "THEEND", {}, kPaper);
        EXPECT_GE(document->pageCount(), 1) << table;
        std::string all;
        for (const std::string& page : textOfPages(repeated(table, 30) + "THEEND")) {
            all += page;
        }
        EXPECT_NE(all.find("THEEND"), std::string::npos) << table;
    }
}

}  // namespace
