// What the host does for mail that the filter refuses: the document that comes of it, and what the person is told.

#include <gtest/gtest.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "store_builder.h"
#include "ternview_program.h"

namespace {

using nlohmann::json;

const std::string kPicture = "iVBORw0KGgoAAAANSUhEUgAAAAEAAAABCAIAAACQd1PeAAAADElEQVR4nGP4z8AAAAMBAQDJ/pLvAAAAAElFTkSuQmCC";

std::string withLineFeeds(std::string text) {
    std::erase(text, '\r');
    return text;
}

std::string header(const std::string& subject) {
    return "From: Anna <anna@example.org>\r\nTo: Bob <bob@example.org>\r\nSubject: " + subject + "\r\nMIME-Version: 1.0\r\n";
}

class Repair : public TernviewProgram {};

struct RefusedCase {
    const char* name;
    std::string message;
    std::vector<std::string> shown;   // in the document
    std::vector<std::string> hidden;  // not in the document
    const char* note;
};

constexpr char kCorrectedNote[] = "a corrected copy of it is shown";
constexpr char kAllNote[] = "or wrong characters; a corrected copy is shown";
constexpr char kNoTextNote[] = "the message has no text; its header lines are shown";

std::vector<RefusedCase> refusedMessages() {
    const std::string alternative =
        header("Lunch") +
        "Content-Type: multipart/alternative; boundary=\"b\"\r\n\r\n--b\r\nContent-Type: text/plain\r\n\r\nplain noon\r\n"
        "--b\r\nContent-Type: text/html; charset=utf-8\r\n\r\n<p>rich noon</p>\r\n--b--\r\n";
    return {
        {"bare line feeds",
         withLineFeeds(alternative),
         {"Lunch", "anna@example.org", "<p>rich noon</p>"},
         {"plain noon"},
         kCorrectedNote},
        {"no Content-Type",
         "From: Anna <anna@example.org>\r\nSubject: Lunch\r\n\r\nSee you.\r\n",
         {"Lunch", "See you."},
         {},
         kCorrectedNote},
        {"unquoted boundary",
         header("Lunch") +
             "Content-Type: multipart/mixed; boundary=b; x=y\r\n\r\n--b\r\nContent-Type: text/plain\r\n\r\nSee you.\r\n--b--\r\n",
         {"See you."},
         {},
         kCorrectedNote},
        {"empty attachment",
         header("Lunch") +
             "Content-Type: multipart/mixed; boundary=\"b\"\r\n\r\n--b\r\nContent-Type: text/plain\r\n\r\nSee you.\r\n--b\r\n"
             "Content-Type: application/pdf; name=\"x.pdf\"\r\nContent-Transfer-Encoding: base64\r\n\r\n\r\n--b--\r\n",
         {"See you."},
         {},
         kCorrectedNote},
        {"report",
         header("Failed") +
             "Content-Type: multipart/report; boundary=\"b\"\r\n\r\n--b\r\nContent-Type: message/delivery-status\r\n\r\n"
             "Reporting-MTA: dns; example.org\r\n\r\nFinal-Recipient: rfc822; bob@example.org\r\n\r\n--b--\r\n",
         {"Failed", "Final-Recipient: rfc822; bob@example.org"},
         {},
         kCorrectedNote},
        {"attached message only",
         header("Forward") +
             "Content-Type: multipart/mixed; boundary=\"b\"\r\n\r\n--b\r\nContent-Type: message/rfc822\r\n\r\n"
             "From: Carl <carl@example.org>\r\nSubject: Inner\r\nContent-Type: text/plain\r\n\r\ninner text\r\n--b--\r\n",
         {"Forward", "inner text"},
         {},
         kCorrectedNote},
        {"no text at all",
         header("Picture") + "Content-Type: multipart/mixed; boundary=\"b\"\r\n\r\n--b\r\nContent-Type: application/pdf\r\n"
                             "Content-Transfer-Encoding: base64\r\n\r\nJVBERi0=\r\n--b--\r\n",
         {"Picture", "anna@example.org", "(This message has no text.)"},
         {},
         kNoTextNote},
        {"several texts, and a charset",
         withLineFeeds(
             header("Both") +
             "Content-Type: multipart/mixed; boundary=\"b\"\r\n\r\n--b\r\nContent-Type: text/plain; charset=windows-1251\r\n\r\n"
             "\xCF\xF0\xE8\xE2\xE5\xF2 <1>\r\n--b\r\nContent-Type: text/html\r\n\r\n"
             "<meta charset=\"iso-8859-2\"><p>za\xBF\xF3\xB3\xE6</p>\r\n--b--\r\n"),
         {"Привет &lt;1&gt;", "<meta charset=\"utf-8\">", "<p>zażółć</p>"},
         {"iso-8859-2"},
         kCorrectedNote},
        {"a boundary that no part has",
         header("Lunch") +
             "Content-Type: multipart/mixed; boundary=\"x\"\r\n\r\n--'b'\r\nContent-Type: text/plain\r\n\r\nSee you.\r\n",
         {"See you."},
         {"text/plain"},
         kCorrectedNote},
        {"no Content-Type worth the name",
         header("Lunch") + "Content-Type: text\r\nContent-Transfer-Encoding: base64\r\n\r\nU2VlIHlvdS4=\r\n",
         {"See you."},
         {},
         kCorrectedNote},
        {"no blank line behind the header block",
         header("Lunch") + "See you at noon.\r\nBring: cake\r\n",
         {"See you at noon.", "Bring: cake"},
         {"(This"},
         kCorrectedNote},
        {"a subject like a field about content",
         "From: Anna <anna@example.org>\nSubject: boundary=x; charset=koi8-r; Content-Type: none\n\nGrüße.\n",
         {"Subject:\tboundary=x; charset=koi8-r; Content-Type: none", "Grüße."},
         {},
         kCorrectedNote},
        {"a start tag of the body without end",
         header("Open") + "Content-Type: text/html\r\n\r\n<p>first</p><body\r\n",
         {"<p>first</p>"},
         {},
         kCorrectedNote},
        {"a subject of several encoded words",
         "From: Anna <anna@example.org>\nSubject: =?utf-8?Q?Gr=C3=BC?=\n =?utf-8?B?w59l?= an =?utf-8?Q?alle?=\n =?a?\n\nHallo.\n",
         {"Grüße an alle =?a?\r\n"},
         {},
         kCorrectedNote},
        {"no field that is shown", "Received: from a by b\n\nSee you.\n", {"See you."}, {"Received"}, kCorrectedNote},
        {"eight-bit header field",
         "From: J\xC3\xBCrgen <j@example.org>\nSubject: =?utf-8?Q?Gr=C3=BC=C3=9Fe?= an\n alle\n\nHallo.\n",
         {"Jürgen <j@example.org>", "Grüße an alle", "Hallo."},
         {},
         kCorrectedNote},
    };
}

TEST_F(Repair, RefusedInternetMessagesAreShown) {
    for (const RefusedCase& refused : refusedMessages()) {
        SCOPED_TRACE(refused.name);
        write("mail.eml", refused.message);
        const Outcome strict = run("document mail.eml --strict");
        EXPECT_EQ(strict.exitCode, 1) << "the filter reads it, so the case proves nothing";
        EXPECT_EQ(strict.out, "");

        const Outcome outcome = run("document mail.eml");
        EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
        for (const std::string& text : refused.shown) {
            EXPECT_NE(outcome.out.find(text), std::string::npos) << text << " is missing in\n" << outcome.out;
        }
        for (const std::string& text : refused.hidden) {
            EXPECT_EQ(outcome.out.find(text), std::string::npos) << text << " stands in\n" << outcome.out;
        }
        EXPECT_NE(outcome.err.find(refused.note), std::string::npos) << outcome.err;
        EXPECT_EQ(run("document mail.eml --quiet").err, "");
    }
}

TEST_F(Repair, TextThatTheFilterWouldLeaveOutIsShown) {
    const std::string plain = "--b\r\nContent-Type: text/plain\r\n\r\nfirst <1>\r\n";
    const std::string rich = "--b\r\nContent-Type: text/html\r\n\r\n<p>rich</p>\r\n";
    const auto attached = [](const std::string& type) {
        return "--b\r\nContent-Type: text/" + type + "\r\nContent-Disposition: attachment; filename=x\r\n\r\nattached\r\n";
    };
    const auto html = [](const std::string& text) { return "--b\r\nContent-Type: text/html\r\n\r\n" + text + "\r\n"; };
    const auto declared = [](const std::string& charset, const std::string& text) {
        return header("Seven bits") + "Content-Type: text/plain; charset=" + charset + "\r\n\r\n" + text + "\r\n";
    };
    const auto multipart = [](const std::string& kind, const std::string& parts) {
        return header("Parts") + "Content-Type: multipart/" + kind + "; boundary=\"b\"\r\n\r\n" + parts + "--b--\r\n";
    };
    const auto utf16 = [](const std::string& text) {
        std::string bytes = "\xFF\xFE";
        for (const char c : text) {
            bytes += {c, '\0'};
        }
        return bytes;
    };
    std::string returns = multipart("mixed", plain);
    std::erase(returns, '\n');
    const std::string signature = "--b\r\nContent-Type: text/plain\r\n\r\nof the list\r\n";
    const std::vector<RefusedCase> cases{
        {"two plain texts", multipart("mixed", plain + signature), {"first <1>", "of the list"}, {}, kAllNote},
        {"HTML and a plain text", multipart("mixed", rich + signature), {"<p>rich</p>", "of the list"}, {}, kAllNote},
        {"text before an attached one", multipart("mixed", plain + attached("plain")), {"first <1>"}, {"attached"}, kAllNote},
        {"text before attached HTML", multipart("mixed", plain + attached("html")), {"first <1>"}, {"attached"}, kAllNote},
        {"empty HTML",
         multipart("alternative", plain + html("<head><title>x</title><style>p{}</style><!--<p>x--></head><p>&nbsp;</p>")),
         {"first <1>"},
         {"nbsp"},
         kAllNote},
        {"HTML whose head has no end",
         multipart("mixed", html("<html><head><title>x</title><style>p{}</style><body><p>rich</p>") + signature),
         {"<p>rich</p>", "of the list"},
         {},
         kAllNote},
        {"nothing to mend: alternatives, and a head without end",
         multipart("alternative", plain + html("<html><head><style>p{}<body><p>rich</p>")),
         {"<p>rich</p>"},
         {"first"},
         ""},
        {"HTML with a header, which is no head",
         multipart("mixed", html("<body><header><p>rich</p></body>") + signature),
         {"<p>rich</p>", "of the list"},
         {},
         kAllNote},
        {"UTF-7", declared("utf-7", "Hi +ZeVnLIqe-"), {"Hi 日本語"}, {}, kAllNote},
        {"nothing to mend: not UTF-7", declared("utf-7", "1 + 1 +-"), {"1 + 1 +-"}, {}, ""},
        {"ISO-2022-KR", declared("ISO-2022-KR", "\x1B$)C\x0E>H3gGO<<?d\x0F."), {"안녕하세요."}, {}, kAllNote},
        {"HZ", declared("hz-gb-2312", "~{Dc:C~}, a~~b\r\n~{J@=g~}"), {"你好, a~b\n世界"}, {}, kAllNote},
        {"a charset that so few words do not tell",
         header("Short") + "Content-Type: text/plain; charset=euc-kr\r\n\r\n\xBE\xC8\xB3\xE7\xC7\xCF\xBC\xBC\xBF\xE4\r\n",
         {"안녕하세요"},
         {},
         kAllNote},
        {"HTML that declares another charset than its part",
         header("Meta") + "Content-Type: text/html; charset=utf-8\r\n\r\n<meta charset=iso-8859-1><p>Grüße</p>\r\n",
         {"<meta charset=utf-8>", "Grüße"},
         {},
         kAllNote},
        {"nothing to mend: UTF-8 whatever the part declares",
         header("Wrong") + "Content-Type: text/plain; charset=iso-8859-15\r\n\r\nGrüße\r\n",
         {"Grüße"},
         {},
         ""},
        {"byte order mark", "\xEF\xBB\xBF" + multipart("mixed", plain), {"anna@example.org", "first <1>"}, {}, kCorrectedNote},
        {"blank lines in front",
         "\n\n" + withLineFeeds(multipart("mixed", plain)),
         {"anna@example.org", "first <1>"},
         {},
         kCorrectedNote},
        {"UTF-16", utf16(multipart("mixed", plain)), {"anna@example.org", "first <1>"}, {}, kCorrectedNote},
        {"lines that end in CR", returns, {"anna@example.org", "first <1>"}, {}, kCorrectedNote},
        {"nothing to mend: alternatives", multipart("alternative", plain + rich), {"<p>rich</p>"}, {"first"}, ""},
        {"nothing to mend: frames",
         multipart("related; start=\"<r>\"",
                   "--b\r\nContent-Type: text/html\r\n\r\n<p>frame</p>\r\n"
                   "--b\r\nContent-ID: <r>\r\nContent-Type: text/html\r\n\r\n<p>root</p>\r\n"),
         {"<p>root</p>"},
         {"frame"},
         ""},
    };
    for (const RefusedCase& each : cases) {
        SCOPED_TRACE(each.name);
        write("mail.eml", each.message);
        const Outcome strict = run("document mail.eml --strict");
        const Outcome outcome = run("document mail.eml --as-shown");
        EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
        EXPECT_EQ(strict.out == outcome.out, *each.note == '\0');
        if (strict.exitCode == 0) {
            EXPECT_EQ(run("document mail.eml").out, strict.out) << "what the filter reads stays exactly as the filter gives it";
        }
        for (const std::string& text : each.shown) {
            EXPECT_NE(outcome.out.find(text), std::string::npos) << text << " is missing in\n" << outcome.out;
        }
        for (const std::string& text : each.hidden) {
            EXPECT_EQ(outcome.out.find(text), std::string::npos) << text << " stands in\n" << outcome.out;
        }
        EXPECT_EQ(outcome.err.empty(), *each.note == '\0');
        EXPECT_NE(outcome.err.find(each.note), std::string::npos) << outcome.err;
    }
    write("mail.eml", cases[0].message);
    EXPECT_EQ(json::parse(run("list mail.eml --json").out)["helps"], json({"wholeText"}));
    EXPECT_EQ(run("export mail.eml -o out --format txt --quiet").exitCode, 0);
    const auto names = files(work("out"));
    EXPECT_TRUE(std::any_of(names.begin(), names.end(), [this](const std::string& name) {
        return name.ends_with(".txt") && readFile(work("out") / name).find("of the list") != std::string::npos;
    }));
}

TEST_F(Repair, PicturesOfARefusedMessageTravelWithIt) {
    const std::string parts = std::string(
                                  "--b\r\nContent-Type: image/jpeg; name=\"dot\"\r\nContent-Transfer-Encoding: base64\r\n"
                                  "Content-ID: <dot@example.org>\r\n\r\n") +
                              kPicture +
                              "\r\n--b\r\nContent-Type: text/html\r\n\r\n<img src=\"cid:dot@example.org\">\r\n--b--\r\n";
    write("mail.eml", withLineFeeds(header("Dot") + "Content-Type: multipart/related; boundary=b\r\n\r\n" + parts));
    const Outcome outcome = run("document mail.eml --temp-files -o out --json");
    ASSERT_EQ(outcome.exitCode, 0) << outcome.err;
    const json object = json::parse(outcome.out);
    EXPECT_EQ(object["helps"], json({"corrected"}));
    ASSERT_EQ(object["tempFiles"].size(), 2U);
    EXPECT_EQ(readFile(work("out") / object["tempFiles"][1]["name"].get<std::string>()).substr(1, 3), "PNG");
}

TEST_F(Repair, PicturesThatTheHtmlNamesAreShown) {
    const std::string named = "Content-Type: image/png; name=\"dot.png\"\r\nContent-ID: <dot@example.org>\r\n";
    const std::string nameless = "Content-Type: image/png\r\nContent-ID: <dot@example.org>\r\n";
    const struct {
        const char* name;
        std::string fields;
        std::string before;
        std::string value;
        std::string after;
        bool isMended;
    } cases[] = {
        {"no name", nameless, "<img src=", "\"cid:dot@example.org\"", " alt=\"x\">", true},
        {"a name in front of the type", "Content-Disposition: inline; filename=\"dot.png\"\r\n" + nameless,
         "<img src=", "\"cid:dot@example.org\"", ">", true},
        {"an unknown type", "Content-Type: image/x-png; name=\"dot.png\"\r\nContent-ID: <dot@example.org>\r\n",
         "<td background=", "\"cid:dot@example.org\"", ">", true},
        {"no quotes", named, "<img src=", "cid:dot@example.org", " alt=\"x\">", true},
        {"no quotes, as XML", named, "<br>src=cid:dot@example.org<img\r\nSRC=", "cid:dot@example.org", "/>", true},
        {"other quotes", named, "<img src= ", "'CID:dot%40example.org'", ">", true},
        {"a name with blanks", "Content-Type: image/png; name=\"my dot.png\"\r\n", "<img src=", "\"a/my%20dot.png\"", ">", true},
        {"a style sheet", nameless, "<style>p{background:url(", "\"cid:dot@example.org\"", ")}</style>", true},
        {"a name in the text", named, "<img alt=\"dot.png\" src=", "\"dot.png\"", "><p>See dot.png.</p>", true},
        {"nothing to mend: quotes and a name", named, "<img src=", "\"cid:dot@example.org\"", " alt=\"x\">", false},
        {"nothing to mend: another picture", nameless, "<img src=", "\"cid:dash@example.org\"", ">", false},
        {"nothing to mend: an address", nameless, "<a href=\"http://example.org/?src=cid:dot@example.org\" title=", "\"x\"", ">",
         false},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.name);
        const std::string html = "<p class=\"a\">first</p>" + each.before + each.value + each.after + "<p class=\"b\">last</p>";
        write("mail.eml",
              header("Dot") + "Content-Type: multipart/related; boundary=\"b\"\r\n\r\n--b\r\nContent-Type: text/html\r\n\r\n" +
                  html + "\r\n--b\r\n" + each.fields + "Content-Transfer-Encoding: base64\r\n\r\n" + kPicture + "\r\n--b--\r\n");
        const Outcome outcome = run("document mail.eml --as-shown");
        EXPECT_EQ(run("document mail.eml --strict").out == outcome.out, !each.isMended) << outcome.out;
        EXPECT_EQ(outcome.err.empty(), !each.isMended) << outcome.err;
        const std::string before = "<p class=\"a\">first</p>" + each.before + "\"data:image;base64," + kPicture.substr(0, 80);
        if (each.isMended) {
            EXPECT_NE(outcome.out.find(before), std::string::npos) << outcome.out;
            EXPECT_NE(outcome.out.find("\"" + each.after + "<p class=\"b\">last</p>"), std::string::npos) << outcome.out;
        }
    }
}

