// `ternview export`, run as a person runs it: names and pages of outputs, what happens to damaged messages and to files that were
// there before, and runs that are cut short and go on.

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "export/export_journal.h"
#include "export/export_names.h"
#include "export/message_outputs.h"
#include "export/progress.h"
#include "mime_builder.h"
#include "rtf_compressor.h"
#include "store_builder.h"
#include "ternview_program.h"

namespace {

namespace fs = std::filesystem;
using builder::StoreBuilder;
using nlohmann::json;

constexpr std::uint64_t kFifthOfMarch = 133'541'032'200'000'000;  // 2024-03-05 09:07 UTC in 100 ns since 1601

std::string asString(const builder::Bytes& bytes) {
    return {bytes.begin(), bytes.end()};
}

std::string rtfBody(const std::string& text) {
    return rtf::Compressed("{\\rtf1\\ansi{\\fonttbl{\\f0 Arial;}}\\pard\\f0 " + text + "}");
}

/// Three messages: HTML, HTML without a date, plain text alone.
std::string storeOfThree() {
    StoreBuilder store(builder::Layout::Unicode, builder::Encoding::Permutative);
    builder::Folder& inbox = store.addFolder("Inbox");
    inbox.addMessage({.subject = "Lunch",
                      .htmlBody = "<html><body><p>See you at noon.</p></body></html>",
                      .senderName = "Anna Berg",
                      .submitTime = kFifthOfMarch});
    inbox.addMessage({.subject = "海辺", .htmlBody = "<html><body>the second one</body></html>", .submitTime = {}});
    inbox.addMessage({.subject = "Plain", .plainBody = "plain text alone", .submitTime = kFifthOfMarch});
    return asString(store.bytes());
}

std::string mail(const std::string& text) {
    return mime::Plain(text + "\r\n").addressed().bytes();
}

class Export : public TernviewProgram {
protected:
    Outcome runExport(const std::string& arguments, const std::string& prefix = {}) const {
        return run("export " + arguments, "TZ=UTC " + prefix);
    }

    /// With messages as export_stand_in.cpp makes them.
    Outcome runStandIn(const std::string& arguments, const std::string& variables = {}) const {
        return runExport(arguments, "TERNMAIL_BATCH_LIBRARY='" EXPORT_STAND_IN "' " + variables);
    }

    /// Names of all files below a directory of the test, without the journal and the small pictures.
    std::set<std::string> outputs(const std::string& directory) const {
        std::set<std::string> names;
        for (const auto& entry : fs::recursive_directory_iterator(work(directory))) {
            const std::string name = entry.path().lexically_relative(work(directory)).string();
            if (!entry.is_directory() && name != ".ternview-export" && !name.starts_with("index-pictures/")) {
                names.insert(name);
            }
        }
        return names;
    }

