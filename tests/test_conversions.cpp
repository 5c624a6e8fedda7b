// What becomes of a handed document as a page for a browser and as plain text.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <ternkit/formats.h>

#include "browser/browser.h"
#include "export/conversions.h"
#include "loaders/html_guard.h"
#include "office/office.h"
#include "page_checker.h"
#include "utf.h"

namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;
using namespace std::chrono_literals;
using namespace ternview;

/// A red dot as PNG, and what it is as a data: URI.
const std::string kDotUri =
    "data:image/png;base64,iVBORw0KGgoAAAANSUhEUgAAAAEAAAABCAIAAACQd1PeAAAADElEQVR4nGP4z8AAAAMBAQDJ/pLvAAAAAElFTkSuQmCC";
const std::string kDot =
    "\x89PNG\r\n\x1A\n\0\0\0\rIHDR\0\0\0\x01\0\0\0\x01\x08\x02\0\0\0\x90wS\xDE\0\0\0\x0CIDATx\x9C\x63\xF8\xCF\xC0\0\0\x03\x01\x01\0\xC9\xFE\x92\xEF\0\0\0\0IEND\xAE\x42\x60\x82"s;

class Folder {
public:
    Folder() {
        std::string name = (fs::temp_directory_path() / "conversions-XXXXXX").string();
        m_path = mkdtemp(name.data());
    }
    ~Folder() { fs::remove_all(m_path); }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;
    const fs::path& path() const { return m_path; }
    fs::path write(const std::string& name, std::string_view content) const {
        std::ofstream(m_path / name, std::ios::binary).write(content.data(), static_cast<std::streamsize>(content.size()));
        return m_path / name;
    }

private:
    fs::path m_path;
};

std::string pageOf(std::string_view html, const std::optional<fs::path>& directory = {}) {
    const auto file = directory ? std::optional(*directory / "document.html") : std::nullopt;
    return safeHtmlPage({ternkit::kFormatHtml, html, file}, "Subject");
}

/// What stands in the body of a page.
std::string content(const std::string& page) {
    const std::size_t body = page.find('\n', page.find("<body")) + 1;
    return page.substr(body, page.rfind("\n</body>") - body);
}

std::string bodyOf(std::string_view html, const std::optional<fs::path>& directory = {}) {
    const std::string page = pageOf(html, directory);
    EXPECT_EQ(complaintAbout(page), "") << html;
    return content(page);
}

std::string styleSheetOf(std::string_view css) {
    const std::string page = pageOf("<style>" + std::string(css) + "</style>");
    EXPECT_EQ(complaintAbout(page), "") << css;
    const std::size_t start = page.find("<style>\n");
    return start == std::string::npos ? "" : page.substr(start + 8, page.find("</style>") - start - 8);
}

std::string styleOf(std::string_view declarations) {
    std::string body = bodyOf("<p style=\"" + std::string(declarations) + "\">x");
    return body.find("style=") == std::string::npos ? "" : body.substr(10, body.rfind("\">") - 10);
}

std::string textOf(std::string_view html) {
    return plainText({ternkit::kFormatHtml, html, std::nullopt});
}

std::string repeated(std::string_view text, std::size_t count) {
    std::string result;
    for (std::size_t i = 0; i < count; ++i) {
        result += text;
    }
    return result;
}

struct Case {
    const char* what;
    std::string source;
    std::string expected;
};

// ---- attacks