TEST_F(Repair, WithoutRoomForACopyTheFilterShowsWhatItCan) {
    const std::string large = "From a@example.org Tue Mar  5 09:07:00 2024\r\n" + header("Large") +
                              "Content-Type: multipart/mixed; boundary=\"b\"\r\n\r\n--b\r\nContent-Type: text/plain\r\n\r\n" +
                              std::string(20'000, 'x') + "\r\n--b\r\nContent-Type: text/plain\r\n\r\nlast\r\n--b--\r\n\r\n";
    const std::string limited = R"(sh -c 'ulimit -f 8; exec "$0" "$@"')";
    write("mail.eml", large);
    const Outcome outcome = run("document mail.eml --as-shown", limited);
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
    EXPECT_NE(outcome.out.find("last"), std::string::npos) << outcome.out;
    EXPECT_EQ(json::parse(run("list mail.eml --json", limited).out)["subject"], "Large");

    write("mail.mbox", large + "From b@example.org Tue Mar  5 09:07:00 2024\r\n" + header("Small") +
                           "Content-Type: text/plain\r\n\r\nsmall\r\n");
    const Outcome list = run("list mail.mbox --json", limited);
    const std::size_t second = list.out.find('\n') + 1;
    EXPECT_TRUE(json::parse(list.out.substr(0, second)).contains("error")) << list.out;
    EXPECT_EQ(json::parse(list.out.substr(second))["subject"], "Small");
}

TEST_F(Repair, WhatIsNoMailStaysRefused) {
    write("noise.eml", std::string(4096, '\x01') + "\n\nFrom nowhere 10:20 2024\n");
    write("text.eml", "Just a text.\n\nIt has lines, and nothing of a mail.\n");
    for (const char* name : {"noise.eml", "text.eml"}) {
        const Outcome outcome = run(std::string("info ") + name);
        EXPECT_EQ(outcome.exitCode, 1);
        EXPECT_NE(outcome.err.find("this is no mail"), std::string::npos) << outcome.err;
    }
}

TEST_F(Repair, AStoresPlainTextStandsIn) {
    builder::StoreBuilder store(builder::Layout::Unicode, builder::Encoding::Permutative);
    store.addFolder("Inbox").addMessage({.subject = "Plain", .plainBody = "only plain text"});
    const auto bytes = store.bytes();
    write("mail.pst", {bytes.begin(), bytes.end()});
    EXPECT_EQ(run("info mail.pst --strict").exitCode, 1);
    const Outcome outcome = run("document mail.pst");
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
    EXPECT_EQ(outcome.out, run("document mail.pst --plain-text --strict").out);
    EXPECT_NE(outcome.err.find("its plain text is shown"), std::string::npos) << outcome.err;

    EXPECT_EQ(run("export mail.pst -o out --format txt --quiet").exitCode, 0);
    bool isExported = false;
    for (const std::string& name : files(work("out"))) {
        isExported = isExported || readFile(work("out") / name).find("only plain text") != std::string::npos;
    }
    EXPECT_TRUE(isExported);
}

TEST_F(Repair, AnMboxIsShownMessageByMessage) {
    const std::string first = "From anna@example.org Tue Mar  5 09:07:00 2024\n" + withLineFeeds(header("One")) +
                              "Content-Type: text/plain\n\nfirst\n>From here on\nFrom now on, 10:20 in 2024\n\n";
    const std::string second =
        "From bob@example.org Wed Mar  6 10:00:00 2024\r\n" + header("Two") + "Content-Type: text/plain\r\n\r\nsecond\r\n";
    // A separator line that is beyond doubt needs no blank line in front.
    const std::string third = "From - Wed Mar  6 10:00:01 2024\nSubject: Three\nFrom: c@example.org\n\nthird\n";
    write("mail.mbox", first + second + third);

    const Outcome one = run("document mail.mbox -m 1");
    EXPECT_EQ(one.exitCode, 0) << one.err;
    EXPECT_NE(one.out.find("first\r\nFrom here on\r\nFrom now on, 10:20 in 2024\r\n"), std::string::npos) << one.out;
    EXPECT_EQ(one.out.find("second"), std::string::npos);
    EXPECT_NE(one.err.find("this file holds 3 messages in mbox form; this is message 1."), std::string::npos) << one.err;

    const Outcome three = run("document mail.mbox -m 3 --json -o three.txt");
    EXPECT_NE(readFile(work("three.txt")).find("third"), std::string::npos);
    const json object = json::parse(three.out);
    EXPECT_EQ(object["messageCount"], 3);
    EXPECT_EQ(object["messageIndex"], 2);
    EXPECT_EQ(object["helps"], json({"mbox", "corrected"}));
    EXPECT_NE(run("info mail.mbox -m 9").err.find("there is no message 9; this is message 3 of 3"), std::string::npos);
    EXPECT_NE(run("info mail.mbox -m 2").out.find("2 of 3"), std::string::npos);

    // Listed and exported as a store's messages are.
    const Outcome list = run("list mail.mbox --json");
    EXPECT_EQ(list.exitCode, 0) << list.err;
    std::vector<std::string> subjects;
    for (std::size_t at = 0; at < list.out.size(); at = list.out.find('\n', at) + 1) {
        const json message = json::parse(list.out.substr(at, list.out.find('\n', at) - at));
        EXPECT_EQ(message["count"], 3);
        subjects.push_back(message["subject"]);
    }
    EXPECT_EQ(subjects, (std::vector<std::string>{"One", "Two", "Three"}));
    EXPECT_EQ(run("export mail.mbox -o out --format txt --quiet").exitCode, 0);
    EXPECT_EQ(files(work("out")).size(), 6U);  // three messages, their pictures, the index and the journal
}

TEST_F(Repair, HostileMailStaysWithinBounds) {
    std::string nested = header("Deep");
    for (int depth = 0; depth < 3000; ++depth) {
        const std::string boundary = "b" + std::to_string(depth);
        nested += "Content-Type: multipart/mixed; boundary=" + boundary + "\n\n--" + boundary + "\n";
    }
    std::string metas =
        withLineFeeds(header("Metas")) + "Content-Type: multipart/mixed; boundary=b\n\n--b\nContent-Type: text/html\n\n";
    for (int count = 0; count < 200'000; ++count) {
        metas += "<meta";
    }
    std::string references =
        header("References") +
        "Content-Type: multipart/related; boundary=\"b\"\r\n\r\n--b\r\nContent-Type: image/png\r\nContent-ID: <a%b>\r\n\r\n"
        "\x89PNG\r\n--b\r\nContent-Type: text/html\r\n\r\n";
    for (int count = 0; count < 50'000; ++count) {
        references += "<style><!<title =src=\"cid:a%c src=cid:";
    }
    for (const std::string& message : {nested, metas + "\n--b--\n", references + "\r\n--b--\r\n"}) {
        write("mail.eml", message);
        const Outcome outcome = run("document mail.eml --timeout 30");
        EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
    }
    std::string words = header("Words") + "Content-Type: text/plain\r\nSubject: ";
    for (int count = 0; count < 80'000; ++count) {
        words += "=?utf-8?Q?a";
    }
    write("mail.eml", words + "\r\n\r\nSee you.\r\n");
    EXPECT_EQ(run("list mail.eml --timeout 10").exitCode, 0);
}

}  // namespace
