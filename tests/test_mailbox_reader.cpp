// The process that reads all messages of many files, as the program that started it sees it, and the lines of a list.

#include <gtest/gtest.h>
#include <poll.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "mailbox/list_layout.h"
#include "mailbox/mailbox_frames.h"
#include "mailbox/mailbox_reader.h"
#include "mime_builder.h"
#include "rtf_compressor.h"
#include "store_builder.h"
#include "ternview_program.h"

#include <ternkit/formats.h>

namespace {

namespace fs = std::filesystem;
using ternview::Failure;
using ternview::JobResult;
using ternview::MailboxOptions;
using ternview::MailboxReader;
using ternview::MessageSummary;

// ---- frames

MessageSummary fullSummary() {
    MessageSummary message;
    message.number = 3;
    message.run = 2;
    message.count = 9;
    message.sourceFormat = 385;
    message.documentFormat = 369;
    message.status = -9;
    message.resultStatus = 2;
    message.failure = Failure::kStatus;
    message.detail = "detail";
    message.subject = "subject";
    message.senderName = "name";
    message.senderAddress = "address";
    message.displayTo = "to";
    message.displayCc = "cc";
    message.displayBcc = "bcc";
    message.date = "date";
    message.sentTime = -1;
    message.bodies = 5;
    message.size = 1'000'000'000'000;
    message.files = {{"a.html", 7}, {"b \xFF.png", 8}};
    return message;
}

TEST(MailboxFrames, MessageSurvivesTheWayAndNoPartOfItIsTaken) {
    const std::string payload = packMessage(fullSummary());
    const auto back = ternview::unpackMessage(payload);
    ASSERT_TRUE(back.has_value());
    EXPECT_EQ(packMessage(*back), payload);
    EXPECT_EQ(back->subject, "subject");
    EXPECT_EQ(back->sentTime, -1);
    EXPECT_EQ(back->files.at(1).name, "b \xFF.png");
    for (std::size_t length = 0; length < payload.size(); ++length) {
        EXPECT_FALSE(ternview::unpackMessage(payload.substr(0, length)).has_value()) << length;
    }
    EXPECT_FALSE(ternview::unpackMessage(payload + '\0').has_value());
}

TEST(MailboxFrames, MessagesThatCannotBeAreRefused) {
    const struct {
        const char* what;
        std::function<void(MessageSummary&)> spoil;
    } cases[] = {
        {"no name", [](MessageSummary& m) { m.files[0].name = ""; }},
        {"parent directory", [](MessageSummary& m) { m.files[0].name = ".."; }},
        {"other directory", [](MessageSummary& m) { m.files[0].name = "a/b"; }},
        {"name of two", [](MessageSummary& m) { m.files[0].name = std::string("a\0b", 3); }},
        {"long name", [](MessageSummary& m) { m.files[0].name = std::string(256, 'a'); }},
        {"many files",
         [](MessageSummary& m) {
             m.files.resize(ternview::kMostDocumentFiles + 1, {"a", 1});
         }},
        {"long text", [](MessageSummary& m) { m.subject = std::string(ternview::kLongestText + 1, 'a'); }},
        {"number", [](MessageSummary& m) { m.number = 0; }},
        {"negative number", [](MessageSummary& m) { m.number = -5; }},
        {"empty run", [](MessageSummary& m) { m.run = 0; }},
        {"run past the last number", [](MessageSummary& m) { m.run = 0x7FFFFFFF; }},
        {"failure", [](MessageSummary& m) { m.failure = static_cast<Failure>(1000); }},
        {"negative failure", [](MessageSummary& m) { m.failure = static_cast<Failure>(-1); }},
    };
    for (const auto& [what, spoil] : cases) {
        MessageSummary message = fullSummary();
        spoil(message);
        EXPECT_FALSE(ternview::unpackMessage(packMessage(message)).has_value()) << what;
    }
}

TEST(MailboxFrames, FileEndSurvivesTheWay) {
    JobResult result;
    result.status = -9;
    result.failure = Failure::kCrash;
    result.detail = "why";
    const std::string payload = packFileEnd(result);
    const auto back = ternview::unpackFileEnd(payload);
    ASSERT_TRUE(back.has_value());
    EXPECT_EQ(back->failure, Failure::kCrash);
    EXPECT_EQ(back->detail, "why");
    EXPECT_FALSE(ternview::unpackFileEnd(payload.substr(1)).has_value());
}

TEST(MailboxFrames, TextIsCutBetweenCharacters) {
    for (const char* character : {"a", "\u00e9", "\u6d77", "\U0001F30A"}) {
        for (std::size_t offset = 0; offset < 4; ++offset) {
            std::string text(offset, 'a');
            while (text.size() <= ternview::kLongestText + 8) {
                text += character;
            }
            const std::size_t size = ternview::cutText(text).size();
            EXPECT_LE(size, ternview::kLongestText);
            EXPECT_GT(size + 4, ternview::kLongestText);
            EXPECT_EQ((size - offset) % std::string(character).size(), 0u) << character << offset;
        }
    }
}

// ---- lines

TEST(ListLayout, WidthsAreThoseOfATerminal) {
    const struct {
        const char* text;
        std::size_t width;
    } widths[] = {{"", 0}, {"abc", 3}, {"海辺", 4}, {"e\u0301", 1}, {"ＡＢ", 4}, {"ｱ", 1}, {"שלום", 4}};
    for (const auto& [text, width] : widths) {
        EXPECT_EQ(ternview::displayWidth(text), width) << text;
    }
    const struct {
        const char* text;
        std::size_t width;
        const char* cut;
    } cuts[] = {{"abc", 3, "abc"},      {"abcd", 3, "ab…"},   {"海辺だ", 6, "海辺だ"},
                {"海辺だ", 5, "海辺…"}, {"海辺だ", 4, "海…"}, {"abe\u0301", 3, "abe\u0301"},
                {"abc", 1, "…"},        {"abc", 0, ""},       {"", 0, ""}};
    for (const auto& [text, width, cut] : cuts) {
        EXPECT_EQ(ternview::cutToWidth(text, width), cut) << text << width;
    }
}

TEST(ListLayout, LinesFitTheTerminal) {
    MessageSummary message = fullSummary();
    message.senderName = "山田 花子 and everybody else";
    message.subject = "海辺を歩く — " + std::string(500, 'x');
    for (const Failure failure : {Failure::kNone, Failure::kStatus}) {
        message.failure = failure;
        for (std::size_t width = 1; width < 200; ++width) {
            const std::string line = messageLine(message, width);
            EXPECT_LE(ternview::displayWidth(line.substr(0, line.size() - 1)), width);
            EXPECT_EQ(line.back(), '\n');
        }
        EXPECT_NE(messageLine(message, std::nullopt).find(message.subject), std::string::npos);
    }
}

TEST(ListLayout, SizesAreShort) {
    const struct {
        std::uint64_t bytes;
        const char* text;
    } cases[] = {{0, "0"},          {999, "999"},      {1000, "1.0K"},       {10188, "9.9K"},    {10200, "10K"},
                 {1023487, "999K"}, {1023488, "1.0M"}, {5ULL << 30, "5.0G"}, {UINT64_MAX, "16E"}};
    for (const auto& [bytes, text] : cases) {
        EXPECT_EQ(ternview::humanSize(bytes), text) << bytes;
    }
}

// ---- the reader

class Visitor final : public ternview::MailboxVisitor {
public:
    void message(MessageSummary summary) override { messages.push_back(std::move(summary)); }
    void fileEnd(std::size_t file, const JobResult& result) override { ends.emplace_back(file, result.failure); }

