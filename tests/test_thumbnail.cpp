// ternview thumbnail: what a file manager asks for.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "msg_builder.h"
#include "rtf_compressor.h"
#include "store_builder.h"
#include "ternview_program.h"

namespace {

using TernviewThumbnail = TernviewProgram;

std::string textMail(const std::string& body) {
    return "From: Anna <anna@example.org>\r\nSubject: Lunch\r\nContent-Type: text/plain; charset=utf-8\r\n\r\n" + body;
}

std::string richAndPlainItem() {
    return msg::MsgBuilder()
        .text(msg::kBody, "Lunch at noon")
        .binary(msg::kRtfCompressed, rtf::Compressed("{\\rtf1\\ansi{\\fonttbl{\\f0 Arial;}}\\pard Lunch at noon\\par}"))
        .bytes();
}

/// Width and height in the header chunk of a PNG; "none" when it is no PNG.
std::string pixels(const std::string& png) {
    if (png.size() < 24 || !png.starts_with("\x89PNG\r\n\x1A\n")) {
        return "none";
    }
    const auto number = [&png](std::size_t offset) {
        std::uint32_t value = 0;
        for (std::size_t i = offset; i < offset + 4; ++i) {
            value = value << 8 | static_cast<unsigned char>(png[i]);
        }
        return std::to_string(value);
    };
    return number(16) + "x" + number(20);
}

TEST_F(TernviewThumbnail, ShowsTheWholeFirstPage) {
    std::string pages;
    for (int i = 0; i < 200; ++i) {
        pages += "a line\r\n";
    }
    write("mail.eml", textMail(pages));
    write("rich.msg", richAndPlainItem());
    struct {
        const char* arguments;
        const char* out;
        const char* size;
    } const cases[] = {
        {"mail.eml page.png 256", "page.png", "181x256"},
        {"mail.eml %d 1", "%d", "1x1"},
        {"rich.msg plain.png 128", "plain.png", "91x128"},  // RTF, which would need an office suite: by its plain text
    };
    for (const auto& [arguments, out, size] : cases) {
        const Outcome outcome = run(std::string("thumbnail ") + arguments, "TERNVIEW_OFFICE=/nowhere");
        EXPECT_EQ(outcome.exitCode, 0) << arguments << outcome.err;
        EXPECT_EQ(outcome.out + outcome.err, "") << arguments;
        EXPECT_EQ(pixels(readFile(work(out))), size) << arguments;
    }
}

TEST_F(TernviewThumbnail, FailureIsOneSentenceWithoutAdvice) {
    builder::StoreBuilder store(builder::Layout::Unicode, builder::Encoding::None);
    const std::string text = rtf::Compressed("{\\rtf1\\ansi{\\fonttbl{\\f0 Arial;}}\\pard Lunch at noon\\par}");
    builder::MessageFields rich;
    rich.rtfCompressed = builder::Bytes(text.begin(), text.end());
    store.addFolder("Inbox").addMessage(rich);
    store.write(work("rich.pst").string());
    write("empty.eml", "");
    struct {
        const char* arguments;
        const char* message;
    } const cases[] = {
        {"rich.pst out.png 128",
         "ternview: rich.pst: the message cannot be shown: its text is RTF, which needs an office suite, and that takes too long "
         "for a small picture.\n"},
        {"empty.eml out.png 128", "ternview: empty.eml: the file is empty.\n"},
        {"missing.eml out.png 128", "ternview: missing.eml: there is no such file.\n"},
    };
    for (const auto& [arguments, message] : cases) {
        const Outcome outcome = run(std::string("thumbnail ") + arguments);
        EXPECT_EQ(outcome.exitCode, 1) << arguments;
        EXPECT_EQ(outcome.err, message);
        EXPECT_FALSE(std::filesystem::exists(work("out.png"))) << arguments;
    }
    for (const char* arguments : {"rich.pst", "rich.pst out.png", "rich.pst out.png 0", "rich.pst out.png 9999"}) {
        EXPECT_EQ(run(std::string("thumbnail ") + arguments).exitCode, 2) << arguments;
    }
}

}  // namespace
