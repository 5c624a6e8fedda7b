// The program ternview, run as a person runs it, and the worker protocol that stands between it and a stranger's mail.

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "frames.h"
#include "job.h"
#include "json_output.h"
#include "ternview_program.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;

// A red dot.
constexpr char kPicture[] = "iVBORw0KGgoAAAANSUhEUgAAAAEAAAABCAIAAACQd1PeAAAADElEQVR4nGP4z8AAAAMBAQDJ/pLvAAAAAElFTkSuQmCC\r\n";

std::string textMail(const std::string& body) {
    return "From: Anna <anna@example.org>\r\nTo: Bob <bob@example.org>\r\nSubject: Lunch\r\nMIME-Version: 1.0\r\n"
           "Content-Type: text/plain; charset=utf-8\r\nContent-Transfer-Encoding: 8bit\r\n\r\n" +
           body;
}

std::string pictureMail() {
    return std::string(
               "From: Anna <anna@example.org>\r\nTo: Bob <bob@example.org>\r\nSubject: Picture\r\nMIME-Version: 1.0\r\n"
               "Content-Type: multipart/related; boundary=\"b1\"\r\n\r\n--b1\r\nContent-Type: text/html; charset=utf-8\r\n"
               "Content-Transfer-Encoding: 8bit\r\n\r\n<html><body><p>Red:</p><img src=\"cid:red@example.org\"></body></html>\r\n"
               "--b1\r\nContent-Type: image/png; name=\"red.png\"\r\nContent-Transfer-Encoding: base64\r\n"
               "Content-ID: <red@example.org>\r\nContent-Disposition: inline; filename=\"red.png\"\r\n\r\n") +
           kPicture + "\r\n--b1--\r\n";
}

class Ternview : public TernviewProgram {};

TEST_F(Ternview, InfoTellsWhatTheMessageIs) {
    write("mail.eml", textMail("See you at noon.\r\n"));
    const Outcome plain = run("info mail.eml");
    EXPECT_EQ(plain.exitCode, 0) << plain.err;
    EXPECT_NE(plain.out.find("Internet message (387)"), std::string::npos);
    EXPECT_NE(plain.out.find("210 x 297 mm, 794 x 1123 pixels at 96 dpi"), std::string::npos) << plain.out;

    const Outcome outcome = run("info mail.eml --json");
    const json object = json::parse(outcome.out);
    std::set<std::string> keys;
    for (const auto& [key, value] : object.items()) {
        keys.insert(key);
    }
    EXPECT_EQ(keys, (std::set<std::string>{"status", "loaderStatus", "resultStatus", "sourceFormat", "documentFormat",
                                           "messageCount", "messageIndex", "size", "pages", "tempFiles", "helps"}));
    EXPECT_EQ(object["status"], 1);
    EXPECT_EQ(object["resultStatus"], 1);
    EXPECT_EQ(object["sourceFormat"], 387);
    EXPECT_EQ(object["documentFormat"], 316);
    EXPECT_EQ(object["messageIndex"], 0);
    EXPECT_EQ(object["size"], run("document mail.eml").out.size());
    EXPECT_EQ(object["pages"], 1);
    EXPECT_TRUE(object["tempFiles"].empty());
}

TEST_F(Ternview, DocumentGoesToStandardOutputOrAFileUnchanged) {
    write("mail.eml", textMail("See you at noon.\r\n"));
    const Outcome outcome = run("document mail.eml");
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
    EXPECT_NE(outcome.out.find("From:   \tAnna <anna@example.org>\r\n"), std::string::npos);
    EXPECT_NE(outcome.out.find("See you at noon."), std::string::npos);

    EXPECT_EQ(run("document mail.eml -o doc.txt").exitCode, 0);
    EXPECT_EQ(readFile(work("doc.txt")), outcome.out);

    const Outcome described = run("document mail.eml --json");
    const json object = json::parse(described.out);
    EXPECT_EQ(object["size"], outcome.out.size());
    EXPECT_EQ(object["sourceFormat"], 387);
    EXPECT_EQ(object["pages"], 0);
    const Outcome full = run("document mail.eml", R"(sh -c '"$0" "$@" > /dev/full')");
    EXPECT_EQ(full.exitCode, 1);
    EXPECT_NE(full.err.find("standard output"), std::string::npos) << full.err;
    for (const char* command : {"document mail.eml", "list mail.eml", "export mail.eml -o pages --json"}) {
        const Outcome closed = run(command, R"(timeout 30 sh -c '"$0" "$@" <&- >&-')");
        EXPECT_EQ(closed.exitCode, 1) << command;
        EXPECT_NE(closed.err.find("standard output"), std::string::npos) << closed.err;
    }
}

