// Internet messages through fltInfo, with loaders that only take the bytes.

#include <benchmark/benchmark.h>

#include <random>
#include <string>

#include "bench_support.h"
#include "mime_builder.h"

namespace {

std::string randomBytes(std::size_t count) {
    std::mt19937 random(20260101);
    std::string bytes(count, '\0');
    for (char& byte : bytes) {
        byte = static_cast<char>(random());
    }
    return bytes;
}

std::string paragraphs(std::size_t size) {
    static const std::string kParagraph =
        "<p>The terns came back in April, a week later than the year before, and settled on the bar.</p>\r\n";
    std::string text;
    while (text.size() < size) {
        text += kParagraph;
    }
    return text;
}

std::string plainMessage() {
    return mime::Plain(std::string(1500, 'x') + "\r\n", mime::Encoding::SevenBit).addressed().bytes();
}

std::string htmlMessage() {
    std::string html = "<html><head></head><body>" + paragraphs(100'000);
    std::vector<mime::MimeBuilder> parts;
    for (const std::string name : {"one", "two", "three"}) {
        html += "<img src=\"cid:" + name + "@example.org\">";
        parts.push_back(mime::Picture(name + ".png", randomBytes(25'000), name + "@example.org"));
    }
    parts.insert(parts.begin(), mime::Html(html + "</body></html>", mime::Encoding::QuotedPrintable));
    return mime::Multipart("related", std::move(parts)).addressed().bytes();
}

std::string attachmentMessage() {
    const std::string attachment = randomBytes(6'000'000);
    std::vector<mime::MimeBuilder> parts = {mime::Plain("See the attachments.\r\n")};
    for (const std::string name : {"one", "two", "three"}) {
        parts.push_back(mime::MimeBuilder("application/pdf; name=\"" + name + ".pdf\"", attachment, mime::Encoding::Base64));
    }
    return mime::Multipart("mixed", std::move(parts)).addressed().bytes();
}

std::string japaneseMessage() {
    std::string text;
    while (text.size() < 1'000'000) {
        text += "\x1B$B$3$s$K$A$O!\"@$3&$N$_$J$5$s!#\x1B(B ASCII too.\r\n";
    }
    return mime::Plain(text, mime::Encoding::SevenBit, "iso-2022-jp").addressed().bytes();
}

void PlainMessage2K(benchmark::State& state) {
    static const bench::File file("plain.eml", plainMessage());
    bench::runInfo(state, file, 1);
}
BENCHMARK(PlainMessage2K);

void HtmlMessage200KThreePictures(benchmark::State& state) {
    static const bench::File file("html.eml", htmlMessage());
    bench::runInfo(state, file, 1);
}
BENCHMARK(HtmlMessage200KThreePictures);

void Attachments25M(benchmark::State& state) {
    static const bench::File file("attachments.eml", attachmentMessage());
    bench::runInfo(state, file, 1);
}
BENCHMARK(Attachments25M)->Unit(benchmark::kMillisecond);

void Iso2022Jp1M(benchmark::State& state) {
    static const bench::File file("japanese.eml", japaneseMessage());
    bench::runInfo(state, file, 1);
}
BENCHMARK(Iso2022Jp1M)->Unit(benchmark::kMicrosecond);

}  // namespace
