// Compressed RTF in bytes of its text, and RTF to HTML in bytes of RTF, each per second.

#include <benchmark/benchmark.h>

#include <cstring>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>

#include "fileformats/pst/common/compressedrtf.h"
#include "fileformats/pst/common/rtftohtml.h"
#include "fileformats/pst/common/rtfunicode.h"
#include "rtf_compressor.h"

namespace {

constexpr std::size_t kTextSize = 4'000'000;

/// Words of a natural language's frequencies, so that references are as short and as mixed as in mail.
std::string sentence(std::mt19937& random) {
    static constexpr const char* kWords[] = {"the",   "tern",  "came",   "back",   "in",       "April",     "and",  "settled",
                                             "on",    "a",     "bar",    "of",     "shingle",  "where",     "it",   "had",
                                             "been",  "seen",  "before", "by",     "two",      "observers", "from", "Texel",
                                             "with",  "eggs",  "chicks", "nearly", "fledged",  "weather",   "wind", "tide",
                                             "north", "count", "ringed", "colony", "disturbed"};
    std::string text;
    for (auto words = 6 + random() % 12; words != 0; --words) {
        // The product of two draws favours the words in front.
        const std::size_t draw = (random() % 37) * (random() % 37) / 37;
        text += (text.empty() ? "" : " ") + std::string(kWords[draw]);
        if (random() % 20 == 0) {
            text += " " + std::to_string(random() % 10'000);
        }
    }
    return text + ". ";
}

const std::string& rtfText() {
    static const std::string text = [] {
        std::mt19937 random(1);
        std::string made = "{\\rtf1\\ansi\\ansicpg1252\\deff0{\\fonttbl{\\f0\\fswiss\\fcharset0 Arial;}}\r\n";
        while (made.size() < kTextSize) {
            made += "\\pard\\plain\\f0\\fs20 ";
            for (auto sentences = 1 + random() % 5; sentences != 0; --sentences) {
                made += sentence(random);
            }
            made += "\\par\r\n";
        }
        return made + "}";
    }();
    return text;
}

constexpr std::string_view kWrappedHead =
    "{\\rtf1\\ansi\\ansicpg1251\\fromhtml1 \\fbidis \\deff0{\\fonttbl\r\n{\\f0\\fswiss Arial;}\r\n{\\f1\\fmodern Courier "
    "New;}\r\n{\\f4\\fswiss\\fcharset204 Arial;}}\r\n{\\colortbl\\red0\\green0\\blue0;}\r\n\\uc1\\pard\\plain\\deftab360 "
    "\\f0\\fs24 "
    "\r\n{\\*\\htmltag19 <html>}\r\n{\\*\\htmltag50 <body>}\\htmlrtf \\lang1033 \\htmlrtf0 \r\n";

/// HTML wrapped as mail clients do it, `text` being what stands in a paragraph.
std::string wrappedHtml(std::string (*text)(std::mt19937&)) {
    std::mt19937 random(2);
    std::string made(kWrappedHead);
    while (made.size() < kTextSize) {
        made += "{\\*\\htmltag64 <p class=MsoNormal>}\\htmlrtf {\\htmlrtf0 ";
        made +=
            "{\\*\\htmltag148 <span lang=EN-US style='font-size:10.0pt;font-family:\"Arial\",sans-serif'>}\\htmlrtf {\\f4 "
            "\\htmlrtf0 ";
        made += text(random);
        made +=
            "{\\*\\htmltag156 </span>}\\htmlrtf }\\htmlrtf0 {\\*\\htmltag244 <o:p>}{\\*\\htmltag252 </o:p>}\\htmlrtf\\par}"
            "\\htmlrtf0\r\n{\\*\\htmltag72 </p>}\r\n";
    }
    return made + "{\\*\\htmltag58 </body>}\r\n{\\*\\htmltag27 </html>}}\r\n";
}

/// Cyrillic words of eight letters, each letter an escape.
std::string cyrillic(std::mt19937& random) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (auto letters = 80 + random() % 100; letters != 0; --letters) {
        const unsigned letter = 0xE0 + random() % 32;
        text += std::string("\\'") + kDigits[letter >> 4] + kDigits[letter & 15] + (letters % 8 == 0 ? " " : "");
    }
    return text;
}

OwnedBytes owned(std::string_view bytes) {
    OwnedBytes copy;
    if (copy.appendText(bytes.data(), static_cast<std::int64_t>(bytes.size())) != ternkit::kOk) {
        throw std::runtime_error("no memory");
    }
    --copy.size;
    return copy;
}

void ExpandRtf(benchmark::State& state) {
    const OwnedBytes block = owned(rtf::Compressed(rtfText()));
    for (auto _ : state) {
        MessageRecord record;
        if (ExpandStoreRtf(block, record) != ternkit::kOk || record.body.size != rtfText().size()) {
            state.SkipWithError("the block does not expand");
        }
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * rtfText().size()));
    state.counters["text/block"] = static_cast<double>(rtfText().size()) / static_cast<double>(block.size);
}
BENCHMARK(ExpandRtf);

void CheckRtf(benchmark::State& state) {
    const OwnedBytes block = owned(rtf::Compressed(rtfText()));
    for (auto _ : state) {
        if (CheckStoreRtf(block) != ternkit::kOk) {
            state.SkipWithError("the block does not pass");
        }
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * rtfText().size()));
}
BENCHMARK(CheckRtf);

void convert(benchmark::State& state, const std::string& rtf) {
    for (auto _ : state) {
        state.PauseTiming();
        OwnedBytes text = owned(rtf);
        state.ResumeTiming();
        ConvertRtfToHtml(text);
        if (text.size == 0 || text.data[0] != '<') {
            state.SkipWithError("no HTML came out");
        }
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * rtf.size()));
}

void RtfToHtml(benchmark::State& state) {
    static const std::string rtf = wrappedHtml(sentence);
    convert(state, rtf);
}
BENCHMARK(RtfToHtml);

void RtfToHtmlOfHexRuns(benchmark::State& state) {
    static const std::string rtf = wrappedHtml(cyrillic);
    convert(state, rtf);
}
BENCHMARK(RtfToHtmlOfHexRuns);

/// A header value in Cyrillic of so many characters, into a document whose fonts are Latin.
void EscapeCyrillic(benchmark::State& state) {
    const std::string document = "{\\rtf1\\ansi\\ansicpg1252\\deff0{\\fonttbl{\\f0\\fswiss\\fcharset0 Arial;}}\\pard x\\par}";
    std::string value;
    for (std::int64_t at = 0; at < state.range(0); ++at) {
        value += "\xD0\xB6";
    }
    for (auto _ : state) {
        HeaderComposer composer;
        if (ParseRtfFonts(composer.fonts, document.data(), document.size()) != ternkit::kOk ||
            EscapeRtfText(composer, value.data(), value.size()) != ternkit::kOk) {
            state.SkipWithError("the value was refused");
        }
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(EscapeCyrillic)->Arg(1'000)->Arg(10'000)->Arg(100'000);

}  // namespace
