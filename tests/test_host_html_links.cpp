// Links of documents in PDFs, and what documents ask of a layout engine.

#include <gtest/gtest.h>
#include <poppler.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "loaders/html_addresses.h"
#include "loaders/html_demands.h"
#include "loaders/html_guard.h"
#include "test_host_html.h"

namespace {

using namespace html_test;
using ternview::guardHtml;
using ternview::HtmlDemands;
using ternview::htmlDemands;
using ternview::linkTarget;

struct Link {
    int page;  // 0-based
    std::string target;
    double x;  // from the upper left corner of the page
    double y;
    double width;
    double height;
};

/// The links of a document's PDF, from above down.
std::vector<Link> linksOf(LaidOutDocument& document) {
    const Folder folder;
    const std::string file = folder.path() / "document.pdf";
    writePdf(document, file);
    std::vector<Link> links;
    const auto release = [](gpointer object) { g_object_unref(object); };
    const std::unique_ptr<PopplerDocument, decltype(release)> pdf(
        poppler_document_new_from_file(("file://" + file).c_str(), nullptr, nullptr), release);
    for (int i = 0; pdf && i < poppler_document_get_n_pages(pdf.get()); ++i) {
        const std::unique_ptr<PopplerPage, decltype(release)> page(poppler_document_get_page(pdf.get(), i), release);
        GList* mappings = poppler_page_get_link_mapping(page.get());
        for (GList* entry = mappings; entry != nullptr; entry = entry->next) {
            const auto* mapping = static_cast<PopplerLinkMapping*>(entry->data);
            if (mapping->action->type == POPPLER_ACTION_URI) {
                const PopplerRectangle& area = mapping->area;
                links.push_back(
                    {i, mapping->action->uri.uri, area.x1, kPaper.height - area.y2, area.x2 - area.x1, area.y2 - area.y1});
            }
        }
        poppler_page_free_link_mapping(mappings);
    }
    std::ranges::sort(links, [](const Link& a, const Link& b) {
        return std::tuple(a.page, std::lround(a.y), a.x) < std::tuple(b.page, std::lround(b.y), b.x);
    });
    return links;
}

std::vector<Link> linksOf(std::string_view html) {
    return linksOf(*layOutHtml(html, {}, kPaper));
}

std::string targetsOf(std::string_view html) {
    std::string result;
    for (const Link& link : linksOf(html)) {
        result += link.target + "\n";
    }
    return result;
}

TEST(HtmlLinks, LeadToTheWebAndToMailOnly) {
    struct Case {
        const char* address;
        const char* target;  // empty: none
    };
    for (const Case& c : {
             Case{"http://example.org/a?b=1&amp;c=2#d", "http://example.org/a?b=1&c=2#d"},
             Case{"HTTPS://Example.org/", "HTTPS://Example.org/"},
             Case{"mailto:a@example.org?subject=Hi%20there", "mailto:a@example.org?subject=Hi%20there"},
             Case{"  http://example.org/\n  ", "http://example.org/"},
             Case{"http://exam\nple.org/x", "http://example.org/x"},
             Case{"http://example.org/(a)\\b", "http://example.org/%28a%29%5Cb"},
             Case{"http://example.org/a b&lt;c&gt;", "http://example.org/a%20b%3Cc%3E"},
             Case{"http://example.org/&#39; rect=[0 0 9 9] uri=&#39;http://evil/",
                  "http://example.org/%27%20rect=[0%200%209%209]%20uri=%27http://evil/"},
             Case{"http://example.org/\xC3\xA4", "http://example.org/%C3%A4"},
             Case{"javascript:alert(1)", ""},
             Case{"file:///etc/passwd", ""},
             Case{"data:text/html,x", ""},
             Case{"ftp://example.org/", ""},
             Case{"#top", ""},
             Case{"page.html", ""},
             Case{"//example.org/", ""},
             Case{"http:", ""},
             Case{"", ""},
         }) {
        const std::string expected = *c.target == '\0' ? std::string() : c.target + std::string("\n");
        EXPECT_EQ(targetsOf("<a href=\"" + std::string(c.address) + "\">text</a>"), expected) << c.address;
    }
    EXPECT_EQ(targetsOf("<a href='http://example.org/" + std::string(10000, 'a') + "'>x</a>"), "");
    EXPECT_EQ(targetsOf("<a name=x>no</a> <a href=http://a.example/>one<a href=http://b.example/>two</a>"),
              "http://a.example/\nhttp://b.example/\n");
}

TEST(HtmlLinks, CoverWhatBelongsToThem) {
    const std::string start = "<a href='http://example.org/' style='color:#ff0000;font-size:30px;text-decoration:none'>";
    struct Case {
        const char* name;
        std::string html;
        std::size_t areas;
    };
    const std::string image = "<img width=100 height=50 src=\"data:image/png;base64," + base64(png(100, 50, kRed)) + "\">";
    for (const Case& c : {
             Case{"words", "<p>before " + start + "one two three</a> behind", 1},
             Case{"words in all styles", "<p>" + start + "one <i>two</i> three</a> behind", 1},
             Case{"lines", "<p style='width:200px'>" + start + "one two three four five six seven</a>", 3},
             Case{"picture", start + image + "</a>", 1},
             Case{"button",
                  "<a href='http://example.org/' style='display:inline-block;background:#ff0000;padding:10px 20px'>Press</a>", 1},
             Case{"words of a block", start + "<div>text</div></a>", 1},
             Case{"words of a table", "<!DOCTYPE html>" + start + "<table><tr><td>text</table></a>", 1},
             Case{"words of a table that starts anew", start + "<table><tr><td style='font-size:30px'>text</table></a>", 1},
         }) {
        const auto document = layOutHtml(c.html, {}, kPaper);
        const Pixels::Extent drawn = Pixels(*document, 0).extent(kRed);
        const std::vector<Link> links = linksOf(*document);
        ASSERT_EQ(links.size(), c.areas) << c.name;
        double left = links[0].x;
        double right = links[0].x + links[0].width;
        for (const Link& link : links) {
            left = std::min(left, link.x);
            right = std::max(right, link.x + link.width);
        }
        const double margin = kPaper.margin;
        const double bottom = links.back().y + links.back().height;
        // Drawn letters reach neither the edges of their boxes nor pixels of the full colour there.
        EXPECT_NEAR(left - margin, drawn.x, 4) << c.name;
        EXPECT_NEAR(right - margin, drawn.x + drawn.width, 5) << c.name;
        EXPECT_LE(links[0].y - margin, drawn.y) << c.name;
        EXPECT_GE(bottom - margin, drawn.y + drawn.height - 1) << c.name;
        EXPECT_LE(bottom - links[0].y, static_cast<double>(c.areas) * 60) << c.name;
    }
}

TEST(HtmlLinks, GoOnBehindPageBreaks) {
    std::string lines;
    for (int i = 0; i < 120; ++i) {
        lines += "line " + std::to_string(i) + "<br>";
    }
    const auto document = layOutHtml("<p>before</p><a href=http://example.org/>" + lines + "</a><p>behind", {}, kPaper);
    ASSERT_EQ(document->pageCount(), 3);
    const std::vector<Link> links = linksOf(*document);
    EXPECT_EQ(links.size(), 120U) << "one for each line";
    std::vector<int> perPage(3);
    for (const Link& link : links) {
        ++perPage[static_cast<std::size_t>(link.page)];
        EXPECT_GE(link.y, kPaper.margin - 1);
        EXPECT_LE(link.y + link.height, kPaper.height - kPaper.margin + 20);
    }
    EXPECT_GT(perPage[0], 40);
    EXPECT_GT(perPage[1], 40);
    EXPECT_GT(perPage[2], 5);
}

TEST(HtmlLinks, ShrinkWithWhatIsTooWide) {
    const std::string html =
        "<table cellpadding=0 cellspacing=0 width=1400><tr><td><a href=http://example.org/ style='color:#ff0000'>left</a>"
        "<td width=100><a href=http://example.org/right><span style='background:#00ff00'>RIGHTMOST</span></a></table>";
    const auto document = layOutHtml(html, {}, kPaper);
    const Pixels::Extent drawn = Pixels(*document, 0).extent(kGreen);
    const std::vector<Link> links = linksOf(*document);
    ASSERT_EQ(links.size(), 2U);
    const Link& right = links[0].target.ends_with("right") ? links[0] : links[1];
    EXPECT_NEAR(right.x - kPaper.margin, drawn.x, 2);
    EXPECT_NEAR(right.width, drawn.width, 3);
    EXPECT_LE(right.x + right.width, kPaper.width - kPaper.margin + 2);
}

TEST(HtmlLinks, AreMany) {
    std::string html;
    for (int i = 0; i < 3000; ++i) {
        html += "<a href=http://example.org/" + std::to_string(i) + ">x</a> ";
    }
    const std::vector<Link> links = linksOf(html);
    EXPECT_EQ(links.size(), 3000U);
}

TEST(HtmlLinks, StandInTextDocumentsToo) {
    const std::string text =
        "See http://example.org/path, or (https://example.org/b).\n"
        "Write to <mailto:a@example.org>!\n"
        "javascript:alert(1) http: nothing\n"
        "http://example.org/" +
        std::string(150, 'w') + "\n";
    const auto document = ternview::layOutText(text, kPaper);
    const std::vector<Link> links = linksOf(*document);
    ASSERT_GE(links.size(), 5U);
    std::vector<std::string> targets;
    for (const Link& link : links) {
        targets.push_back(link.target);
        EXPECT_GE(link.x, kPaper.margin - 1);
        EXPECT_LE(link.x + link.width, kPaper.width - kPaper.margin + 1);
        EXPECT_GT(link.width, 30);
    }
    for (const char* target : {"http://example.org/path", "https://example.org/b", "mailto:a@example.org"}) {
        EXPECT_EQ(std::ranges::count(targets, std::string(target)), 1) << target;
    }
    EXPECT_EQ(std::ranges::count(targets, "http://example.org/" + std::string(150, 'w')),
              static_cast<std::ptrdiff_t>(links.size()) - 3)
        << "one for each line";
    EXPECT_LT(links[3].y + links[3].height, links[4].y + 2);
}

TEST(HtmlTitle, IsOneLineOfText) {
    struct Case {
        const char* html;
        const char* title;
    };
    for (const Case& c : {
             Case{"<title> A &amp; B\r\n <b>c </title><p>x", "A & B <b>c"},
             Case{"<title></title><title>second</title>", "second"},
             Case{"<p>x", ""},
             Case{"<title>never ended", ""},
         }) {
        EXPECT_EQ(layOutHtml(c.html, {}, kPaper)->title(), c.title) << c.html;
    }
}

TEST(HtmlDemands, TellWhatTheEngineLacks) {
    const HtmlDemands none;
    const auto rightToLeft = [] { return HtmlDemands{.rightToLeft = true}; };
    const auto flexLayout = [] { return HtmlDemands{.flexLayout = true}; };
    struct Case {
        std::string html;
        HtmlDemands expected;
    };
    for (const Case& c : {
             Case{"<p>plain <table><tr><td>x</table>", none},
             Case{"<p>\xD7\xA9\xD7\x9C", rightToLeft()},
             Case{"<p>&#1513;&#x644;", rightToLeft()},
             Case{"<meta charset=windows-1255><p>\xF9\xEC\xE5\xED", rightToLeft()},
             Case{"<p dir=RTL>x", rightToLeft()},
             Case{"<html dir=rtl><p>x", rightToLeft()},
             Case{"<p style='direction: rtl'>x", rightToLeft()},
             Case{"<style>p{direction:rtl}</style><p>x", rightToLeft()},
             Case{"<style>.unused{direction:rtl}</style><p>x", none},
             Case{"<p>&#8364; \xE2\x82\xAC \xF0\x9F\x98\x80 \xEF\xBC\x81", none},
             Case{"<div style='display:flex'>x</div>", flexLayout()},
             Case{"<div style='display: inline-grid'>x</div>", flexLayout()},
             Case{"<style>.row{display:-webkit-flex;display:flex}</style><div class=row>x</div>", flexLayout()},
             Case{"<style>.row{display:flex}</style><div class=other>x</div>", none},
             Case{"<style>@media(max-width:600px){.row{display:flex}}</style><div class=row>x</div>", none},
             Case{"<div title='display:flex'>flex grid</div>", none},
             Case{repeated("<table><tr><td>", 12), none},
             Case{repeated("<table><tr><td>", 13), HtmlDemands{.deepTables = true}},
             Case{repeated("<table><tr><td>a<td>", 6) + repeated("word ", 300000), HtmlDemands{.deepTables = true}},
             Case{repeated("<p>x", 100000), HtmlDemands{.overLimits = true}},
         }) {
        const HtmlDemands demands = htmlDemands(c.html);
        const std::string shown = c.html.substr(0, 100);
        EXPECT_EQ(demands.rightToLeft, c.expected.rightToLeft) << shown;
        EXPECT_EQ(demands.flexLayout, c.expected.flexLayout) << shown;
        EXPECT_EQ(demands.deepTables, c.expected.deepTables) << shown;
        EXPECT_EQ(demands.overLimits, c.expected.overLimits) << shown;
        EXPECT_EQ(demands.any(), c.expected.any()) << shown;
    }
}

}  // namespace
