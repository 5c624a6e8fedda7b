// Outlook items, from their streams to the document, through the exports.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>
#include <utility>
#include <vector>

#include "fileformats/pst/common/msgdocument.h"
#include "filter_host.h"
#include "msg_builder.h"
#include "rtf_compressor.h"

using namespace ternkit;
using namespace msg;
using compound::Storage;

using std::string_literals::operator""s;

namespace {

const std::string kMark = "\xEF\xBB\xBF";
const std::string kMeta = "<meta http-equiv=Content-Type content=\"text/html; charset=utf-8\">";
const std::string kPicture(60, '\x5A');
const std::string kPictureUri = [] {
    std::string uri = "data:image;base64,";
    for (std::size_t at = 0; at < kPicture.size(); at += 3) {
        uri += "Wlpa";
    }
    return uri;
}();

std::string HtmlRow(const std::string& label, const std::string& value) {
    return "\n<table style = 'border-collapse: collapse ; table-layout: fixed; width: 100%'><tr><td style = 'width:87pt; "
           "padding: "
           "0px; vertical-align:top'><b><span style = 'font-family:\"Calibri\",\"sans-serif\";mso-bidi-font-family:Calibri; "
           "color:black'>" +
           label +
           "</span></b></td><td style = 'padding: 0px'><span style = 'font-family:\"Calibri\",\"sans-serif\";"
           "mso-bidi-font-family:Calibri; color:black; word-wrap: break-word;'>" +
           value + "</span></td></tr></table>\r\n";
}

const std::string kHtmlSeparator = "<p class=MsoNormal><o:p>&nbsp;</o:p></p>";

std::string RtfRow(const std::string& label, const std::string& value) {
    return "\r{\\rtlch\\fcs1 \\ab\\af37 \\ltrch\\fcs0 \\b\\cf0\\insrsid5716485 " + label +
           "\\tab }{\\rtlch\\fcs1 \\af37 \\ltrch\\fcs0 \\cf0 " + value + "\\insrsid5716485 \\par }\r\n";
}

const std::string kRtfSeparator =
    "\\pard \\ltrpar\\ql \\li0\\ri0\\widctlpar\\wrapdefault\\aspalpha\\aspnum\\faauto\\adjustright\\rin0\\lin0\\itap0 "
    "{\\rtlch\\fcs1 \\af1 \\ltrch\\fcs0 \\insrsid5716485 \\par }";

const std::string kRtfHead = "{\\rtf1\\ansi\\deff0{\\fonttbl{\\f0\\fswiss Arial;}}\r\n";
const std::string kRtfText = "\\pard\\plain\\f0 Hello\\par}";

/** An item whose body is this HTML, byte for byte: stored text is taken as it is. */
MsgBuilder HtmlItem(const std::string& html) {
    MsgBuilder item;
    item.binary(kRtfCompressed, rtf::Stored(html));
    return item;
}

void InUtc() {
    setenv("TZ", "UTC", 1);
    tzset();
}

class MsgItem : public testing::Test {
protected:
    MsgItem() { InUtc(); }
};

struct Kind {
    std::uint32_t format;
    std::string document;
};

void ExpectDocument(const MsgBuilder& item, const Kind& expected) {
    const Shown shown = Show(item.bytes());
    EXPECT_EQ(shown.status, kOk);
    EXPECT_EQ(shown.format, expected.format);
    EXPECT_EQ(shown.document, expected.document);
}

void ExpectStatus(const MsgBuilder& item, Status status) {
    EXPECT_EQ(Show(item.bytes()).status, status);
}

/** All header fields, in an item of either text form. */
MsgBuilder Addressed(TextForm form = TextForm::Unicode, compound::Options options = {}) {
    MsgBuilder item(form, options);
    item.text(kSubject, "Terns").text(kSenderName, "Ann").text(kSenderSmtpAddress, "ann@example.org");
    item.text(kDisplayTo, "Bob; Cid").text(kDisplayCc, "Dan").text(kDisplayBcc, "Eve");
    item.time(kClientSubmitTime, 0x01D321C5D1711780).number(kImportance, 2);
    item.recipient(RecipientKind::To, "Bob", "bob@example.org").recipient(RecipientKind::To, "Cid", "cid@example.org");
    item.recipient(RecipientKind::Cc, "Dan", "dan@example.org").recipient(RecipientKind::Bcc, "Eve", "eve@example.org");
    return item;
}

const std::string kAddressedText =
    "From:      \tAnn <ann@example.org>\r\nSent:      \tWed Aug 30, 2017 07:26 PM\r\nTo:        \tBob; Cid\r\n"
    "Cc:        \tDan\r\nBcc:       \tEve\r\nSubject:   \tTerns\r\nImportance:\tHigh\r\n\r\n";
const std::string kAddressedHtml = HtmlRow("From:      ", "Ann &lt;ann@example.org&gt;") +
                                   HtmlRow("Sent:      ", "Wed Aug 30, 2017 07:26 PM") + HtmlRow("To:        ", "Bob; Cid") +
                                   HtmlRow("Cc:        ", "Dan") + HtmlRow("Bcc:       ", "Eve") +
                                   HtmlRow("Subject:   ", "Terns") + HtmlRow("Importance:", "High") + kHtmlSeparator;

// --------------------------------------------------------------------------------------------------------- kinds of document

TEST_F(MsgItem, PlainTextInEveryForm) {
    for (const TextForm form : {TextForm::Unicode, TextForm::EightBit}) {
        for (const auto sectors : {compound::SectorSize::Of512, compound::SectorSize::Of4096}) {
            for (const auto arrangement : {compound::Arrangement::Neighbours, compound::Arrangement::Scattered}) {
                MsgBuilder item = Addressed(form, {sectors, arrangement});
                const std::string body = "How are you?\r\n" + std::string(5000, 'x');
                item.text(kBody, body);
                ExpectDocument(item, {kFormatText, kMark + kAddressedText + body});
            }
        }
    }
}

TEST_F(MsgItem, Rtf) {
    MsgBuilder item = Addressed();
    item.text(kBody, "Hello").binary(kRtfCompressed, rtf::Compressed(kRtfHead + kRtfText));
    ExpectDocument(item,
                   {kFormatRtf, kRtfHead + RtfRow("From:      ", "Ann <ann@example.org>") +
                                    RtfRow("Sent:      ", "Wed Aug 30, 2017 07:26 PM") + RtfRow("To:        ", "Bob; Cid") +
                                    RtfRow("Cc:        ", "Dan") + RtfRow("Bcc:       ", "Eve") + RtfRow("Subject:   ", "Terns") +
                                    RtfRow("Importance:", "High") + kRtfSeparator + kRtfText});
    // Without a place for the block, and with no bytes of HTML about it.
    MsgBuilder bare = Addressed();
    bare.binary(kRtfCompressed, rtf::Stored("{\\rtf1{\\fonttbl{\\f0 A;}}<head>}"));
    ExpectDocument(bare, {kFormatRtf, "{\\rtf1{\\fonttbl{\\f0 A;}}<head>}"});
}

TEST_F(MsgItem, HtmlOutOfRtf) {
    const std::string marker = "<div>&nbsp;value=\"/1\">";
    const std::string html =
        "<html><head></head><body><p>&#1;Caf\xC3\xA9, \xD0\xBC\xD0\xB8\xD1\x80</p>" + marker + "x</div></body></html>";
    MsgBuilder item = Addressed();
    item.text(kBody, "plain").binary(kRtfCompressed, rtf::Compressed(HtmlInRtf(html)));
    ExpectDocument(item, {kFormatHtml, "<html><head>" + kMeta + "</head><body>" + kAddressedHtml +
                                           "<p>    Caf&#233;, &#1084;&#1080;&#1088;</p>" + std::string(marker.size(), ' ') +
                                           "x</div></body></html>"});
}

TEST_F(MsgItem, HtmlWrapperAndCharset) {
    const std::pair<std::string, bool> cases[] = {
        {"<HTML><body>x</body></HTML>", false},
        {" \r\n <html>x", false},
        {"<html", false},
        {"<hTmLx", false},
        {"<htm", true},
        {"<body>x", true},
        {"x<html>", true},
        {"\t<html>x", true},
        {" \r\n", true},
        {"<!DOCTYPE html>x", true},
    };
    for (const auto& [html, wrapped] : cases) {
        ExpectDocument(HtmlItem(html), {kFormatHtml, wrapped ? "<html>" + html + "</html>" : html});
    }
    ExpectDocument(HtmlItem("<html><head></head>"), {kFormatHtml, "<html><head>" + kMeta + "</head>"});
    ExpectDocument(HtmlItem("<html><head></head>charset"), {kFormatHtml, "<html><head></head>charset"});
    ExpectDocument(HtmlItem("<html><HEAD></HEAD>"), {kFormatHtml, "<html><HEAD></HEAD>"});
    ExpectDocument(HtmlItem(""), {kFormatHtml, "<html></html>"});
}

TEST_F(MsgItem, PlainTextOnly) {
    MsgBuilder item = Addressed();
    item.text(kBody, "plain").binary(kRtfCompressed, rtf::Stored("<html>rich"));
    FilterHost host(item.bytes());
    host.infoRequest.plainTextOnly = 1;
    host.loadRequest.plainTextOnly = 1;
    EXPECT_EQ(host.info(), kOk);
    EXPECT_EQ(host.load(), kOk);
    EXPECT_EQ(Value(host.delivery.info.format), kFormatText);
    EXPECT_EQ(host.delivery.document, kMark + kAddressedText + "plain");
    EXPECT_EQ(Value(host.fileInfo.format), kFormatMsg);
}

// --------------------------------------------------------------------------------------------------------------------- bodies

TEST_F(MsgItem, WhichBody) {
    const std::string subjectLine = kMark + "Subject:   \tS\r\n\r\n";
    MsgBuilder none;
    none.text(kSubject, "S");
    ExpectDocument(none, {kFormatText, subjectLine});

    MsgBuilder both;
    both.text(kSubject, "S").text(kBody, "wide \xE2\x82\xAC \xF0\x9F\x90\xA6").extra([](Storage& root) {
        root.stream(StreamName(kBody, kEightBit), "narrow");
    });
    ExpectDocument(both, {kFormatText, subjectLine + "wide \xE2\x82\xAC \xF0\x9F\x90\xA6"});

    MsgBuilder narrow(TextForm::EightBit);
    narrow.text(kSubject, "S").text(kBody, "caf\xE9");
    ExpectDocument(narrow, {kFormatText, subjectLine + "caf\xE9"});  // its bytes, whatever their code page

    MsgBuilder emptyWide;
    emptyWide.text(kSubject, "S").text(kBody, "");
    ExpectStatus(emptyWide, kUnusable);
    emptyWide.binary(kRtfCompressed, rtf::Stored("rich"));
    ExpectDocument(emptyWide, {kFormatHtml, "<html>" + HtmlRow("Subject:   ", "S") + kHtmlSeparator + "rich</html>"});

    // Half a character at the end, and closing NULs that some programs write.
    MsgBuilder odd;
    odd.text(kSubject, "S").extra([](Storage& root) { root.stream(StreamName(kBody, kUnicode), "a\0b\0\0\0?"s); });
    ExpectDocument(odd, {kFormatText, subjectLine + "ab"});
}

TEST_F(MsgItem, DamagedRichBody) {
    const std::string block = rtf::Compressed(kRtfHead + kRtfText);
    MsgBuilder item;
    item.text(kBody, "plain");
    for (const std::size_t damaged : {std::size_t{0}, std::size_t{12}, block.size() - 1}) {  // size, CRC, content
        std::string bytes = block;
        bytes[damaged] = static_cast<char>(bytes[damaged] ^ 1);
        ExpectStatus(item.binary(kRtfCompressed, bytes), kUnusable);
    }
    // What is no compressed RTF at all leaves the plain body.
    for (const std::string& bytes : {""s, block.substr(0, 11), std::string(40, 'x')}) {
        ExpectDocument(item.binary(kRtfCompressed, bytes), {kFormatText, kMark + "plain"});
    }
    ExpectStatus(item.binary(kRtfCompressed, block.substr(0, 12)), kUnusable);
    // RTF without fonts, and HTML whose body tag has no end, have no place for a header block.
    MsgBuilder addressed = Addressed();
    ExpectStatus(addressed.binary(kRtfCompressed, rtf::Stored("{\\rtf1\\pard}")), kNoMemory);
    ExpectStatus(addressed.binary(kRtfCompressed, rtf::Stored("<body ")), kNoMemory);
}

// --------------------------------------------------------------------------------------------------------------------- header

TEST_F(MsgItem, SenderAddress) {
    struct Case {
        const char* smtp;
        const char* representing;
        const char* line;
    };
    const Case cases[] = {
        {"a@x", "b@x", "Ann <a@x>"}, {nullptr, "b@x", "Ann <b@x>"}, {nullptr, "/o=x/cn=ann", "Ann"},
        {"", "b@x", "Ann <b@x>"},    {"/o=x/cn=ann", "b@x", "Ann"}, {nullptr, nullptr, "Ann"},
    };
    for (const TextForm form : {TextForm::Unicode, TextForm::EightBit}) {
        for (const Case& c : cases) {
            MsgBuilder item(form);
            item.text(kSenderName, "Ann").text(kBody, "x");
            if (c.smtp != nullptr) {
                item.text(kSenderSmtpAddress, c.smtp);
            }
            if (c.representing != nullptr) {
                item.text(kSentRepresentingAddress, c.representing);
            }
            const std::string document = Show(item.bytes()).document;
            const std::string expected = kMark + "From:      \t" + c.line + "\r\n";
            // A name without an address may stand with empty brackets: the block tells an empty text from none.
            EXPECT_EQ(document.substr(0, expected.size() - 2), expected.substr(0, expected.size() - 2));
            EXPECT_EQ(document.find("@x>") != std::string::npos, std::string(c.line).find('@') != std::string::npos) << document;
            EXPECT_EQ(document.find("/o="), std::string::npos);
        }
    }
    MsgBuilder onBehalf = HtmlItem("rich");
    onBehalf.text(kSenderName, "Ann").text(kSenderSmtpAddress, "a@x").text(kOriginalAuthorName, "Bob");
    ExpectDocument(onBehalf,
                   {kFormatHtml, "<html>" + HtmlRow("From:      ", "Ann on behalf of Bob") + kHtmlSeparator + "rich</html>"});
}

TEST_F(MsgItem, PropertyStream) {
    constexpr std::uint64_t kSent = 0x01D321C5D1711780;
    const auto lines = [](const MsgBuilder& item) {
        const std::string document = Show(item.bytes()).document;
        return document.substr(0, document.find("BODY"));
    };
    const std::string sent = "Sent:      \tWed Aug 30, 2017 07:26 PM\r\n";
    const auto item = [](std::uint32_t importance) {
        MsgBuilder built;
        built.text(kBody, "BODY").time(kClientSubmitTime, kSent).number(kImportance, importance);
        return built;
    };
    EXPECT_EQ(lines(item(0)), kMark + sent + "Importance:\tLow\r\n\r\n");
    EXPECT_EQ(lines(item(1)), kMark + sent);
    EXPECT_EQ(lines(item(2)), kMark + sent + "Importance:\tHigh\r\n\r\n");
    EXPECT_EQ(lines(item(3)), kMark + sent);
    // A time of another type, or one before 1970.
    EXPECT_EQ(lines(item(1).number(kClientSubmitTime, 5)), kMark);
    EXPECT_EQ(lines(item(1).time(kClientSubmitTime, 5)), kMark);
    // An entry counts when it ends within the stream: here the stream is cut in front of, and behind, the last byte of one.
    const std::string head(32, '\0');
    const std::string entry = "\x40\0\x39\0\6\0\0\0\x80\x17\x71\xD1\xC5\x21\xD3\x01"s;
    for (const auto& [stream, shown] :
         {std::pair(head + entry, true), std::pair(head + entry.substr(0, 15), false), std::pair(entry + entry, true),
          std::pair((entry + entry).substr(0, 31), false), std::pair(""s, false)}) {
        MsgBuilder cut = item(1);
        cut.extra([bytes = stream](Storage& root) { root.stream(kProperties, bytes); });
        EXPECT_EQ(lines(cut), kMark + (shown ? sent : ""));
    }
}

// ---------------------------------------------------------------------------------------------------------------- attachments

TEST_F(MsgItem, PicturesOnBothRoutes) {
    MsgBuilder item = HtmlItem("<html><img src=\"cid:one@x\"><img src=\"two.png\"><v:imagedata src=\"two.png\"></html>");
    item.attach({.name = "one.png", .contentId = "one@x", .data = kPicture});
    item.attach({.name = "two.png", .data = kPicture});
    item.attach({.name = "other.png", .contentId = "other@x", .data = kPicture});
    const std::string bytes = item.bytes();
    const Shown memory = Show(bytes, Route::Memory);
    EXPECT_EQ(memory.document,
              "<html><img src=\"" + kPictureUri + "\"><img src=\"" + kPictureUri + "\"><v:imagedata src=\"two.png\"></html>");
    const Shown files = Show(bytes, Route::TemporaryFiles);
    EXPECT_EQ(files.document, "<html><img src=\"one@x_one.png\"><img src=\"two.png\"><v:imagedata src=\"two.png\"></html>");
    EXPECT_EQ(files.pictures, (std::map<std::string, std::string>{{"one@x_one.png", kPicture}, {"two.png", kPicture}}));
}

TEST_F(MsgItem, NumberingOfAttachments) {
    const auto named = [](std::vector<std::uint32_t> numbers) {
        std::string html = "<html>";
        MsgBuilder item;
        for (const std::uint32_t number : numbers) {
            const std::string name = "p" + std::to_string(number) + ".png";
            html += "<img src=\"" + name + "\">";
            item.nextAttachment(number).attach({.name = name, .data = kPicture});
        }
        item.binary(kRtfCompressed, rtf::Stored(html));
        return Show(item.bytes(), Route::TemporaryFiles).pictures.size();
    };
    EXPECT_EQ(named({0, 1, 2}), 3U);
    EXPECT_EQ(named({0, 2, 3}), 3U);
    EXPECT_EQ(named({1, 3, 5}), 3U);
    EXPECT_EQ(named({0, 3}), 1U);
    EXPECT_EQ(named({2}), 0U);
    EXPECT_EQ(named({9, 10, 11}), 0U);
}

TEST_F(MsgItem, AttachmentsWithoutEffect) {
    const std::string html = "<html><img src=\"a.png\"><img src=\"cid:\"></html>";
    MsgBuilder item = HtmlItem(html);
    item.attach(Addressed().text(kBody, "inner"), {.name = "a.png"});   // a message
    item.attach({.name = "", .contentId = "a.png", .data = kPicture});  // no name
    item.attach({.name = "b.png", .contentId = "", .data = kPicture});  // "cid:" alone names nothing
    item.attach({.name = "a.png", .data = kPicture}).extra([](Storage& root) {
        root.storage(AttachmentStorage(3)).stream(StreamName(0x3701, kBinary), kPicture);
        root.storage(AttachmentStorage(4)).stream(StreamName(kAttachFilename, kEightBit), "a.png");  // no bytes
        root.stream(AttachmentStorage(5), "no storage");
    });
    ExpectDocument(item, {kFormatHtml, "<html><img src=\"" + kPictureUri + "\"><img src=\"cid:\"></html>"});
}

/** Both calls on one item: the statuses, and what fltLoad reports beside its own. */
struct Loaded {
    Status status;
    Status result;
    std::string document;
};

Loaded Load(const std::string& bytes) {
    FilterHost host(bytes);
    const Status status = host.load();
    return {status, Value(host.loadRequest.resultStatus), host.delivery.document};
}

TEST_F(MsgItem, AttachmentsThatFail) {
    const std::string html = "<html><img src=\"a.png\"><img src=\"b.png\"><img src=\"c.png\"></html>";
    MsgBuilder item = HtmlItem(html);
    for (const char* name : {"a.png", "b.png", "c.png"}) {
        item.attach({.name = name, .data = std::string(5000, 'x')});
    }
    const compound::CompoundImage whole = item.image();
    const std::string data = AttachmentStorage(1) + "/" + StreamName(0x3701, kBinary);
    const std::string name = AttachmentStorage(1) + "/" + StreamName(kAttachFilename, kUnicode);
    const std::string longName = AttachmentStorage(1) + "/" + StreamName(0x3707, kUnicode);
    const Loaded sound = Load(whole.bytes);
    EXPECT_EQ(sound.status, kOk);
    EXPECT_EQ(sound.result, kOk);
    EXPECT_EQ(sound.document.find(".png"), std::string::npos);
    // The message loads with what was embedded in front of the failure.
    for (const std::string& path : {data, name}) {
        compound::CompoundImage image = whole;
        image.put32(image.entryOf(path) + compound::kEntrySize, 0x7FFFFFFF);
        const Loaded loaded = Load(image.bytes);
        EXPECT_EQ(loaded.status, kOk);
        EXPECT_EQ(loaded.result, kNoMemory);
        EXPECT_EQ(loaded.document.find("a.png"), std::string::npos);
        EXPECT_NE(loaded.document.find("\"b.png\"><img src=\"c.png\""), std::string::npos);
    }
    // A stream that nobody reads may claim what it likes.
    compound::CompoundImage image = whole;
    image.put32(image.entryOf(longName) + compound::kEntrySize, 0x7FFFFFFF);
    EXPECT_EQ(Load(image.bytes).result, kOk);
    EXPECT_EQ(Load(image.bytes).document, sound.document);
    // Too short for a data URI.
    MsgBuilder tiny = HtmlItem(html);
    tiny.attach({.name = "a.png", .data = "x"});
    EXPECT_EQ(Load(tiny.bytes()).result, 0);
    EXPECT_EQ(Load(tiny.bytes()).document, html);
}

TEST_F(MsgItem, AttachmentsThatAreNotNamedAreNotRead) {
    MsgBuilder item = HtmlItem("<html><img src=\"last.png\"></html>");
    for (int i = 0; i < 2000; ++i) {
        item.attach({.name = "file" + std::to_string(i) + ".pdf", .contentId = std::to_string(i) + "@x", .data = "0123456789"});
    }
    item.attach({.name = "last.png", .data = kPicture});
    compound::CompoundImage image = item.image();
    for (std::uint32_t i = 0; i < 2000; ++i) {
        image.put32(image.entryOf(AttachmentStorage(i) + "/" + StreamName(0x3701, kBinary)) + compound::kEntrySize, 0x7FFFFFFF);
    }
    const Loaded loaded = Load(image.bytes);
    EXPECT_EQ(loaded.result, kOk);
    EXPECT_EQ(loaded.document, "<html><img src=\"" + kPictureUri + "\"></html>");
}

// --------------------------------------------------------------------------------------------------------------------- damage

TEST_F(MsgItem, WhatCannotBeOpened) {
    MsgBuilder item = Addressed();
    item.text(kBody, "x");
    const compound::CompoundImage whole = item.image();
    for (const std::size_t size : {std::size_t{11}, std::size_t{12}, std::size_t{511}}) {
        EXPECT_EQ(Show(whole.bytes.substr(0, size)).status, size < 12 ? kShortRead : kUnusable) << size;
    }
    compound::CompoundImage image = whole;
    image.put32(compound::kHeaderCutoff, 4095);
    EXPECT_EQ(Show(image.bytes).status, kUnusable);
    // The tables lie at the end: without them the file opens, and has no streams. A text without lines is still a text.
    EXPECT_EQ(Show(whole.bytes.substr(0, 2048)).document, kMark);
}

TEST_F(MsgItem, FileThatIsGone) {
    PstFilterData* record = MakeFilterData();
    BodyKind bodyKind = BodyKind::None;
    EXPECT_EQ(DispatchMsgMessage(u"/nowhere/item.msg", *record, bodyKind, false), kMsgCannotOpen);
    EXPECT_EQ(record->sourceKind, SourceKind::Unknown);
    DestroyFilterData(record);
}

TEST_F(MsgItem, StreamsLargerThanTheFile) {
    MsgBuilder item = Addressed();
    item.text(kBody, "x").binary(kRtfCompressed, rtf::Stored("<html>"));
    const compound::CompoundImage whole = item.image();
    for (const std::uint16_t id : {kSubject, kBody, kSenderName, kSenderSmtpAddress, kDisplayTo, kDisplayCc, kDisplayBcc}) {
        compound::CompoundImage image = whole;
        image.put32(image.entryOf(StreamName(id, kUnicode)) + compound::kEntrySize, 0xFFFFFFFF);
        EXPECT_EQ(Show(image.bytes).status, kNoMemory) << id;
    }
    compound::CompoundImage image = whole;
    image.put32(image.entryOf(StreamName(kRtfCompressed, kBinary)) + compound::kEntrySize, 0xFFFFFFFF);
    EXPECT_EQ(Show(image.bytes).status, kNoMemory);
    // Sent time and importance are missing, no more.
    image = whole;
    image.put32(image.entryOf(kProperties) + compound::kEntrySize, 0xFFFFFFFF);
    EXPECT_EQ(Show(image.bytes).status, kOk);
    EXPECT_EQ(Show(image.bytes).document.find("Importance"), std::string::npos);
}

TEST_F(MsgItem, TextThatBreaksOffEndsInZeros) {
    MsgBuilder item;
    item.text(kSubject, std::string(100, 's')).text(kBody, "x");
    compound::CompoundImage image = item.image();
    const std::string subject = StreamName(kSubject, kUnicode);
    image.put32(image.miniFatEntry(image.chains.at(subject)[0]), compound::kEndOfChain);
    const std::string document = Show(image.bytes).document;
    EXPECT_EQ(document.substr(0, 3 + 12 + 32 + 1), kMark + "Subject:   \t" + std::string(32, 's') + '\0');
}

}  // namespace
