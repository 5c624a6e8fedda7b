// The header block in front of a message's body: labels, rows and the place where each kind of document takes them.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "fileformats/pst/common/headerblock.h"
#include "fileformats/pst/common/headerlabels.h"
#include "ternbase/ternbase.h"

using namespace ternkit;
using std::string_literals::operator""s;

namespace {

constexpr std::uint32_t kEnglish = 0x0409;
constexpr std::uint32_t kGerman = 0x0407;

struct Language {
    explicit Language(std::uint32_t language) { TbHostSetUiLanguage(language); }
    ~Language() { TbHostSetUiLanguage(0); }
    Language(const Language&) = delete;
    Language& operator=(const Language&) = delete;
};

void Set(OwnedBytes& field, const std::string& text) {
    field.clear();
    ASSERT_EQ(field.ensure(text.size()), kOk);
    std::copy(text.begin(), text.end(), field.data);
}

std::string Bytes(const OwnedBytes& field) {
    return field.data != nullptr ? std::string(field.data, field.size) : "null";
}

std::string Bytes(const ByteBuffer& buffer) {
    return {buffer.data, buffer.size};
}

// A value may or may not count its closing NUL, so some do.
void Fill(MessageRecord& record) {
    Set(record.senderName, "Ann");
    Set(record.sentTime, "Mon Feb 02, 2026 10:00 AM");
    Set(record.displayTo, "Bob\0"s);
    Set(record.displayCc, "Carl");
    Set(record.displayBcc, "Dora");
    Set(record.subject, "Hi <b> {1}\0"s);
    Set(record.importanceText, "High");
}

const std::string kHtmlSeparator = "<p class=MsoNormal><o:p>&nbsp;</o:p></p>";

std::string HtmlRow(const std::string& label, const std::string& value) {
    return "\n<table style = 'border-collapse: collapse ; table-layout: fixed; width: 100%'><tr><td style = 'width:87pt; "
           "padding: 0px; vertical-align:top'><b><span style = 'font-family:\"Calibri\",\"sans-serif\";"
           "mso-bidi-font-family:Calibri; color:black'>" +
           label +
           "</span></b></td><td style = 'padding: 0px'><span style = 'font-family:\"Calibri\",\"sans-serif\";"
           "mso-bidi-font-family:Calibri; color:black; word-wrap: break-word;'>" +
           value + "</span></td></tr></table>\r\n";
}

const std::string kRtfSeparator =
    "\\pard \\ltrpar\\ql \\li0\\ri0\\widctlpar\\wrapdefault\\aspalpha\\aspnum\\faauto\\adjustright\\rin0\\lin0\\itap0 "
    "{\\rtlch\\fcs1 \\af1 \\ltrch\\fcs0 \\insrsid5716485 \\par }";

std::string RtfRow(const std::string& label, const std::string& value) {
    return "\r{\\rtlch\\fcs1 \\ab\\af37 \\ltrch\\fcs0 \\b\\cf0\\insrsid5716485 " + label +
           "\\tab }{\\rtlch\\fcs1 \\af37 \\ltrch\\fcs0 \\cf0 " + value + "\\insrsid5716485 \\par }\r\n";
}

struct Composed {
    Status status;
    std::string body;
};

Composed Compose(MessageRecord& record, BodyKind kind, const std::string& body, std::uint32_t language = kEnglish) {
    const Language scope(language);
    OwnedBytes& field = kind == BodyKind::Plain ? record.plainBody : record.body;
    Set(field, body);
    const Status status = ComposeMessageHeader(record, kind);
    return {status, Bytes(field)};
}

Composed ComposeSubject(BodyKind kind, const std::string& subject, const std::string& body) {
    MessageRecord record;
    Set(record.subject, subject);
    return Compose(record, kind, body);
}

TEST(HeaderLabels, NineLanguages) {
    struct {
        std::vector<std::uint32_t> languages;
        std::vector<std::string> words;
    } const cases[] = {
        // The last is French of Canada, which has no row.
        {{0x0409, 0x0809, 0x0410, 0x0C0C},
         {"From:      ", "To:        ", "Bcc:       ", "Cc:        ", "Sent:      ", "Subject:   ", "Importance:", "High",
          "Low"}},
        {{0x0407},
         {"Von:       ", "An:        ", "Bcc:       ", "Cc:        ", "Gesendet:  ", "Betreff:   ", "Priorität: ", "Höch",
          "Niedrig"}},
        {{0x0418},
         {"De la:     ", "Către:     ", "Bcc:       ", "Cc:        ", "Trimis:    ", "Subiect:   ", "Importanță:", "Maxim",
          "Minim"}},
        {{0x040C},
         {"De:        ", "À:         ", "Bcc:       ", "Cc:        ", "Envoyè:    ", "Objet:     ", "Importance:", "Haute",
          "Faible"}},
        {{0x0411}, {"差出人:  ", "宛先:    ", "Bcc:    ", "抄送:   ", "送信日時:", "件名:    ", "重要度:  ", "高", "低"}},
        {{0x0804, 0x0004, 0x7804, 0x1004},
         {"发件人:  ", "收件人:  ", "Bcc:    ", "抄送:   ", "发送时间:", "主题:    ", "重要性:  ", "高", "低"}},
        {{0x0404, 0x0C04, 0x7C04, 0x1404},
         {"寄件者:  ", "收件者:  ", "Bcc:    ", "副本:   ", "寄件日期:", "主旨:    ", "重要性:  ", "高", "低"}},
        {{0x0412}, {"보낸 사람:", "받는 사람:", "Bcc:    ", "참조:   ", "보낸 날짜:", "제목:     ", "중요도:  ", "높음", "낮음"}},
        {{0x2C01, 0x1401, 0x3C01, 0x0C01, 0x3401, 0x3001, 0x1001, 0x1801, 0x2001, 0x4001, 0x0401, 0x2801, 0x1C01, 0x3801, 0x2401},
         {"نمن :  ", "إلى :  ", "Bcc:   ", "نسخة:  ", "تاريخ الإرسال:", "الموضوع:", "الأهمية: ", "عالية", "منخفضة"}},
    };
    for (const auto& one : cases) {
        for (const std::uint32_t language : one.languages) {
            const Language scope(language);
            for (std::int32_t index = kLabelFrom; index <= kLabelLow; ++index) {
                EXPECT_EQ(HeaderLabel(index), one.words[static_cast<std::size_t>(index)]) << std::hex << language;
            }
            EXPECT_STREQ(HeaderLabel(-1), "Unknown");
            EXPECT_STREQ(HeaderLabel(9), "Unknown");
        }
    }
}

TEST(HeaderBlock, HtmlRows) {
    MessageRecord record;
    Fill(record);
    const std::string rows = HtmlRow("Sent:      ", "Mon Feb 02, 2026 10:00 AM") + HtmlRow("To:        ", "Bob") +
                             HtmlRow("Cc:        ", "Carl") + HtmlRow("Bcc:       ", "Dora") +
                             HtmlRow("Subject:   ", "Hi <b> {1}") + HtmlRow("Importance:", "High") + kHtmlSeparator;
    struct {
        std::string representing;
        std::string address;
        std::string sender;
    } const cases[] = {
        {"", "", "Ann"},
        {"", "ann@example.org", "Ann &lt;ann@example.org&gt;"},
        {"Ann\0"s, "ann@example.org\0"s, "Ann &lt;ann@example.org&gt;"},
        {"ANN", "ann@example.org", "Ann on behalf of ANN"},
        {"Board", "", "Ann on behalf of Board"},
        {"", "\0hidden"s, "Ann"},
    };
    for (const auto& one : cases) {
        Set(record.representingName, one.representing);
        Set(record.senderAddress, one.address);
        const Composed composed = Compose(record, BodyKind::Html, "<html><BODY><body bgcolor=x>text</body>");
        EXPECT_EQ(composed.status, kOk);
        EXPECT_EQ(composed.body, "<html><BODY><body bgcolor=x>" + HtmlRow("From:      ", one.sender) + rows + "text</body>\0"s);
    }
}

TEST(HeaderBlock, PlaceInHtml) {
    struct {
        std::string body;
        std::string before;
        std::string after;
    } const cases[] = {
        {"<html>text\0"s, "", "<html>text\0"s},  // the block stands first, and the NUL is not doubled
        {"", "", "\0"s},
        {"a<body\n>b<body>c", "a<body\n>", "b<body>c\0"s},
    };
    const std::string block = HtmlRow("Subject:   ", "s") + kHtmlSeparator;
    for (const auto& one : cases) {
        const Composed composed = ComposeSubject(BodyKind::Html, "s", one.body);
        EXPECT_EQ(composed.status, kOk);
        EXPECT_EQ(composed.body, one.before + block + one.after);
    }
    const Composed open = ComposeSubject(BodyKind::Html, "s", "<p><body text");
    EXPECT_EQ(open.status, kUnusable);
    EXPECT_EQ(open.body, "<p><body text");
}

TEST(HeaderBlock, HtmlBodyBecomesUtf8WithANonAsciiHeader) {
    const std::string text = "<body>\xE9";
    struct {
        std::string head;
        std::string newHead;
        std::string newLetter;
    } const cases[] = {
        {"<META name=x><meta charset=windows-1252>", "<META name=x><meta charset=UTF-8>", "\xC3\xA9"},
        {"<meta content=\"text/html; charset=iso-8859-1\">", "<meta content=\"text/html; charset=UTF-8\">", "\xC3\xA9"},
        {"<meta charset=utf-8><meta charset=windows-1252>", "<meta charset=utf-8><meta charset=windows-1252>", "\xE9"},
        {"<meta charset=koi8-r><meta charset=windows-1252>", "<meta charset=koi8-r><meta charset=windows-1252>", "\xE9"},
        {"charset=windows-1252", "charset=windows-1252", "\xE9"},
    };
    for (const auto& one : cases) {
        const Composed composed = ComposeSubject(BodyKind::Html, "\xC3\xBC", one.head + text);
        EXPECT_EQ(composed.status, kOk);
        EXPECT_EQ(composed.body,
                  one.newHead + "<body>" + HtmlRow("Subject:   ", "\xC3\xBC") + kHtmlSeparator + one.newLetter + "\0"s);
        const Composed ascii = ComposeSubject(BodyKind::Html, "u", one.head + text + "\0"s);
        EXPECT_EQ(ascii.body, one.head + "<body>" + HtmlRow("Subject:   ", "u") + kHtmlSeparator + "\xE9\0"s);
    }
}

TEST(HeaderBlock, NothingToSay) {
    for (const BodyKind kind : {BodyKind::Html, BodyKind::Rtf, BodyKind::Plain, BodyKind::None}) {
        MessageRecord record;
        const std::string body = "{\\rtf1\\fromtext\\pard <body x}";
        const Composed composed = Compose(record, kind, body);
        EXPECT_EQ(composed.status, kOk);
        EXPECT_EQ(composed.body, body);
    }
}

const std::string kRtfHead = "{\\rtf1\\ansi\\deff0{\\fonttbl{\\f0\\fcharset0 Arial;}}";

TEST(HeaderBlock, RtfRows) {
    MessageRecord record;
    Fill(record);
    Set(record.representingName, "Board");
    Set(record.senderAddress, "a{n}n@example.org");
    const std::string block = RtfRow("From:      ", "Ann <a\\'7bn\\'7dn@example.org>") +
                              RtfRow("Sent:      ", "Mon Feb 02, 2026 10:00 AM") + RtfRow("To:        ", "Bob") +
                              RtfRow("Cc:        ", "Carl") + RtfRow("Bcc:       ", "Dora") +
                              RtfRow("Subject:   ", "Hi <b> \\'7b1\\'7d") + RtfRow("Importance:", "High") + kRtfSeparator;
    const Composed composed = Compose(record, BodyKind::Rtf, kRtfHead + "\\plain\\pard x\\pard y}\0"s);
    EXPECT_EQ(composed.status, kOk);
    EXPECT_EQ(composed.body, kRtfHead + "\\plain" + block + "\\pard x\\pard y}\0"s);
    // No paragraph, no place for the block.
    const Composed placeless = Compose(record, BodyKind::Rtf, kRtfHead + "x}");
    EXPECT_EQ(placeless.status, kOk);
    EXPECT_EQ(placeless.body, kRtfHead + "x}");
    EXPECT_EQ(Compose(record, BodyKind::Rtf, "{\\rtf1\\pard x}").status, kUnusable);
    EXPECT_EQ(Compose(record, BodyKind::Rtf, "").status, kUnusable);
}

TEST(HeaderBlock, RtfLabelsAndValuesShareAddedFonts) {
    MessageRecord record;
    Set(record.importanceText, "\xD7\xA9");
    Set(record.subject, "\xD7\xA9");
    const Composed composed = Compose(record, BodyKind::Rtf, kRtfHead + "\\pard x}", kGerman);
    EXPECT_EQ(composed.body, "{\\rtf1\\ansi\\deff0{\\fonttbl{\\f0\\fcharset0 Arial;}{\\f1 \\swiss \\fcharset177 Batang}}" +
                                 RtfRow("Betreff:   ", "\\f1 \\'f9\\f0 ") + RtfRow("Priorit\\'e4t: ", "\\f1 \\'f9\\f0 ") +
                                 kRtfSeparator + "\\pard x}\0"s);
}

// A Hebrew subject needs a font that none of these documents has.
TEST(HeaderBlock, PlaceOfAddedFonts) {
    const std::string block = RtfRow("Subject:   ", "\\f1 \\'f9\\f0 ") + kRtfSeparator;
    const std::string rowOfFirstFont = RtfRow("Subject:   ", "\\'f9") + kRtfSeparator;
    const std::string font = "{\\f1 \\swiss \\fcharset177 Batang}";
    struct {
        std::string body;
        std::string merged;
    } const cases[] = {
        {"{{\\fonttbl{\\f0 A;}}x\\pard y}", "{{\\fonttbl{\\f0 A;}" + font + "}x" + block + "\\pard y}\0"s},
        {"{x\\pard y{\\fonttbl{\\f0 A;}}z}", "{x" + block + "\\pard y{\\fonttbl{\\f0 A;}" + font + "}z}\0"s},
        {"{{\\fonttbl{\\f0 A;}\\pard y", "{{\\fonttbl{\\f0 A;}" + block + "\\pard " + font + "y\0"s},  // never closed
        {"{x\\fromtext\\pard y}", "{x{\\fonttbl{\\f0 \\swiss \\fcharset177 Batang}}\\fromtext" + rowOfFirstFont + "\\pard y}\0"s},
        {"{\\pard y\\fromtext}", "{" + rowOfFirstFont + "\\pard y{\\fonttbl{\\f0 \\swiss \\fcharset177 Batang}}\\fromtext}\0"s},
    };
    for (const auto& one : cases) {
        const Composed composed = ComposeSubject(BodyKind::Rtf, "\xD7\xA9", one.body);
        EXPECT_EQ(composed.status, kOk);
        EXPECT_EQ(composed.body, one.merged);
    }
}

TEST(HeaderBlock, PlainRows) {
    MessageRecord record;
    Fill(record);
    Set(record.representingName, "Board");
    Set(record.senderAddress, "ann@example.org\0"s);
    const std::string block =
        "From:      \tAnn <ann@example.org>\r\nSent:      \tMon Feb 02, 2026 10:00 AM\r\nTo:        \tBob\r\n"
        "Cc:        \tCarl\r\nBcc:       \tDora\r\nSubject:   \tHi <b> {1}\r\n";
    const Composed composed = Compose(record, BodyKind::Plain, "text\0"s);
    EXPECT_EQ(composed.status, kOk);
    EXPECT_EQ(composed.body, block + "Importance:\tHigh\r\n\r\ntext\0"s);
    record.importanceText.clear();
    EXPECT_EQ(Compose(record, BodyKind::Plain, "").body, block + "\r\n\0"s);  // an empty block of text takes its rows
    record.subject.clear();
    EXPECT_EQ(Compose(record, BodyKind::Plain, "text").body, block.substr(0, block.find("Subject")) + "text\0"s);
    record.plainBody.clear();
    EXPECT_EQ(ComposeMessageHeader(record, BodyKind::Plain), kOk);
    EXPECT_EQ(record.plainBody.data, nullptr);
}

TEST(PlainDocument, Utf16Throughout) {
    const Language scope(0x0418);
    struct {
        std::uint32_t type;
        std::string stored;
        std::string utf8;
    } const cases[] = {
        {kPropertyTypeUnicode, "\xE9\0=\xD8\0\xDE\0\0\0\0x"s, "\xC3\xA9\xF0\x9F\x98\x80"},  // two NULs, and half a unit
        {kPropertyTypeUnicode, "a\0\0\0\x00\xD8"s, "a\0\xEF\xBF\xBD"s},
        {kPropertyTypeUnicode, "\0\0"s, ""},
        {0x001E, "\xE9\x80\0"s, "\xC3\xA9\xE2\x82\xAC\0"s},
        {0x001E, "", ""},
    };
    for (const auto& one : cases) {
        MessageRecord record;
        record.plainBodyType = one.type;
        Set(record.plainBody, one.stored);
        EXPECT_EQ(ConvertPlainBodyToUtf8(record), kOk);
        EXPECT_EQ(Bytes(record.plainBody), one.utf8);
    }
    MessageRecord record;
    Set(record.displayTo, "\xC8\x98");
    Set(record.plainBody, "");
    EXPECT_EQ(ComposeMessageHeader(record, BodyKind::Plain), kOk);
    ByteBuffer document;
    EXPECT_EQ(WriteUtf16Document(document, record.plainBody), kOk);
    EXPECT_EQ(Bytes(document),
              "\xFF\xFE"
              "C\0\x03\x01t\0r\0e\0:\0 \0 \0 \0 \0 \0\t\0\x18\x02\r\0\n\0"s);
    ByteBuffer empty;
    EXPECT_EQ(WriteUtf16Document(empty, OwnedBytes()), kOk);
    EXPECT_EQ(Bytes(empty), "\xFF\xFE");
}

TEST(HeaderBlock, LargeBodies) {
    const std::string filler(50'000'000, '<');
    const std::string tags = [] {
        std::string many;
        for (int tag = 0; tag < 1'000'000; ++tag) {
            many += "<meta charsex>";
        }
        return many;
    }();
    const std::string htmlBlock = HtmlRow("Subject:   ", "\xC3\xBC") + kHtmlSeparator;
    EXPECT_TRUE(ComposeSubject(BodyKind::Html, "\xC3\xBC", filler).body == htmlBlock + filler + "\0"s);
    EXPECT_TRUE(ComposeSubject(BodyKind::Html, "\xC3\xBC", tags).body == htmlBlock + tags + "\0"s);
    EXPECT_TRUE(ComposeSubject(BodyKind::Plain, "s", filler).body == "Subject:   \ts\r\n\r\n" + filler + "\0"s);
    const std::string rtf = kRtfHead + filler + "\\pard}";
    EXPECT_TRUE(ComposeSubject(BodyKind::Rtf, "s", rtf).body ==
                kRtfHead + filler + RtfRow("Subject:   ", "s") + kRtfSeparator + "\\pard}\0"s);
}

TEST(PageTable, Made) {
    const MessagePageTableOwner table(MakeMessagePageTable(3));
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(table->count, 3);
    Fill(table->records[2]);
    EXPECT_EQ(table->records[1].attachmentStatus, kOk);
    EXPECT_EQ(table->records[1].body.data, nullptr);
    // More records than the kernel gives memory for.
    EXPECT_EQ(MakeMessagePageTable(INT32_MAX), nullptr);
    EXPECT_EQ(MakeMessagePageTable(0), nullptr);
    EXPECT_EQ(MakeMessagePageTable(-1), nullptr);
}

}  // namespace
