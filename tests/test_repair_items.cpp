// What the host does for Outlook items whose texts the filter takes for something else, or does not read.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "msg_builder.h"
#include "rtf_compressor.h"
#include "ternview_program.h"

namespace {

using msg::MsgBuilder;
using msg::TextForm;

constexpr std::uint16_t kHtmlBody = 0x1013;
constexpr std::uint16_t kMessageCodePage = 0x3FFD;
constexpr std::uint16_t kInternetCodePage = 0x3FDE;

constexpr char kNote[] = "or wrong characters; a corrected copy is shown";

constexpr char kCyrillic[] = "\xCF\xF0\xE8\xE2\xE5\xF2, \xEC\xE8\xF0";  // in code page 1251
constexpr char kJapanese[] = "\x93\xFA\x96\x7B\x8C\xEA";                // in code page 932

MsgBuilder eightBitItem(const std::string& text) {
    MsgBuilder item(TextForm::EightBit);
    item.text(msg::kSubject, text).text(msg::kSenderName, "Anna").text(msg::kBody, text + "\r\nend");
    return item;
}

std::string richBody() {
    return rtf::Compressed(
        "{\\rtf1\\ansi\\ansicpg1251\\deff0{\\fonttbl{\\f0\\fswiss\\fcharset204 Arial;}}\\uc1\\pard rich\\par}");
}

struct ItemCase {
    const char* name;
    MsgBuilder item;
    std::vector<std::string> shown;
};

class ItemRepair : public TernviewProgram {
protected:
    void expectShown(const ItemCase& one) {
        SCOPED_TRACE(one.name);
        write("item.msg", one.item.bytes());
        const Outcome strict = run("document item.msg --strict");
        const Outcome outcome = run("document item.msg --as-shown");
        EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
        for (const std::string& text : one.shown) {
            EXPECT_NE(outcome.out.find(text), std::string::npos) << text << " is missing in\n" << outcome.out;
            EXPECT_EQ(strict.out.find(text), std::string::npos) << "the filter shows it, so the case proves nothing";
        }
        EXPECT_NE(outcome.err.find(kNote), std::string::npos) << outcome.err;
        EXPECT_EQ(strict.err.find(kNote), std::string::npos) << strict.err;
    }
};

TEST_F(ItemRepair, EightBitTextsAreShownInTheirCodePage) {
    const std::vector<ItemCase> cases{
        {"of the message",
         eightBitItem(kCyrillic).number(kMessageCodePage, 1251).number(kInternetCodePage, 932),
         {"Subject:   \tПривет, мир", "\nПривет, мир\r\nend"}},
        {"of its Internet form", eightBitItem(kJapanese).number(kInternetCodePage, 932), {"Subject:   \t日本語"}},
        {"declared as its standard subset", eightBitItem("caf\xE9 \x80").number(kMessageCodePage, 28591), {"café €"}},
        {"declared as UTF-8, which it is not",
         eightBitItem(std::string(kCyrillic) + " " + kCyrillic).number(kMessageCodePage, 65001),
         {"Привет, мир Привет, мир"}},
        {"found out", eightBitItem(std::string(kCyrillic) + " " + kCyrillic), {"Привет, мир Привет, мир"}},
    };
    for (const ItemCase& one : cases) {
        expectShown(one);
    }

    write("item.msg", eightBitItem(kCyrillic).number(kMessageCodePage, 1251).binary(msg::kRtfCompressed, richBody()).bytes());
    const std::string replacement = "\\u-3 ?";
    EXPECT_NE(run("document item.msg --strict").out.find(replacement), std::string::npos);
    const Outcome rich = run("document item.msg --as-shown");
    EXPECT_TRUE(rich.out.starts_with("{\\rtf1")) << rich.err;
    EXPECT_EQ(rich.out.find(replacement), std::string::npos) << rich.out;
}

TEST_F(ItemRepair, ABodyInHtmlOnlyIsShown) {
    const std::string body = "<p>C:\\dir {1} %</p>";
    const auto html = [&body](const std::string& text) {
        std::string result = body;
        return result.replace(result.find('%'), 1, text);
    };
    const auto item = [] { return MsgBuilder().text(msg::kSubject, "HTML").text(msg::kBody, "plain"); };
    const std::vector<ItemCase> cases{
        {"bytes in the code page of the item",
         item().binary(kHtmlBody, html(kCyrillic)).number(kInternetCodePage, 1251),
         {html("&#1055;&#1088;&#1080;&#1074;&#1077;&#1090;, &#1084;&#1080;&#1088;")}},
        {"bytes that declare their charset",
         item().binary(kHtmlBody, "<meta charset=\"shift_jis\">" + html(kJapanese)).number(kInternetCodePage, 1251),
         {html("&#26085;&#26412;&#35486;")}},
        {"8-bit text that is UTF-8 whatever is declared",
         MsgBuilder(TextForm::EightBit).text(msg::kSubject, "HTML").text(kHtmlBody, html("π")).number(kMessageCodePage, 1252),
         {html("&#960;")}},
        {"style sheets",
         item().text(kHtmlBody, html("<style>p{content:'π •'}</style>•")),
         {"<style>p{content:'\\3c0  \\2022 '}</style>&#8226;"}},
        {"Unicode", item().text(kHtmlBody, html("π 😀")), {html("&#960; &#128512;")}},
    };
    for (const ItemCase& one : cases) {
        expectShown(one);
    }

    const std::string picture = std::string("\x89PNG\r\n\x1A\n") + std::string(5000, 'x');
    MsgBuilder pictured = item();
    pictured.binary(kHtmlBody, "<p><img src=\"cid:one\"></p>");
    for (int number = 0; number < 40; ++number) {
        pictured.attach({.name = "more.png", .contentId = "more", .data = picture});
    }
    pictured.attach({.name = "one.png", .contentId = "one", .data = picture});
    write("item.msg", pictured.bytes());
    const Outcome outcome = run("info item.msg");
    EXPECT_NE(outcome.out.find("one.png"), std::string::npos) << outcome.out << outcome.err;
}

TEST_F(ItemRepair, ADamagedRichBodyGivesWayToAnother) {
    std::string damaged = richBody();
    damaged.back() = static_cast<char>(~damaged.back());
    const auto item = [&damaged] { return MsgBuilder().text(msg::kSubject, "Rich").binary(msg::kRtfCompressed, damaged); };
    const struct {
        const char* name;
        MsgBuilder item;
        const char* shown;
        const char* note;
        const char* help;
    } cases[] = {
        {"HTML", item().text(msg::kBody, "plain").binary(kHtmlBody, "<p>html</p>"), "<p>html</p>",
         "a corrected copy of it is shown", "corrected"},
        {"plain text", item().text(msg::kBody, "plain"), "plain", "its plain text is shown", "plainText"},
        {"nothing", item(), "", "status -9", ""},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.name);
        write("item.msg", each.item.bytes());
        EXPECT_EQ(run("document item.msg --strict").exitCode, 1);
        const bool isShown = *each.shown != '\0';
        for (const char* command : {"document item.msg --as-shown", "document item.msg --plain-text"}) {
            const Outcome outcome = run(command);
            EXPECT_EQ(outcome.exitCode, isShown ? 0 : 1) << outcome.err;
        }
        const Outcome outcome = run("document item.msg --as-shown");
        EXPECT_NE(outcome.out.find(each.shown), std::string::npos) << outcome.out;
        EXPECT_NE(outcome.err.find(each.note), std::string::npos) << outcome.err;
        const std::string list = run("list item.msg --json").out;
        EXPECT_EQ(list.find(std::string("\"helps\":[\"") + each.help) != std::string::npos, isShown) << list;
    }
}

TEST_F(ItemRepair, ItemsThatTheFilterReadsStayAsTheyAre) {
    const std::vector<MsgBuilder> items{
        eightBitItem("plain ASCII").number(kMessageCodePage, 932),
        eightBitItem("in UTF-8: é").number(kMessageCodePage, 65001),
        MsgBuilder().text(msg::kSubject, "Привет").binary(msg::kRtfCompressed, richBody()).binary(kHtmlBody, "<p>other</p>"),
        MsgBuilder().text(msg::kBody, "plain").binary(kHtmlBody, ""),
    };
    for (const MsgBuilder& item : items) {
        write("item.msg", item.bytes());
        const Outcome outcome = run("document item.msg --as-shown");
        EXPECT_EQ(outcome.err, "");
        EXPECT_EQ(outcome.out, run("document item.msg --strict").out);
    }
}

}  // namespace
