// The host's text loader: which characters a document's bytes stand for, and how they come onto pages.

#include <cairo-pdf.h>
#include <cairo.h>
#include <fontconfig/fontconfig.h>
#include <gtest/gtest.h>
#include <pango/pangocairo.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "loaders/laid_out_document.h"
#include "loaders/text_encoding.h"

namespace {

using namespace std::string_literals;
using ternview::decodeText;
using ternview::LaidOutDocument;
using ternview::layOutText;
using ternview::PageSetup;

// ---- decoding

struct EncodingCase {
    const char* name;
    std::string bytes;
    std::string text;
};

const EncodingCase kEncodings[] = {
    {"Utf8",
     "Gr\xC3\xBC\xC3\x9F"
     "e",
     "Grüße"},
    {"Utf8Mark",
     "\xEF\xBB\xBFGr\xC3\xBC\xC3\x9F"
     "e",
     "Grüße"},
    {"Utf16LittleEndian",
     "\xFF\xFE"
     "G\0r\0\xFC\0=\xD8\0\xDE"s,
     "Grü😀"},
    {"Utf16BigEndian", "\xFE\xFF\0G\0r\0\xFC\xD8=\xDE\0"s, "Grü😀"},
    {"Utf16LoneSurrogateAndOddByte",
     "\xFF\xFE"
     "a\0=\xD8"
     "b\0c"s,
     "a\uFFFD"
     "b\uFFFD"},
    {"Utf16TrailingNuls",
     "\xFF\xFE"
     "a\0\0\0\0\0"s,
     "a"},
    {"SevenBitMark", "+/vFrom:   \tx", "From:   \tx"},
    {"SevenBitMarkOnlyAtTheStart", "a +/v b", "a +/v b"},
    {"TrailingNuls", "a\0\0\0"s, "a"},
    {"ControlCharacters",
     "a\0b\x01"
     "c\x7F"
     "d\te\xC2\x85"
     "f"s,
     "abcd\te\nf"},
    {"LineBreaks", "a\r\nb\rc\nd\fe\n\rf", "a\nb\nc\nd\ne\n\nf"},
    {"Windows1252",
     "\x93Sch\xF6ne Gr\xFC\xDF"
     "e\x94 aus M\xFCnchen, kostet 5 \x80",
     "“Schöne Grüße” aus München, kostet 5 €"},
    {"ShiftJis", "\x82\xB1\x82\xEA\x82\xCD\x93\xFA\x96\x7B\x8C\xEA\x82\xCC\x83\x81\x81\x5B\x83\x8B\x82\xC5\x82\xB7\x81\x42",
     "これは日本語のメールです。"},
    {"Koi8R",
     "\xF0\xD2\xC9\xD7\xC5\xD4, \xCB\xC1\xCB \xC4\xC5\xCC\xC1? \xFC\xD4\xCF \xD0\xC9\xD3\xD8\xCD\xCF \xCE\xC1 "
     "\xD2\xD5\xD3\xD3\xCB\xCF\xCD \xD1\xDA\xD9\xCB\xC5.",
     "Привет, как дела? Это письмо на русском языке."},
    {"Utf8CutWithinACharacter", "Grüße aus Köln, schöne Tage, über München nach Österreich für zwölf \xC3",
     "Grüße aus Köln, schöne Tage, über München nach Österreich für zwölf \uFFFD"},
    {"Utf8SurrogatesAndOverlongForms",
     "\xEF\xBB\xBF"
     "a\xED\xA0\x80"
     "b\xC0\xAF"
     "c",
     "a\uFFFD\uFFFD\uFFFD"
     "b\uFFFD\uFFFD"
     "c"},
    {"Empty", "", ""},
    {"OnlyTheMark", "+/v\0"s, ""},
};

class TextEncoding : public testing::TestWithParam<EncodingCase> {};

TEST_P(TextEncoding, Decodes) {
    EXPECT_EQ(decodeText(GetParam().bytes), GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(All, TextEncoding, testing::ValuesIn(kEncodings),
                         [](const auto& example) { return example.param.name; });

// ---- pages

using Surface = std::unique_ptr<cairo_surface_t, decltype(&cairo_surface_destroy)>;
using Context = std::unique_ptr<cairo_t, decltype(&cairo_destroy)>;

/// The text of each page as a reader of the PDF gets it.
std::vector<std::string> pageTexts(LaidOutDocument& document, const PageSetup& setup = {}) {
    const auto directory = std::filesystem::temp_directory_path();
    std::string path = (directory / "test-host-text-XXXXXX").string();
    const int descriptor = mkstemp(path.data());
    EXPECT_GE(descriptor, 0);
    close(descriptor);
    {
        const Surface surface(cairo_pdf_surface_create(path.c_str(), setup.width, setup.height), &cairo_surface_destroy);
        const Context context(cairo_create(surface.get()), &cairo_destroy);
        for (int page = 0; page < document.pageCount(); ++page) {
            document.drawPage(page, context.get());
            cairo_show_page(context.get());
        }
    }
    const std::string command = "pdftotext -layout " + path + " -";
    const std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), &pclose);
    std::string all;
    std::array<char, 4096> chunk;
    while (const std::size_t got = fread(chunk.data(), 1, chunk.size(), pipe.get())) {
        all.append(chunk.data(), got);
    }
    std::filesystem::remove(path);
    std::vector<std::string> pages;
    std::istringstream stream(all);
    for (std::string page; std::getline(stream, page, '\f');) {
        pages.push_back(page);
    }
    return pages;
}

std::string withoutSpace(std::string text) {
    std::erase_if(text, [](unsigned char c) { return std::isspace(c) != 0; });
    return text;
}

std::string joined(const std::vector<std::string>& pages) {
    std::string all;
    for (const std::string& page : pages) {
        all += page;
    }
    return all;
}

/// True when nothing is drawn outside the margins of the page.
bool marginsAreClean(LaidOutDocument& document, int page, const PageSetup& setup = {}) {
    const int width = static_cast<int>(setup.width);
    const int height = static_cast<int>(setup.height);
    const Surface surface(cairo_image_surface_create(CAIRO_FORMAT_A8, width, height), &cairo_surface_destroy);
    const Context context(cairo_create(surface.get()), &cairo_destroy);
    document.drawPage(page, context.get());
    cairo_surface_flush(surface.get());
    const unsigned char* pixels = cairo_image_surface_get_data(surface.get());
    const int stride = cairo_image_surface_get_stride(surface.get());
    const int margin = static_cast<int>(setup.margin) - 2;  // a glyph may lean out of its box
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const bool inside = x >= margin && x < width - margin && y >= margin && y < height - margin;
            if (!inside && pixels[y * stride + x] != 0) {
                return false;
            }
        }
    }
    return true;
}