/// Each has a text that must survive, "kept".
const Case kAttacks[] = {
    {"script", "<script>attack()</script>kept", ""},
    {"script in capitals with attributes", "<SCRIPT/src=//x/y.js async>attack()</SCRIPT >kept", ""},
    {"script in a script", "<scr<script></script>ipt>attack()</script>kept", ""},
    {"script without an end", "kept<script>attack()", ""},
    {"script with a NUL in its name", "<scr\0ipt>attack()</script>kept"s, ""},
    {"event handler", "<img src=x onerror=attack()>kept", ""},
    {"event handler behind a slash", "<img/src=x/onerror=attack()>kept", ""},
    {"event handler with quotes that cross", "<img alt='\" onerror=\"attack()' src=x>kept", ""},
    {"event handler in an escaped quote", "<p title=\"&quot; onclick=attack() x=&quot;\">kept", ""},
    {"event handler behind a line break", "<body\nonload\n=\nattack()>kept", ""},
    {"a name that holds a quote", "<p a\"b onclick=attack()>kept", ""},
    {"a value that holds a bracket", "<p title=\"></p><script>attack()</script>\">kept", ""},
    {"a backtick", "<img src=`x` alt=`` onerror=attack()>kept", ""},
    {"script address", "<a href=javascript:attack()>kept</a>", ""},
    {"script address in mixed case", "<a href=JaVaScRiPt:attack()>kept</a>", ""},
    {"script address in references", "<a href='&#106;avascript&#x3a;attack()'>kept</a>", ""},
    {"script address in references without ends", "<a href='&#0000106avascript&#58attack()'>kept</a>", ""},
    {"script address with a named colon", "<a href='javascript&colon;attack()'>kept</a>", ""},
    {"script address across lines", "<a href='java\nscript:attack()'>kept</a>", ""},
    {"script address across a reference", "<a href='java&#10;script&#9;:attack()'>kept</a>", ""},
    {"script address behind controls", "<a href=' \x01\x02javascript:attack()'>kept</a>", ""},
    {"script address behind a hidden one", "<a href='http:javascript:attack()'>kept</a>", ""},
    {"vbscript", "<a href=vbscript:attack()>kept</a>", ""},
    {"data address", "<a href='data:text/html,<script>attack()</script>'>kept</a>", ""},
    {"file address", "<a href=file:///etc/passwd>kept</a>", ""},
    {"address of a share", "<a href='\\\\host\\share'>kept</a><a href=//host/x>kept</a>", ""},
    {"two addresses", "<a href=http://x/ href=javascript:attack()>kept</a>", ""},
    {"picture with a script address", "<img src=javascript:attack()>kept", ""},
    {"vector picture", "<svg onload=attack()><script>attack()</script></svg>kept", ""},
    {"vector picture in a picture",
     "<img src='data:image/svg+xml,<svg onload=attack() xmlns=\"http://www.w3.org/2000/svg\"/>'>kept", ""},
    {"foreign content", "<svg><foreignObject><iframe src=x></iframe></foreignObject></svg>kept", ""},
    {"formula", "<math><mi xlink:href='javascript:attack()'>x</mi></math>kept", ""},
    {"formula that breaks out", "<math><mtext><table><mglyph><style><img src=x onerror=attack()></style></table></math>kept", ""},
    {"frame", "<iframe srcdoc='<script>attack()</script>'></iframe>kept", ""},
    {"frames", "<frameset><frame src=http://x/></frameset>kept", ""},
    {"embedded objects", "<object data=x></object><embed src=x><applet code=x></applet>kept", ""},
    {"media", "<video poster=http://x/ src=http://x/></video><audio src=http://x/></audio>kept", ""},
    {"form",
     "<form action=http://x/><input type=image src=http://x/ onfocus=attack() autofocus><button formaction=x>kept</button>", ""},
    {"address of all addresses", "<base href=http://x/><a href=y>kept</a>", ""},
    {"refresh", "<meta http-equiv=refresh content='0;url=http://x/'>kept", ""},
    {"links of the head", "<link rel=stylesheet href=http://x/><link rel=preload href=http://x/>kept", ""},
    {"import", "<style>@import 'http://x/';@import url(http://x/);p{color:red}</style>kept", ""},
    {"font", "<style>@font-face{font-family:f;src:url(http://x/)}p{font-family:f}</style>kept", ""},
    {"picture of a style sheet", "<style>p{background:url(http://x/)}</style><p>kept", ""},
    {"picture of a style", "<p style='background:url(http://x/)'>kept", ""},
    {"address in escapes", "<p style='background:\\75\\72\\6c(http://x/)'>kept", ""},
    {"address in a comment", "<p style='background:u/**/rl(http://x/)'>kept", ""},
    {"other ways to load",
     "<p style='background:image-set(\"http://x/\" 1x);cursor:url(http://x/),auto;filter:url(http://x/)'>kept", ""},
    {"a value that is put together", "<style>:root{--a:url(http://x/)}p{background:var(--a)}</style><p>kept", ""},
    {"expression", "<p style='width:expression(attack())'>kept", ""},
    {"expression in escapes and comments", "<p style='width:e\\78 pr/**/ession(attack())'>kept", ""},
    {"behavior", "<p style='behavior:url(#x);-moz-binding:url(http://x/#y)'>kept", ""},
    {"end of a style sheet in a string", "<style>p{content:'</style><script>attack()</script>'}</style>kept", ""},
    {"end of a style sheet in escapes", "<style>p{content:'\\3c/style\\3e\\3cscript\\3e'}</style>kept", ""},
    {"string that is not closed", "<style>p{content:'x\n}a{background:url(http://x/)}</style>kept", ""},
    {"place on top of everything", "<div style='position:fixed;top:0;left:0'>kept</div>", ""},
    {"place in escapes", "<div style='position:\\66ixed'>kept</div>", ""},
    {"sets of pictures", "<img srcset='http://x/ 2x' src=y>kept<picture><source srcset=http://x/></picture>", ""},
    {"backgrounds", "<body background=http://x/><table background=http://x/><td background=http://x/>kept", ""},
    {"other addresses of pictures", "<img lowsrc=http://x/ dynsrc=http://x/ longdesc=http://x/ usemap=#m ismap>kept", ""},
    {"reports", "<a href=http://x/ ping=http://y/ target=_top download>kept</a>", ""},
    {"conditional comment", "<!--[if IE]><script>attack()</script><![endif]-->kept", ""},
    {"comment that ends early", "<!--><script>attack()</script>-->kept", ""},
    {"comment that ends oddly", "<!-- --!><script>attack()</script>--> kept", ""},
    {"section of another language", "<![CDATA[<script>attack()</script>]]>kept", ""},
    {"instruction", "<?xml-stylesheet href='javascript:attack()'?>kept", ""},
    {"text without scripts", "<noscript><p title='</noscript><img src=x onerror=attack()>'>kept", ""},
    {"template", "<template><img src=x onerror=attack()></template>kept", ""},
    {"title", "<title><img src=x onerror=attack()></title>kept", ""},
    {"title with an attribute that ends it", "<title><p title='</title><img src=x onerror=attack()>'>kept", ""},
    {"text field", "<textarea><img title='</textarea><img src=x onerror=attack()>'></textarea>kept", ""},
    {"example", "<xmp><p title='</xmp><img src=x onerror=attack()>'>kept</xmp>", ""},
    {"plain text", "<plaintext><script>attack()</script>kept", ""},
    {"list of choices", "<select><option><script>attack()</script></select>kept", ""},
    {"misplaced content of a table", "<table><script>attack()</script><tr><img src=x onerror=attack()><td>kept</table>", ""},
    {"markup in references", "&lt;script&gt;attack()&lt;/script&gt;kept", ""},
    {"element of another kind", "<x onclick=attack()><marquee onstart=attack()>kept", ""},
    {"tag that does not end", "kept<img src=x onerror=attack() ", ""},
    {"UTF-16 in disguise", "<meta charset=utf-16><p>kept\xFE\xFF", ""},
    {"characters beyond the last one", "\xEF\xBB\xBFkept\xF6\x9D\x90\x9B\xED\xA0\x80", ""},
    {"UTF-7", "<meta charset=utf-7>+ADw-script+AD4-attack()+ADw-/script+AD4-kept", ""},
    {"a charset whose escapes hide quotes", "<meta charset=iso-2022-jp><p title=\"\x1B$B\" onclick=attack()>\x1B(B\">kept", ""},
};

