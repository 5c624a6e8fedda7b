// `ternview list`, run as a person runs it: on files of every kind, on damaged ones, and with readers that go wrong.

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "mime_builder.h"
#include "msg_builder.h"
#include "store_builder.h"
#include "ternview_program.h"

namespace {

namespace fs = std::filesystem;
using builder::MessageFields;
using builder::StoreBuilder;
using nlohmann::json;

constexpr std::uint64_t kFifthOfMarch = 133'541'032'200'000'000;  // 2024-03-05 09:07 UTC in 100 ns since 1601

std::string asString(const builder::Bytes& bytes) {
    return {bytes.begin(), bytes.end()};
}

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::vector<json> objectsOf(const std::string& text) {
    std::vector<json> objects;
    for (const std::string& line : linesOf(text)) {
        objects.push_back(json::parse(line));
    }
    return objects;
}

std::string mail() {
    return mime::Plain("See you at noon.\r\n").addressed().bytes();
}

/// A line without its size, which depends on how the store was written.
std::string withoutSize(const std::string& line) {
    constexpr std::size_t kBehindDate = 21;
    return line.size() < kBehindDate ? line : line.substr(0, kBehindDate) + "...." + line.substr(kBehindDate + 4);
}

class List : public TernviewProgram {
protected:
    Outcome list(const std::string& arguments) const { return run("list " + arguments, "TZ=UTC"); }

    /// With the library that goes wrong as the files' names say.
    Outcome listWrongly(const std::string& arguments, const std::string& prefix = {}) const {
        return run("list " + arguments, "TERNMAIL_BATCH_LIBRARY='" BATCH_STAND_IN "' " + prefix);
    }

    void writeStore(const std::string& name) {
        StoreBuilder store(builder::Layout::Unicode, builder::Encoding::Permutative);
        builder::Folder& inbox = store.addFolder("Inbox");
        inbox.addMessage({.subject = "Lunch",
                          .subjectPrefix = "RE: ",
                          .plainBody = "See you.",
                          .htmlBody = "<html><body>See you.</body></html>",
                          .senderName = "Anna Berg",
                          .to = "Bob; Carl",
                          .cc = "Dora",
                          .bcc = "Emil",
                          .submitTime = kFifthOfMarch});
        inbox.addMessage({.subject = "海辺", .plainBody = "text alone", .senderName = "山田 花子", .submitTime = kFifthOfMarch});
        inbox.addMessage({.subject = "Nothing", .submitTime = {}});
        write(name, asString(store.bytes()));
    }
};

TEST_F(List, TableHasALineForEachMessage) {
    writeStore("mail.pst");
    const Outcome outcome = list("mail.pst");
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
    EXPECT_EQ(outcome.err, "");
    const std::vector<std::string> lines = linesOf(outcome.out);
    ASSERT_EQ(lines.size(), 3u) << outcome.out;
    EXPECT_EQ(withoutSize(lines[0]), "1  2024-03-05 09:07  ....  text+html  Anna Berg                 RE: Lunch");
    EXPECT_EQ(withoutSize(lines[1]), "2  2024-03-05 09:07  ....  text       山田 花子                 海辺");
    EXPECT_EQ(withoutSize(lines[2]),
              "3                    ....  -          Sender                    (the message cannot be shown: its content is "
              "damaged, or "
              "the message has nothing to show (status -9)) Nothing");
}

TEST_F(List, JsonHasAnObjectForEachMessage) {
    writeStore("mail.pst");
    write("mail.eml", mail());
    msg::MsgBuilder item;
    item.text(msg::kBody, "x").text(msg::kSenderName, "Ann").text(msg::kSenderSmtpAddress, "ann@example.org");
    write("mail.msg", item.bytes());
    const std::vector<json> objects = objectsOf(list("mail.pst mail.eml mail.msg --json").out);
    ASSERT_EQ(objects.size(), 5u);
    json first = objects[0];
    EXPECT_GT(first["size"], 0);
    first.erase("size");
    EXPECT_EQ(first, json::parse(R"({"file": "mail.pst", "number": 1, "count": 3, "sent": "2024-03-05T09:07:00Z",
        "date": "Tue Mar 05, 2024 09:07 AM", "subject": "RE: Lunch", "from": "Anna Berg", "fromAddress": "",
        "to": "Bob; Carl", "cc": "Dora", "bcc": "Emil", "bodies": ["text", "html"], "sourceFormat": 385, "status": 1, "helps": []})"));
    EXPECT_EQ(objects[1]["helps"], json::array({"plainText"}));
    EXPECT_FALSE(objects[1].contains("error"));
    EXPECT_EQ(objects[2]["status"], -9);
    EXPECT_EQ(objects[2]["sent"], json());
    EXPECT_EQ(objects[2]["bodies"], json::array());
    EXPECT_NE(std::string(objects[2]["error"]).find("nothing to show"), std::string::npos);
    EXPECT_EQ(objects[3], json::parse(R"({"file": "mail.eml", "number": 1, "count": 1, "sent": "2026-02-02T09:00:00Z",
        "date": "Mon, 2 Feb 2026 10:00:00 +0100", "subject": "Greetings", "from": "Ann <ann@example.org>", "fromAddress": "",
        "to": "bob@example.org", "cc": "", "bcc": "", "bodies": ["text"], "size": )" +
                                      std::to_string(mail().size()) + R"(, "sourceFormat": 387, "status": 1, "helps": []})"));
    EXPECT_EQ(objects[4]["fromAddress"], "ann@example.org");
}

