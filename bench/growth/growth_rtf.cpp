// RTF in the filter: out of its compressed form, into HTML, and under header lines.

#include <array>

#include "fileformats/pst/common/compressedrtf.h"
#include "fileformats/pst/common/rtftohtml.h"
#include "fileformats/pst/common/rtfunicode.h"
#include "growth.h"
#include "rtf_compressor.h"

namespace growth {

namespace {

constexpr std::size_t kLongestReference = 17;
constexpr std::size_t kPreloadSize = 207;
constexpr std::size_t kWindow = 4096;

OwnedBytes owned(std::string_view bytes) {
    OwnedBytes copy;
    if (copy.appendText(bytes.data(), static_cast<std::int64_t>(bytes.size())) == ternkit::kOk) {
        --copy.size;
    }
    return copy;
}

/// References to the byte in front of each: 17 bytes of text for two.
std::string overlapping(std::size_t size) {
    std::string tokens;
    std::size_t at = kPreloadSize;
    while (tokens.size() < size) {
        tokens += '\xFF';
        for (int i = 0; i < 8; ++i) {
            const std::size_t bits = (at - 1) % kWindow << 4 | (kLongestReference - 2);
            tokens += static_cast<char>(bits >> 8);
            tokens += static_cast<char>(bits);
            at += kLongestReference;
        }
    }
    return rtf::FromTokens(static_cast<std::uint32_t>(at - kPreloadSize), tokens);
}

std::string literals(std::size_t size) {
    const std::string tokens = repeated(std::string(1, '\0') + "aaaaaaaa", size);
    return rtf::FromTokens(static_cast<std::uint32_t>(tokens.size()), tokens);
}

std::int64_t expand(const std::string& bytes, const bench::File& /*file*/) {
    MessageRecord record;
    return ExpandStoreRtf(owned(bytes), record);
}

std::int64_t check(const std::string& bytes, const bench::File& /*file*/) {
    return CheckStoreRtf(owned(bytes));
}

std::int64_t convert(const std::string& bytes, const bench::File& /*file*/) {
    OwnedBytes text = owned(bytes);
    ConvertRtfToHtml(text);
    return static_cast<std::int64_t>(text.size);
}

/// The document in front of the NUL, the header value behind it.
std::int64_t escape(const std::string& bytes, const bench::File& /*file*/) {
    const std::size_t end = bytes.find('\0');
    HeaderComposer composer;
    const ternkit::Status status = ParseRtfFonts(composer.fonts, bytes.data(), end);
    return status != ternkit::kOk ? status : EscapeRtfText(composer, bytes.data() + end + 1, bytes.size() - end - 1);
}

std::string fontEntry(std::size_t number) {
    return "{\\f" + std::to_string(number) + "\\fnil\\fcharset" + std::to_string(number % 256) + " F" + std::to_string(number) +
           ";}";
}

std::string wrapped(std::string_view text, std::string_view fonts = "{\\f0 Arial;}") {
    return "{\\rtf1\\ansi\\ansicpg1252\\fromhtml1 \\deff0{\\fonttbl" + std::string(fonts) +
           "}\\uc1\\pard\\plain\\f0 \r\n{\\*\\htmltag19 <html>}" + std::string(text) + "{\\*\\htmltag27 </html>}}";
}

std::string document(std::string_view fonts) {
    return "{\\rtf1\\ansi\\deff0{\\fonttbl" + std::string(fonts) + "}\\pard x}";
}

}  // namespace

void addRtf(Cases& cases) {
    cases.push_back({"rtf/expand overlapping references", "", overlapping, expand});
    cases.push_back({"rtf/check overlapping references", "", overlapping, check});
    cases.push_back({"rtf/expand literals", "", literals, expand});
    cases.push_back({"rtf/expand references to nothing", "",
                     [](std::size_t size) {
                         const std::string tokens = repeated("\xFF\xFF\xFF\x80\x0F\x40\x0F\x20", size);
                         return rtf::FromTokens(0x7FFFFFFF, tokens);
                     },
                     expand});
    const auto add = [&](const std::string& name, const std::string& unit) {
        cases.push_back({"rtf/to HTML " + name, "", [unit](std::size_t size) { return wrapped(repeated(unit, size)); }, convert});
    };
    add("hex runs", "\\'e4\\'e5");
    add("hex in groups", "{\\'e4}");
    add("broken hex", "\\'\\'e\\'z");
    add("Unicode", "\\u1046?\\u-10179?\\u-9000?");
    add("Unicode with long skips", "\\uc20000\\u1046 abc");
    add("groups", "{");
    add("groups with fonts", "{\\f0 a");
    add("stray ends", "}");
    add("tags", "{\\*\\htmltag64 <p>}");
    add("open tags", "{\\*\\htmltag64 <p>");
    add("nearly tags", "{\\*\\htmlta {\\*\\mhtmltag64 <p>}");
    add("hidden text", "\\htmlrtf x\\htmlrtf0 y");
    add("open hidden text", "\\htmlrtf ");
    add("control words", "\\par\\tab\\line\\lquote\\emdash");
    add("long control words", "\\aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa12345678901234567890");
    add("backslashes", "\\");
    add("escapes", "\\{\\}\\\\\\~");
    add("font tables", "{\\fonttbl{\\f1 A;}}");
    add("conditions", "{\\*\\htmltag64 <![if !vml]>}");
    add("open conditions", "{\\*\\htmltag64 <![if }");
    add("divs", "{\\*\\htmltag64 <div>}&nbsp;");
    add("one padded div", "&nbsp;a");
    cases.push_back({"rtf/to HTML many fonts", "",
                     [](std::size_t size) {
                         return wrapped(numbered(size / 2, [](std::size_t n) { return "\\f" + std::to_string(n) + "\\'e4 "; }),
                                        numbered(size / 2, fontEntry));
                     },
                     convert});
    cases.push_back({"rtf/to HTML 100,000 fonts", "",
                     [](std::size_t size) {
                         std::string fonts;
                         for (std::size_t n = 0; n < 100'000; ++n) {
                             fonts += "{\\f" + std::to_string(n) + " A;}";
                         }
                         return wrapped(repeated("\\f99999 \\'e4{\\f1 \\'e5}", size), fonts);
                     },
                     convert});
    cases.push_back(
        {"rtf/to HTML fonts again and again", "",
         [](std::size_t size) { return wrapped(repeated("\\f7777777\\'e4", size / 2), repeated("{\\f1 A;}", size / 2)); },
         convert});
    const auto value = [&](const std::string& name, const std::string& unit) {
        cases.push_back({"rtf/header value " + name, "",
                         [unit](std::size_t size) {
                             return document("{\\f0\\fcharset0 Arial;}") + std::string(1, '\0') + repeated(unit, size);
                         },
                         escape});
    };
    value("ASCII", "a\\{");
    value("Cyrillic", "\xD0\xB6");
    value("no common code page", "\xD0\xB6\xC3\xA9\xE6\xBC\xA2\xD7\x90\xE0\xB8\x81\xE1\x83\x90");
    value("no code page", "\xE1\x83\x90\xD4\xB1");
    value("changing code pages", "\xD0\xB6 a \xC3\xA9 b \xCE\xBB c ");
    value("no UTF-8", "\xFF\xC3");
    cases.push_back({"rtf/header value under many fonts", "",
                     [](std::size_t size) {
                         return document(numbered(size / 2, fontEntry)) + std::string(1, '\0') +
                                repeated("\xD0\xB6 \xCE\xBB \xE1\x83\x90", size / 2);
                     },
                     escape});
    cases.push_back(
        {"rtf/header value under nested font table", "",
         [](std::size_t size) { return document(repeated("{\\f1{\\*\\falt A;}", size)) + std::string(1, '\0') + "\xD0\xB6"; },
         escape});
}

}  // namespace growth