TEST(Page, HoldsNothingThatActsOrLoads) {
    for (const Case& attack : kAttacks) {
        const std::string page = pageOf(attack.source);
        EXPECT_EQ(complaintAbout(page), "") << attack.what;
        EXPECT_NE(content(page).find("kept"), std::string::npos) << attack.what << ": " << page;
    }
}

TEST(Page, CheckFindsTheAttacksThemselves) {
    const std::string page = pageOf("MARK");
    const std::size_t mark = page.find("MARK");
    std::size_t found = 0;
    for (const Case& attack : kAttacks) {
        found += complaintAbout(page.substr(0, mark) + attack.source + page.substr(mark + 4)).empty() ? 0 : 1;
    }
    EXPECT_EQ(found, std::size(kAttacks) - 1);  // all but the markup in references, which is none
}

TEST(Guard, CutsBetweenCharacters) {
    const std::string value = "x" + repeated("\xC3\xA9", 5000);  // no limit is odd
    for (const char* source : {"<font face='", "<font color='", "<p class='", "<td align='", "<title>"}) {
        const SafeHtml guarded = guardHtml("<table><tr><td>" + std::string(source) + value + "'>a</title>");
        EXPECT_TRUE(isValidUtf8(guarded.html)) << source;
        EXPECT_TRUE(isValidUtf8(guarded.title)) << source;
    }
}

TEST(Page, TitleIsTextOnly) {
    const std::string page = safeHtmlPage({ternkit::kFormatText, "x", std::nullopt}, "</title><script>\x01 & \"x\"");
    EXPECT_EQ(complaintAbout(page), "");
    EXPECT_NE(page.find("<title>&lt;/title&gt;&lt;script&gt; &amp; &quot;x&quot;</title>"), std::string::npos);
}

