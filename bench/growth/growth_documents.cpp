// HTML and RTF documents whose layout could cost more than their size says.

#include <algorithm>
#include <cstdint>

#include "growth.h"
#include "mime_builder.h"

namespace growth {

namespace {

// ---- pictures

void putBigEndian(std::string& out, std::uint32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8) {
        out += static_cast<char>(value >> shift);
    }
}

std::uint32_t crcOf(std::string_view bytes) {
    std::uint32_t crc = 0xFFFFFFFF;
    for (const char byte : bytes) {
        crc ^= static_cast<unsigned char>(byte);
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc >> 1) ^ ((crc & 1) != 0 ? 0xEDB88320U : 0U);
        }
    }
    return ~crc;
}

/// Zeros as a zlib stream (RFC 1950, RFC 1951): one block with the fixed codes, which repeats the first byte 258 at a time.
class ZlibZeros {
public:
    explicit ZlibZeros(std::uint64_t count) {
        constexpr std::uint32_t kAdlerBase = 65521;
        constexpr std::uint64_t kLongestRepeat = 258;
        put(1, 1);  // the last block
        put(1, 2);  // fixed codes
        putCode(0x30, 8);
        for (--count; count % kLongestRepeat != 0; --count) {
            putCode(0x30, 8);
        }
        for (; count != 0; count -= kLongestRepeat) {
            putCode(0xC5, 8);  // of length 258
            putCode(0, 5);     // at distance 1
            m_zeros += kLongestRepeat;
        }
        putCode(0, 7);
        put(0, (8 - m_bits % 8) % 8);
        putBigEndian(m_stream, static_cast<std::uint32_t>(m_zeros % kAdlerBase) << 16 | 1);
    }

    const std::string& stream() const { return m_stream; }

private:
    void put(std::uint32_t value, std::size_t bits) {
        for (std::size_t bit = 0; bit < bits; ++bit, ++m_bits) {
            if (m_bits % 8 == 0) {
                m_stream += '\0';
            }
            m_stream.back() = static_cast<char>(m_stream.back() | (value >> bit & 1) << m_bits % 8);
        }
    }
    /// Codes stand with their highest bit first.
    void putCode(std::uint32_t code, std::size_t bits) {
        for (std::size_t bit = bits; bit != 0; --bit) {
            put(code >> (bit - 1), 1);
        }
        m_zeros += bits == 8 && code == 0x30 ? 1 : 0;
    }

    std::string m_stream{"\x78\x01"};
    std::size_t m_bits = 0;
    std::uint64_t m_zeros = 0;
};

/// A black picture with a bit for each point.
std::string png(std::uint32_t width, std::uint32_t height) {
    std::string file = "\x89PNG\r\n\x1A\n";
    const auto chunk = [&](std::string_view type, std::string_view data) {
        putBigEndian(file, static_cast<std::uint32_t>(data.size()));
        const std::string content = std::string(type) + std::string(data);
        file += content;
        putBigEndian(file, crcOf(content));
    };
    std::string header;
    putBigEndian(header, width);
    putBigEndian(header, height);
    header += std::string("\x01\0\0\0\0", 5);
    chunk("IHDR", header);
    chunk("IDAT", ZlibZeros(std::uint64_t{height} * ((width + 7) / 8 + 1)).stream());
    chunk("IEND", {});
    return file;
}

std::string dataUri(std::string_view type, std::string_view bytes) {
    std::string base64 = mime::Base64(bytes);
    std::erase_if(base64, [](char c) { return c == '\r' || c == '\n'; });
    return "data:" + std::string(type) + ";base64," + base64;
}

std::string image(std::string_view type, std::string_view bytes) {
    return "<img src=\"" + dataUri(type, bytes) + "\">";
}

/// Each group is drawn twice by the next one.
std::string svgTree() {
    std::string svg =
        "<svg xmlns=\"http://www.w3.org/2000/svg\" xmlns:xlink=\"http://www.w3.org/1999/xlink\"><rect id=\"g0\" "
        "width=\"9\" height=\"9\"/>";
    for (int depth = 1; depth < 40; ++depth) {
        const std::string use = "<use xlink:href=\"#g" + std::to_string(depth - 1) + "\"/>";
        svg += "<g id=\"g" + std::to_string(depth) + "\">" + use + use + "</g>";
    }
    return svg + "</svg>";
}