TEST_F(Ternview, TemporaryFilesOfAnHtmlDocumentComeWithTheirNames) {
    write("mail.eml", pictureMail());
    const Outcome outcome = run("document mail.eml --temp-files -o parts --json");
    ASSERT_EQ(outcome.exitCode, 0) << outcome.err;
    const json object = json::parse(outcome.out);
    EXPECT_EQ(object["documentFormat"], 369);
    ASSERT_EQ(object["tempFiles"].size(), 2u);
    std::string html;
    for (const json& file : object["tempFiles"]) {
        const std::string name = file["name"];
        EXPECT_EQ(fs::file_size(work("parts") / name), file["size"]) << name;
        html = name.ends_with(".html") ? readFile(work("parts") / name) : html;
    }
    EXPECT_EQ(files(work("parts")).size(), 2u);
    EXPECT_EQ(html.size(), object["size"]);
    const std::string picture = object["tempFiles"][1]["name"];
    EXPECT_NE(html.find(picture), std::string::npos) << "the HTML file names its picture";

    const Outcome undirected = run("document mail.eml --temp-files");
    EXPECT_EQ(undirected.exitCode, 2);
    EXPECT_TRUE(undirected.out.empty());
    EXPECT_NE(undirected.err.find("-o DIRECTORY"), std::string::npos);
    EXPECT_NE(run("document mail.eml").out.find("data:image"), std::string::npos);
}

TEST_F(Ternview, RenderWritesPages) {
    std::string body;
    for (int i = 0; i < 150; ++i) {
        body += "line " + std::to_string(i) + "\r\n";
    }
    write("long.eml", textMail(body));
    write("short.eml", textMail("one page\r\n"));
    write("picture.eml", pictureMail());

    const Outcome outcome = run("render long.eml");
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
    EXPECT_EQ(outcome.out, "long-1.png\nlong-2.png\nlong-3.png\n");
    EXPECT_TRUE(readFile(work("long-3.png")).starts_with("\x89PNG"));

    struct {
        std::string arguments;
        std::set<std::string> written;
    } const cases[] = {
        {"long.eml -o a.png", {"a-1.png", "a-2.png", "a-3.png"}}, {"long.eml -p 2- -o p%d.png", {"p2.png", "p3.png"}},
        {"long.eml -p 1,3-5 -o p%d.png", {"p1.png", "p3.png"}},   {"long.eml -p 2 -o b.png", {"b.png"}},
        {"short.eml -o c.png --paper letter -r 50", {"c.png"}},   {"picture.eml -o d.PNG", {"d.PNG"}},
        {"picture.eml --no-temp-files -o e.png", {"e.png"}},      {"long.eml -o f.pdf", {"f.pdf"}},
    };
    for (const auto& [arguments, written] : cases) {
        const std::set<std::string> before = files(work());
        const Outcome rendered = run("render --quiet " + arguments);
        EXPECT_EQ(rendered.exitCode, 0) << arguments << rendered.err;
        EXPECT_TRUE(rendered.out.empty());
        std::set<std::string> added;
        for (const std::string& name : files(work())) {
            if (!before.contains(name)) {
                added.insert(name);
            }
        }
        EXPECT_EQ(added, written) << arguments;
        for (const std::string& name : added) {
            fs::remove(work(name));
        }
    }
}

TEST_F(Ternview, PdfKeepsTextAsText) {
    write("mail.eml", textMail("See you at noon.\r\n日本語, 한국어\r\n"));
    ASSERT_EQ(run("render mail.eml -o mail.pdf").exitCode, 0);
    ASSERT_EQ(std::system(("pdftotext '" + work("mail.pdf").string() + "' '" + work("mail.txt").string() + "'").c_str()), 0);
    const std::string text = readFile(work("mail.txt"));
    for (const char* words : {"See you at noon.", "日本語", "한국어"}) {
        EXPECT_NE(text.find(words), std::string::npos) << words;
    }
}