TEST(Page, LinksLeadToTheWebAndToMailOnly) {
    const std::string end = "\" rel=\"noreferrer noopener nofollow\">x</a>";
    const Case cases[] = {
        {"web", "<a href='http://example.com/a?b=1&amp;c=2&copy=3'>x</a>",
         "<a href=\"http://example.com/a?b=1&amp;c=2&amp;copy=3" + end},
        {"white space", "<a href=' https://example.com/a\n b'>x</a>", "<a href=\"https://example.com/a%20b" + end},
        {"mail", "<a href='mailto:a@b?subject=c&attach=/etc/passwd&body=d'>x</a>",
         "<a href=\"mailto:a@b?subject=c&amp;body=d" + end},
        {"place in the document", "<a href=#top>x</a><a name=top>y</a>", "<a href=\"#top" + end + "<a name=\"top\">y</a>"},
        {"nothing else", "<a href=tel:123>x</a><a href=page.html>y</a>", "<a>x</a><a>y</a>"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(bodyOf(c.source), c.expected) << c.what;
    }
}

// ---- styles

TEST(PageStyles, KeepTheLookAndNothingElse) {
    const Case cases[] = {
        {"names and numbers", "COLOR:Red;margin:-1.50em 0 +2px .5pt", "color:Red;margin:-1.5em 0 2px 0.5pt;"},
        {"strings", "font-family:&quot;Segoe UI&quot;, 'it\\27s'", "font-family:'Segoe UI', 'it\\27 s';"},
        {"functions", "width:calc(100% - (2px*3));color:rgb(1,2,3)!important",
         "width:calc(100% - (2px*3));color:rgb(1,2,3)!important;"},
        {"gradient", "background:linear-gradient(45deg,#fff,#123456 50%)", "background:linear-gradient(45deg,#fff,#123456 50%);"},
        {"flex", "display:flex;flex:1 1 auto;gap:4px;justify-content:space-between",
         "display:flex;flex:1 1 auto;gap:4px;justify-content:space-between;"},
        {"missing picture", "background:#fff url(http://x/y.png) no-repeat", "background:#fff none no-repeat;"},
        {"picture", "background-image:url(" + kDotUri + ")", "background-image:url(" + kDotUri + ");"},
        {"broken declarations", "color;;width:;:3;{a:b};color:blue;height:1px)", "color:blue;"},
        {"brackets and strings around semicolons", "content:&quot;a;b&quot;;quotes:'(' ')';color:red",
         "content:'a;b';quotes:'(' ')';color:red;"},
        {"open brackets at the end", "width:calc(1px + (2px", "width:calc(1px + (2px));"},
        {"relatives of harmless properties", "border-image:url(http://x/) 1;mso-hide:all;position:relative;top:3px",
         "position:relative;"},
        {"huge sizes", "width:2e9px;font-size:99999em;box-shadow:0 0 9999px red",
         "width:20000px;font-size:1000em;box-shadow:0 0 100px red;"},
        {"unknown units and functions", "width:3foo;color:env(x);height:attr(x)", ""},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(styleOf(c.source), c.expected) << c.what;
    }
}

TEST(PageStyles, SheetsKeepTheirRules) {
    const Case cases[] = {
        {"comments of both languages", "<!-- a /* x */ b{color:red} --> c{color:blue}", "a  b{color:red;}\nc{color:blue;}\n"},
        {"selectors", "a:link,td > p.x:first-child::before,#i[name~='q']+b{color:red}",
         "a:link,td > p.x:first-child::before,#i[name~='q']+b{color:red;}\n"},
        {"counting", "li:nth-child( 2n+1 ){color:red}", "li:nth-child( 2n+1 ){color:red;}\n"},
        {"a part that browsers do not know", "a,b:-moz-x{color:red}c{color:blue}", "c{color:blue;}\n"},
        {"media", "@media screen and (max-width: 480px){a{color:red}b{color:blue}}c{color:red}",
         "@media screen and (max-width: 480px){\na{color:red;}\nb{color:blue;}\n}\nc{color:red;}\n"},
        {"other rules", "@page x{size:1px}@keyframes k{from{top:0}}@charset 'x';@supports (a:b){c{color:red}}d{color:red}",
         "d{color:red;}\n"},
        {"rule that is not closed", "a{color:red;b{color:blue", "a{color:red;}\n"},
        {"escape at the end", "p\\3a  {color:red}", "p\\3a {color:red;}\n"},
        {"escaped names", ".\\31 a\\3a b{color:red}", ".\\31 a\\3a b{color:red;}\n"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(styleSheetOf(c.source), c.expected) << c.what;
    }
}

TEST(PageStyles, MediaOfTheElementCounts) {
    const std::string page = pageOf("<style media=print>a{color:red}</style>");
    EXPECT_NE(page.find("@media print{\na{color:red;}\n}\n"), std::string::npos) << page;
}

// ---- fidelity

TEST(Page, KeepsTheMessage) {
    const Case cases[] = {
        {"text and references", "a &amp; b &nbsp; &lt;c> &eacute; 1 < 2", "a &amp; b &nbsp; &lt;c&gt; &eacute; 1 &lt; 2"},
        {"attributes", "<td><table align=center width='50%' border=1 bgcolor=#fff><td colspan=2 valign=top nowrap>x",
         "<table align=\"center\" width=\"50%\" border=\"1\" bgcolor=\"#fff\"><tr><td valign=\"top\" nowrap=\"\" "
         "colspan=\"2\">x</td></tr></table>"},
        {"columns", "<table><colgroup><col width=30></colgroup><tr><td>x",
         "<table><colgroup><col width=\"30\"></colgroup><tr><td>x</td></tr></table>"},
        {"direction", "<div dir=rtl lang=he>x</div>", "<div dir=\"rtl\" lang=\"he\">x</div>"},
        {"lists", "<ol start=3 type=a><li>x<li value=7>y</ol>",
         "<ol start=\"3\" type=\"a\"><li>x</li><li value=\"7\">y</li></ol>"},
        {"elements that only hold text", "<form><button>x</button></form><xmp>y</xmp>", "<div><span>x</span></div><pre>y</pre>"},
        {"paragraphs end at blocks", "<p>a<div>b</div><p>c", "<p>a</p><div>b</div><p>c</p>"},
        {"formatting goes on", "<p><b>a<p>b</b>c", "<p><b>a</b></p><p><b>b</b>c</p>"},
        {"formatting around blocks", "<font color=red><p>a</p><table><tr><td>b</table></font>",
         "<font color=\"red\"><p>a</p><table><tr><td>b</td></tr></table></font>"},
        {"formatting that ends inside a block", "<font><div>a</font></div>b", "<font><div>a</div></font>b"},
        {"formatting does not enter cells", "<p><b>a</p><table><tr><td>b</table>c",
         "<p><b>a</b></p><table><tr><td>b</td></tr></table><b>c</b>"},
        {"spans do not cross", "<div><span>a</div>b</span>c", "<div><span>a</span></div>bc"},
        {"links do not nest", "<a href=#x>a<a href=#y>b</a>",
         "<a href=\"#x\" rel=\"noreferrer noopener nofollow\">a</a><a href=\"#y\" rel=\"noreferrer noopener nofollow\">b</a>"},
        {"implied parts of tables", "<table><td>a<td>b<tr><th>c<tbody><tr><td>d</table>",
         "<table><tr><td>a</td><td>b</td></tr><tr><th>c</th></tr><tbody><tr><td>d</td></tr></tbody></table>"},
        {"content between cells", "<table> <tr> <form>a<td>b</form></table>", "<table><tr><td>a</td><td>b</td></tr></table>"},
        {"stray parts of tables", "<td>a</td></tr></table>b", "ab"},
        {"spans of cells are bounded", "<table><td colspan=0 rowspan=99999>x",
         "<table><tr><td rowspan=\"1000\">x</td></tr></table>"},
    };
    for (const Case& c : cases) {
        std::string body = bodyOf(c.source);
        body.erase(0, body.find_first_not_of(' '));
        EXPECT_EQ(body, c.expected) << c.what;
    }
}

TEST(Page, LaysOutByTheRulesOfTheMessage) {
    const Case cases[] = {
        {"none", "x", "<html>"},
        {"modern", "<!doctype HTML>x", "<!DOCTYPE html>\n<html>"},
        {"transitional", "<!DOCTYPE html PUBLIC \"-//W3C//DTD XHTML 1.0 Transitional//EN\" \"http://www.w3.org/x.dtd\">x",
         "<!DOCTYPE html PUBLIC \"-//W3C//DTD XHTML 1.0 Transitional//EN\" \"\">\n<html>"},
        {"behind the header lines", "<html><p>From: a</p></html><!DOCTYPE html><html>x", "<!DOCTYPE html>\n<html>"},
        {"old", "<!DOCTYPE HTML PUBLIC \"-//W3C//DTD HTML 4.0 Transitional//EN\">x", "<html>"},
        {"old with an address", "<!DOCTYPE HTML PUBLIC \"-//W3C//DTD HTML 4.01 Transitional//EN\" \"http://x\">x",
         "<!DOCTYPE html PUBLIC"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(pageOf(c.source).substr(0, c.expected.size()), c.expected) << c.what;
    }
}

TEST(Page, GathersWhatIsSaidOfTheBody) {
    const std::string page = pageOf("<html dir=rtl><body bgcolor=red onload=x()>a<body bgcolor=blue style='margin:0'>b");
    EXPECT_NE(page.find("<body dir=\"rtl\" bgcolor=\"red\" style=\"margin:0;\">\nab\n</body>"), std::string::npos) << page;
}

// ---- pictures

TEST(PagePictures, StandInThePageWhenTheyArePictures) {
    const Folder folder;
    folder.write("dot.png", kDot);
    folder.write("d\xC3\xB6t x.png", kDot);
    folder.write("page.png", "<script>attack()</script>");
    folder.write("vector.png", "<svg xmlns='http://www.w3.org/2000/svg'/>");
    folder.write("short.webp", "RIFF");
    folder.write("a.gif", "GIF89a...");
    fs::create_directory(folder.path() / "sub");
    fs::create_symlink("dot.png", folder.path() / "link.png");
    const std::string picture = "<img src=\"" + kDotUri + "\" alt=\"A\">";
    const std::string frame =
        "<span style=\"display:inline-block;box-sizing:border-box;max-width:100%;overflow:hidden;border:1px solid "
        "#c0c0c0;color:#606060;font:12px sans-serif;";
    const std::string noPicture = frame + "min-width:16px;min-height:16px;\">A</span>";
    const Case cases[] = {
        {"file", "<img alt=A src=dot.png>", picture},
        {"escaped name", "<img alt=A src='d%C3%B6t%20x.png'>", picture},
        {"data", "<img alt=A src='" + kDotUri + "'>", picture},
        {"data under a wrong type", "<img alt=A src='data:text/html" + kDotUri.substr(14) + "'>", picture},
        {"gif", "<img alt=A src=a.gif>", "<img src=\"data:image/gif;base64,R0lGODlhLi4u\" alt=\"A\">"},
        {"background", "<p style='background:url(dot.png)'>x", "<p style=\"background:url(" + kDotUri + ");\">x</p>"},
        {"no picture", "<img alt=A src=page.png>", noPicture},
        {"vector picture", "<img alt=A src=vector.png>", noPicture},
        {"signature only", "<img alt=A src=short.webp>", noPicture},
        {"data that is none", "<img alt=A src='data:image/png;base64,AAAA'>", noPicture},
        {"remote", "<img alt=A src=http://x/dot.png>", noPicture},
        {"not there", "<img alt=A src=other.png>", noPicture},
        {"behind a link", "<img alt=A src=link.png>", noPicture},
        {"elsewhere", "<img alt=A src=sub/../dot.png><img alt=A src='" + (folder.path() / "dot.png").string() + "'>",
         noPicture + noPicture},
        {"size of the frame", "<img alt='<A>' width=300 height='50%' class=c style='width:10px' src=http://x>",
         frame + "width:300px;height:50%;width:10px;\""},
        {"dot that tells", "a<img width=1 height=1 src=http://x/>b", "ab"},
    };
    for (const Case& c : cases) {
        const std::string body = bodyOf(c.source, folder.path());
        if (c.what == "size of the frame"s) {
            EXPECT_EQ(body, "<span class=\"c\"" + c.expected.substr(5) + ">&lt;A&gt;</span>") << c.what;
        } else {
            EXPECT_EQ(body, c.expected) << c.what;
        }
    }
}

TEST(PagePictures, DoNotMultiplyWithoutBound) {
    const Folder folder;
    folder.write("big.png", kDot + std::string(std::size_t{1} << 20, 'x'));
    std::string html;
    for (int i = 0; i < 10'000; ++i) {
        html += "<img alt=\"again\" src=big.png>";
    }
    const std::string page = pageOf(html, folder.path());
    EXPECT_GT(page.size(), std::size_t{3} << 20);
    EXPECT_LT(page.size(), std::size_t{40} << 20);
    EXPECT_NE(page.find(">again</span>"), std::string::npos);
}

// ---- bounds

TEST(Page, IsBoundedInDepthAndSize) {
    std::string fonts;
    for (int i = 0; i < 1000; ++i) {
        fonts += "<font color=" + std::to_string(i) + " style='" + repeated("color:red;", 100) + "'>";
    }
    const Case cases[] = {
        {"blocks", repeated("<div>", 100'000) + "kept", ""},
        {"tables", repeated("<table><tr><td>", 10'000) + "kept", ""},
        {"formatting in every block", fonts + repeated("<p>x", 20'000) + "kept", ""},
        {"tags that cross", repeated("<b><p><i>x</b>", 20'000) + "kept", ""},
        {"attributes", "<p " + repeated("a=b ", 100'000) + ">kept", ""},
        {"styles", "<p style='" + repeated("color:red;", 100'000) + "'>kept", ""},
        {"values", "<p style='color:" + repeated("red ", 100'000) + "'>kept", ""},
        {"functions", "<p style='width:" + repeated("calc(", 100'000) + "'>kept", ""},
        {"rules", "<style>" + repeated("p{color:red}", 50'000) + "</style>" + repeated("<p>x", 20'000) + "kept", ""},
        {"comments", "kept" + repeated("<!--", 100'000), ""},
    };
    for (const Case& c : cases) {
        const std::string page = pageOf(c.source);
        EXPECT_EQ(complaintAbout(page), "") << c.what;
        EXPECT_NE(page.find("kept"), std::string::npos) << c.what;
        EXPECT_LT(page.size(), 4 * c.source.size() + (std::size_t{2} << 20)) << c.what;
        std::size_t depth = 0;
        std::size_t deepest = 0;
        for (std::size_t at = page.find('<'); at != std::string::npos; at = page.find('<', at + 1)) {
            const bool isEnd = page[at + 1] == '/';
            const bool isVoid = page.compare(at, 5, "<meta") == 0 || page[at + 1] == '!';
            depth += isVoid ? 0 : isEnd ? std::size_t(-1) : 1;
            deepest = std::max(deepest, depth);
        }
        EXPECT_LT(deepest, 256U) << c.what;
    }
}

TEST(Page, ShowsWhatIsTooMuchAsText) {
    const std::string page = pageOf(repeated("<b>x</b><br>", 200'000) + "<p>kept</p><p>apart</p>");
    EXPECT_EQ(complaintAbout(page), "");
    EXPECT_NE(page.find("The rest is shown as text."), std::string::npos);
    EXPECT_NE(page.find("kept\n\napart"), std::string::npos) << page.substr(page.size() - 200);
}

// ---- text

TEST(PageOfText, EscapesAndLinks) {
    const std::string relation = "\" rel=\"noreferrer noopener nofollow\">";
    const auto link = [&](const std::string& address) { return "<a href=\"" + address + relation + address + "</a>"; };
    const Case cases[] = {
        {"markup", "a <b> & \"c\"\r\nd\te", "a &lt;b&gt; &amp; &quot;c&quot;\nd\te"},
        {"addresses", "See http://a.b/c?d=e&f, (HTTPS://x.y/) or <http://z>.",
         "See " + link("http://a.b/c?d=e&amp;f") + ", (" + link("HTTPS://x.y/") + ") or &lt;" + link("http://z") + "&gt;."},
        {"address with brackets", "http://a/b_(c)", link("http://a/b_(c)")},
        {"addresses in a row", "http://ahttp://b https://https://", link("http://ahttp://b") + " " + link("https://https://")},
        {"no addresses", "ftp://a javascript://b http:// ://", "ftp://a javascript://b http:// ://"},
        {"another encoding",
         "\xFF\xFE"
         "a\0\xE4\0"s,
         "a\xC3\xA4"},
    };
    for (const Case& c : cases) {
        const std::string page = safeHtmlPage({ternkit::kFormatText, c.source, std::nullopt}, "t");
        EXPECT_EQ(complaintAbout(page), "") << c.what;
        EXPECT_EQ(content(page), "<pre>\n" + c.expected + "</pre>") << c.what;
    }
}

TEST(PlainText, OfTextIsUtf8WithLineFeeds) {
    const Case cases[] = {
        {"line ends", "a\r\nb\rc", "a\nb\nc\n"},
        {"closed already", "a\n", "a\n"},
        {"empty", "", "\n"},
        {"UTF-16", "\xFE\xFF\x20\xAC"s, "\xE2\x82\xAC\n"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(plainText({ternkit::kFormatText, c.source, std::nullopt}), c.expected) << c.what;
    }
}

TEST(PlainText, ReadsLikeTheMessage) {
    const Case cases[] = {
        {"white space", "  a \n\t b  <b> c</b> d", "a b c d\n"},
        {"references", "&auml;&ouml&#8364;&#x20AC;&#146;&#150 &lt;&bogus; &amp;amp; a&shy;b",
         "\xC3\xA4\xC3\xB6\xE2\x82\xAC\xE2\x82\xAC\xE2\x80\x99\xE2\x80\x93 <&bogus; &amp; ab\n"},
        {"blocks", "a<div>b<div>c</div></div>d", "a\nb\nc\nd\n"},
        {"paragraphs", "<h1>a</h1><p>b</p><p>c</p>d", "a\n\nb\n\nc\n\nd\n"},
        {"paragraphs without margins",
         "<style>p.MsoNormal, li.MsoNormal{margin:0cm;margin-bottom:.0001pt}</style><p class=MsoNormal>a<p class=MsoNormal>b<p "
         "class=MsoNormal>&nbsp;<p class=MsoNormal>c<p style='margin:0'>d",
         "a\nb\n\nc\nd\n"},
        {"line breaks", "a<br>b<br><br>c<div><br></div><div>d<br></div>e<br>", "a\nb\n\nc\n\nd\ne\n"},
        {"no more than two blank lines", "a<br><br><br><br><br><br>b", "a\n\n\nb\n"},
        {"lists", "a<ul><li>b<li>c<ol start=9><li>d<li>e<br>f</ol></ul>g", "a\n\n* b\n* c\n  9. d\n  10. e\n      f\n\ng\n"},
        {"lists without marks", "<ul style='list-style:none'><li>a<li>b</ul>", "a\nb\n"},
        {"rows", "<table><tr><th>a<th>b<tr><td><p>c</p><td><p>d</p></table>e", "a\tb\nc\td\ne\n"},
        {"empty cells", "<table><tr><td>a<td><td>b<td>&nbsp;<tr><td><td>c</table>", "a\t\tb\nc\n"},
        {"cells of many lines", "<table><tr><td>a<br>b<td>c<td>d</table>", "a\nb\nc\td\n"},
        {"tables in tables", "<table><tr><td>a<td><table><tr><td>b<td>c<tr><td>d</table><td>e</table>", "a\tb\tc\nd\ne\n"},
        {"quotations", "<p>a<blockquote>b<br>c<blockquote><p>d<p>e</blockquote></blockquote>f",
         "a\n\n> b\n> c\n>\n> > d\n> >\n> > e\n\nf\n"},
        {"preformatted", "<pre>\n a\n\n\tb  c\r\nd</pre>e", " a\n\n\tb  c\nd\n\ne\n"},
        {"preformatted by style", "<div style='white-space:pre-wrap'>a  b\nc</div>", "a  b\nc\n"},
        {"rule", "a<hr>b", "a\n--------------------\nb\n"},
        {"quotes and terms", "<q>a</q><dl><dt>b<dd>c</dl>",
         "\xE2\x80\x9C"
         "a\xE2\x80\x9D\n\nb\n    c\n"},
        {"links",
         "<a href='http://x/y?a&amp;b'>a <b>b</b> </a>c <a href=http://www.Example.com/>example.com</a> <a "
         "href='mailto:a@b?subject=x'>a@b</a>",
         "a b <http://x/y?a&b> c example.com a@b\n"},
        {"links that say nothing", "<a href=javascript:x>a</a><a href=#b>b</a><a href=http://c></a>", "ab\n"},
        {"link around blocks", "<a href=http://x><div>a</div></a>b", "a <http://x>\nb\n"},
        {"pictures", "<img src=x alt='a  b'>c<img src=y><a href=http://z><img alt=d></a>", "[a b]c[d] <http://z>\n"},
        {"hidden",
         "a<div style='display:none'>b<p>c</div><span hidden>d</span><p "
         "style='visibility:hidden'>e</p><style>.p{display:none}#i{max-height:0}</style><div class='o p'>f</div><div "
         "id=i>g</div>h",
         "ah\n"},
        {"hidden on small screens only", "<style>@media (max-width:9px){.p{display:none}}</style><p class=p>a", "a\n"},
        {"shown again", "<style>.p{display:none}.p{display:block}</style><p class=p>a", "a\n"},
        {"scripts and titles", "<title>a</title><script>b</script>c", "c\n"},
        {"controls",
         "a\x01"
         "b\x7F"
         "c",
         "abc\n"},
        {"nothing", "<p></p>", "\n"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(textOf(c.source), c.expected) << c.what;
        EXPECT_EQ(complaintAboutText(textOf(c.source)), "") << c.what;
    }
}

TEST(PlainText, IsBoundedInSize) {
    const Case cases[] = {
        {"quotations", repeated("<blockquote>", 1000) + repeated("x<br>", 10'000), ""},
        {"lists", repeated("<ul><li>", 1000) + repeated("x<br>", 10'000), ""},
        {"links", "<a href=http://" + std::string(1000, 'x') + ">" + repeated("<p>x", 10'000), ""},
        {"cells", repeated("<table><tr>", 100) + repeated("<td>", 10'000) + "x", ""},
    };
    for (const Case& c : cases) {
        EXPECT_LT(textOf(c.source).size(), 20 * c.source.size()) << c.what;
    }
}

TEST(Conversions, RefuseOtherFormats) {
    EXPECT_THROW(safeHtmlPage({1, "x", std::nullopt}, "t"), LoadError);
    EXPECT_THROW(plainText({1, "x", std::nullopt}), LoadError);
    EXPECT_THROW(plainText({ternkit::kFormatRtf, "x", std::nullopt}), LoadError);
}

// ---- RTF

/// Attends to an office as the program does while a job runs.
class AttendedOffice {
public:
    AttendedOffice() : m_thread([this] { attend(); }) { useOffice({m_office.gate(), 60s}); }
    ~AttendedOffice() {
        m_done = true;
        m_thread.join();
    }
    AttendedOffice(const AttendedOffice&) = delete;
    AttendedOffice& operator=(const AttendedOffice&) = delete;

private:
    void attend() {
        while (!m_done) {
            pollfd watched{m_office.watched(), POLLIN, 0};
            if (::poll(&watched, 1, 20) == 1) {
                m_office.attend();
            }
        }
        m_office.stop();
    }

    Office m_office;
    std::atomic<bool> m_done = false;
    std::thread m_thread;
};

TEST(Conversions, OfRtf) {
    const AttendedOffice office;
    std::string hex;
    for (const char c : kDot) {
        std::array<char, 3> digits;
        std::snprintf(digits.data(), digits.size(), "%02x", static_cast<unsigned>(static_cast<unsigned char>(c)));
        hex += digits.data();
    }
    const std::string rtf = "{\\rtf1\\ansi {\\b bold} gr\\'fcn <script>{\\pict\\pngblip\\picwgoal300\\pichgoal300 " + hex +
                            "}{\\field{\\*\\fldinst HYPERLINK \"http://example.com/x\"}{\\fldrslt link}}\\par next}";
    const HandedDocument document{ternkit::kFormatRtf, rtf, std::nullopt};
    const std::string page = safeHtmlPage(document, "t");
    EXPECT_EQ(complaintAbout(page), "");
    for (const char* part : {"<b>bold</b>", "gr\xC3\xBCn &lt;script&gt;", "<img src=\"data:image/png;base64,",
                             "href=\"http://example.com/x\"", ">link</a>"}) {
        EXPECT_NE(page.find(part), std::string::npos) << part << " in " << page;
    }
    EXPECT_EQ(plainText(document), "bold gr\xC3\xBCn <script>link\nnext\n");
}

// ---- a real browser

/// A port of this machine that hangs up on whoever calls.
class Listener {
public:
    Listener() : m_socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof(address);
        if (::bind(m_socket, reinterpret_cast<sockaddr*>(&address), size) != 0 || ::listen(m_socket, 64) != 0 ||
            ::getsockname(m_socket, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
            throw std::runtime_error("no port");
        }
        m_port = ntohs(address.sin_port);
        m_thread = std::thread([this] { answer(); });
    }
    ~Listener() {
        ::shutdown(m_socket, SHUT_RDWR);
        m_thread.join();
        ::close(m_socket);
    }
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;
    std::string address() const { return "http://127.0.0.1:" + std::to_string(m_port) + "/"; }
    int calls() const { return m_calls; }

private:
    void answer() {
        for (int caller; (caller = ::accept(m_socket, nullptr, nullptr)) >= 0;) {
            ++m_calls;
            ::close(caller);
        }
    }

    int m_socket;
    int m_port = 0;
    std::atomic<int> m_calls = 0;
    std::thread m_thread;
};

std::string replaced(std::string text, const std::string& from, const std::string& to) {
    for (std::size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
        text.replace(at, from.size(), to);
    }
    return text;
}

/// What a browser makes of a file, with all its scripts allowed.
std::string domInBrowser(const fs::path& browser, const Folder& folder, const std::string& html) {
    const fs::path file = folder.write("page.html", html);
    const std::string command = "HOME='" + folder.path().string() + "' timeout 60 '" + browser.string() +
                                "' --headless --no-sandbox --disable-gpu --virtual-time-budget=2000 --user-data-dir='" +
                                (folder.path() / "profile").string() + "' --dump-dom 'file://" + file.string() + "' 2>/dev/null";
    const std::unique_ptr<FILE, decltype(&pclose)> pipe(popen(command.c_str(), "r"), &pclose);
    std::string result;
    std::array<char, 4096> chunk;
    for (std::size_t got; (got = std::fread(chunk.data(), 1, chunk.size(), pipe.get())) > 0;) {
        result.append(chunk.data(), got);
    }
    return result;
}

TEST(Page, RunsAndAsksNothingInABrowser) {
    const std::optional<fs::path> browser = installedBrowser();
    if (!browser) {
        GTEST_SKIP() << "no browser is installed";
    }
    const Folder folder;
    const Listener listener;
    const auto armed = [&](const std::string& html) {
        return replaced(replaced(html, "http://x/", listener.address()), "attack()", "document.title=`attacked`");
    };
    const auto isQuiet = [&](const std::string& page) {
        const int calls = listener.calls();
        const std::string dom = domInBrowser(*browser, folder, page);
        return listener.calls() == calls && dom.find("<title>Subject</title>") != std::string::npos;
    };
    const std::string frame = pageOf("MARK");
    const std::string bareFrame = replaced(frame, "<meta http-equiv=\"Content-Security-Policy\"", "<meta name=\"none\"");
    const std::string bare = armed("<img src=http://x/><img src=y onerror=attack()><script>attack()</script>");
    EXPECT_FALSE(isQuiet(replaced(bareFrame, "MARK", bare)));  // or seeing nothing would mean nothing
    EXPECT_TRUE(isQuiet(replaced(frame, "MARK", bare)));       // the policy alone

    // The conversion alone, for all attacks in one document, and for each as a document of its own.
    std::string all;
    std::string each;
    for (const Case& attack : kAttacks) {
        all += "<div>" + attack.source + "</div>";
        const std::string page = pageOf(armed(attack.source));
        each += page.substr(page.find("</title>") + 8);
    }
    EXPECT_TRUE(isQuiet(replaced(pageOf(armed(all)), "<meta http-equiv=\"Content-Security-Policy\"", "<meta name=\"none\"")));
    EXPECT_TRUE(isQuiet(replaced(bareFrame, "MARK", each)));
}

}  // namespace