/// Opened `size` times over, never closed.
Markup open(const std::string& name, const std::string& unit) {
    return {name, [unit](std::size_t size) { return "<html><body>" + repeated(unit, size) + "x"; }};
}

/// An element in each other, with its end tags.
Markup nested(const std::string& name, const std::string& start, const std::string& end) {
    return {name, [=](std::size_t size) {
                const std::size_t depth = size / (start.size() + end.size());
                return "<html><body>" + repeated(start, depth * start.size()) + "x" + repeated(end, depth * end.size()) +
                       "</body></html>";
            }};
}

/// A style sheet in front of elements that its rules may fit; each has half of the size.
Markup styled(const std::string& name, const std::function<std::string(std::size_t)>& rule, const std::string& element) {
    return {name, [=](std::size_t size) {
                return "<html><head><style>" + numbered(size / 2, rule) + "</style></head><body>" + repeated(element, size / 2) +
                       "</body></html>";
            }};
}

std::string numberedRule(std::size_t number) {
    return ".c" + std::to_string(number) + "{color:red}\n";
}

std::function<std::string(std::size_t)> always(const std::string& text) {
    return [text](std::size_t) { return text; };
}

/// Tables in tables, so that each level has two cells with the next one.
std::string tableTree(std::size_t size) {
    std::string html = "x y z";
    while (html.size() < size) {
        html = "<table><tr><td>" + html + "</td><td>" + html + "</td></tr></table>";
    }
    return html;
}