TEST(TextPages, BreakBetweenLines) {
    std::string text;
    std::vector<std::string> lines;
    for (int i = 0; i < 200; ++i) {
        lines.push_back("line" + std::to_string(i) + ".");
        text += lines.back() + "\r\n";
    }
    const auto document = layOutText(text, {});
    ASSERT_GT(document->pageCount(), 1);
    for (int page = 0; page < document->pageCount(); ++page) {
        EXPECT_TRUE(marginsAreClean(*document, page)) << page;
    }
    const auto pages = pageTexts(*document);
    ASSERT_EQ(pages.size(), static_cast<std::size_t>(document->pageCount()));
    std::string expected;
    for (const std::string& line : lines) {
        expected += line;
        const auto shows = [&line](const std::string& page) { return page.find(line) != std::string::npos; };
        EXPECT_EQ(std::count_if(pages.begin(), pages.end(), shows), 1) << line;
    }
    EXPECT_EQ(withoutSpace(joined(pages)), expected);
}

TEST(TextPages, LastLineBreakMakesNoPage) {
    const auto once = layOutText("a", {});
    EXPECT_EQ(once->pageCount(), 1);
    std::string full;
    int lines = 0;
    while (layOutText(full + "x", {})->pageCount() == 1) {
        full += "x\n";
        ++lines;
    }
    EXPECT_GT(lines, 30);
    EXPECT_EQ(layOutText(full, {})->pageCount(), 1);
    EXPECT_EQ(layOutText("", {})->pageCount(), 1);
}