TEST_F(Ternview, FailuresAreOneSentence) {
    write("empty.eml", "");
    write("short.eml", "From: a");
    write("noise.eml", std::string(5000, '\x01'));
    write("textless.eml", "From: a@example.org\r\nSubject: x\r\nContent-Type: image/png\r\n\r\nabc\r\n");
    write("damaged.pst", "!BDN" + std::string(5000, '\x01'));
    write("good.eml", textMail("hello\r\n"));
    fs::create_directory(work("directory"));
    const std::set<std::string> before = files(work());
    struct {
        const char* file;
        const char* options;
        const char* words;
    } const cases[] = {
        {"missing.eml", "", "there is no such file. "},
        {"directory", "", "is a directory"},
        {"/dev/null", "", "a device or a pipe"},
        {"empty.eml", "", "is empty"},
        {"short.eml", "", "fewer than 12 bytes"},
        {"noise.eml", "", "is no mail"},
        {"textless.eml", "--strict", "no text to show.\n"},
        {"damaged.pst", "", "nothing to show (status -9). "},
        {"good.eml", "-p 7", "the message has 1 page. "},
        {"good.eml", "-o nowhere/x.png", "cannot be written"},
        {"good.eml", "-o directory/../directory/x.png/y.png", "cannot be written"},
    };
    for (const auto& [file, options, words] : cases) {
        const Outcome outcome = run(std::string("render ") + file + " " + options);
        EXPECT_EQ(outcome.exitCode, 1) << file;
        EXPECT_TRUE(outcome.out.empty()) << file;
        EXPECT_NE(outcome.err.find(std::string("ternview: ") + file), std::string::npos) << outcome.err;
        EXPECT_NE(outcome.err.find(words), std::string::npos) << outcome.err;
        EXPECT_EQ(std::count(outcome.err.begin(), outcome.err.end(), '\n'), 1) << outcome.err;
    }
    EXPECT_EQ(files(work()), before) << "a failed job leaves no file";

    const Outcome described = run("document empty.eml --json");
    EXPECT_EQ(described.exitCode, 1);
    EXPECT_EQ(json::parse(described.out)["status"], -7);
}

TEST_F(Ternview, WrongUsageAndMissingPartsHaveTheirExitCodes) {
    write("mail.eml", textMail("hello\r\n"));
    for (const char* arguments : {"", "show mail.eml", "info", "info mail.eml -m 0", "render mail.eml -o x.gif",
                                  "render mail.eml -p 3-1", "render mail.eml -p 1,,2", "info mail.eml --lang xx",
                                  "info mail.eml --paper a5", "info mail.eml --temp-files --no-temp-files"}) {
        const Outcome outcome = run(arguments);
        EXPECT_EQ(outcome.exitCode, 2) << arguments;
        EXPECT_FALSE(outcome.err.empty()) << arguments;
    }
    for (const char* arguments :
         {"--help", "--version", "info mail.eml --lang 0x0407", "info mail.eml --lang de_DE.UTF-8 --strict"}) {
        EXPECT_EQ(run(arguments).exitCode, 0) << arguments;
    }
    EXPECT_NE(run("info mail.eml -m abc").err.find("--message: abc is no whole number from 1 to"), std::string::npos);
    write("page.eml", "Subject: x\r\nContent-Type: text/html\r\n\r\n<html><body>hello</body></html>\r\n");
    write("fonts.conf", "<fontconfig/>");
    for (const char* part : {"TERNMAIL_LIBRARY=/nowhere/libternmail.so", "FONTCONFIG_FILE=\"$PWD/fonts.conf\""}) {
        for (const char* file : {"mail.eml", "page.eml"}) {
            const Outcome missing = run(std::string("info ") + file, part);
            EXPECT_EQ(missing.exitCode, 3) << part << missing.out;
            EXPECT_NE(missing.err.find("Debian package"), std::string::npos) << missing.err;
        }
    }
}

TEST_F(Ternview, FileNamesNeedNotBeText) {
    write("na\xFFme\x1B.eml", textMail("hello\r\n"));
    const Outcome outcome = run("render na*.eml");
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
    EXPECT_EQ(outcome.out, "na?me?-1.png\n");
    EXPECT_TRUE(fs::exists(work("na\xFFme\x1B-1.png")));
}

// What takes minutes to render, and so is surely under way when it is ended.
constexpr char kEndlessJob[] = "render big.eml -r 600 -o big.png";

class TernviewWorker : public Ternview {
protected:
    void SetUp() override {
        Ternview::SetUp();
        std::string body;
        for (int i = 0; i < 400'000; ++i) {
            body += "a line of a long mail, number " + std::to_string(i) + "\r\n";
        }
        write("big.eml", textMail(body));
    }
};