std::vector<Markup> makeHtml() {
    std::vector<Markup> all{
        nested("nested divs", "<div>", "</div>"),
        nested("nested tables", "<table><tr><td>", "</td></tr></table>"),
        nested("nested lists", "<ul><li>", "</li></ul>"),
        nested("nested spans with styles", "<span style=\"font-size:101%;color:red\">", "</span>"),
        nested("nested floats", "<div style=\"float:left\">", "</div>"),
        open("nested floats with text", "<div style=\"float:left\">x "),
        open("nested boxes in floats", "<div style=\"float:left\">x <span style=\"display:inline-block\">y "),
        open("nested tables in floats", "<div style=\"float:left\">x <table style=\"float:left\"><tr><td>y "),
        nested("nested quotes", "<blockquote>", "</blockquote>"),
        nested("nested inline blocks", "<div style=\"display:inline-block;width:99%\">x ", "</div>"),
        nested("nested positioned boxes", "<div style=\"position:absolute;left:1px\">x ", "</div>"),
        open("open formatting", "<b><i><font color=red>x</p><p>"),
        open("misnested formatting", "<b><p>x</b></p><i>"),
        open("open tables", "<table><tr><td>x "),
        open("table rows", "<tr><td>x"),
        open("markup characters", "<"),
        open("open comments", "<!-- "),
        open("open tags", "<a href=\""),
        open("conditional comments", "<!--[if gte mso 9]><![if !vml]>x<![endif]>"),
        open("body near-matches", "<body><bod<head><hea"),
        open("character references", "&amp;&#65;&#x41;&nbsp;&lt;"),
        open("broken references", "&&#&#x&amp"),
        open("references in attributes", "<p class=\"&#97;&amp;&#x41\" style=\"color&#58;red&#59\">x"),
        open("reference marks", "cid:"),
        open("floats", "<div style=\"float:left;width:3px\">x</div>"),
        open("list items", "<li>x"),
        open("rules", "<hr>"),
        open("line breaks", "<br>"),
        open("empty elements", "<p></p><span></span>"),
        open("words", "a "),
        open("East Asian letters", "\xE6\xBC\xA2"),
        open("right-to-left letters", "\xD7\x90\xD7\x91 a "),
        open("combining marks", "a\xCC\x81\xCC\x81\xCC\x81\xCC\x81"),
        open("emoji", "\xF0\x9F\x91\xA8\xE2\x80\x8D\xF0\x9F\x91\xA9 "),
        open("words of many fonts", "\xE0\xA4\x95\xE0\xB8\x81\xE1\x83\x90\xD4\xB1 "),
        open("pictures", "<img src=\"data:image/gif;base64,R0lGODlhAQABAAAAACw=\">"),
        open("huge pictures",
             "<img width=1000000 height=1000000 src=\"data:image/gif;base64,R0lGODlhAQABAIAAAP///wAAACwAAAAAAQABAAAC"
             "AkQBADs=\">"),
        open("huge letters", "<font style=\"font-size:30000px\">x</font> "),
        open("huge boxes", "<div style=\"width:9999999px;height:9999999px;border:99px solid\">x</div>"),
        open("huge margins", "<p style=\"margin:999999px;padding:99999px\">x</p>"),
        open("gradients", "<div style=\"background:linear-gradient(red,blue,red,blue)\">x</div>"),
        open("links", "<a href=\"http://example.org/\">x</a> "),
        open("spans over columns", "<table><tr><td colspan=1000 rowspan=1000>x</td></tr></table>"),
        open("form fields", "<select><option>x<option>y</select><textarea>x</textarea><input>"),
        open("flexible boxes", "<div style=\"display:flex\"><div>x</div></div>"),
        {"picture of many points",
         [](std::size_t size) {
             // A byte of the document is worth some 119 bytes of the picture, each of eight points.
             const auto height = static_cast<std::uint32_t>(size * 118 / (30'000 / 8 + 1));
             return "<html><body>" + image("image/png", png(30'000, height));
         }},
        {"pictures of many points",
         [](std::size_t size) {
             return "<html><body>" + numbered(size, [](std::size_t n) {
                        return image("image/png", png(5000 + static_cast<std::uint32_t>(n) % 1000, 5000));
                    });
         }},
        {"drawings in themselves",
         [](std::size_t size) { return "<html><body>" + repeated(image("image/svg+xml", svgTree()), size); }},
        {"drawing with a huge filter",
         [](std::size_t size) {
             return "<html><body>" + repeated(image("image/svg+xml",
                                                    "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"30000\" height=\"30000\">"
                                                    "<filter id=\"f\"><feGaussianBlur stdDeviation=\"9999\"/></filter>"
                                                    "<rect width=\"29999\" height=\"29999\" filter=\"url(#f)\"/></svg>"),
                                              size);
         }},
        {"levels",
         [](std::size_t size) {
             return "<html><body>" + numbered(size, [](std::size_t n) {
                        return "<p style=\"position:relative;z-index:" + std::to_string(n) + "\">x</p>";
                    });
         }},
        {"cells in styled text",
         [](std::size_t size) {
             return repeated("<span style=\"" + repeated("color:red;", 30'000) + "\">", size / 2) + "<table>" +
                    repeated("<tr><td>", size / 2);
         }},
        {"tables in styled text",
         [](std::size_t size) {
             return repeated("<span style=\"" + repeated("color:red;", 30'000) + "\">", size / 2) +
                    repeated("<table></table>", size / 2);
         }},
        {"words in deep elements with levels",
         [](std::size_t size) {
             std::string levels;
             for (std::string level = "1"; level.size() < 300; level += '0') {
                 levels += "<b style=\"position:relative;z-index:" + level + "\">x</b>";
             }
             return levels + repeated("<div dir=auto>", 75 * 14) + repeated("1 ", size);
         }},
        {"dotted borders of many pages",
         [](std::size_t size) {
             return repeated("<div style=\"border:1px dotted red\">", size / 2) +
                    repeated("<p style=\"height:19000px\">x</p>", size / 2);
         }},
        {"one long word", [](std::size_t size) { return repeated("a", size); }},
        {"one long name", [](std::size_t size) { return "<" + repeated("a", size) + ">x"; }},
        {"one long attribute", [](std::size_t size) { return "<p title=\"" + repeated("a ", size) + "\">x"; }},
        {"many attributes", [](std::size_t size) { return "<p " + repeated("a=b ", size) + ">x"; }},
        {"many different attributes",
         [](std::size_t size) {
             return "<p " + numbered(size, [](std::size_t n) { return "a" + std::to_string(n) + "=b "; }) + ">x";
         }},
        {"many classes",
         [](std::size_t size) {
             return "<p class=\"" + numbered(size, [](std::size_t n) { return "c" + std::to_string(n) + " "; }) + "\">x";
         }},
        {"many declarations", [](std::size_t size) { return "<p style=\"" + repeated("color:red;", size) + "\">x"; }},
        {"one long address",
         [](std::size_t size) { return "<img src=\"data:image/png;base64," + repeated("QUJD", size) + "\">"; }},
        {"one wide table", [](std::size_t size) { return "<table><tr>" + repeated("<td>x</td>", size) + "</tr></table>"; }},
        {"one long table", [](std::size_t size) { return "<table>" + repeated("<tr><td>x</td></tr>", size) + "</table>"; }},
        {"one big table",
         [](std::size_t size) {
             return "<table>" + repeated("<tr>" + repeated("<td>x</td>", 300) + "</tr>", size) + "</table>";
         }},
        {"table with overlapping spans",
         [](std::size_t size) { return "<table>" + repeated("<tr><td rowspan=1000>x<td colspan=99>y", size) + "</table>"; }},
        {"tree of tables", tableTree},
        styled("many rules", numberedRule, "<p class=c1>x</p>"),
        styled("rules for everything", always("*{color:red}"), "<p>x</p>"),
        styled("deep selectors", always("* * * * * p{color:red}"), "<p>x</p>"),
        styled("deep selectors on deep elements", always("div div div div span{color:red}"), "<div>"),
        styled("sibling selectors", always("p ~ p ~ p ~ p{color:red}"), "<p>x</p>"),
        styled("sibling selectors that fail", always(".c ~ p ~ p ~ p{color:red}"), "<p>x</p>"),
        styled("ancestor selectors that fail", always(".c div div div div p{color:red}"), "<div><div><div><p>x</p></div>"),
        styled("attribute selectors", always("[title*=a]{color:red}"), "<p title=bbbbbbbb>x</p>"),
        styled("floats of rules", always("div{float:left;width:3px}"), "<div>x</div>"),
        styled("child selectors", always("p:nth-child(2n+1){color:red}"), "<p>x</p>"),
        styled("child selectors in capitals", always("p:NTH-LAST-CHILD(2n+1){color:red}"), "<p>x</p>"),
        styled("selectors of neighbours", always("p + p + p{color:red}"), "<p>x</p>"),
        styled("selectors of many classes", always(repeated(".a", 200) + ".b{color:red}"),
               "<p class=\"" + repeated("c ", 4000) + "a\">x</p>"),
        styled("gradients of rules", always("p{background:linear-gradient(red,blue" + repeated(",red", 200) + ")}"), "<p>x</p>"),
        styled("backgrounds upon each other",
               always("p{position:absolute;top:0;left:0;width:700px;height:900px;background:linear-gradient(red,blue)}"),
               "<p>x</p>"),
        styled("nested at-rules", always("@media screen{"), "<p>x</p>"),
        styled("open brackets", always("a[({"), "<p>x</p>"),
        styled("imports", always("@import url(a);"), "<p>x</p>"),
        styled("comments", always("/*"), "<p>x</p>"),
        styled("contents of elements", always("p::before{content:\"aaaaaaaaaaaaaaaaaaaaaaaaaaaaaa\"}"), "<p>x</p>"),
    };
    return all;
}

// ---- RTF

Markup rtf(const std::string& name, const std::string& unit) {
    return {name, [unit](std::size_t size) {
                return "{\\rtf1\\ansi\\deff0{\\fonttbl{\\f0\\fswiss Arial;}}\\pard\\plain\\f0 " + repeated(unit, size) + "x}";
            }};
}

std::string hexadecimal(std::string_view bytes) {
    constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (const char byte : bytes) {
        text += kDigits[static_cast<unsigned char>(byte) >> 4];
        text += kDigits[static_cast<unsigned char>(byte) & 15];
    }
    return text;
}

std::vector<Markup> makeRtf() {
    return {
        rtf("words", "word "),
        rtf("paragraphs", "x\\par "),
        rtf("groups", "{"),
        rtf("groups that change the font", "{\\b\\fs40 "),
        rtf("stray ends", "}{"),
        rtf("long word", "a"),
        rtf("hexadecimal letters", "\\'e4"),
        rtf("Unicode letters", "\\u1046?"),
        rtf("indents", "\\pard\\li2000000000\\fi-2000000000 x\\par "),
        rtf("huge letters", "\\fs65534 x\\par "),
        rtf("page breaks", "x\\page "),
        rtf("sections", "x\\sect\\sectd "),
        rtf("huge papers", "\\sect\\sectd\\pgwsxn2000000000\\pghsxn2000000000 x"),
        rtf("columns", "\\sect\\sectd\\cols1000 x"),
        rtf("table rows", "\\trowd\\cellx1000\\cellx2000\\pard\\intbl x\\cell y\\cell\\row "),
        rtf("wide rows", "\\trowd" + repeated("\\cellx100", 9000) + "\\pard\\intbl " + repeated("x\\cell", 6000) + "\\row "),
        rtf("nested tables", "\\pard\\intbl\\itap9 x\\nestcell{\\*\\nesttableprops\\trowd\\cellx1000\\nestrow}"),
        rtf("deeper and deeper tables", "\\pard\\intbl\\itap32000 x\\nestcell "),
        rtf("tabulators", "\\tx100\\tab "),
        rtf("fields", "{\\field{\\*\\fldinst HYPERLINK \"http://example.org\"}{\\fldrslt x}}"),
        rtf("pictures", "{\\pict\\pngblip\\picwgoal32000\\pichgoal32000 89504e470d0a1a0a}"),
        rtf("huge pictures", "{\\pict\\wmetafile8\\picw2000000000\\pich2000000000\\picscalex30000\\picscaley30000 0100}"),
        rtf("footnotes", "x{\\footnote y}"),
        rtf("frames", "\\pard\\pvpg\\phpg\\posx1000\\posy1000\\absw1000 x\\par "),
        rtf("shapes",
            "{\\shp{\\*\\shpinst\\shpleft1\\shptop1\\shpright9000\\shpbottom9000{\\sp{\\sn shapeType}{\\sv 1}}{\\shptxt x}}}"),
        rtf("bookmarks", "{\\*\\bkmkstart a}x{\\*\\bkmkend a}"),
        rtf("binary data", "\\bin1 a"),
        rtf("binary data without end", "{\\pict\\bin2000000000 "),
        rtf("lists", "{\\*\\pn\\pnlvlbody\\pndec}x\\par "),
        rtf("style sheets", "{\\stylesheet{\\s1\\sbasedon1 a;}}x\\s1\\par "),
        rtf("colours", "{\\colortbl;\\red1\\green2\\blue3;}\\cf1 x"),
        rtf("right-to-left runs", "{\\rtlch x}{\\ltrch y}"),
        {"picture of many points",
         [](std::size_t size) {
             const std::string file = png(30'000, static_cast<std::uint32_t>(size * 78 / (30'000 / 8 + 1)));
             return "{\\rtf1\\ansi{\\fonttbl{\\f0 Arial;}}{\\pict\\pngblip\\picw30000\\pich30000 " + hexadecimal(file) + "}x}";
         }},
        {"many fonts",
         [](std::size_t size) {
             return "{\\rtf1\\ansi\\deff0{\\fonttbl" +
                    numbered(size,
                             [](std::size_t n) {
                                 return "{\\f" + std::to_string(n) + "\\fcharset" + std::to_string(n % 256) + " Font" +
                                        std::to_string(n) + ";}";
                             }) +
                    "}\\pard x}";
         }},
        {"a font for each word",
         [](std::size_t size) {
             return "{\\rtf1\\ansi\\deff0{\\fonttbl" +
                    numbered(size / 2,
                             [](std::size_t n) { return "{\\f" + std::to_string(n) + " Font" + std::to_string(n) + ";}"; }) +
                    "}\\pard " + numbered(size / 2, [](std::size_t n) { return "\\f" + std::to_string(n) + " x "; }) + "}";
         }},
    };
}

}  // namespace

const std::vector<Markup>& htmlDocuments() {
    static const std::vector<Markup> documents = makeHtml();
    return documents;
}

const std::vector<Markup>& rtfDocuments() {
    static const std::vector<Markup> documents = makeRtf();
    return documents;
}

}  // namespace growth