    std::vector<MessageSummary> messages;
    std::vector<std::pair<std::size_t, Failure>> ends;
};

class Reader : public TernviewProgram {
protected:
    void SetUp() override {
        TernviewProgram::SetUp();
        fs::create_directory(work("documents"));
        StoreBuilder store(builder::Layout::Unicode, builder::Encoding::Permutative);
        builder::Folder& inbox = store.addFolder("Inbox");
        inbox.addMessage({.subject = "html", .htmlBody = "<html><body>Red:<img src=\"cid:red.png\"></body></html>"})
            .attach({.name = "red.png", .longName = "red.png", .data = builder::Bytes(100, 0x5A)});
        const std::string rtf = rtf::Compressed("{\\rtf1\\ansi{\\fonttbl{\\f0 Arial;}}\\pard text\\par}");
        inbox.addMessage({.subject = "rtf", .rtfCompressed = builder::Bytes(rtf.begin(), rtf.end())});
        inbox.addMessage({.subject = "nothing"});
        const builder::Bytes bytes = store.bytes();
        write("mail.pst", {bytes.begin(), bytes.end()});
        write("mail.eml", mime::Plain("See you at noon.\r\n").addressed().bytes());
    }

    MailboxOptions documents() const {
        MailboxOptions options;
        options.documents = true;
        options.documentDirectory = work("documents");
        return options;
    }

