// Outlook items through fltInfo, with loaders that only take the bytes. What the body does not name is not read, so the item with
// large attachments should cost what the same one costs without them.

#include <benchmark/benchmark.h>

#include <random>
#include <string>

#include "bench_support.h"
#include "msg_builder.h"
#include "rtf_compressor.h"

namespace {

std::string randomBytes(std::size_t count) {
    std::mt19937 random(20260102);
    std::string bytes(count, '\0');
    for (char& byte : bytes) {
        byte = static_cast<char>(random());
    }
    return bytes;
}

/// An item of about 60 KB: HTML in compressed RTF with two pictures.
msg::MsgBuilder item() {
    std::string html = "<html><head></head><body>";
    while (html.size() < 60'000) {
        html +=
            "<p>The terns came back in April, a week later than in " + std::to_string(html.size()) + ", to the same bar.</p>\n";
    }
    html += "<img src=\"cid:one@example.org\"><img src=\"cid:two@example.org\"></body></html>";
    msg::MsgBuilder built;
    built.text(msg::kSubject, "Terns").text(msg::kSenderName, "Ann").text(msg::kSenderSmtpAddress, "ann@example.org");
    built.text(msg::kDisplayTo, "Bob").time(msg::kClientSubmitTime, 0x01D321C5D1711780);
    built.recipient(msg::RecipientKind::To, "Bob", "bob@example.org");
    built.text(msg::kBody, "The terns came back.").binary(msg::kRtfCompressed, rtf::Compressed(msg::HtmlInRtf(html)));
    for (const std::string name : {"one", "two"}) {
        built.attach({.name = name + ".png", .contentId = name + "@example.org", .data = randomBytes(15'000)});
    }
    return built;
}

msg::MsgBuilder itemWithAttachments(std::size_t count) {
    msg::MsgBuilder built = item();
    for (std::size_t i = 0; i < count; ++i) {
        built.attach({.name = "file" + std::to_string(i) + ".pdf", .mimeTag = "application/pdf", .data = randomBytes(5'000'000)});
    }
    return built;
}

void Item60K(benchmark::State& state) {
    static const bench::File file("item.msg", item().bytes());
    bench::runInfo(state, file, 1);
}
BENCHMARK(Item60K)->Unit(benchmark::kMicrosecond);

void Item20MAttachmentsNotNamed(benchmark::State& state) {
    static const bench::File file("attachments.msg", itemWithAttachments(4).bytes());
    bench::runInfo(state, file, 1);
}
BENCHMARK(Item20MAttachmentsNotNamed)->Unit(benchmark::kMicrosecond);

void Item2000SmallAttachmentsNotNamed(benchmark::State& state) {
    static const bench::File file("many.msg", [] {
        msg::MsgBuilder built = item();
        for (int i = 0; i < 2000; ++i) {
            built.attach({.name = "file" + std::to_string(i) + ".txt", .data = std::string(100, 'x')});
        }
        return built.bytes();
    }());
    bench::runInfo(state, file, 1);
}
BENCHMARK(Item2000SmallAttachmentsNotNamed)->Unit(benchmark::kMicrosecond);

}  // namespace