TEST_F(List, DirectoriesAreSearchedInOrder) {
    write("box/b.EML", mail());
    write("box/a/deep.eml", mail());
    write("box/c.msg", msg::MsgBuilder().text(msg::kSubject, "Item").text(msg::kBody, "text").bytes());
    write("box/notes.txt", mail());
    write("box/cur/nomaildir", mail());
    write("box/maildir/cur/1.host:2,S", mail());
    write("box/maildir/new/2.host", mail());
    write("box/maildir/new/.hidden", mail());
    write("box/maildir/tmp/3.host.eml", mail());
    write("box/maildir/.Sent/cur/4.host:2,", mail());
    fs::create_directory(work("box/maildir/.Sent/new"));
    write("outside/x.eml", mail());
    fs::create_symlink("../outside", work("box/link"));
    fs::create_symlink("../outside/x.eml", work("box/link.eml"));
    fs::create_symlink("..", work("box/circle"));
    std::vector<std::string> headings;
    const Outcome outcome = list("box outside/x.eml box/notes.txt");
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
    for (const std::string& line : linesOf(outcome.out)) {
        if (line.ends_with(':')) {
            headings.push_back(line.substr(0, line.size() - 1));
        }
    }
    EXPECT_EQ(headings, (std::vector<std::string>{"box/a/deep.eml", "box/b.EML", "box/c.msg", "box/maildir/.Sent/cur/4.host:2,",
                                                  "box/maildir/cur/1.host:2,S", "box/maildir/new/2.host", "outside/x.eml",
                                                  "box/notes.txt"}));
    EXPECT_EQ(linesOf(outcome.out).size(), 2 * headings.size());
}

TEST_F(List, StoreAmongFilesTellsItsCount) {
    writeStore("mail.pst");
    write("mail.eml", mail());
    const std::vector<std::string> lines = linesOf(list("mail.eml mail.pst").out);
    ASSERT_EQ(lines.size(), 6u);
    EXPECT_EQ(lines[0], "mail.eml:");
    EXPECT_EQ(lines[2], "mail.pst (3 messages):");
}