    std::vector<std::string> bothFiles() const { return {work("mail.pst").string(), work("mail.eml").string()}; }

    /// @param expected messages; 0: to the end
    static void readOn(MailboxReader& reader, Visitor& visitor, std::size_t expected = 0) {
        while (!reader.done() && (expected == 0 || visitor.messages.size() < expected)) {
            pollfd watched{reader.descriptor(), POLLIN, 0};
            ASSERT_GT(::poll(&watched, 1, 20'000), 0) << "the reader says nothing";
            reader.attend(visitor);
        }
    }

    using StoreBuilder = builder::StoreBuilder;
};

TEST_F(Reader, HandsDocumentsOverAsFiles) {
    const struct {
        ternview::DocumentRoute route;
        std::size_t filesOfHtml;
    } routes[] = {{ternview::DocumentRoute::kTemporaryFiles, 2}, {ternview::DocumentRoute::kMemory, 1}};
    for (const auto& [route, filesOfHtml] : routes) {
        MailboxOptions options = documents();
        options.route = route;
        Visitor visitor;
        {
            MailboxReader reader(bothFiles(), options);
            reader.grant(10);
            readOn(reader, visitor);
        }
        ASSERT_EQ(visitor.messages.size(), 4u);
        EXPECT_EQ(visitor.messages[0].documentFormat, ternkit::kFormatHtml);
        EXPECT_EQ(visitor.messages[1].documentFormat, ternkit::kFormatRtf);
        EXPECT_EQ(visitor.messages[2].failure, Failure::kStatus);
        EXPECT_TRUE(visitor.messages[2].files.empty());
        EXPECT_EQ(visitor.messages[3].documentFormat, ternkit::kFormatText);
        EXPECT_EQ(visitor.messages[3].file, 1u);
        EXPECT_EQ(visitor.messages[0].files.size(), filesOfHtml);
        EXPECT_EQ(files(work("documents")).size(), 3u);
        std::map<std::size_t, std::string> contents;  // of the documents
        for (std::size_t i = 0; i < visitor.messages.size(); ++i) {
            const MessageSummary& message = visitor.messages[i];
            for (const ternview::TempFile& file : message.files) {
                EXPECT_EQ(fs::file_size(message.directory / file.name), file.size) << file.name;
            }
            if (!message.files.empty()) {
                EXPECT_EQ(files(message.directory).size(), message.files.size());
                contents[i] = readFile(message.directory / message.files[0].name);
                fs::remove_all(message.directory);
            }
        }
        EXPECT_NE(contents[0].find("Red:"), std::string::npos);
        EXPECT_NE(contents[0].find(filesOfHtml == 2 ? visitor.messages[0].files[1].name : "data:image"), std::string::npos);
        EXPECT_TRUE(contents[1].starts_with("{\\rtf1"));
        EXPECT_NE(contents[3].find("See you at noon."), std::string::npos);
    }
}

TEST_F(Reader, WaitsForGrantsAndLeavesNothing) {
    Visitor visitor;
    {
        MailboxReader reader(bothFiles(), documents());
        EXPECT_FALSE(reader.deadline().has_value());
        pollfd watched{reader.descriptor(), POLLIN, 0};
        EXPECT_EQ(::poll(&watched, 1, 200), 0) << "nothing is granted";
        reader.grant(1);
        EXPECT_TRUE(reader.deadline().has_value());
        readOn(reader, visitor, 1);
        EXPECT_EQ(visitor.messages.size(), 1u);
        EXPECT_FALSE(reader.deadline().has_value());
        reader.grant(1);
        reader.grant(1);
        readOn(reader, visitor, 3);
        while (visitor.ends.empty()) {
            ASSERT_EQ(::poll(&watched, 1, 20'000), 1) << "the end of a file needs no grant";
            reader.attend(visitor);
        }
        EXPECT_EQ(::poll(&watched, 1, 200), 0) << "nothing more is granted";
    }
    EXPECT_EQ(files(work("documents")), (std::set<std::string>{"message-0", "message-1"})) << "what was taken is the taker's";
}

TEST_F(Reader, PassesOverWhatIsNotWanted) {
    MailboxOptions options = documents();
    options.wanted = [](std::size_t file, std::int32_t number) { return file == 0 && number == 2; };
    Visitor visitor;
    MailboxReader reader(bothFiles(), options);
    reader.grant(10);
    readOn(reader, visitor);
    ASSERT_EQ(visitor.messages.size(), 1u);
    EXPECT_EQ(visitor.messages[0].number, 2);
    EXPECT_EQ(visitor.messages[0].subject, "rtf");
    EXPECT_EQ(visitor.ends.size(), 2u);
    EXPECT_TRUE(fs::exists(visitor.messages[0].directory / visitor.messages[0].files.at(0).name));
}

TEST_F(Reader, FilesThatCannotBeReadEndInTheirOrder) {
    Visitor visitor;
    MailboxReader reader({"/nowhere/a.pst", bothFiles()[1], work().string()}, {});
    reader.grant(10);
    readOn(reader, visitor);
    EXPECT_EQ(visitor.ends, (std::vector<std::pair<std::size_t, Failure>>{
                                {0, Failure::kNoSuchFile}, {1, Failure::kNone}, {2, Failure::kDirectory}}));
    EXPECT_EQ(reader.descriptor(), -1);
    MailboxReader nothing({}, {});
    EXPECT_TRUE(nothing.done());
}

/// A process may read the files that there were when it began.
TEST_F(Reader, AFileThatIsReplacedMeanwhileIsReadAllTheSame) {
    write("next.eml", "To: a@example.com\r\nSubject: before\r\n\r\nbefore\r\n");
    write("new", "To: a@example.com\r\nSubject: after\r\n\r\nafter\r\n");
    Visitor visitor;
    MailboxReader reader({bothFiles()[0], work("next.eml").string()}, documents());
    reader.grant(1);
    readOn(reader, visitor, 1);
    fs::rename(work("new"), work("next.eml"));
    reader.grant(10);
    readOn(reader, visitor);
    ASSERT_EQ(visitor.messages.size(), 4u);
    EXPECT_EQ(visitor.messages[3].subject, "after");
    EXPECT_EQ(visitor.ends.back(), std::pair(std::size_t{1}, Failure::kNone));
}

/// A process reads some hundred of them, and then another one goes on.
TEST_F(Reader, ManyFilesEndInTheirOrder) {
    constexpr std::size_t kFiles = 600;
    std::vector<std::string> many(kFiles, bothFiles()[1]);
    many[255] = many[256] = many[511] = "/nowhere/a.pst";
    Visitor visitor;
    MailboxReader reader(many, documents());
    reader.grant(100);
    readOn(reader, visitor, 100);
    reader.grant(kFiles);
    readOn(reader, visitor);
    EXPECT_EQ(visitor.messages.size(), kFiles - 3);
    ASSERT_EQ(visitor.ends.size(), kFiles);
    for (std::size_t i = 0; i < kFiles; ++i) {
        EXPECT_EQ(visitor.ends[i], std::pair(i, many[i].starts_with("/nowhere") ? Failure::kNoSuchFile : Failure::kNone));
    }
    std::set<fs::path> directories;
    for (const MessageSummary& message : visitor.messages) {
        EXPECT_TRUE(fs::exists(message.directory / message.files.at(0).name));
        directories.insert(message.directory);
    }
    EXPECT_EQ(directories.size(), visitor.messages.size());
}

}  // namespace
