// The host's HTML loader: what it shows of a document, what it refuses to load, and how it stands hostile input.

#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "loaders/html_charset.h"
#include "loaders/html_fonts.h"
#include "loaders/html_guard.h"
#include "loaders/html_pages.h"
#include "loaders/laid_out_document.h"
#include "test_host_html.h"

namespace {

using namespace html_test;
using namespace std::string_literals;
using ternview::decodeHtml;
using ternview::guardHtml;
using ternview::SafeHtml;

/// How deep elements of a name are nested in well nested markup.
int deepest(std::string_view html, std::string_view name) {
    int depth = 0;
    int result = 0;
    for (std::size_t at = html.find('<'); at != std::string_view::npos; at = html.find('<', at + 1)) {
        if (html.substr(at + 1).starts_with(name)) {
            result = std::max(result, ++depth);
        } else if (html.substr(at + 1).starts_with("/" + std::string(name))) {
            --depth;
        }
    }
    return result;
}

// ---- charsets

TEST(HtmlCharset, ChoosesByMarkThenDeclarationThenContent) {
    struct Case {
        const char* name;
        std::string bytes;
        std::string contained;
        std::string charset;
    };
    const Case cases[] = {
        {"mark before declaration", "\xEF\xBB\xBF<meta charset=windows-1251>\xC3\xA4", "\xC3\xA4", "UTF-8"},
        {"two-byte units", "\xFF\xFE<\0b\0>\0\xE4\0"s, "<b>\xC3\xA4", "UTF-16LE"},
        {"meta charset", "<meta charset='windows-1251'>\xCF\xF0\xE8", "\xD0\x9F\xD1\x80\xD0\xB8", "CP1251"},
        {"http-equiv", "<meta http-equiv=Content-Type content=\"text/html; charset=ISO-2022-JP\">\x1B$B$\"\x1B(B", "\xE3\x81\x82",
         "iso-2022-jp"},
        {"latin means western", "<meta charset=iso-8859-1>\x80", "\xE2\x82\xAC", "CP1252"},
        {"unknown name", "<meta charset=x-unheard-of>\xC3\xA4", "\xC3\xA4", "UTF-8"},
        {"no declaration", "<p>\xC3\xA4", "\xC3\xA4", "UTF-8"},
        {"invalid bytes",
         "<meta charset=shift_jis>a\xFF"
         "b",
         "a\xEF\xBF\xBD"
         "b",
         "CP932"},
    };
    for (const Case& c : cases) {
        const ternview::DecodedHtml decoded = decodeHtml(c.bytes);
        EXPECT_NE(decoded.text.find(c.contained), std::string::npos) << c.name << ": " << decoded.text;
        EXPECT_EQ(decoded.charset, c.charset) << c.name;
    }
}

TEST(HtmlCharset, DeclaredUtf8ThatIsNoneIsDetected) {
    const std::string russian =
        "\xCF\xF0\xE8\xE2\xE5\xF2, \xEA\xE0\xEA \xE4\xE5\xEB\xE0? \xDD\xF2\xEE \xEF\xF0\xEE\xF1\xF2\xEE\xE9 "
        "\xF2\xE5\xEA\xF1\xF2. ";
    const std::string text = decodeHtml("<meta charset=utf-8><p>" + repeated(russian, 10)).text;
    EXPECT_NE(text.find("\xD0\x9F\xD1\x80\xD0\xB8\xD0\xB2\xD0\xB5\xD1\x82"), std::string::npos) << text;
}

TEST(HtmlCharset, TellsUndeclaredTextByItsBytes) {
    struct Case {
        const char* charset;
        std::string text;
    };
    for (const Case& c : {
             Case{"CP1251", "Здравствуйте, уважаемые коллеги! Направляю вам документы по нашему договору. С уважением, Иван."},
             Case{"KOI8-R", "Здравствуйте, уважаемые коллеги! Направляю вам документы по нашему договору. С уважением, Иван."},
             Case{"CP932", "お世話になっております。資料を添付いたしましたのでご確認ください。よろしくお願いいたします。"},
             Case{"EUC-JP", "お世話になっております。資料を添付いたしましたのでご確認ください。よろしくお願いいたします。"},
             Case{"GB2312", "您好，请查收附件中的文件，如有问题请与我联系。谢谢！此致敬礼。"},
             Case{"BIG5", "您好，請查收附件中的文件，如有問題請與我聯繫。謝謝！此致敬禮。"},
             Case{"CP949", "안녕하세요. 첨부된 문서를 확인해 주시기 바랍니다. 감사합니다."},
             Case{"ISO-8859-2", "Dzień dobry, w załączniku przesyłam dokumenty dotyczące naszej umowy. Łączę wyrazy szacunku."},
             Case{"CP1250", "Dobrý den, v příloze zasílám dokumenty k naší smlouvě. S přátelským pozdravem, Žižka."},
             Case{"CP1252", "Sehr geehrte Damen und Herren, anbei die Unterlagen für unser Gespräch nächste Woche. Grüße"},
             Case{"CP1253", "Καλημέρα σας, σας στέλνω τα έγγραφα για τη συμφωνία μας. Με εκτίμηση, Γιώργος."},
             Case{"CP1255", "שלום רב, מצורפים המסמכים לגבי ההסכם שלנו. בברכה, יוסי כהן."},
         }) {
        const std::string html = "<html><body><p>" + c.text + "</p></body></html>";
        const std::optional<std::string> bytes = ternview::encodeText(html, c.charset);
        ASSERT_TRUE(bytes) << c.charset;
        EXPECT_EQ(decodeHtml(*bytes).text, html) << c.charset;
    }
}

TEST(HtmlCharset, DropsNulsAndTheSevenBitMarkWhereItCanStand) {
    const std::string block = "<html><table><tr><td>From:</td></tr></table>\r\n<p class=MsoNormal><o:p>&nbsp;</o:p></p></html>";
    EXPECT_EQ(decodeHtml("<p>a\0b</p>\0"s).text, "<p>ab</p>");
    EXPECT_EQ(decodeHtml("<p>a&#55357;&#56832;b &#55357; &#56832;&#8364;&#55357;").text,
              "<p>a&#128512;b &#55357; &#56832;&#8364;&#55357;");
    EXPECT_EQ(decodeHtml("+/v<html><body>x").text, "<html><body>x");
    EXPECT_EQ(decodeHtml(block + "+/v<html>x").text, block + "<html>x");
    EXPECT_EQ(decodeHtml("<html><p>x</p></html>+/v").text, "<html><p>x</p></html>+/v");
    EXPECT_EQ(decodeHtml("<p>+/v").text, "<p>+/v");
}

// ---- guards

TEST(HtmlGuard, KeepsNothingActive) {
    const std::string html =
        guardHtml(
            "<script>alert(1)</script><iframe src=http://a/></iframe><object data=http://b/>kept</object>"
            "<embed src=http://c/><link rel=stylesheet href=http://d/><base href=http://e/>"
            "<meta http-equiv=refresh content='0;url=http://f/'><p onclick=evil() style='background:url(http://g/x)'>"
            "<style>@import 'http://h/'; p{background:url(\"http://i/\")}</style><a href=http://j/>link</a>")
            .html;
    for (const char* unwanted :
         {"script", "alert", "iframe", "object", "embed", "<link", "base", "refresh", "onclick", "http:", "import"}) {
        EXPECT_EQ(html.find(unwanted), std::string::npos) << unwanted << " in " << html;
    }
    EXPECT_NE(html.find("kept"), std::string::npos);
    // Where the engine ends comments, rules, strings and tags.
    for (const char* style :
         {"i{content:'}p{color:#123456}'}", "i{content:\"/* } p{c:d}\"}", "i{content:\"/\\*\"}", "p, //**/*{c:d}"}) {
        const std::string guarded = guardHtml("<style>" + std::string(style) + "</style>").html;
        EXPECT_EQ(occurrences(guarded, "}"), 1U) << guarded;
        EXPECT_EQ(guarded.find("/*"), std::string::npos) << guarded;
    }
    EXPECT_NE(guardHtml("<p style=\"a:'b\nc:'; FLOAT : left\">").html.find("a:'b 'c:'; FLOAT : left';"), std::string::npos);
    EXPECT_NE(
        guardHtml("a<br clear=all style='x:>'><p class='>'>b").html.find("<div style=\"clear:both;x:>;\"></div><p class=\">\">b"),
        std::string::npos);
    EXPECT_NE(html.find(">link</a>"), std::string::npos);
}

TEST(HtmlGuard, BoundsNestingAndKeepsTheText) {
    const SafeHtml tables = guardHtml(repeated("<table><tr><td>a<td>", 100) + "inside");
    EXPECT_LE(deepest(tables.html, "table"), 12);
    EXPECT_EQ(occurrences(tables.html, "a</td>") + occurrences(tables.html, "a "), 100U);
    EXPECT_NE(tables.html.find("inside"), std::string::npos);

    EXPECT_LE(deepest(guardHtml(repeated("<div>", 20000) + "inside").html, "div"), 200);
    EXPECT_LE(deepest(guardHtml(repeated("<b>", 5000) + "inside").html, "b>"), 200);
    // Much text in the innermost table would be laid out thousands of times.
    const SafeHtml costly = guardHtml(repeated("<table><tr><td>a<td>", 12) + repeated("word ", 100000));
    EXPECT_EQ(occurrences(costly.html, "word "), 100000U);
    const std::size_t last = costly.html.rfind("word");
    EXPECT_LE(occurrences(costly.html.substr(0, last), "<table") - occurrences(costly.html.substr(0, last), "</table"), 1U);
}

TEST(HtmlGuard, BoundsNestingOfBoxesAsWideAsTheirContent) {
    struct Case {
        const char* rule;
        const char* piece;
    };
    for (const Case& c : {
             Case{"", "<div style='Float : LEFT'>x "},
             Case{"", "<div style='--a:left;float:var(--a)'>x "},
             Case{"", "<div style='display:inline-block'>x "},
             Case{"", "<div style='float:right'>x <span style='display:inline-block'>y</span>"},
             Case{"", "<span style='float:left!important'>x "},
             Case{"", "<div style='float:left'>x <table align=left><tr><td>y "},
             Case{"div{float:left}", "<div>x "},
             Case{"p *{display:inline-block}", "<div>x "},
             Case{"b, .a.B:first-child{float:left}", "<div class='b a'>x "},
             Case{"p #a{float:left!important}", "<div id=A>x "},
             Case{"div[class*=\"ol-\"]{float:left}", "<div class='b col-5'>x "},
             Case{"[dir]{float:left}", "<div dir=ltr>x "},
             // As the engine reads values, whatever they look like.
             Case{"", "<div style='color:red&#59flo&#97t:left'>x "},
             Case{".a{float:left}", "<div class='&#97;'>x "},
             Case{".a{float:left}", "<div id='x class=' class=a>x "},
             Case{"[id]{float:left}", "<div class=a id='x style='>x "},
         }) {
        SCOPED_TRACE(std::string(c.rule) + c.piece);
        const std::string rule = "<style>" + std::string(c.rule) + "</style>";
        const std::string deep = guardHtml(rule + repeated(c.piece, 40) + "THEEND").html;
        EXPECT_GE(occurrences(deep, "float:none!important;"), 10U);
        EXPECT_NE(deep.find("THEEND"), std::string::npos);
        for (const std::string& ordinary : {repeated(c.piece, 5) + repeated("word ", 3000), repeated(c.piece, 7) + "x"}) {
            EXPECT_EQ(guardHtml(rule + ordinary).html.find("float:none"), std::string::npos);
        }
    }
    for (const Case& c : {Case{"div{float:none}", "<div>x "}, Case{"#a,.a,p,div[class=b],[class~='c']{float:left}", "<div>x "},
                          Case{"", "<div style='float:none'>x "}}) {
        EXPECT_EQ(guardHtml("<style>" + std::string(c.rule) + "</style>" + repeated(c.piece, 60)).html.find("float:none!"),
                  std::string::npos)
            << c.rule;
    }
}

TEST(HtmlGuard, NamesNoCharactersBeyondUnicode) {
    const std::string html =
        guardHtml("&#xFFFFdddd;a&#4294958557 b&<script></script>#x110000;c&#1114111;d&#x0000000041;e&#99999999999999999999f")
            .html;
    EXPECT_NE(html.find("&#xFFFD;a&#65533 b&#xFFFD;c&#1114111;d&#x0000000041;e&#65533f"), std::string::npos) << html;
}

TEST(HtmlGuard, BoundsElementsAndText) {
    const SafeHtml elements = guardHtml(repeated("<p>x", 150000) + "the end");
    EXPECT_LE(occurrences(elements.html, "<p>"), 100001U);
    EXPECT_NE(elements.html.find("the end"), std::string::npos);
    EXPECT_TRUE(elements.shortened);
    EXPECT_NE(elements.html.find("too long"), std::string::npos);

    EXPECT_LT(guardHtml(std::string(std::size_t{50} << 20, 'a')).html.size(), std::size_t{21} << 20);
    EXPECT_LT(guardHtml(repeated("ab ", 2'000'000)).html.size(), std::size_t{4'000'000});
    EXPECT_FALSE(guardHtml("<p>short").shortened);
    // Words look for their style in all that they stand in.
    const std::string words = repeated("a ", 250'000);
    EXPECT_FALSE(guardHtml(repeated("<div>", 30) + words).shortened);
    EXPECT_TRUE(guardHtml(repeated("<div>", 75) + words).shortened);
    // Each paragraph would repeat a thousand open fonts.
    std::string fonts;
    for (int i = 0; i < 1000; ++i) {
        fonts += "<font size=" + std::to_string(i % 7) + " color=c" + std::to_string(i) + ">";
    }
    EXPECT_LT(guardHtml(fonts + repeated("<p>x", 1000)).html.size(), std::size_t{5'000'000});
}

TEST(HtmlGuard, CollapsesBlanksWhereTheyDoNotCount) {
    struct Case {
        const char* html;
        std::string contained;
    };
    for (const Case& c : {
             Case{"<p>a \t\r\n b</p>", ">a b<"},
             Case{"<p>a <!-- c --> <o:p> </o:p> b</p>", ">a b<"},
             Case{"<p>a <b> b</b></p>", ">a <b> b<"},
             Case{"<pre>a  b\n c</pre>d  e", "a\xC2\xA0 b\n c</pre>d e"},
             Case{"<xmp>a  b</xmp>", ">a\xC2\xA0 b<"},
             Case{"<pre><b>a  b</b></pre>", ">a\xC2\xA0 b<"},
             Case{"<div style='White-Space: pre-wrap'><p>a  b</p></div><p>c  d</p>", ">c d<"},
             Case{"<div style='White-Space: pre-wrap'><p>a  b</p></div>", ">a\xC2\xA0 b<"},
             Case{"<pre>a\tb</pre>", ">a" + repeated("\xC2\xA0", 6) + " b<"},
             Case{"<pre>a&amp;\nb\t&amp;\tc</pre>",
                  ">a&amp;\nb" + repeated("\xC2\xA0", 6) + " &amp;" + repeated("\xC2\xA0", 6) + " c<"},
             Case{"<td nowrap style='white-space:nowrap'>a  b", ">a b<"},
             Case{"<style>.x{white-space:pre-line}</style><p class=x>a\nb</p>", ">a\nb<"},
         }) {
        const std::string html = guardHtml(c.html).html;
        EXPECT_NE(html.find(c.contained), std::string::npos) << c.html << " became " << html;
    }
    for (const char* start : {"<p>x", "<pre>x", "<p style='white-space:pre'>x"}) {
        const SafeHtml html = guardHtml(start + std::string(3'000'000, ' ') + "the end");
        EXPECT_LT(html.html.size(), 3000U) << start;
        EXPECT_NE(html.html.find("the end"), std::string::npos) << start;
        EXPECT_FALSE(html.shortened) << start;
    }
}

TEST(HtmlGuard, BoundsWhatTheEngineWillHold) {
    constexpr std::size_t kMany = 800'000;
    struct Case {
        const char* piece;  // each of them at least one element of the engine
        std::size_t most;   // of them
    };
    for (const Case& c : {Case{"a ", 400'000}, Case{"a&#32;", 400'000}, Case{"a&Tab;", 400'000}, Case{"\xE6\x97\xA5", 700'000},
                          Case{"\xF0\xA0\x80\x80", 700'000}, Case{"<p>", 80'001}}) {
        const SafeHtml html = guardHtml(repeated(c.piece, kMany));
        EXPECT_LE(occurrences(html.html, c.piece), c.most) << c.piece;
        EXPECT_TRUE(html.shortened) << c.piece;
        EXPECT_LT(html.html.size(), std::size_t{8'000'000}) << c.piece;
        EXPECT_EQ(html.html.find("  "), std::string::npos) << c.piece;
    }
    EXPECT_LT(guardHtml(repeated("<p style=\"" + repeated("a:b;", 5000) + "\">x", 600)).html.size(), std::size_t{12'000'000});
    // Each element gets a copy of all declarations of its rules.
    const auto withRule = [](const std::string& selector) {
        return guardHtml("<style>" + selector + "{" + repeated("a:b;", 1000) + "color:#123456}</style>" +
                         repeated("<p class='x y'><i>z", 2000));
    };
    for (const char* selector : {"p", ".X", "div p", "*", "i", "p.y:first-child", "b ~ p[class]", "p:not(.a b)"}) {
        EXPECT_EQ(withRule(selector).html.find("#123456"), std::string::npos) << selector;
    }
    // Whatever is put in front of elements or behind them stands in elements of its own.
    for (const char* selector : {"p:before", "*::AFTER", ".x:after", "tbody:before"}) {
        const auto withContent = [&](const std::string& content, std::size_t count) {
            return guardHtml("<style>" + std::string(selector) + "{content:'" + content + "'}</style>" +
                             repeated("<p class='x y'>z<table><tr><td>z</table>", count));
        };
        EXPECT_EQ(withContent(repeated("a ", 100), 3000).html.find("content"), std::string::npos) << selector;
        EXPECT_NE(withContent("a", 2000).html.find("content"), std::string::npos) << selector;
    }
    // Selectors that compare each element with all its siblings, or all its classes with many.
    for (const char* selector : {"p:NTH-child(2)", "p + p", "p.x.y.x.y.x.y.x.y.x.y"}) {
        const auto many = [&](std::size_t count) {
            return guardHtml("<style>" + repeated(std::string(selector) + "{color:#123456}", 200) + "</style>" +
                             repeated("<p class='x y'>z", count));
        };
        EXPECT_LT(occurrences(many(20'000).html, "#123456"), 40U) << selector;
        EXPECT_EQ(occurrences(many(500).html, "#123456"), 200U) << selector;
    }
    EXPECT_LT(guardHtml("<p class='" + repeated("c ", 1000) + "'>").html.size(), 200U);
    for (const char* selector : {"b", ".other", "p b", "p.other"}) {
        EXPECT_NE(withRule(selector).html.find("#123456"), std::string::npos) << selector;
    }
    // Each float is compared with all others, whoever makes it one.
    const auto floating = [](std::size_t own, std::size_t ofRule) {
        return guardHtml("<style>div{float:left;color:#123456}</style>" + repeated("<p style='float:left'>x</p>", own) +
                         repeated("<div>x</div>", ofRule))
            .html;
    };
    EXPECT_NE(floating(1000, 900).find("div{float:left;color:#123456;}"), std::string::npos);
    for (const std::string& html : {floating(0, 3000), floating(1000, 1100)}) {
        EXPECT_NE(html.find("div{color:#123456;}"), std::string::npos);
    }
    for (const char* own :
         {"<p style='FLOAT:left;color:#123456'>x", "<p style='&#102;loat:left;color:#123456'>x",
          "<img align=left style='color:#123456'>", "<table align=left style='color:#123456'><tr><td>x</table>"}) {
        const std::string html = guardHtml(repeated(own, 3000)).html;
        EXPECT_EQ(occurrences(html, "float:"), 2000U) << own;
        EXPECT_EQ(occurrences(html, "#123456"), 3000U) << own;
    }
    // A reference that another one makes is none.
    EXPECT_NE(guardHtml("<p class='&amp;#97;' style='color:red&amp;#59float:left'>x").html.find("red&amp;#59float:left"),
              std::string::npos);
    EXPECT_EQ(guardHtml(repeated("<p style='float:display:table'>x", 3000)).html.find("\"display:table"), std::string::npos);
    EXPECT_LE(occurrences(guardHtml("<b style='FLOAT:left'>" + repeated("<p>x", 3000)).html, "float:"), 2000U);
    const auto longRule = [](const std::string& declaration) {
        return guardHtml("<style>p{" + declaration + ";color:#123456}</style>" + repeated("<p>x", 3000)).html;
    };
    EXPECT_EQ(longRule("font-family:" + repeated("Abcdefgh,", 5000) + "serif").find("#123456"), std::string::npos);
    EXPECT_NE(longRule("background:url(data:image/gif;base64," + repeated("AAAA", 12'000) + ")").find("#123456"),
              std::string::npos);
    // A variable of variables may never be resolved, and one of much text multiplies it.
    for (const std::string& declaration : {"--a:var(--a)"s, "--a: VAR( --b ),c"s, "--a:ar(--b)"s, "--a:" + repeated("b ", 200),
                                           "--a:b;width:" + repeated("var(--a) ", 5)}) {
        const std::string html = longRule(declaration);
        EXPECT_EQ(std::min(html.find("--a:" + declaration.substr(4)), html.find("var(")), std::string::npos) << declaration;
    }
    EXPECT_NE(longRule("--a:b;border:var(--a) solid var(--a)").find("--a:b;border:var(--a) solid var(--a);"), std::string::npos);
    EXPECT_EQ(longRule("content:attr(class);z-index:123456789;position:var(--a)").find("attr("), std::string::npos);
    std::set<std::string> levels;
    for (int level = -3000; level < 3000; ++level) {
        levels.insert(guardHtml("<p style='z-index:" + std::to_string(level) + "'>").html);
    }
    for (std::string level = "1"; level.size() < 300; level += '0') {
        levels.insert(guardHtml("<p style='z-index:" + level + "'>").html);
    }
    EXPECT_LT(levels.size(), 25U);
    EXPECT_EQ(longRule("opacity:inherit").find("opacity"), std::string::npos);
    EXPECT_NE(longRule("opacity:.5").find("opacity:0.5;"), std::string::npos);
    const SafeHtml document =
        guardHtml(repeated("<p>A paragraph of ordinary length, which nobody would want to lose.</p>\r\n", 20'000));
    EXPECT_FALSE(document.shortened) << "more than a megabyte of ordinary text";
}

TEST(HtmlGuard, LongTablesGoOnInAnotherTable) {
    const SafeHtml html = guardHtml("<table width=500 cellpadding=7>" + repeated("<tr><td>a", 35'000) + "</table>behind");
    EXPECT_EQ(occurrences(html.html, "<td"), 35'000U);
    EXPECT_EQ(occurrences(html.html, "padding:7px"), 35'000U);
    EXPECT_EQ(occurrences(html.html, "<table width=\"500\""), occurrences(html.html, "<table"));
    EXPECT_EQ(occurrences(html.html, "<table"), occurrences(html.html, "</table>"));
    EXPECT_NE(html.html.find("</table>behind"), std::string::npos);
    for (std::size_t at = html.html.find("<table"); at != std::string::npos;) {
        const std::size_t next = html.html.find("<table", at + 1);
        EXPECT_LE(occurrences(html.html.substr(at, next - at), "<tr"), 10'000U);
        at = next;
    }
}

TEST(HtmlFonts, AreMadeOnceAndAreFew) {
    ternview::HtmlFonts fonts;
    EXPECT_EQ(fonts.create({.families = "Arial, sans-serif", .size = 20}),
              fonts.create({.families = "'Arial', sans-serif", .size = 20}));
    EXPECT_NE(fonts.create({.families = "Arial", .size = 20}), fonts.create({.families = "Arial", .size = 20, .italic = true}));
    std::set<ternview::HtmlFont*> distinct;
    for (int i = 0; i < 3000; ++i) {
        const double size = 1 + i % 997;
        ternview::HtmlFont* font =
            fonts.create({.families = "Family" + std::to_string(i), .size = size, .weight = 100 + i % 700});
        EXPECT_GE(font->style().size, size) << i;
        EXPECT_LE(font->style().size, size * 2 + 7) << i;
        distinct.insert(font);
    }
    EXPECT_LE(distinct.size(), 800U);
}

TEST(HtmlGuard, ClampsSpansAndLengths) {
    const std::string html =
        guardHtml(
            "<table><tr><td colspan=0 rowspan=-1>a<td colspan=99999999999>b<td colspan=3 width=4000000000>c</table>"
            "<p style='width:2000000000px;height:7e9pt;font-size:10.5pt'>")
            .html;
    EXPECT_EQ(html.find("colspan=\"0"), std::string::npos);
    EXPECT_EQ(html.find("rowspan"), std::string::npos);
    EXPECT_EQ(html.find("99999999999"), std::string::npos);
    EXPECT_NE(html.find("colspan=\"3\""), std::string::npos) << html;
    EXPECT_NE(html.find("width:20000px"), std::string::npos) << html;
    EXPECT_NE(html.find("font-size:14px"), std::string::npos) << html;
}

TEST(HtmlGuard, RepairsNesting) {
    EXPECT_NE(guardHtml("<b>one<div>two</div>three</b>four").html.find("<b>one</b><div><b>two</b></div><b>three</b>four"),
              std::string::npos);
    EXPECT_NE(guardHtml("<b>x<i>y</b>z</i>").html.find("<b>x<i>y</i></b><i>z</i>"), std::string::npos);
    EXPECT_NE(guardHtml("<table><td>x</div>y<p>z</table>w").html.find("<table><tr><td>xy<p>z</p></td></tr></table>w"),
              std::string::npos);
    EXPECT_NE(guardHtml("<tr><td>stray</td></tr>").html.find("<body>stray</body>"), std::string::npos);
    EXPECT_NE(guardHtml("<ul><li>a<li>b<ul><li>c</ul></ul>").html.find("<li>a</li><li>b<ul><li>c</li></ul></li></ul>"),
              std::string::npos);
}

TEST(HtmlGuard, StandsAnyBytes) {
    for (const std::string& piece :
         {"<"s, "<!"s, "<!--"s, "</"s, "<a href=\""s, "<a b='"s, "<a "s, "<style>{"s, "<style>@media x{"s, "<svg><title>"s,
          "<p style=\"url("s, "&#"s, "<table><"s, "</table></td>"s, "\xFF\xFE\0"s, "<td><caption><tr><tbody>"s,
          "<style>a:not(:not("s, "<![if x]>"s}) {
        const std::string input = repeated(piece, 50000);
        SCOPED_TRACE(piece);
        EXPECT_GE(layOutHtml(input, {}, {})->pageCount(), 1);
        EXPECT_GE(layOutHtml("<table><tr>" + input + "<td>x", {}, {})->pageCount(), 1);
    }
    // Every prefix of a document with everything in it.
    const std::string document =
        "<!DOCTYPE html><meta charset=utf-8><style>p{color:red/*x*/}@media screen{b{margin:0}}</style><table border=1><tr><td "
        "colspan=2 "
        "style=\"background:url('data:image/png;base64,AA')\">a<ul><li>b</ul><img src=x "
        "alt='y'><!--c--></table>&amp;\xE6\x97\xA5";
    for (std::size_t length = 0; length < document.size(); ++length) {
        EXPECT_EQ(layOutHtml(document.substr(0, length), {}, {})->pageCount(), 1) << length;
    }
}

// ---- pictures

TEST(HtmlPictures, LoadsDataUris) {
    const std::string data = base64(png(30, 20, kRed));
    const std::string vector =
        "%3Csvg%20xmlns='http://www.w3.org/2000/svg'%20width='30'%20height='20'%3E%3Crect%20width='30'%20height='20'%20"
        "fill='red'/%3E%3C/svg%3E";
    for (const std::string& html : {
             "<img src=\"data:image/png;base64," + data + "\">",
             "<img src=\"data:image;base64," + data + "\">",
             "<img src='data:image/jpeg;name=x.jpg;base64," + data.substr(0, 20) + "\r\n" + data.substr(20) + "'>",
             "<img src=\"data:image/svg+xml," + vector + "\">",
             "<div style='width:30px;height:20px;background:url(data:image/png;base64," + data + ")'></div>",
             "<style>.x{background-image:url(data:image/png;base64," + data +
                 ")}</style><div class=x style='width:30px;height:20px'></div>",
             "<table cellpadding=0><tr><td width=30 height=20 style='padding:0' background='data:image/png;base64," + data +
                 "'></td></table>",
         }) {
        EXPECT_EQ(countOf(html, kRed), 600) << html;
    }
}

TEST(HtmlPictures, ReadsOnlyPlainFilesOfItsDirectory) {
    const Folder parent;
    const std::filesystem::path directory = parent.path() / "mail";
    std::filesystem::create_directories(directory / "sub");
    const std::string picture = png(30, 20, kRed);
    parent.write("outside.png", picture);
    parent.write("mail/a b.png", picture);
    parent.write("mail/100%25.png", picture);
    parent.write("mail/\xC3\xA4.png", picture);
    parent.write("mail/sub/c.png", picture);
    std::filesystem::create_symlink(directory / "a b.png", directory / "link.png");

    EXPECT_EQ(countOf("<img src='a b.png'>", kRed, directory), 600);
    EXPECT_EQ(countOf("<img src='a%20b.png'>", kRed, directory), 600);
    EXPECT_EQ(countOf("<img src='100%25.png'>", kRed, directory), 600) << "the literal name comes first";
    EXPECT_EQ(countOf("<meta charset=windows-1252><img src='\xC3\xA4.png'>", kRed, directory), 600)
        << "a name in bytes of its own";
    for (const std::string& source : {
             "../outside.png"s,
             "..%2Foutside.png"s,
             (parent.path() / "outside.png").string(),
             "sub/c.png"s,
             "link.png"s,
             "sub"s,
             "."s,
             ""s,
             "file:a b.png"s,
             "file://" + (directory / "a b.png").string(),
             "http://localhost/a.png"s,
             "//localhost/a b.png"s,
             "cid:a b.png"s,
         }) {
        EXPECT_EQ(countOf("<img src='" + source + "'>", kRed, directory), 0) << source;
    }
    EXPECT_EQ(countOf("<img src='a b.png'>", kRed), 0) << "no directory, no files";
}

TEST(HtmlPictures, MissingOnesLeaveAFrameWithTheirText) {
    const std::string html = "<img src='http://example.org/x.png' alt='Company &amp; logo' width=200 height=50>";
    EXPECT_NE(textOf(html).find("Company & logo"), std::string::npos);
    const auto document = layOutHtml(html, {}, kPaper);
    EXPECT_NEAR(Pixels(*document, 0).rightmost(), 50 + 200, 2);
    EXPECT_EQ(countOf("<img src='data:image/png;base64,AAAA' width=1 height=1>", 0xFFFFFF), 800 * 1100)
        << "no frame around a tracking dot";
}

TEST(HtmlPictures, RefusesHugeOnesBeforeDecoding) {
    std::string huge = png(30, 20, kRed);
    const std::string size = "\x00\x01\x00\x00\x00\x01\x00\x00"s;  // 65536 by 65536, in the header that follows the signature
    huge.replace(16, 8, size);
    EXPECT_EQ(countOf("<img src=\"data:image/png;base64," + base64(huge) + "\">", kRed), 0);
    EXPECT_EQ(countOf("<img src=\"data:image/svg+xml,<svg xmlns='http://www.w3.org/2000/svg' width='90000' height='90000'>"
                      "<rect width='90000' height='90000' fill='red'/></svg>\">",
                      kRed),
              0);
}

TEST(HtmlPictures, EndAtTheLastScanThatIsWorthReading) {
    // Eight grey points, scans that add nothing to them, and one that makes them white.
    const auto photograph = [](std::size_t scans) {
        const std::string scan = "\xFF\xDA\x00\x08\x01\x01\x00"s;
        std::string file = "\xFF\xD8\xFF\xDB\x00\x43\x00"s + std::string(64, '\1');
        file += "\xFF\xC2\x00\x0B\x08\x00\x08\x00\x08\x01\x01\x11\x00"s;
        file += "\xFF\xC4\x00\x15\x00\x01\x01"s + std::string(14, '\0') + "\x00\x0A"s;
        file += "\xFF\xC4\x00\x14\x10\x01"s + std::string(15, '\0') + "\x00"s;
        file += scan + "\x00\x00\x00\x7F"s + repeated(scan + "\x01\x3F\x00\x7F"s, scans);
        file += scan + "\x00\x00\x00\xBF\x8F\xFF\xD9"s;
        return "<img src=\"data:image/jpeg;base64," + base64(file) + "\">";
    };
    EXPECT_EQ(countOf(photograph(10), 0x808080), 0);
    EXPECT_EQ(countOf(photograph(60), 0x808080), 64);
}

std::string vectorImage(const std::string& size, const std::string& content) {
    return "<img src=\"data:image/svg+xml;base64," +
           base64("<svg xmlns='http://www.w3.org/2000/svg' xmlns:xlink='http://www.w3.org/1999/xlink' width='" + size +
                  "' height='" + size + "'>" + content + "</svg>") +
           "\">";
}

TEST(HtmlPictures, DrawsVectorsInAProcessOfTheirOwn) {
    // Text in a picture needs the fonts, which are in use by then.
    EXPECT_GT(
        countOf("<p style='color:#00ff00'>x</p>" + vectorImage("90", "<text y='60' font-size='60' fill='red'>H</text>"), kRed),
        50);
    EXPECT_EQ(countOf("<div style='width:100px;height:100px;overflow:hidden'>" +
                          vectorImage("3000", "<rect width='3000' height='3000' fill='red'/>") + "</div>",
                      kRed),
              100 * 100)
        << "too large for the finest drawing";
}

TEST(HtmlPictures, CostlyVectorsAreMissingAndTheMessageIsNot) {
    const std::string whole = "width='3000' height='3000'";
    const std::string noise = "<filter id='f' x='0' y='0' width='1' height='1'>" +
                              repeated("<feTurbulence baseFrequency='0.05' numOctaves='100000'/>", 50) + "</filter><rect " +
                              whole + " filter='url(#f)'/>";
    std::string uses = "<defs><rect id='u0' width='10' height='10' fill='red'/>";
    for (int i = 1; i < 12; ++i) {
        uses +=
            "<g id='u" + std::to_string(i) + "'>" + repeated("<use xlink:href='#u" + std::to_string(i - 1) + "'/>", 10) + "</g>";
    }
    uses += "</defs><use xlink:href='#u11'/>";
    const std::string html = "<p>before" + vectorImage("3000", noise) + "<p>between" + vectorImage("100", uses) + "<p>behind";
    const std::string text = textOf(html);
    for (const char* word : {"before", "between", "behind"}) {
        EXPECT_NE(text.find(word), std::string::npos) << word;
    }
    EXPECT_EQ(countOf("<p>x" + vectorImage("100", uses), kRed), 0);
}

// ---- layout and pages

TEST(HtmlPages, BreakBetweenLines) {
    std::string html;
    for (int i = 0; i < 300; ++i) {
        html += "<div>line" + std::to_string(i) + "end</div>";
    }
    const std::vector<std::string> pages = textOfPages(html);
    ASSERT_GE(pages.size(), 4U);
    std::string all;
    for (const std::string& page : pages) {
        all += page;
    }
    for (int i = 0; i < 300; ++i) {
        EXPECT_EQ(occurrences(all, "line" + std::to_string(i) + "end"), 1U) << i;
    }
}

TEST(HtmlPages, KeepPicturesWholeThatFit) {
    const std::string html = "<div style='height:900px;background:#eeeeff'>x</div><div><img src=\"data:image/png;base64," +
                             base64(png(100, 400, kGreen)) + "\"></div><p>behind</p>";
    const auto document = layOutHtml(html, {}, kPaper);
    ASSERT_EQ(document->pageCount(), 2);
    EXPECT_EQ(Pixels(*document, 0).count(kGreen), 0);
    EXPECT_EQ(Pixels(*document, 1).count(kGreen), 100 * 400);

    const auto tall = layOutHtml("<img src=\"data:image/png;base64," + base64(png(10, 2500, kGreen)) + "\">", {}, kPaper);
    ASSERT_EQ(tall->pageCount(), 3);
    int rows = 0;
    for (int page = 0; page < 3; ++page) {
        rows += Pixels(*tall, page).count(kGreen) / 10;
    }
    EXPECT_NEAR(rows, 2500, 6);
}

TEST(HtmlPages, CellsTallerThanAPageBreakBetweenTheirLines) {
    std::string left;
    std::string right;
    for (int i = 0; i < 150; ++i) {
        left += "<div>L" + std::to_string(i) + "x</div>";
        right += "<div style='font-size:22px'>R" + std::to_string(i) + "x</div>";
    }
    const std::string all = textOf("<table><tr valign=top><td>" + left + "</td><td>" + right + "</td></tr></table>");
    for (int i = 0; i < 150; ++i) {
        EXPECT_EQ(occurrences(all, "L" + std::to_string(i) + "x"), 1U) << i;
        EXPECT_EQ(occurrences(all, "R" + std::to_string(i) + "x"), 1U) << i;
    }
}

TEST(HtmlPages, AreBounded) {
    const auto document = layOutHtml(repeated("<div style='height:20000px;background:#ffeeee'></div>", 500), {}, {});
    EXPECT_EQ(document->pageCount(), 2000);
    // Of thousands of backgrounds upon each other those below are not worth painting.
    const auto lowestLayer = [](std::size_t count) {
        ternview::DisplayItems items;
        for (std::size_t i = 0; i < count; ++i) {
            items.push_back({.box = {0, 0, 700, 1000}, .clip = {0, 0, 700, 1000}, .content = ternview::FillItem{}});
        }
        return ternview::planPages(items, 1000, 10).pages.at(0).firstLayer;
    };
    EXPECT_EQ(lowestLayer(100), 0U);
    EXPECT_GT(lowestLayer(40'000), 10'000U);
    EXPECT_LT(lowestLayer(40'000), 39'900U);
    // Nor are all of those whose dots go on over thousands of pages.
    const auto pagesWithBorder = [](ternview::BorderItem::Style style, float width) {
        constexpr double kHeight = 1e6;
        ternview::DisplayItems items;
        for (int i = 0; i < 40; ++i) {
            auto border = std::make_unique<ternview::BorderItem>();
            border->sides.fill({width, style, {}});
            const ternview::Box box{0, 0, 700, kHeight};
            items.push_back({.box = box, .clip = box, .content = std::move(border)});
        }
        const ternview::PagePlan plan = ternview::planPages(items, 1000, 2000);
        return std::ranges::count(plan.pages, 0U, &ternview::PagePlan::Page::firstLayer);
    };
    using Style = ternview::BorderItem::Style;
    EXPECT_GT(pagesWithBorder(Style::Solid, 1), pagesWithBorder(Style::Dotted, 5));
    EXPECT_GT(pagesWithBorder(Style::Dotted, 5), pagesWithBorder(Style::Dotted, 1));
    EXPECT_LT(pagesWithBorder(Style::Dotted, 1), 50);
}

TEST(HtmlLayout, WideTablesAreScaledToThePaper) {
    const std::string html =
        "<table cellpadding=0 cellspacing=0><tr><td width=1300 style='background:#ff0000'>left<td width=60>RIGHTMOST</table>";
    EXPECT_NE(textOf(html).find("RIGHTMOST"), std::string::npos);
    const auto document = layOutHtml(html, {}, kPaper);
    EXPECT_LE(Pixels(*document, 0).rightmost(), 800 - 50);
    EXPECT_GT(Pixels(*document, 0).rightmost(), 800 - 64);
}

TEST(HtmlLayout, OnlyWhatIsTooWideIsScaled) {
    const std::string plain = "<div style='width:100px;height:20px;background:#00ff00'></div>";
    const std::string wide =
        "<table cellpadding=0 cellspacing=0 width=2800><tr><td height=400 style='background:#ff0000'>left<td "
        "width=200>RIGHTMOST</table>";
    const auto document = layOutHtml(plain + wide + plain, {}, kPaper);
    const Pixels page(*document, 0);
    EXPECT_GE(page.count(kGreen), 100 * (20 + 19)) << "all but a row at the scaled edge";
    EXPECT_EQ(page.at(60, 55), kGreen);
    EXPECT_EQ(page.at(60, 50 + 20 + 50), kRed);
    EXPECT_EQ(page.at(60, 50 + 20 + 100 + 10), kGreen) << "moved up to the scaled table";
    EXPECT_LE(page.rightmost(), 800 - 50);
    EXPECT_NE(textOf(plain + wide).find("RIGHTMOST"), std::string::npos);

    const std::string line = "<div style='white-space:nowrap'>" + repeated("word ", 2000) + "LAST</div>";
    EXPECT_NE(textOf(line).find("LAST"), std::string::npos) << "nothing is cut off, however small it gets";
    // What stands in one frame keeps its proportions.
    const auto framed = layOutHtml("<div style='border:1px solid #0000ff;width:2798px'>" + plain + wide + "</div>", {}, kPaper);
    EXPECT_NEAR(Pixels(*framed, 0).count(kGreen), 100 * 20 / 16, 40);
}

TEST(HtmlLayout, EastAsianTextAndLongWordsBreak) {
    const PageSetup setup = kPaper;
    for (const std::string& html :
         {repeated("\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E", 100), "http://example.org/" + std::string(400, 'a')}) {
        const auto document = layOutHtml(html, {}, setup);
        EXPECT_LE(Pixels(*document, 0).rightmost(), static_cast<int>(setup.width - setup.margin) + 2) << html;
        EXPECT_GT(Pixels(*document, 0).count(0x000000), 0);
    }
}

TEST(HtmlLayout, ShowsHeaderBlockAndBodyOfTwoDocuments) {
    const std::string text = textOf(
        "<html><table style = 'table-layout: fixed; width: 100%'><tr><td style = 'width:87pt'><b><span>From:</span></b></td><td>"
        "<span>Anna &lt;anna@example.org&gt;</span></td></tr></table>\r\n<p class=MsoNormal><o:p>&nbsp;</o:p></p></html>"
        "<html><head><style>.hidden{display:none}</style></head><body><!--[if gte mso 9]><xml>office</xml><![endif]--><p "
        "class=MsoNormal>"
        "The body<o:p></o:p></p><div class=hidden>preheader</div></body></html>\0"s);
    EXPECT_NE(text.find("From:"), std::string::npos);
    EXPECT_NE(text.find("Anna <anna@example.org>"), std::string::npos);
    EXPECT_NE(text.find("The body"), std::string::npos);
    EXPECT_EQ(text.find("office"), std::string::npos);
    EXPECT_EQ(text.find("preheader"), std::string::npos);
}

TEST(HtmlLayout, BackgroundsAndBordersHaveTheirColors) {
    EXPECT_EQ(countOf("<body bgcolor=ff0000>", kRed), 800 * 1100) << "the whole paper";
    EXPECT_EQ(countOf("<div style='width:100px;height:10px;background:#00ff00'></div>", kGreen), 1000);
    EXPECT_EQ(countOf("<div style='width:100px;height:10px;border-top:4px solid #00ff00'></div>", kGreen), 400);
    EXPECT_EQ(
        countOf("<div style='background:#ff0000;width:50px'><table bgcolor=white width=50><tr><td>&nbsp;</table></div>", kRed), 0)
        << "white covers what is under it";
}

}  // namespace