TEST_F(List, WhatCannotBeReadIsToldAndTheRestListed) {
    write("good.eml", mail());
    write("empty.eml", "");
    write("noise.eml", std::string(5000, '\x01'));
    write("picture.eml", "From: a@example.org\r\nSubject: Sea\r\nContent-Type: image/png\r\n\r\nabc\r\n");
    builder::LayoutOptions withoutMaps;
    withoutMaps.allocationMaps = builder::AllocationMaps::None;
    const std::string store = asString(StoreBuilder(withoutMaps).bytes());
    write("none.pst", store);
    write("half.pst", store.substr(0, store.size() / 2));
    fs::create_directory(work("void"));
    struct {
        const char* file;
        int exitCode;
        const char* out;  // words of the line
        const char* err;
    } const cases[] = {
        {"missing.eml", 1, "", "missing.eml: there is no such file"},
        {"/dev/null", 1, "", "a device or a pipe"},
        {"void", 1, "", "no mail file in this directory"},
        {"empty.eml", 1, "", "empty.eml: the file is empty"},
        {"half.pst", 1, "", "half.pst: the message cannot be shown: its content is damaged"},
        {"noise.eml", 1, "1  (this is no mail", ""},
        {"picture.eml", 0, "-          a@example.org             Sea", ""},
        {"picture.eml --strict", 0, "(the message has no text to show) Sea", ""},
        {"none.pst", 0, "", "none.pst: the store holds no message"},
    };
    for (const auto& [file, exitCode, out, err] : cases) {
        const Outcome outcome = list(std::string(file) + " good.eml");
        EXPECT_EQ(outcome.exitCode, exitCode) << file;
        EXPECT_NE(outcome.out.find("good.eml:\n1  2026-02-02 09:00"), std::string::npos) << file << outcome.out;
        EXPECT_NE(outcome.out.find(out), std::string::npos) << file << outcome.out;
        EXPECT_NE(outcome.err.find(err), std::string::npos) << file << outcome.err;
        EXPECT_EQ(outcome.err.empty(), std::string(err).empty()) << file << outcome.err;
        EXPECT_LE(linesOf(outcome.err).size(), 1u) << outcome.err;
    }
    const std::vector<json> objects = objectsOf(list("missing.eml good.eml --json").out);
    ASSERT_EQ(objects.size(), 2u);
    EXPECT_EQ(objects[0]["file"], "missing.eml");
    EXPECT_NE(std::string(objects[0]["error"]).find("no such file"), std::string::npos);
}

TEST_F(List, MailAsThisPlatformHasItIsListed) {
    std::string unixMail =
        mime::Multipart("alternative", {mime::Plain("Noon.\r\n"), mime::Html("<p>Noon.</p>\r\n")}).addressed().bytes();
    unixMail.erase(std::remove(unixMail.begin(), unixMail.end(), '\r'), unixMail.end());
    write("unix.eml", unixMail);
    write("box", "From ann@example.org Mon Feb  2 10:00:00 2026\n" + unixMail +
                     "\nFrom bob@example.org Mon Feb  2 11:00:00 2026\n" + unixMail + "\n");
    const std::vector<json> objects = objectsOf(list("unix.eml box --json").out);
    ASSERT_EQ(objects.size(), 3u);
    for (std::size_t i = 0; i < objects.size(); ++i) {
        EXPECT_EQ(objects[i]["subject"], "Greetings");
        EXPECT_EQ(objects[i]["sent"], "2026-02-02T09:00:00Z");
        EXPECT_EQ(objects[i]["bodies"], json::array({"html"}));
        EXPECT_EQ(objects[i]["number"], i == 0 ? 1 : i);
        EXPECT_EQ(objects[i]["count"], i == 0 ? 1 : 2);
    }
    EXPECT_EQ(objects[0]["size"], unixMail.size());
    EXPECT_EQ(objects[0]["helps"], json::array({"corrected"}));
    EXPECT_EQ(objects[2]["helps"].at(0), "mbox");
    const Outcome strict = list("unix.eml --strict");
    EXPECT_EQ(strict.exitCode, 1);
    EXPECT_NE(strict.out.find("end in LF alone"), std::string::npos) << strict.out;
}