TEST_F(TernviewWorker, HangEndsAtTheTimeLimit) {
    const Outcome outcome = run(std::string(kEndlessJob) + " --timeout 1");
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_NE(outcome.err.find("time limit"), std::string::npos) << outcome.err;
    EXPECT_EQ(files(work()), std::set<std::string>{"big.eml"});
}

TEST_F(TernviewWorker, SignalEndsProgramAndWorkerWithoutTraces) {
    const Outcome outcome = run(kEndlessJob, "timeout --preserve-status -s TERM 1");
    EXPECT_EQ(outcome.exitCode, 128 + SIGTERM);
    EXPECT_EQ(files(work()), std::set<std::string>{"big.eml"});
}

#ifndef __SANITIZE_ADDRESS__  // the sanitizer's own memory map does not fit any limit
TEST_F(TernviewWorker, ShortMemoryIsOneSentence) {
    // A page of this resolution is a picture of 530 MiB.
    const Outcome outcome = run("render big.eml -p 1 -r 1200 -o big.png", R"(sh -c 'ulimit -v 450000; exec "$0" "$@"')");
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_EQ(outcome.err.find("ternview: big.eml: the message needs more memory"), 0u) << outcome.err;
    EXPECT_EQ(std::count(outcome.err.begin(), outcome.err.end(), '\n'), 1) << outcome.err;
    EXPECT_EQ(files(work()), std::set<std::string>{"big.eml"});
}
#endif

// ---- the protocol

TEST(Frames, ArriveInPiecesAndAreBounded) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    ternview::FrameWriter writer(ends[1]);
    writer.begin(ternview::FrameKind::kTempFile, "a.png");
    writer.data("bytes");
    writer.end();
    close(ends[1]);
    std::string sent(1000, '\0');
    sent.resize(static_cast<std::size_t>(read(ends[0], sent.data(), sent.size())));
    close(ends[0]);

    ternview::FrameParser parser;
    std::vector<std::string> payloads;
    for (const char byte : sent) {
        parser.feed({&byte, 1});
        while (const auto frame = parser.next()) {
            payloads.push_back(frame->payload);
        }
    }
    EXPECT_EQ(payloads, (std::vector<std::string>{"a.png", "bytes", ""}));

    for (const std::string& bad :
         {std::string("\5\0\0\0\xFF\xFF\xFF\x7F", 8), std::string("\x63\0\0\0\0\0\0\0", 8), std::string(8, '\0')}) {
        ternview::FrameParser hostile;
        hostile.feed(bad);
        EXPECT_THROW(hostile.next(), std::runtime_error);
    }
}

TEST(Results, SurviveTheWayAndRefuseNonsense) {
    ternview::JobResult result;
    result.status = -1863;
    result.tempFiles = {{"a \xFF.png", 7}};
    result.failure = ternview::Failure::kLoader;
    result.detail = "why";
    const std::string report = ternview::packResult(result);
    const auto back = ternview::unpackResult(report);
    ASSERT_TRUE(back.has_value());
    EXPECT_EQ(back->status, -1863);
    EXPECT_EQ(back->tempFiles.at(0).size, 7u);
    EXPECT_EQ(back->failure, ternview::Failure::kLoader);
    EXPECT_EQ(back->detail, "why");
    for (std::size_t length = 0; length < report.size(); ++length) {
        EXPECT_FALSE(ternview::unpackResult(report.substr(0, length)).has_value()) << length;
    }
    EXPECT_FALSE(ternview::unpackResult("[1,2]").has_value());
    EXPECT_FALSE(ternview::unpackResult("{\"more\":[[[[]]]]," + report.substr(1)).has_value()) << "nesting is dear";
    std::string unknown = report;
    unknown.replace(unknown.find("\"failure\":") + 10, 1, "99");
    EXPECT_FALSE(ternview::unpackResult(unknown).has_value());
}

TEST(PageSelection, ReadsLists) {
    const auto selection = ternview::PageSelection::parse("1,3-5,8-");
    ASSERT_TRUE(selection.has_value());
    std::vector<int> pages;
    for (int page = 1; page <= 10; ++page) {
        if (selection->contains(page)) {
            pages.push_back(page);
        }
    }
    EXPECT_EQ(pages, (std::vector<int>{1, 3, 4, 5, 8, 9, 10}));
    for (const char* bad : {"", "0", "-3", "2-1", "a", "1,", "1-2-3", "99999999999", "1 2"}) {
        EXPECT_FALSE(ternview::PageSelection::parse(bad).has_value()) << bad;
    }
}

}  // namespace