    struct Identity {
        ino_t inode;
        std::int64_t changed;
        auto operator<=>(const Identity&) const = default;
    };
    std::map<std::string, Identity> identities(const std::string& directory) const {
        std::map<std::string, Identity> all;
        for (const std::string& name : outputs(directory)) {
            struct stat status {};
            lstat((work(directory) / name).c_str(), &status);
            all[name] = {status.st_ino, std::int64_t{status.st_mtim.tv_sec} * 1'000'000'000 + status.st_mtim.tv_nsec};
        }
        return all;
    }

    std::string index(const std::string& directory) const { return readFile(work(directory) / "index.html"); }
};

// ---- names

TEST(ExportNames, AreSafeOnEveryFileSystem) {
    const std::string longText(200, 'x');
    std::string wide;
    for (int i = 0; i < 100; ++i) {
        wide += "\U0001F30A";
    }
    struct {
        std::string subject;
        std::string name;
    } const cases[] = {
        {"Lunch", "Lunch"},
        {"", "No subject"},
        {" . ", "No subject"},
        {"..\\../etc\tpasswd", "_.._etc passwd"},
        {"Re: a/b? \"c\" <d>|*", "Re_ a_b_ _c_ _d___"},
        {"a\x01\x1B[31m\x7F\xC2\x85 b", "a [31m b"},
        {"gpj.\u202Egnp\u2066\u200F\uFEFF", "gpj.gnp"},
        {"caf\xE9 \xC0\xAF\xED\xA0\x80 ok", "caf ok"},
        {"ends in dots. . .", "ends in dots"},
        {longText, longText.substr(0, 80)},
        {wide, wide.substr(0, std::size_t{4} * 56)},
        {std::string("NUL\0byte", 8), "NUL byte"},
    };
    for (const auto& [subject, name] : cases) {
        const std::string stem = ternview::messageStem(7, std::nullopt, subject);
        EXPECT_EQ(stem, "000007 " + name);
        EXPECT_LE(stem.size(), 231u);
        EXPECT_TRUE(ternview::isMessageStem(stem)) << stem;
    }
    EXPECT_EQ(ternview::messageStem(1'234'567, 0, "x").substr(0, 8), "1234567 ");
    EXPECT_EQ(ternview::messageStem(1, INT64_MAX, "x"), "000001 x");
    std::vector<std::string> shorter;
    for (std::string stem = "000007 x, 海. 辺辺"; !stem.empty(); stem = ternview::shortened(stem)) {
        EXPECT_TRUE(ternview::isMessageStem(stem)) << stem;
        shorter.push_back(stem);
    }
    EXPECT_EQ(shorter, (std::vector<std::string>{"000007 x, 海. 辺辺", "000007 x, 海", "000007 x,", "000007 x"}));
    EXPECT_EQ(ternview::shortened("000007 海"), "000007 _") << "no half of a character";
    EXPECT_EQ(ternview::storeDirectoryName("/a/.b/Aux.pst"), "_Aux");
    EXPECT_EQ(ternview::storeDirectoryName("/a/\x01.pst"), "store");
    for (const char* bad : {"", ".", "..", "a/b", " a", "a ", "a.", "a\nb", "\u202Ea", "a  b", "\xFF"}) {
        EXPECT_FALSE(ternview::isSafeName(bad)) << bad;
    }
}

// ---- what comes out

TEST_F(Export, StoreBecomesFilesInEachFormat) {
    write("mail.pst", storeOfThree());
    struct {
        const char* format;
        const char* beginning;
    } const cases[] = {{"pdf", "%PDF-"}, {"png", "\x89PNG"}, {"html", "<"}, {"txt", "From:"}};
    for (const auto& [format, beginning] : cases) {
        const std::string extension = std::string(".") + format;
        const Outcome outcome = runExport(std::string("mail.pst -j 2 -o ") + format + " --format " + format);
        EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
        EXPECT_EQ(outputs(format), (std::set<std::string>{"000001 2024-03-05 Lunch" + extension, "000002 海辺" + extension,
                                                          "000003 2024-03-05 Plain" + extension, "index.html"}));
        for (const std::string& name : outputs(format)) {
            if (name != "index.html") {
                EXPECT_TRUE(readFile(work(format) / name).starts_with(beginning)) << name;
            }
        }
        for (const char* thumbnail : {"0-000001.png", "0-000002.png", "0-000003.png"}) {
            const std::string bytes = readFile(work(format) / "index-pictures" / thumbnail);
            ASSERT_TRUE(bytes.starts_with("\x89PNG")) << format << thumbnail;
            EXPECT_EQ(bytes.substr(16, 4), std::string("\0\0\0\xA0", 4)) << "160 pixels wide";
        }
        EXPECT_EQ(outcome.out, std::string(format) + "/index.html: 3 messages\n");
        EXPECT_TRUE(outcome.err.empty()) << "nothing of a progress bar outside a terminal: " << outcome.err;
    }
    EXPECT_NE(readFile(work("txt/000001 2024-03-05 Lunch.txt")).find("See you at noon."), std::string::npos);
    EXPECT_NE(readFile(work("txt/000003 2024-03-05 Plain.txt")).find("plain text alone"), std::string::npos);
    EXPECT_NE(readFile(work("html/000001 2024-03-05 Lunch.html")).find("See you at noon."), std::string::npos);

    const Outcome quiet = runExport("mail.pst -o none --no-pictures --quiet");
    EXPECT_EQ(quiet.exitCode, 0);
    EXPECT_TRUE(quiet.out.empty() && quiet.err.empty());
    EXPECT_FALSE(fs::exists(work("none/index-pictures")));
}

TEST_F(Export, PagesArePicturesOfTheirOwn) {
    std::string body;
    for (int line = 0; line < 150; ++line) {
        body += "line " + std::to_string(line) + "\r\n";
    }
    write("long.eml", mail(body));
    write("short.eml", mail("short"));
    ASSERT_EQ(runExport("long.eml short.eml -o out --format png -r 40").exitCode, 0);
    std::set<std::string> suffixes;
    for (const std::string& name : outputs("out")) {
        suffixes.insert(name.substr(0, 6) + name.substr(std::min(name.size(), name.find_first_of("-.", 18))));
    }
    EXPECT_EQ(suffixes, (std::set<std::string>{"000001-1.png", "000001-2.png", "000001-3.png", "000002.png", "index."}));
    EXPECT_NE(index("out").find("-3.png"), std::string::npos) << "every page has its link";
}

TEST_F(Export, StoresHaveDirectoriesAndSingleMessagesAreNumberedThrough) {
    write("mail.pst", storeOfThree());
    write("tree/a/Mail.pst", storeOfThree());
    write("tree/a/one.eml", mail("one"));
    write("tree/b/two.eml", mail("two"));
    write("three.eml", mail("three"));
    const Outcome outcome = runExport("mail.pst tree three.eml tree/a/one.eml -o out --format txt --json");
    ASSERT_EQ(outcome.exitCode, 0) << outcome.err;
    std::set<std::string> beginnings;
    for (const std::string& name : outputs("out")) {
        const std::size_t slash = name.find('/');
        beginnings.insert(slash == std::string::npos ? name.substr(0, 6) : name.substr(0, slash + 7));
    }
    EXPECT_EQ(beginnings, (std::set<std::string>{"000001", "000002", "000003", "index.", "mail/000001", "mail/000002",
                                                 "mail/000003", "Mail (2)/000001", "Mail (2)/000002", "Mail (2)/000003"}));
    const json summary = json::parse(outcome.out);
    EXPECT_EQ(summary["exported"], 9) << "a file that is named twice is exported once";
    EXPECT_EQ(summary["failed"], 0);
    const std::string page = index("out");
    EXPECT_NE(page.find("<h2 title=\"" + work("mail.pst").string() + "\">mail.pst"), std::string::npos);
    EXPECT_LT(page.find("Single messages"), page.find("mail.pst"));
}

// ---- what does not come out

TEST_F(Export, DamagedMessagesAreListedAndTheOthersDone) {
    StoreBuilder store(builder::Layout::Unicode, builder::Encoding::Permutative);
    builder::Folder& inbox = store.addFolder("Inbox");
    inbox.addMessage({.subject = "First", .htmlBody = "<html><body>first</body></html>"});
    inbox.addMessage({.subject = "Bodiless <b>"});
    inbox.addMessage({.subject = "Third", .htmlBody = "<html><body>third</body></html>"});
    write("mail.pst", asString(store.bytes()));
    write("short.eml", "From: a");
    write("good.eml", mail("good"));
    const Outcome outcome = runExport("mail.pst short.eml missing.eml good.eml -o out --format txt --json");
    EXPECT_EQ(outcome.exitCode, 1);
    const std::array<std::string, 3> sentences{
        "ternview: mail.pst, message 2: the message cannot be shown: its content is damaged, or the message has nothing to show "
        "(status -9).\n",
        "ternview: short.eml: the file is too short to be a mail: it has fewer than 12 bytes.\n",
        "ternview: missing.eml: there is no such file.\n"};
    for (const std::string& sentence : sentences) {
        EXPECT_NE(outcome.err.find(sentence), std::string::npos) << outcome.err;
    }
    const json summary = json::parse(outcome.out);
    EXPECT_EQ(summary["exported"], 3);
    EXPECT_EQ(summary["failed"], 3);
    ASSERT_EQ(summary["failures"].size(), 3u);
    EXPECT_EQ(summary["failures"][0]["message"], 2);
    EXPECT_EQ(summary["failures"][0]["file"], "mail.pst");
    EXPECT_EQ(outputs("out").size(), 4u);
    const std::string page = index("out");
    EXPECT_NE(page.find("Bodiless &lt;b&gt;<span class=\"w\">the message cannot be shown"), std::string::npos);
    EXPECT_NE(page.find("missing.eml<span class=\"w\">there is no such file"), std::string::npos);
    EXPECT_NE(page.find("3 messages, 3 could not be shown"), std::string::npos);

    // What failed is tried again, and nothing else.
    const auto before = identities("out");
    write("missing.eml", mail("there now"));
    const Outcome again = runExport("mail.pst short.eml missing.eml good.eml -o out --format txt");
    EXPECT_EQ(again.exitCode, 1);
    EXPECT_EQ(again.out, "out/index.html: 4 messages, 3 of them from an earlier run; 2 could not be shown\n");
    auto after = identities("out");
    EXPECT_EQ(std::erase_if(after, [&before](const auto& entry) { return !before.contains(entry.first); }), 1u);
    after.erase("index.html");
    for (const auto& [name, identity] : after) {
        EXPECT_EQ(identity, before.at(name)) << name;
    }
}

TEST_F(Export, HelpingHandsReachAsFarAsForASingleMessage) {
    write("in/bare.eml", "From: a@example.org\nSubject: Bare\nContent-Type: text/plain\n\nbare line feeds\n");
    const std::string separator = "From a@example.org Mon Jan  1 00:00:00 2024\n";
    write("in/box.eml", separator + "From: a@example.org\nSubject: One\n\nthe first\n\n" + separator +
                            "From: b@example.org\nSubject: Two\n\nthe second\n");
    write("in/mail.pst", storeOfThree());
    const Outcome helped = runExport("in -o out --format txt");
    EXPECT_EQ(helped.exitCode, 0) << helped.err;
    EXPECT_EQ(outputs("out"), (std::set<std::string>{"000001 Bare.txt", "box/000001 One.txt", "box/000002 Two.txt",
                                                     "mail/000001 2024-03-05 Lunch.txt", "mail/000002 海辺.txt",
                                                     "mail/000003 2024-03-05 Plain.txt", "index.html"}));
    EXPECT_NE(readFile(work("out/box/000002 Two.txt")).find("the second"), std::string::npos);
    const Outcome strict = runExport("in -o strict --format txt --strict");
    EXPECT_EQ(strict.exitCode, 1);
    EXPECT_NE(strict.err.find("box.eml: the mail's lines end in LF alone"), std::string::npos) << strict.err;
    EXPECT_NE(strict.err.find("mail.pst, message 3: "), std::string::npos) << strict.err;
    EXPECT_FALSE(fs::exists(work("strict/mail/000003 2024-03-05 Plain.txt")));
    const Outcome plain = runExport("in/mail.pst -o plain --format txt --plain-text");
    EXPECT_EQ(plain.out, "plain/index.html: 1 message; 2 could not be shown\n") << "two have no plain text";
}

TEST_F(Export, MissingPartsOfTheSystemAreSaidOnce) {
    StoreBuilder store(builder::Layout::Unicode, builder::Encoding::Permutative);
    builder::Folder& inbox = store.addFolder("Inbox");
    for (int i = 0; i < 3; ++i) {
        const std::string rtf = rtfBody("rich");
        inbox.addMessage({.subject = "Rich", .rtfCompressed = builder::Bytes(rtf.begin(), rtf.end())});
        inbox.addMessage({.subject = "Html", .htmlBody = "<html><body>html</body></html>"});
    }
    write("mail.pst", asString(store.bytes()));
    const Outcome noOffice = runExport("mail.pst -o out", "TERNVIEW_OFFICE=/nowhere");
    EXPECT_EQ(noOffice.exitCode, 3);
    EXPECT_EQ(std::count(noOffice.err.begin(), noOffice.err.end(), '\n'), 1) << noOffice.err;
    EXPECT_TRUE(noOffice.err.starts_with("ternview: 3 messages: the message's text is RTF")) << noOffice.err;
    EXPECT_EQ(outputs("out").size(), 4u) << "the others are done";
    const Outcome withOffice = runExport("mail.pst -o out -j 2");
    EXPECT_EQ(withOffice.exitCode, 0) << withOffice.err;
    EXPECT_EQ(outputs("out").size(), 7u);

    const Outcome noFilter = runExport("mail.pst -o other/deep", "TERNMAIL_BATCH_LIBRARY=/nowhere/x.so");
    EXPECT_EQ(noFilter.exitCode, 3);
    EXPECT_EQ(std::count(noFilter.err.begin(), noFilter.err.end(), '\n'), 1) << noFilter.err;
    EXPECT_FALSE(fs::exists(work("other"))) << "nothing was begun";
}

TEST_F(Export, FilesThatWereThereBeforeStay) {
    write("mail.pst", storeOfThree());
    write("other.pst", storeOfThree());
    const std::map<std::string, std::string> foreign{{"out/mail/000001 2024-03-05 Lunch.txt", "mine"},
                                                     {"out/index.html", "my page"},
                                                     {"out/index-pictures/0-000001.png", "my picture"},
                                                     {"out/other", "a file where a directory would be"}};
    for (const auto& [name, bytes] : foreign) {
        write(name, bytes);
    }
    fs::create_directory(work("out/mail (2)"));
    fs::create_symlink("../../victim", work("out/mail (2)/000001 2024-03-05 Lunch.txt"));
    ASSERT_EQ(runExport("mail.pst other.pst -o out --format txt").exitCode, 0);
    for (const auto& [name, bytes] : foreign) {
        EXPECT_EQ(readFile(work(name)), bytes) << name;
    }
    EXPECT_FALSE(fs::exists(work("victim")));
    EXPECT_TRUE(fs::exists(work("out/mail (3)/000001 2024-03-05 Lunch.txt")));
    EXPECT_TRUE(fs::exists(work("out/other (2)/000002 海辺.txt")));
    EXPECT_TRUE(fs::exists(work("out/index-pictures/0-000001 (2).png")));
    EXPECT_NE(readFile(work("out/index (2).html")).find("0-000001%20%282%29.png"), std::string::npos);

    write("out2/000001 2024-03-05 Lunch.txt", "mine");
    fs::create_symlink("victim", work("out2/000002 海辺.txt"));
    ASSERT_EQ(runExport("mail.pst -o out2 --format txt").exitCode, 0);
    EXPECT_EQ(readFile(work("out2/000001 2024-03-05 Lunch.txt")), "mine");
    EXPECT_TRUE(fs::exists(work("out2/000001 2024-03-05 Lunch (2).txt")));
    EXPECT_TRUE(fs::exists(work("out2/000002 海辺 (2).txt")));
    EXPECT_FALSE(fs::exists(work("out2/victim")));
}

TEST_F(Export, NamesAreShorterWhereTheirPlaceLeavesNoRoom) {
    for (const std::string& subject : {std::string(200, 'x'), std::string("Short")}) {
        write("in/" + subject.substr(0, 5) + ".eml", "From: a@example.org\r\nSubject: " + subject + "\r\n\r\ntext\r\n");
    }
    std::string deep = "out";
    while (deep.size() < 4021) {
        deep += "/" + std::string(std::min<std::size_t>(200, 4020 - deep.size()), 'd');
    }
    const std::string names = "find out -name '*.txt' -printf '%f\n' | sort > ../out";
    for (const char* said : {": 2 messages\n", ": 2 messages, 2 of them from an earlier run\n"}) {
        const Outcome outcome = runExport("in -o " + deep + " --format txt");
        EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
        EXPECT_TRUE(outcome.out.ends_with(said)) << outcome.out;
        EXPECT_EQ(runCommand(names).out, "000001 Short.txt\n000002 " + std::string(40, 'x') + ".txt\n");
    }

    // Where not even the shortest name fits, the message fails alone.
    std::string full = work("full").string();
    while (full.size() < 4074) {  // from there on there is no room for files in the making either
        full += "/" + std::string(std::min<std::size_t>(200, 4073 - full.size()), 'd');
    }
    ternview::ExportJournal journal(full, {.format = ternview::ExportFormat::kPng}, ternview::ExportJournal::Start::kContinue);
    const std::size_t file = journal.enter({.path = "/a.pst"}, ternview::ExportJournal::Kind::kStore, true);
    for (const auto& [number, pages] : {std::pair(4'000'000'000U, 1000), std::pair(1U, 1)}) {
        ternview::MessageOutputs outputs(journal, file);
        for (int page = 1; page <= pages; ++page) {
            outputs.begin(ternview::FrameKind::kPage, std::to_string(page) + "/" + std::to_string(pages));
            outputs.end();
        }
        ternview::MessageRecord record;
        record.number = number;
        EXPECT_EQ(outputs.commit(journal, record), pages == 1);
    }
    EXPECT_EQ(files(full).size(), 2u) << "one message and the journal";
}

TEST_F(Export, HostileFieldsStayText) {
    write("2.pst", "twelve bytes and more");
    ASSERT_EQ(runStandIn("2.pst -o out --format html", "STAND_IN_HOSTILE=2").exitCode, 0);
    EXPECT_EQ(outputs("out").size(), 3u);
    for (const std::string& name : outputs("out")) {
        EXPECT_TRUE(ternview::isSafeName(name)) << name;
    }
    const std::string page = index("out");
    EXPECT_EQ(page.find("<script"), std::string::npos);
    EXPECT_EQ(page.find("<img src=x"), std::string::npos);
    EXPECT_NE(page.find("&lt;img src=x onerror=alert(1)&gt;&amp;&quot;"), std::string::npos);
    EXPECT_NE(page.find("default-src 'none'"), std::string::npos);
}

TEST_F(Export, OutputThatCannotBeWrittenEndsTheRun) {
    write("mail.pst", storeOfThree());
    const Outcome nowhere = runExport("mail.pst -o /proc/nowhere/out");
    EXPECT_EQ(nowhere.exitCode, 1);
    EXPECT_NE(nowhere.err.find("the output cannot be written: /proc/nowhere"), std::string::npos) << nowhere.err;
    write("file", "x");
    EXPECT_NE(runExport("mail.pst -o file").err.find("cannot be written: file: "), std::string::npos);
    // As on a full disk: a PDF is longer than what may be written, the journal is not.
    const Outcome full = runExport("mail.pst -o out", R"(sh -c 'trap "" XFSZ; ulimit -f 4; exec "$0" "$@"')");
    EXPECT_EQ(full.exitCode, 1);
    EXPECT_NE(full.err.find("the output cannot be written: "), std::string::npos) << full.err;
    EXPECT_EQ(std::count(full.err.begin(), full.err.end(), '\n'), 1) << full.err;
    for (const std::string& name : outputs("out")) {
        EXPECT_FALSE(name.ends_with(".pdf") || name.starts_with(".")) << name;
    }
    EXPECT_EQ(runExport("mail.pst -o out").exitCode, 0) << "it goes on when there is room again";
    EXPECT_EQ(outputs("out").size(), 4u);
}

TEST_F(Export, WorkerThatTalksNonsenseLeavesNothing) {
    using ternview::ExportFormat;
    using ternview::FrameKind;
    struct Output {
        FrameKind kind;
        std::string label;
        std::size_t size = 10;
    };
    struct {
        ExportFormat format;
        std::vector<Output> outputs;
        bool isSound;
    } const cases[] = {
        {ExportFormat::kPdf, {{FrameKind::kPdf, ""}, {FrameKind::kThumbnail, ""}}, true},
        {ExportFormat::kPdf, {{FrameKind::kPdf, ""}, {FrameKind::kPdf, ""}}, false},
        {ExportFormat::kPdf, {{FrameKind::kPage, "1/1"}}, false},
        {ExportFormat::kPdf, {{FrameKind::kTempFile, "../x"}}, false},
        {ExportFormat::kPdf, {{FrameKind::kThumbnail, ""}}, false},
        {ExportFormat::kPdf, {{FrameKind::kPdf, ""}, {FrameKind::kThumbnail, ""}, {FrameKind::kThumbnail, ""}}, false},
        {ExportFormat::kPdf, {{FrameKind::kPdf, ""}, {FrameKind::kThumbnail, "", std::size_t{2} << 20}}, false},
        {ExportFormat::kPng, {{FrameKind::kPage, "1/2"}, {FrameKind::kPage, "2/2"}, {FrameKind::kThumbnail, ""}}, true},
        {ExportFormat::kPng, {{FrameKind::kPage, "1/2"}, {FrameKind::kThumbnail, ""}}, false},
        {ExportFormat::kPng, {{FrameKind::kPage, "2/2"}}, false},
        {ExportFormat::kPng, {{FrameKind::kPage, "1/2"}, {FrameKind::kPage, "2/3"}}, false},
        {ExportFormat::kPng, {{FrameKind::kPage, "1/1"}, {FrameKind::kPage, "2/2"}}, false},
        {ExportFormat::kPng, {{FrameKind::kPage, "1/0"}}, false},
        {ExportFormat::kPng, {{FrameKind::kPage, "1/4000000000"}}, false},
        {ExportFormat::kPng, {{FrameKind::kPage, "../1"}}, false},
        {ExportFormat::kText, {{FrameKind::kConversion, ""}, {FrameKind::kConversion, ""}, {FrameKind::kThumbnail, ""}}, true},
        {ExportFormat::kHtml, {{FrameKind::kPdf, ""}}, false},
    };
    int number = 0;
    for (const auto& [format, sent, isSound] : cases) {
        const std::string directory = "out" + std::to_string(++number);
        ternview::ExportJournal journal(work(directory), {.format = format}, ternview::ExportJournal::Start::kContinue);
        const std::size_t file = journal.enter({.path = "/a.eml"}, ternview::ExportJournal::Kind::kMessage, true);
        const auto receive = [&, &outputsOfWorker = sent] {
            ternview::MessageOutputs outputs(journal, file);
            for (const Output& output : outputsOfWorker) {
                outputs.begin(output.kind, output.label);
                outputs.data(std::string(output.size, 'x'));
                outputs.end();
            }
            ASSERT_TRUE(outputs.isComplete());
            outputs.commit(journal, {});
        };
        if (isSound) {
            receive();
            EXPECT_EQ(outputs(directory).size(), format == ExportFormat::kPng ? 2u : 1u) << number;
            EXPECT_EQ(files(work(directory) / "index-pictures"), std::set<std::string>{"000001.png"}) << number;
        } else {
            EXPECT_THROW(receive(), ternview::JobError) << number;
            EXPECT_TRUE(outputs(directory).empty()) << number;
        }
    }
}

// ---- runs that are cut short, and go on

/// A run that the test watches and ends.
class RunningExport {
public:
    /// @param command for a shell
    explicit RunningExport(const std::string& command) : pid_(fork()) {
        if (pid_ == 0) {
            execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
            _exit(127);
        }
    }
    ~RunningExport() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            wait();
        }
    }
    RunningExport(const RunningExport&) = delete;
    RunningExport& operator=(const RunningExport&) = delete;

    pid_t pid() const { return pid_; }

    int wait() {
        int status = 0;
        waitpid(pid_, &status, 0);
        pid_ = -1;
        return status;
    }

    /// Waits until something is the case; gives up when the run ends first.
    bool waitUntil(const std::function<bool()>& condition) const {
        while (!condition()) {
            siginfo_t info{};
            if (waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) != 0 || info.si_pid != 0) {
                return condition();
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return true;
    }

private:
    pid_t pid_;
};

class ExportRuns : public Export {
protected:
    void SetUp() override {
        Export::SetUp();
        write("12.pst", "twelve bytes and more");
    }

    std::string command(const std::string& arguments, const std::string& variables) const {
        return "cd '" + work().string() + "' && exec env XDG_RUNTIME_DIR='" + (work() / "../runtime").string() +
               "' TZ=UTC TERNMAIL_BATCH_LIBRARY='" EXPORT_STAND_IN "' " + variables + " '" TERNVIEW_PROGRAM "' export " +
               arguments + " > ../out 2> ../err";
    }

    std::string err() const { return readFile(work("../err")); }

    std::size_t countTexts(const std::string& directory) const {
        std::error_code error;
        std::size_t count = 0;
        for (auto entry = fs::directory_iterator(work(directory), error); !error && entry != fs::directory_iterator(); ++entry) {
            count += entry->path().extension() == ".txt" ? 1 : 0;
        }
        return count;
    }

    /// The worker that a run has at its side, besides the reader; 0 when there is none.
    static pid_t workerOf(pid_t run) {
        std::ifstream children("/proc/" + std::to_string(run) + "/task/" + std::to_string(run) + "/children");
        pid_t reader = 0;
        pid_t worker = 0;
        children >> reader >> worker;
        return worker;
    }

    /// Makes an export of twelve messages in which the sixth one and those behind it are missing.
    void interrupt(const std::string& arguments, int signal) {
        RunningExport run(command(arguments, "STAND_IN_WAIT=6"));
        ASSERT_TRUE(run.waitUntil([this] { return countTexts("out") == 5; })) << err();
        kill(run.pid(), signal);
        const int status = run.wait();
        ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == signal) << err();
    }
};

TEST_F(ExportRuns, SignalLeavesWhatIsDoneAndTheNextRunGoesOn) {
    ASSERT_EQ(runStandIn("12.pst -o whole --format txt").exitCode, 0);
    for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
        interrupt("12.pst -o out --format txt", signal);
        EXPECT_NE(err().find("interrupted; 5 messages of 12 are in out. The same command goes on"), std::string::npos) << err();
        auto before = identities("out");
        EXPECT_EQ(before.size(), 6u) << "five messages and the page";
        EXPECT_NE(index("out").find("<p>5 messages</p>"), std::string::npos);
        EXPECT_TRUE(fs::is_empty(work("../runtime"))) << "temporary files were left behind";

        const Outcome rest = runStandIn("12.pst -o out --format txt --json");
        EXPECT_EQ(rest.exitCode, 0) << rest.err;
        EXPECT_EQ(json::parse(rest.out)["exported"], 7);
        EXPECT_EQ(json::parse(rest.out)["skipped"], 5);
        EXPECT_EQ(outputs("out"), outputs("whole"));
        before.erase("index.html");
        const auto after = identities("out");
        for (const auto& [name, identity] : before) {
            EXPECT_EQ(identity, after.at(name)) << name << " was done twice";
        }
        for (const std::string& name : outputs("whole")) {
            EXPECT_EQ(readFile(work("out") / name), readFile(work("whole") / name)) << name;
        }
        // A complete export is not even read again: the file's messages would not come.
        EXPECT_EQ(runStandIn("12.pst -o out --format txt", "STAND_IN_WAIT=1").exitCode, 0);
        fs::remove_all(work("out"));
    }
}

TEST_F(ExportRuns, KilledRunGoesOnToo) {
    {
        RunningExport run(command("12.pst -o out --format txt", "STAND_IN_WAIT=6"));
        ASSERT_TRUE(run.waitUntil([this] { return countTexts("out") == 5; })) << err();
        kill(run.pid(), SIGKILL);
        run.wait();
    }
    fs::remove_all(work("../runtime"));  // nobody was left to do that
    fs::create_directory(work("../runtime"));
    EXPECT_EQ(runStandIn("12.pst -o out --format txt").exitCode, 0);
    EXPECT_EQ(countTexts("out"), 12u);
    EXPECT_EQ(outputs("out").size(), 13u);
}

TEST_F(ExportRuns, WorkerThatDiesOrHangsCostsOneMessage) {
    struct {
        std::string arguments;
        int signal;
        std::string words;
    } const cases[] = {{"-o crash -j 1", SIGKILL, "message 2: the worker process that read the message ended early (SIGKILL)"},
                       {"-o hang -j 2 --timeout 5", 0, "message 2: the message was not done within the time limit."}};
    write("8.pst", "twelve bytes and more");  // so many that the reader has to wait, and stands beside the worker
    for (const auto& [arguments, signal, words] : cases) {
        RunningExport run(command("8.pst --format png -r 300 " + arguments, "STAND_IN_ENDLESS=2"));
        if (signal != 0) {
            // With one worker at a time: once the first message is there, the worker is at the second.
            const fs::path directory = work("crash");
            ASSERT_TRUE(run.waitUntil([&directory] { return fs::exists(directory / "000001 2024-03-05 Lunch.png"); })) << err();
            pid_t worker = 0;
            ASSERT_TRUE(run.waitUntil([&] { return (worker = workerOf(run.pid())) != 0; })) << err();
            kill(worker, signal);
        }
        EXPECT_EQ(WEXITSTATUS(run.wait()), 1);
        EXPECT_NE(err().find(words), std::string::npos) << err();
        const std::string directory = arguments.substr(3, arguments.find(' ', 3) - 3);
        EXPECT_EQ(outputs(directory).size(), 8u) << "seven messages and the page";
        EXPECT_FALSE(outputs(directory).contains("000002 2024-03-05 Lunch.png"));
    }
}

TEST_F(ExportRuns, TornAndDamagedJournalsCostLittle) {
    ASSERT_EQ(runStandIn("12.pst -o out --format txt").exitCode, 0);
    const fs::path journal = work("out/.ternview-export");
    const std::string whole = readFile(journal);
    const auto before = identities("out");
    const auto same = [&] {
        auto now = identities("out");
        auto then = before;
        now.erase("index.html");
        then.erase("index.html");
        return now == then;
    };
    struct {
        const char* what;
        std::string journal;
    } const cases[] = {
        {"the last line lost its end", whole.substr(0, whole.size() - 9)},
        {"half a line", whole + R"({"message":13,"of":0,"na)"},
        {"lines that are none", whole + "\n\n[1,2]\nnull\n{}\n\"x\"\n" + std::string(50'000, '[') + "\n{\"message\":1}\n"},
        {"a very long line", whole + R"({"message":1,"of":0,"failure":")" + std::string(std::size_t{3} << 20, 'x') + "\"}\n"},
        {"numbers that are too large", whole + R"({"message":4294967297,"of":0,"name":"000001 x","parts":1})" + "\n" +
                                           R"({"message":1,"of":99,"name":"000001 x","parts":1})" + "\n" +
                                           R"({"message":1,"of":0,"name":"000001 x","parts":4000000000})" + "\n" +
                                           R"({"message":-1,"of":-1,"name":"000001 x","parts":-1})" + "\n"},
        {"names that lead elsewhere", whole + R"({"message":1,"of":0,"name":"../000001 x","parts":1})" + "\n" +
                                          R"({"message":2,"of":0,"name":"/000001 x","parts":1})" + "\n" +
                                          R"({"message":3,"of":0,"name":"000001 a/../../x","parts":1})" + "\n" +
                                          R"({"message":4,"of":0,"name":"..","parts":1})" + "\n" +
                                          R"({"message":5,"of":0,"name":"000005 x","parts":1,"thumbnail":"../x.png"})" + "\n"},
    };
    for (const auto& [what, bytes] : cases) {
        std::ofstream(journal, std::ios::binary) << bytes;
        const Outcome outcome = runStandIn("12.pst -o out --format txt");
        EXPECT_EQ(outcome.exitCode, 0) << what << outcome.err;
        EXPECT_TRUE(same()) << what;
        EXPECT_NE(index("out").find("<p>12 messages</p>"), std::string::npos) << what;
    }
    for (const char* header : {"", "{", "{\"ternview-exp"}) {
        std::ofstream(journal, std::ios::binary) << header;
        EXPECT_EQ(runStandIn("12.pst -o out --format txt --quiet").exitCode, 0) << header;
    }
    EXPECT_EQ(countTexts("out"), 48u) << "without a journal every file there is somebody else's";
    for (const char* header : {"my notes\n", "{\"ternview-export\":2}\n", "{\"ternview-export\":1,\"index\":\"../x.html\"}\n"}) {
        std::ofstream(journal, std::ios::binary) << header;
        const Outcome outcome = runStandIn("12.pst -o out --format txt --restart");
        EXPECT_EQ(outcome.exitCode, 1) << header;
        EXPECT_NE(outcome.err.find("this is no journal of an export"), std::string::npos) << outcome.err;
        EXPECT_EQ(readFile(journal), header);
    }
}

TEST_F(ExportRuns, HostileJournalLeadsNowhereElse) {
    write("victims/000001 2024-03-05 Lunch.txt", "victim");
    write("out/notes.txt", "mine");
    fs::create_symlink("../victims", work("out/link"));
    const std::string identity = R"("path":")" + work("12.pst").string() + R"(","size":21,"changed":0,"store":true,)";
    const std::string header =
        R"({"ternview-export":1,"format":"txt","paper":"","resolution":0,"language":0,"plainText":false,"strict":false,"htmlEngine":"auto","index":"index.html"})";
    const std::string message = R"({"message":1,"of":0,"name":"000001 2024-03-05 Lunch","parts":1})";
    utimensat(AT_FDCWD, work("12.pst").c_str(), std::array<timespec, 2>{}.data(), 0);
    for (const char* directory : {"link", "../victims", "/tmp", "index-pictures", "a/b", ".."}) {
        std::ofstream(work("out/.ternview-export"), std::ios::binary)
            << header << "\n{\"file\":0," << identity << "\"directory\":\"" << directory << "\"}\n"
            << message << "\n"
            << R"({"message":2,"of":0,"name":"notes","parts":1})"
            << "\n";
        runStandIn("12.pst -o out --format txt --quiet");
        std::ofstream(work("out/.ternview-export"), std::ios::binary)
            << header << "\n{\"file\":0," << identity << "\"directory\":\"" << directory << "\"}\n"
            << message << "\n"
            << R"({"message":2,"of":0,"name":"notes","parts":1})"
            << "\n";
        runStandIn("12.pst -o out --format txt --quiet --restart");
        EXPECT_EQ(readFile(work("victims/000001 2024-03-05 Lunch.txt")), "victim") << directory;
        EXPECT_EQ(files(work("victims")).size(), 1u) << directory;
        EXPECT_EQ(readFile(work("out/notes.txt")), "mine") << directory;
    }
}

TEST_F(ExportRuns, OneDirectoryHoldsOneExportAtATime) {
    RunningExport first(command("12.pst -o out --format txt", "STAND_IN_WAIT=6"));
    ASSERT_TRUE(first.waitUntil([this] { return countTexts("out") == 5; })) << err();
    const Outcome second = runStandIn("12.pst -o other --format txt");
    EXPECT_EQ(second.exitCode, 0) << "another directory is free: " << second.err;
    const Outcome third = runStandIn("12.pst -o out --format txt");
    EXPECT_EQ(third.exitCode, 1);
    EXPECT_NE(third.err.find("another export into this directory is under way"), std::string::npos) << third.err;
    EXPECT_EQ(countTexts("out"), 5u);
    kill(first.pid(), SIGTERM);
    first.wait();
    EXPECT_EQ(runStandIn("12.pst -o out --format txt").exitCode, 0);
    EXPECT_EQ(outputs("out"), outputs("other"));
}

TEST_F(ExportRuns, OtherOptionsNeedAnotherDirectoryOrANewBeginning) {
    ASSERT_EQ(runStandIn("12.pst -o out --format txt").exitCode, 0);
    write("out/mine.txt", "mine");
    const auto before = identities("out");
    for (const char* options : {"--format pdf", "--format png -r 50", "--format txt --plain-text", "--format txt --lang de"}) {
        const Outcome outcome = runStandIn(std::string("12.pst -o out ") + options);
        EXPECT_EQ(outcome.exitCode, 2) << options;
        EXPECT_NE(outcome.err.find("holds an export with --format txt, and this one has --format"), std::string::npos)
            << outcome.err;
        EXPECT_NE(outcome.err.find("--restart"), std::string::npos);
    }
    EXPECT_EQ(identities("out"), before);
    EXPECT_EQ(runStandIn("12.pst -o out --format txt --paper letter").exitCode, 0) << "a text has no paper";
    write("3.pst", "twelve bytes and more");
    EXPECT_EQ(runStandIn("3.pst -o out --format html --restart").exitCode, 0);
    EXPECT_EQ(outputs("out"), (std::set<std::string>{"000001 2024-03-05 Lunch.html", "000002 2024-03-05 Lunch.html",
                                                     "000003 2024-03-05 Lunch.html", "index.html", "mine.txt"}));
    EXPECT_EQ(files(work("out/index-pictures")).size(), 3u);

    // A file that has changed is another one, whose messages may have other numbers.
    write("3.pst", "twelve bytes and some more");
    const Outcome changed = runStandIn("3.pst -o out --format html");
    EXPECT_EQ(changed.exitCode, 0);
    EXPECT_NE(changed.err.find("3.pst: this file has changed"), std::string::npos) << changed.err;
    EXPECT_TRUE(fs::exists(work("out/3/000001 2024-03-05 Lunch.html")));
    EXPECT_EQ(outputs("out").size(), 8u);
}

TEST_F(Export, WrongUsageIsRefused) {
    write("mail.eml", mail("x"));
    for (const char* arguments : {"", "mail.eml", "-o out", "mail.eml -o out --format doc", "mail.eml -o out -j 0",
                                  "mail.eml -o out --lang xx", "mail.eml -o out --paper a5"}) {
        EXPECT_EQ(runExport(arguments).exitCode, 2) << arguments;
    }
    EXPECT_FALSE(fs::exists(work("out")));
    EXPECT_NE(runExport("--help").out.find("ternview export"), std::string::npos);
}

// ---- progress

TEST(ExportProgress, TellsHowFarItIs) {
    using std::chrono::milliseconds;
    ternview::ExportCounts counts{.done = 0, .skipped = 0, .failed = 0, .known = 12, .knowsAll = false};
    EXPECT_EQ(ternview::progressLine(counts, milliseconds(0), 80), "0 of 12+");
    counts = {.done = 450, .skipped = 30, .failed = 20, .known = 1000, .knowsAll = true};
    EXPECT_EQ(ternview::progressLine(counts, milliseconds(47'000), 80),
              "[############............] 500 of 1000, 10/s, 0:50 left, 20 failed");
    EXPECT_EQ(ternview::progressLine(counts, milliseconds(47'000), 30), "[############............] 500");
    counts = {.done = 5, .skipped = 0, .failed = 0, .known = 100'000, .knowsAll = true};
    EXPECT_EQ(ternview::progressLine(counts, milliseconds(10'000), 80),
              "[........................] 5 of 100000, 0.5/s, 55:33:10 left");
}

TEST_F(ExportRuns, TerminalShowsProgress) {
    int terminal = -1;
    const pid_t pid = forkpty(&terminal, nullptr, nullptr, nullptr);
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        const std::string program = command("12.pst -o out --format txt", "STAND_IN_WAIT=6");
        execl("/bin/sh", "sh", "-c", program.substr(0, program.find(" > ../out")).c_str(), nullptr);
        _exit(127);
    }
    std::string shown;
    std::array<char, 1000> chunk;
    for (ssize_t got = 0; shown.find("5 of 12") == std::string::npos && (got = read(terminal, chunk.data(), chunk.size())) > 0;) {
        shown.append(chunk.data(), static_cast<std::size_t>(got));
    }
    EXPECT_NE(shown.find("5 of 12"), std::string::npos) << shown;
    kill(pid, SIGTERM);
    while (read(terminal, chunk.data(), chunk.size()) > 0) {
    }
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFSIGNALED(status));
    close(terminal);
}

}  // namespace