TEST_F(List, TableIsCutToTheTerminal) {
    writeStore("mail.pst");
    const Outcome outcome = runCommand("script -qec \"stty cols 60; '" TERNVIEW_PROGRAM "' list mail.pst\" /dev/null > ../out");
    const std::vector<std::string> lines = linesOf(outcome.out);
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_TRUE(lines[0].ends_with("text+html  Anna Be…  RE: Lunch\r")) << lines[0];
    EXPECT_TRUE(lines[2].ends_with("Sender    (the messag…\r")) << lines[2];
}

TEST_F(List, DamagedFolderIsARunOfMessages) {
    StoreBuilder store(builder::Layout::Unicode, builder::Encoding::None);
    for (const char* name : {"A", "B", "C"}) {
        for (int i = 0; i < 3; ++i) {
            store.addFolder(name).addMessage({.subject = name, .htmlBody = "<html></html>"});
        }
    }
    builder::Folder& broken = store.addFolder("Broken");
    for (int i = 0; i < 4; ++i) {
        broken.addMessage({.htmlBody = "<html></html>"});
    }
    write("mail.pst", asString(store.image().damage("contents table of Broken", 2, {0}).bytes()));
    const Outcome outcome = list("mail.pst");
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
    const std::vector<std::string> lines = linesOf(outcome.out);
    ASSERT_EQ(lines.size(), 10u) << outcome.out;
    EXPECT_TRUE(lines[9].starts_with("10-13  (")) << lines[9];
    EXPECT_EQ(objectsOf(list("mail.pst --json").out).back()["run"], 4);
}

TEST_F(List, FieldsAreFitForATerminal) {
    const std::string subject = mime::EncodedWord("utf-8", 'B', "a\x1B[31mb\tc\u202Ed\u2028e\u2067");
    write("ma\x1Bil.eml", mime::Plain("x\r\n").field("From", "Ann").field("Subject", subject).bytes());
    const Outcome outcome = list("*.eml ./*.eml");
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
    const std::vector<std::string> lines = linesOf(outcome.out);
    ASSERT_EQ(lines.size(), 4u) << outcome.out;
    EXPECT_EQ(lines[0], "ma?il.eml:");
    EXPECT_TRUE(lines[1].ends_with("  a?[31mb c?d?e?")) << lines[1];
}

TEST_F(List, UsageAndMissingLibraryHaveTheirExitCodes) {
    write("mail.eml", mail());
    for (const char* arguments : {"", "mail.eml --lang xx", "mail.eml --timeout 0", "mail.eml -m 3"}) {
        EXPECT_EQ(list(arguments).exitCode, 2) << arguments;
    }
    const Outcome help = list("--help");
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_NE(help.out.find("ternview list mail.pst"), std::string::npos) << help.out;
    for (const char* library : {"/nowhere/lib.so", "/dev/null"}) {
        const Outcome missing = run("list mail.eml mail.eml", "TERNMAIL_BATCH_LIBRARY=" + std::string(library));
        EXPECT_EQ(missing.exitCode, 3);
        EXPECT_NE(missing.err.find("Debian package ternmail,"), std::string::npos) << missing.err;
        EXPECT_EQ(linesOf(missing.err).size(), 1u) << missing.err;
    }
}

// ---- readers that go wrong