TEST(TextPages, LongLinesLoseNothingWhereTheyAreCut) {
    std::string words;
    for (int i = 0; i < 6000; ++i) {
        words += "word" + std::to_string(i) + " ";
    }
    std::string unbroken;
    for (int i = 0; i < 3000; ++i) {
        unbroken += std::to_string(i % 10);
    }
    for (const std::string& text : {words, unbroken, words + "\n" + unbroken}) {
        const auto document = layOutText(text, {});
        EXPECT_EQ(withoutSpace(joined(pageTexts(*document))), withoutSpace(text));
        EXPECT_TRUE(marginsAreClean(*document, 0));
    }
    // Every line but the last is filled, also where the text was cut into pieces.
    std::istringstream lines(joined(pageTexts(*layOutText(unbroken, {}))));
    std::vector<std::size_t> lengths;
    for (std::string line; std::getline(lines, line);) {
        if (!withoutSpace(line).empty()) {
            lengths.push_back(withoutSpace(line).size());
        }
    }
    ASSERT_GT(lengths.size(), 2u);
    lengths.pop_back();
    EXPECT_EQ(std::count(lengths.begin(), lengths.end(), lengths[0]), static_cast<std::ptrdiff_t>(lengths.size()));
}

TEST(TextPages, HeaderValuesLineUp) {
    const auto document = layOutText("+/vFrom:   \tvalue1\r\nSubject:\tvalue2\r\nImportance: value3\r\n\r\na\tvalue4\r\n", {});
    std::istringstream lines(joined(pageTexts(*document)));
    std::vector<std::size_t> columns;
    for (std::string line; std::getline(lines, line);) {
        if (const std::size_t column = line.find("value"); column != std::string::npos) {
            columns.push_back(column);
        }
    }
    ASSERT_EQ(columns.size(), 4u);
    EXPECT_EQ(columns[0], columns[1]);
    EXPECT_EQ(columns[0], columns[2]);
    EXPECT_LT(columns[3], columns[0]) << "the body has its ordinary tab stops";
}

TEST(TextPages, OtherScriptsAreTextInThePdf) {
    const auto document = layOutText("Grüße, Привет, Ελληνικά, Հայերեն", {});
    const std::string text = withoutSpace(joined(pageTexts(*document)));
    for (const char* word : {"Grüße", "Привет", "Ελληνικά", "Հայերեն"}) {
        EXPECT_NE(text.find(word), std::string::npos) << word;
    }
}

TEST(TextPages, MonstersAreCutOffWithANote) {
    std::string lines;
    for (int i = 0; i < 300'000; ++i) {
        lines += "x\n";
    }
    const std::string marks = "a" + [] {
        std::string accents;
        for (int i = 0; i < 100'000; ++i) {
            accents += "\u0301";
        }
        return accents;
    }();
    const auto document = layOutText(lines, {});
    EXPECT_EQ(document->pageCount(), 2000);
    EXPECT_TRUE(marginsAreClean(*document, 1999));
    const auto pages = pageTexts(*document);
    EXPECT_EQ(pages[1998].find("The text goes on"), std::string::npos);
    EXPECT_NE(pages[1999].find("The text goes on"), std::string::npos);
    EXPECT_GE(layOutText(marks, {})->pageCount(), 1);
}

}  // namespace