TEST_F(List, ReaderThatGoesWrongCostsTheRestOfItsFile) {
    struct {
        const char* behaviour;
        std::size_t listed;  // messages in front of the fault
        const char* words;
    } const cases[] = {
        {"abort", 2,
         "ended early (SIGABRT), which a damaged or very large message can cause. From message 3 of 5 on nothing is listed"},
        {"leave", 2, "ended early (exit code 0)"},
        {"hang", 1, "not done within the time limit"},
        {"drip", 1, "not done within the time limit"},
        {"pass", 1, "went wrong and was stopped"},
        {"garbage", 1, "went wrong and was stopped"},
        {"backwards", 2, "went wrong and was stopped"},
        {"unusable", 0, "cannot be shown: its content is damaged"},
#ifndef __SANITIZE_ADDRESS__  // the sanitizer's own memory map does not fit any limit
        {"memory", 1, "needs more memory than it may have"},
#endif
    };
    write("sound.pst", "!BDN and more");
    for (const auto& [behaviour, listed, words] : cases) {
        const std::string file = std::string(behaviour) + ".pst";
        write(file, "!BDN and more");
        const Outcome outcome = listWrongly(file + " " + file + " sound.pst --timeout 1 --json");
        EXPECT_EQ(outcome.exitCode, 1) << behaviour;
        const std::vector<json> objects = objectsOf(outcome.out);
        ASSERT_EQ(objects.size(), 2 * (listed + 1) + 3) << behaviour << outcome.out;
        EXPECT_TRUE(objects[listed].contains("error")) << behaviour;
        EXPECT_EQ(objects.back()["file"], "sound.pst") << behaviour;
        EXPECT_EQ(objects.back()["number"], 3) << behaviour;
        EXPECT_NE(outcome.err.find(words), std::string::npos) << behaviour << outcome.err;
        EXPECT_EQ(linesOf(outcome.err).size(), 2u) << outcome.err;
    }
}

TEST_F(List, HostileFieldsAreBoundedAndMadeHarmless) {
    write("hostile.pst", "!BDN and more");
    const Outcome outcome = listWrongly("hostile.pst", "TZ=UTC");
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
    const std::vector<std::string> lines = linesOf(outcome.out);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_TRUE(lines[0].starts_with("1                     16E  text+html+rtf  a?[31mb?c?d??             \u00e9"))
        << lines[0].substr(0, 80);
    EXPECT_EQ(lines[0].size() - lines[0].find("\u00e9"), std::size_t{64} << 10) << "the subject is cut, between two characters";
    EXPECT_TRUE(lines[1].starts_with("2147483647  ")) << lines[1];
    for (const json& object : objectsOf(listWrongly("hostile.pst --json").out)) {
        EXPECT_EQ(object["sent"], json());
    }
}

TEST_F(List, RunIsOneLine) {
    write("run.pst", "!BDN and more");
    const std::vector<std::string> lines = linesOf(listWrongly("run.pst").out);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_TRUE(lines[0].starts_with(" 1  ")) << lines[0];
    EXPECT_TRUE(lines[1].starts_with("2-12  (the message cannot be shown")) << lines[1];
}

TEST_F(List, SignalEndsProgramAndReaderWithoutTraces) {
    write("hang.pst", "!BDN and more");
    write("endless.pst", "!BDN and more");
    write("script", "timeout --preserve-status -s TERM -k 2 0.5 '" TERNVIEW_PROGRAM "' list $1 2> ../err; echo $? > status\n");
    for (const char* command : {"sh script hang.pst > ../out", "sh script endless.pst | sleep 1.5"}) {  // nobody reads the pipe
        const Outcome outcome = runCommand("TERNMAIL_BATCH_LIBRARY='" BATCH_STAND_IN "' " + std::string(command));
        EXPECT_EQ(readFile(work("status")), std::to_string(128 + SIGTERM) + "\n") << command;
        EXPECT_EQ(outcome.err, "") << command;
    }
}

TEST_F(List, ClosedPipeEndsItQuietly) {
    write("endless.pst", "!BDN and more");
    write("script", "'" TERNVIEW_PROGRAM "' list endless.pst 2> ../err; echo $? > status\n");
    const Outcome outcome = runCommand("TERNMAIL_BATCH_LIBRARY='" BATCH_STAND_IN "' sh script | head -n 3 > ../out");
    EXPECT_EQ(linesOf(outcome.out).size(), 3u);
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(readFile(work("status")), std::to_string(128 + SIGPIPE) + "\n");
}

}  // namespace
