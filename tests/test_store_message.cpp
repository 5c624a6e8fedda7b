// One message of a store as a document: what its properties put into the header block, which body wins, in which bytes it
// arrives, and the pictures that it names.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "batch_check.h"
#include "mime_builder.h"
#include "rtf_compressor.h"
#include "store_shown.h"

using namespace builder;
using namespace store_shown;
using namespace ternkit;
using std::string_literals::operator""s;
using Pictures = std::map<std::string, std::string>;

namespace {

constexpr std::uint16_t kImportance = 0x0017;
constexpr std::uint16_t kSubject = 0x0037;
constexpr std::uint16_t kSubmitTime = 0x0039;
constexpr std::uint16_t kSenderName = 0x0C1A;
constexpr std::uint16_t kPlainBody = 0x1000;
constexpr std::uint16_t kHtmlBody = 0x1013;
constexpr std::uint16_t kRtfBody = 0x1009;
constexpr std::uint16_t kAttachmentData = 0x3701;
constexpr std::uint16_t kAttachmentLongName = 0x3707;
constexpr NodeId kFirstAttachment = 0x8025;
constexpr NodeId kFirstLargeValue = 0x801F;  // where the builder puts the first value of a bag that does not fit a heap

constexpr char kUtc[] = "UTC0";

/// The machine's time zone for as long as this lives.
class TimeZone {
public:
    explicit TimeZone(const char* zone) {
        if (const char* value = std::getenv("TZ")) {
            m_previous = value;
        }
        setenv("TZ", zone, 1);
        tzset();
    }
    ~TimeZone() {
        if (m_previous) {
            setenv("TZ", m_previous->c_str(), 1);
        } else {
            unsetenv("TZ");
        }
        tzset();
    }
    TimeZone(const TimeZone&) = delete;
    TimeZone& operator=(const TimeZone&) = delete;

private:
    std::optional<std::string> m_previous;
};

Bytes BytesOf(const std::string& text) {
    return {text.begin(), text.end()};
}

Bytes Stored(const std::string& rtf) {
    return BytesOf(rtf::Block(rtf::kStored, static_cast<std::uint32_t>(rtf.size()), rtf, rtf::Crc(rtf)));
}

Bytes Number(std::uint64_t value, std::size_t width = 8) {
    Bytes bytes;
    put(bytes, value, width);
    return bytes;
}

using Change = std::function<void(Message&)>;

/// A store with one message: @p fields, changed by @p change.
std::string StoreOf(const MessageFields& fields, const Change& change = {}, Layout layout = Layout::Unicode) {
    TestStore store(layout);
    Message& message = store.addFolder("Inbox").addMessage(fields);
    if (change) {
        change(message);
    }
    return store.finished();
}

// ---------------------------------------------------------------------------------------------------------------- header rows

/// All that the header block has a row for.
MessageFields Addressed() {
    MessageFields fields;
    fields.subject = "Greetings";
    fields.senderName = "Ann";
    fields.to = "Bob; Ben";
    fields.cc = "Carl";
    fields.bcc = "Dora";
    fields.importance = 2;
    return fields;
}

constexpr char kSent[] = "Wed Aug 30, 2017 07:26 PM";

TEST(StoreDocument, AllRowsInEachLanguageOfDocument) {
    const TimeZone zone(kUtc);
    struct Labels {
        std::uint32_t language;
        std::vector<std::string> html;  // From, Sent, To, Cc, Bcc, Subject, Importance, High
        std::vector<std::string> rtf;
        std::u16string text;
    };
    const std::vector<Labels> languages = {
        {kEnglish,
         {"From:      ", "Sent:      ", "To:        ", "Cc:        ", "Bcc:       ", "Subject:   ", "Importance:", "High"},
         {"From:      ", "Sent:      ", "To:        ", "Cc:        ", "Bcc:       ", "Subject:   ", "Importance:", "High"},
         u"From:      \tAnn\r\nSent:      \tWed Aug 30, 2017 07:26 PM\r\nTo:        \tBob; Ben\r\nCc:        \tCarl\r\n"
         u"Bcc:       \tDora\r\nSubject:   \tGreetings\r\nImportance:\tHigh\r\n\r\nHello"},
        {kGerman,
         {"Von:       ", "Gesendet:  ", "An:        ", "Cc:        ", "Bcc:       ", "Betreff:   ", "Priorität: ", "Höch"},
         {"Von:       ", "Gesendet:  ", "An:        ", "Cc:        ", "Bcc:       ", "Betreff:   ", "Priorit\\'e4t: ",
          "H\\'f6ch"},
         u"Von:       \tAnn\r\nGesendet:  \tWed Aug 30, 2017 07:26 PM\r\nAn:        \tBob; Ben\r\nCc:        \tCarl\r\n"
         u"Bcc:       \tDora\r\nBetreff:   \tGreetings\r\nPriorität: \tHöch\r\n\r\nHello"},
    };
    const auto rows = [](const std::vector<std::string>& labels, std::string (*row)(const std::string&, const std::string&)) {
        const std::vector<std::string> values = {"Ann", kSent, "Bob; Ben", "Carl", "Dora", "Greetings", labels[7]};
        std::string text;
        for (std::size_t i = 0; i < values.size(); ++i) {
            text += row(labels[i], values[i]);
        }
        return text;
    };
    const std::string rtfHead = "{\\rtf1\\ansi\\deff0{\\fonttbl{\\f0\\fswiss\\fcharset0 Arial;}}\n";
    for (const Layout layout : kBothLayouts) {
        for (const Labels& labels : languages) {
            for (const Route route : kBothRoutes) {
                SCOPED_TRACE(NameOf(layout) + " "s + labels.html[0] + (route == Route::Memory ? "memory" : "files"));
                const Request request{.route = route, .language = labels.language};
                MessageFields fields = Addressed();
                fields.plainBody = "Hello";
                const StoreShown text =
                    ShowStore(StoreOf(fields, {}, layout), {.route = route, .plainText = true, .language = labels.language});
                EXPECT_EQ(text.status, kOk);
                EXPECT_EQ(text.format, kFormatText);
                EXPECT_EQ(text.document, Utf16(labels.text));

                fields.htmlBody = "<html><BODY><body lang=x>Hello</body></html>";
                const StoreShown html = ShowStore(StoreOf(fields, {}, layout), request);
                EXPECT_EQ(html.status, kOk);
                EXPECT_EQ(html.format, kFormatHtml);
                EXPECT_EQ(html.document, Html("<html><BODY><body lang=x>" + rows(labels.html, HtmlRow) + kHtmlSeparator +
                                              "Hello</body></html>"));

                fields.rtfCompressed = BytesOf(rtf::Compressed(rtfHead + "\\pard Hello\\par}"));
                const StoreShown rich = ShowStore(StoreOf(fields, {}, layout), request);
                EXPECT_EQ(rich.status, kOk);
                EXPECT_EQ(rich.format, kFormatRtf);
                EXPECT_EQ(rich.document, rtfHead + rows(labels.rtf, RtfRow) + kRtfSeparator + "\\pard Hello\\par}");
            }
        }
    }
}

/// A message that shows nothing but what @p change gives it, and the rows that this must make.
struct Rows {
    const char* what;
    Change change;
    std::vector<std::pair<const char*, std::string>> rows;
};

void CheckRows(const std::vector<Rows>& cases, Layout layout = Layout::Unicode) {
    for (const Rows& item : cases) {
        SCOPED_TRACE(item.what);
        MessageFields fields = Bare();
        fields.htmlBody = "Hello";
        std::string rows;
        for (const auto& [label, value] : item.rows) {
            rows += HtmlRow(label, value);
        }
        const StoreShown shown = ShowStore(StoreOf(fields, item.change, layout));
        EXPECT_EQ(shown.status, kOk);
        EXPECT_EQ(shown.document, Html(rows + (rows.empty() ? "" : kHtmlSeparator) + "Hello"));
    }
}

constexpr char kSubjectLabel[] = "Subject:   ";
constexpr char kFromLabel[] = "From:      ";
constexpr char kSentLabel[] = "Sent:      ";
constexpr char kImportanceLabel[] = "Importance:";

TEST(StoreDocument, Subject) {
    const auto subject = [](std::string text) { return [=](Message& m) { m.property(kSubject, std::string_view(text)); }; };
    CheckRows({
        {"none", [](Message& m) { m.remove(kSubject); }, {{kSubjectLabel, "No Subject"}}},
        {"empty", subject(""), {}},
        {"without a prefix", subject("RE: Tea"), {{kSubjectLabel, "RE: Tea"}}},
        {"with a prefix", subject("\x01\x05RE: Tea"), {{kSubjectLabel, "RE: Tea"}}},
        {"with an empty prefix", subject("\x01\x01Tea"), {{kSubjectLabel, "Tea"}}},
        {"a prefix and nothing else", subject("\x01\x05"), {}},
        {"the marker elsewhere", subject("T\x01\x01"), {{kSubjectLabel, "T\x01\x01"}}},
        {"the marker twice", subject("\x01\x01\x01\x01Tea"), {{kSubjectLabel, "\x01\x01Tea"}}},
        {"a prefix length of 0", subject("\x01\0Tea"s), {{kSubjectLabel, "Tea"}}},
        {"a closing NUL", subject("Tea\0"s), {{kSubjectLabel, "Tea"}}},
        {"angle brackets", subject("<b>&Tea"), {{kSubjectLabel, "<b>&Tea"}}},
        {"the free and busy times in another case", subject("localFreebusy"), {{kSubjectLabel, "localFreebusy"}}},
        {"more behind the free and busy times", subject("LocalFreebusy "), {{kSubjectLabel, "LocalFreebusy "}}},
        {"the free and busy times behind a reply mark",
         subject("\x01\x05RE: LocalFreebusy"),
         {{kSubjectLabel, "RE: LocalFreebusy"}}},
    });
    MessageFields fields = Bare();
    fields.htmlBody = "Hello";
    for (const char* text : {"LocalFreebusy", "\x01\x01LocalFreebusy", "\x01\x05LocalFreebusy"}) {
        SCOPED_TRACE(text);
        EXPECT_EQ(ShowStore(StoreOf(fields, subject(text))).status, kUnusable) << "it takes no page";
    }
}

TEST(StoreDocument, PropertiesThatHaveNoRow) {
    CheckRows({{"none of them is read",
                [](Message& m) {
                    m.property(0x001A, "IPM.Appointment");          // class
                    m.property(0x0042, "Somebody else");            // sent representing
                    m.property(0x0065, "represented@example.com");  // its address
                    m.property(0x0C1F, "ann@example.com");          // sender's address
                    m.property(0x5D01, "smtp@example.com");         // sender's SMTP address
                    m.property(0x0070, "Conversation");             // topic
                    m.property(0x0E1D, "Normalized");               // subject without its prefix
                    m.time(0x0E06, 0x01D321C5D1711780);             // delivery
                    m.property(0x3FDE, 1251U);                      // code page
                    m.property(kSenderName, "Ann");
                },
                {{kFromLabel, "Ann"}}}});
}

TEST(StoreDocument, TextsOfEachType) {
    const auto sender = [](std::uint16_t type, Bytes value) { return [=](Message& m) { m.property(kSenderName, type, value); }; };
    CheckRows({
        {"none", [](Message& m) { m.remove(kSenderName); }, {}},
        {"no value", sender(kString, {}), {}},
        {"8-bit text is widened by its sign", sender(kString8, BytesOf("Ren\xE9")), {{kFromLabel, "Ren\uFFE9"}}},
        {"any other type is UTF-16", sender(kBinary, Number(0x416, 2)), {{kFromLabel, "Ж"}}},
        {"an odd byte is dropped", sender(kString, Number(0x410042, 3)), {{kFromLabel, "B"}}},
        {"a single byte is no unit", sender(kString, {0x41}), {}},
        {"beyond the first plane", sender(kString, Number(0xDE00D83D, 4)), {{kFromLabel, "😀"}}},
        {"half a pair", sender(kString, Number(0xDE00, 2)), {{kFromLabel, "\uFFFD"}}},
        {"a NUL only", sender(kString, {0, 0}), {}},
        {"in a subnode", sender(kString8, Bytes(5000, 'A')), {{kFromLabel, std::string(5000, 'A')}}},
    });
    CheckRows({{"ANSI store", [](Message& m) { m.property(kSenderName, "René"); }, {{kFromLabel, "Ren\uFFE9"}}}}, Layout::Ansi);
}

TEST(StoreDocument, Importance) {
    CheckRows({
        {"low", [](Message& m) { m.property(kImportance, 0U); }, {{kImportanceLabel, "Low"}}},
        {"normal", [](Message& m) { m.property(kImportance, 1U); }, {}},
        {"high", [](Message& m) { m.property(kImportance, 2U); }, {{kImportanceLabel, "High"}}},
        {"unknown", [](Message& m) { m.property(kImportance, 3U); }, {}},
        {"beyond 16 bits", [](Message& m) { m.property(kImportance, 0x10002U); }, {}},
    });
}

TEST(StoreDocument, SentTime) {
    constexpr std::uint64_t august = 0x01D321C5D1711780;
    constexpr std::uint64_t epoch = 0x019DB1DED53E8000;
    constexpr std::uint64_t calendarEnd = 0x06219432B7168000;  // 3001-01-01 08:00
    const auto at = [](std::uint64_t time) { return [=](Message& m) { m.time(kSubmitTime, time); }; };
    const auto bytes = [](std::uint16_t type, std::size_t size) {
        return [=](Message& m) {
            Bytes value = Number(august);
            value.resize(size, 0);
            m.property(kSubmitTime, type, value);
        };
    };
    {
        const TimeZone zone(kUtc);
        CheckRows({
            {"a time", at(august), {{kSentLabel, kSent}}},
            {"7 bytes", bytes(kTime, 7), {}},
            {"9 bytes", bytes(kTime, 9), {}},
            {"no bytes", bytes(kTime, 0), {}},
            {"8 bytes of another type", bytes(kBinary, 8), {{kSentLabel, kSent}}},
            {"first second of 1970", at(epoch), {{kSentLabel, "Thu Jan 01, 1970 12:00 AM"}}},
            {"the second before", at(epoch - 10'000'000), {}},
            {"never", at(0), {}},
            {"last second of the calendar", at(calendarEnd - 10'000'000), {{kSentLabel, "Thu Jan 01, 3001 07:59 AM"}}},
            {"the second behind it", at(calendarEnd), {}},
            {"largest", at(~0ULL), {}},
            {"largest with a sign", at(~0ULL >> 1), {}},
        });
    }
    {
        const TimeZone zone("EST5EDT,M3.2.0,M11.1.0");
        CheckRows({{"summer in New York", at(august), {{kSentLabel, "Wed Aug 30, 2017 03:26 PM"}}}});
    }
    const TimeZone zone("IST-5:30");
    CheckRows({{"the next day in Delhi", at(august), {{kSentLabel, "Thu Aug 31, 2017 12:56 AM"}}}});
}

// --------------------------------------------------------------------------------------------------------------------- bodies

constexpr char kRtf[] = "{\\rtf1{\\fonttbl{\\f0 Arial;}}\\pard Hello}";

TEST(StoreDocument, WhichBodyWins) {
    for (const Layout layout : kBothLayouts) {
        for (unsigned bodies = 0; bodies < 8; ++bodies) {
            const bool plain = (bodies & 1) != 0;
            const bool html = (bodies & 2) != 0;
            const bool rich = (bodies & 4) != 0;
            SCOPED_TRACE(NameOf(layout) + (plain ? " plain"s : "") + (html ? " html" : "") + (rich ? " rtf" : ""));
            MessageFields fields = Bare();
            if (plain) {
                fields.plainBody = "Hello";
            }
            if (html) {
                fields.htmlBody = "<b>Hello</b>";
            }
            if (rich) {
                fields.rtfCompressed = BytesOf(rtf::Compressed(kRtf));
            }
            const std::string store = StoreOf(fields, {}, layout);
            const StoreShown shown = ShowStore(store);
            EXPECT_EQ(shown.status, html || rich ? kOk : kUnusable);
            EXPECT_EQ(shown.format, rich ? kFormatRtf : html ? kFormatHtml : 0);
            EXPECT_EQ(shown.document, rich ? kRtf : html ? Html("<b>Hello</b>") : "");
            const StoreShown text = ShowStore(store, {.plainText = true});
            EXPECT_EQ(text.status, plain ? kOk : kUnusable);
            EXPECT_EQ(text.format, plain ? kFormatText : 0);
            EXPECT_EQ(text.document, plain ? Utf16(u"Hello") : "");
        }
    }
}

// The message in front has HTML; its kind must not make a document of a message that has nothing.
TEST(StoreDocument, MessageWithoutBodyBehindOneWithHtml) {
    TestStore store;
    Folder& inbox = store.addFolder("Inbox");
    MessageFields fields = Bare();
    fields.htmlBody = "Hello";
    inbox.addMessage(fields);
    inbox.addMessage(Bare());
    EXPECT_EQ(ShowStore(store.finished(), {.number = 2}).status, kUnusable);
}

TEST(StoreDocument, BodiesAsTheyAreStored) {
    struct Body {
        const char* what;
        std::uint16_t property;
        std::uint16_t type;
        std::string stored;
        Status status;
        std::string document;
    };
    const std::string utf16 = "<\0b\0>\0\x16\x04"s;
    const std::string large = std::string(20'000, 'x') + "</b>";
    const std::vector<Body> bodies = {
        {"HTML of bytes", kHtmlBody, kBinary, "caf\xE9\x80", kOk, Html("caf\xE9\x80")},
        {"HTML as 8-bit text", kHtmlBody, kString8, "caf\xE9", kOk, Html("caf\xE9")},
        {"HTML as UTF-16", kHtmlBody, kString, utf16, kOk, Html(utf16)},
        {"HTML of several blocks", kHtmlBody, kBinary, large, kOk, Html(large)},
        {"HTML with a closing NUL", kHtmlBody, kBinary, "Hello\0"s, kOk, Html("Hello")},
        {"HTML with a document's tags", kHtmlBody, kBinary, "<html>Hello</html>", kOk, "<html><html>Hello</html></html>"},
        {"empty HTML", kHtmlBody, kBinary, "", kOk, Html("")},
        {"RTF without fonts", kRtfBody, kBinary, rtf::Block(rtf::kStored, 2, "{}", rtf::Crc("{}")), kNoMemory, ""},
        {"RTF without paragraphs", kRtfBody, kBinary,
         rtf::Block(rtf::kStored, 15, "{\\rtf1\\fonttbl}", rtf::Crc("{\\rtf1\\fonttbl}")), kOk, "{\\rtf1\\fonttbl}"},
        {"RTF as 8-bit text", kRtfBody, kString8, rtf::Compressed(kRtf), kOk, kRtf},
        {"empty RTF", kRtfBody, kBinary, "", kUnusable, ""},
    };
    for (const Body& body : bodies) {
        for (const Route route : kBothRoutes) {
            SCOPED_TRACE(body.what);
            const std::string store =
                StoreOf(Bare(), [&](Message& m) { m.property(body.property, body.type, BytesOf(body.stored)); });
            const StoreShown shown = ShowStore(store, {.route = route});
            EXPECT_EQ(shown.status, body.status);
            EXPECT_EQ(shown.document, body.document);
        }
    }
}

// Without "\pard" there is no place for the header block, and it goes without a word.
TEST(StoreDocument, RtfWithoutPlaceForTheHeaderBlock) {
    MessageFields fields = Addressed();
    fields.rtfCompressed = Stored("{\\rtf1{\\fonttbl{\\f0 Arial;}}Hello}");
    const StoreShown shown = ShowStore(StoreOf(fields));
    EXPECT_EQ(shown.status, kOk);
    EXPECT_EQ(shown.document, "{\\rtf1{\\fonttbl{\\f0 Arial;}}Hello}");
}

TEST(StoreDocument, HtmlWhoseBodyTagDoesNotEnd) {
    MessageFields fields = Addressed();
    fields.htmlBody = "<html><body Hello";
    EXPECT_EQ(ShowStore(StoreOf(fields)).status, kNoMemory);
}

TEST(StoreDocument, PlainTextOfEachType) {
    struct Body {
        const char* what;
        std::uint16_t type;
        std::string stored;
        std::u16string text;
    };
    const std::vector<Body> bodies = {
        {"UTF-16", kString, "\x16\x04\x3D\xD8\x00\xDE"s, u"Ж😀"},
        {"UTF-16 with closing NULs", kString, "a\0\0\0\0\0"s, u"a"},
        {"UTF-16 with a NUL inside", kString, "a\0\0\0b\0"s, u"a\0b"s},
        {"UTF-16 with an odd byte", kString, "a\0b"s, u"a"},
        {"UTF-16 with half a pair", kString, "\x3D\xD8z\0"s, u"\uFFFDz"},
        {"8-bit text in the system's code page", kString8, "caf\xE9 \x80", u"café €"},
        {"8-bit text with a closing NUL", kString8, "caf\xE9\0"s, u"café"},
        {"any other type is taken for 8-bit text", kBinary, "\xC3\xA9", u"Ã©"},
        {"empty", kString, "", u""},
        {"empty 8-bit text", kString8, "", u""},
        {"several blocks", kString8, std::string(20'000, 'x'), std::u16string(20'000, u'x')},
    };
    for (const Body& body : bodies) {
        for (const Route route : kBothRoutes) {
            SCOPED_TRACE(body.what);
            MessageFields fields = Bare();
            fields.htmlBody = "not wanted";
            const auto change = [&](Message& m) { m.property(kPlainBody, body.type, BytesOf(body.stored)); };
            const StoreShown bare = ShowStore(StoreOf(fields, change), {.route = route, .plainText = true});
            EXPECT_EQ(bare.status, kOk);
            EXPECT_EQ(bare.format, kFormatText);
            EXPECT_EQ(bare.document, Utf16(body.text));
            fields.subject = "Чай";
            const StoreShown headed = ShowStore(StoreOf(fields, change), {.route = route, .plainText = true});
            EXPECT_EQ(headed.document, Utf16(u"Subject:   \tЧай\r\n\r\n" + body.text));
        }
    }
}

// A blank line stands behind the last row of the block: the importance, or the subject when there is none.
TEST(StoreDocument, BlankLineBehindTheRowsOfPlainText) {
    struct Row {
        const char* sender;
        const char* subject;
        std::optional<std::uint32_t> importance;
        const char16_t* text;
    };
    for (const Row& row : {Row{"Ann", "", {}, u"From:      \tAnn\r\nHello"},
                           {"Ann", "Tea", {}, u"From:      \tAnn\r\nSubject:   \tTea\r\n\r\nHello"},
                           {"Ann", "Tea", 0U, u"From:      \tAnn\r\nSubject:   \tTea\r\nImportance:\tLow\r\n\r\nHello"},
                           {"", "", 0U, u"Importance:\tLow\r\n\r\nHello"}}) {
        MessageFields fields = Bare();
        fields.senderName = row.sender;
        fields.subject = row.subject;
        fields.importance = row.importance;
        fields.plainBody = "Hello";
        EXPECT_EQ(ShowStore(StoreOf(fields), {.plainText = true}).document, Utf16(row.text));
    }
}

// ------------------------------------------------------------------------------------------------------------------- pictures

const std::string kPicture(54, '\x89');  // in a line of base64

std::string Uri(const std::string& bytes) {
    std::string text = mime::Base64(bytes);
    for (std::size_t at = text.find("\r\n"); at != std::string::npos; at = text.find("\r\n")) {
        text.erase(at, 2);
    }
    return "data:image;base64," + text;
}

AttachmentFields Picture(const std::string& longName, const std::string& bytes = kPicture) {
    AttachmentFields fields;
    fields.longName = longName;
    fields.data = BytesOf(bytes);
    return fields;
}

AttachmentFields ShortNamed(const std::string& name, const std::string& bytes = kPicture) {
    AttachmentFields fields;
    fields.name = name;
    fields.data = BytesOf(bytes);
    return fields;
}

struct Rewrite {
    const char* what;
    std::string html;
    std::vector<AttachmentFields> attachments;
    std::string inMemory;
    std::string inFile;
    Pictures files;
    /// What happens to the store besides.
    std::function<void(TestStore&, Message&)> change = {};
};

std::string StoreOf(const Rewrite& item, Layout layout, const std::optional<Bytes>& compressedRtf = {}) {
    TestStore store(layout);
    MessageFields fields = Bare();
    fields.htmlBody = item.html;
    fields.rtfCompressed = compressedRtf;
    Message& message = store.addFolder("Inbox").addMessage(fields);
    for (const AttachmentFields& attachment : item.attachments) {
        message.attach(attachment);
    }
    if (item.change) {
        item.change(store, message);
    }
    return store.finished();
}

void Check(const std::vector<Rewrite>& cases) {
    for (const Layout layout : kBothLayouts) {
        for (const Rewrite& item : cases) {
            SCOPED_TRACE(std::string(item.what) + ", " + NameOf(layout));
            const std::string store = StoreOf(item, layout);
            batch_check::CheckAgainstLoad(store);
            const StoreShown memory = ShowStore(store);
            EXPECT_EQ(memory.status, kOk);
            EXPECT_EQ(memory.document, Html(item.inMemory));
            EXPECT_TRUE(memory.pictures.empty());
            const StoreShown file = ShowStore(store, {.route = Route::TemporaryFiles});
            EXPECT_EQ(file.status, kOk);
            EXPECT_EQ(file.document, Html(item.inFile));
            EXPECT_EQ(file.pictures, item.files);
        }
    }
}

/// The wanted document in both routes: "#" stands for the data URI in memory and for @p name in a file.
Rewrite Same(const char* what, const std::string& html, std::vector<AttachmentFields> attachments, const std::string& document,
             const std::string& name, std::function<void(TestStore&, Message&)> change = {}) {
    const auto replaced = [&](const std::string& replacement) {
        std::string text = document;
        for (std::size_t at = text.find('#'); at != std::string::npos; at = text.find('#', at + replacement.size())) {
            text.replace(at, 1, replacement);
        }
        return text;
    };
    Pictures files;
    if (document.find('#') != std::string::npos) {
        files.emplace(name, kPicture);
    }
    return {what, html, std::move(attachments), replaced(Uri(kPicture)), replaced(name), files, std::move(change)};
}

TEST(StorePictures, References) {
    AttachmentFields both = Picture("long.png");
    both.name = "LONG~1.PNG";
    both.contentId = "id@example.com";
    const std::string large(20'000, '\x77');
    Check({
        Same("by cid and long name", "<img src=\"cid:a.png\">", {Picture("a.png")}, "<img src=\"#\">", "_a.png"),
        Same("by the long name alone", "<img src=\"a.png\">", {Picture("a.png")}, "<img src=\"#\">", "_a.png"),
        Same("the whole quoted value goes", "<img src=\"cid:a.png@01D32\" alt=\"A\">", {Picture("a.png")},
             "<img src=\"#\" alt=\"A\">", "_a.png"),
        Same("by the short name where there is no long one", "<img src=\"b.png\"><img src=\"cid:b.png\">", {ShortNamed("b.png")},
             "<img src=\"#\"><img src=\"#\">", "b.png"),
        Same("the long name rules", "<img src=\"LONG~1.PNG\"><img src=\"cid:long.png\">", {both},
             "<img src=\"LONG~1.PNG\"><img src=\"#\">", "_long.png"),
        Same("the content id is not read", "<img src=\"cid:id@example.com\">", {both}, "<img src=\"cid:id@example.com\">", ""),
        Same("case counts", "<img src=\"cid:A.png\"><img src=\"CID:B.png\">", {Picture("a.png")},
             "<img src=\"cid:A.png\"><img src=\"CID:B.png\">", ""),
        Same("twice, and once in vector markup", "<img src=\"cid:a.png\"><v:imagedata src=\"cid:a.png\"><td bg=\"cid:a.png\">",
             {Picture("a.png")}, "<img src=\"#\"><v:imagedata src=\"cid:a.png\"><td bg=\"#\">", "_a.png"),
        Same("a name ends at a NUL", "<img src=\"cid:a.png\">", {Picture("a.png\0.exe"s)}, "<img src=\"#\">", "_a.png"),
        Same("an empty one that nothing names", "<img src=\"cid:a.png\">", {Picture("none.png", ""), Picture("a.png")},
             "<img src=\"#\">", "_a.png"),
        Same("an empty long name hides the short one", "<img src=\"b.png\"><img src=\"cid:a.png\">",
             {[] {
                  AttachmentFields fields = Picture("");
                  fields.name = "b.png";
                  return fields;
              }(),
              Picture("a.png")},
             "<img src=\"b.png\"><img src=\"#\">", "_a.png"),
        {"two of them, one of several blocks",
         "<img src=\"cid:a.png\"><img src=\"cid:b.png\">",
         {Picture("b.png", large), Picture("a.png")},
         "<img src=\"" + Uri(kPicture) + "\"><img src=\"" + Uri(large) + "\">",
         "<img src=\"_a.png\"><img src=\"_b.png\">",
         {{"_a.png", kPicture}, {"_b.png", large}}},
        {"none named", "<p>Hello", {Picture("a.png")}, "<p>Hello", "<p>Hello", {}},
    });
}

// A name is looked for in UTF-8, whatever the body's charset is.
TEST(StorePictures, NameInAnotherScript) {
    const std::string html = "<img src=\"cid:чайка 🐦.png\">";
    const std::string store = StoreOf({"", html, {Picture("чайка 🐦.png")}, "", "", {}}, Layout::Unicode);
    EXPECT_EQ(ShowStore(store).document, Html("<img src=\"" + Uri(kPicture) + "\">"));
    const StoreShown file = ShowStore(store, {.route = Route::TemporaryFiles});
    EXPECT_EQ(file.document, Html("<img src=\"_чайка 🐦.png\">"));
    EXPECT_EQ(file.pictures, Pictures({{"_чайка 🐦.png", kPicture}}));
}

// What is damaged ends the loop over the attachments; what was embedded before stays, and the message is shown.
TEST(StorePictures, DamageEndsTheAttachments) {
    const std::string html = "<img src=\"cid:a.png\"><img src=\"cid:x.png\"><img src=\"cid:c.png\">";
    const std::string document = "<img src=\"#\"><img src=\"cid:x.png\"><img src=\"cid:c.png\">";
    struct Damage {
        const char* what;
        std::function<void(TestStore&, Message&, Attachment&)> apply;
    };
    const std::vector<Damage> damages = {
        {"no name", [](TestStore&, Message&, Attachment& a) { a.remove(kAttachmentLongName); }},
        {"no data", [](TestStore&, Message&, Attachment& a) { a.remove(kAttachmentData); }},
        {"a node that cannot be read", [](TestStore& s, Message& m, Attachment& a) { s.spoilSubnode(a.id(), m.id()); }},
        {"a node that is no bag",
         [](TestStore& s, Message& m, Attachment& a) {
             const std::string bag = "block of sub" + StoreWriter::nodeName(a.id()) + " of " + StoreWriter::nodeName(m.id());
             s.damage([bag](StoreImage& image) { image.damage(bag, 3, {HeapBuilder::kTableContext}); });
         }},
        {"data that cannot be read",
         [](TestStore& s, Message& m, Attachment& a) {
             a.property(kAttachmentData, Bytes(5000, 'x'));
             s.spoil("block of sub" + StoreWriter::nodeName(kFirstLargeValue) + " of sub" + StoreWriter::nodeName(a.id()) +
                     " of " + StoreWriter::nodeName(m.id()));
         }},
    };
    for (const Damage& damage : damages) {
        Check({Same(damage.what, html, {Picture("a.png")}, document, "_a.png", [&](TestStore& s, Message& m) {
            Attachment& damaged = m.attach(Picture("x.png"));
            m.attach(Picture("c.png"));
            damage.apply(s, m, damaged);
        })});
    }
    // Of data that nothing names only the size is asked for, so damage in its later blocks has no effect.
    Check({Same("unnamed data with a block that cannot be read", "<img src=\"cid:a.png\">", {}, "<img src=\"#\">", "_a.png",
                [](TestStore& s, Message& m) {
                    const Attachment& unnamed = m.attach(Picture("x.png", std::string(20'000, 'x')));
                    m.attach(Picture("a.png"));
                    s.spoil("block 1 of sub" + StoreWriter::nodeName(kFirstLargeValue) + " of sub" +
                            StoreWriter::nodeName(unnamed.id()) + " of " + StoreWriter::nodeName(m.id()));
                })});
}

TEST(StorePictures, StatusesThatEndTheExtraction) {
    struct Failure {
        const char* what;
        AttachmentFields attachment;
        Status inMemory;
        Status inFile;
    };
    const std::vector<Failure> failures = {
        {"no bytes", Picture("x.png", ""), kNoMemory, kNoMemory},
        {"too few bytes for a data URI", Picture("x.png", "1234"), 0, kOk},
        {"a name too long for a path", Picture("x.png" + std::string(300, 'x')), kOk, kPathTooLong},
    };
    for (const Failure& failure : failures) {
        SCOPED_TRACE(failure.what);
        const std::string html = "<img src=\"cid:a.png\"><img src=\"cid:" + *failure.attachment.longName + "\">";
        const std::string store =
            StoreOf({failure.what, html, {Picture("a.png"), failure.attachment}, "", "", {}}, Layout::Unicode);
        batch_check::CheckAgainstLoad(store);
        EXPECT_EQ(ShowStore(store).status, failure.inMemory);
        EXPECT_EQ(ShowStore(store, {.route = Route::TemporaryFiles}).status, failure.inFile);
    }
}

// An embedded message is handled like a picture: its value is the reference to its node and its size.
TEST(StorePictures, EmbeddedMessage) {
    const Rewrite item{"embedded", "<a href=\"cid:mail.msg\">mail</a>", {}, "", "", {}, [](TestStore&, Message& m) {
                           AttachmentFields fields;
                           fields.longName = "mail.msg";
                           m.attach(fields).embed({.subject = "Inside", .plainBody = "Inside"});
                       }};
    const StoreShown shown = ShowStore(StoreOf(item, Layout::Unicode), {.route = Route::TemporaryFiles});
    EXPECT_EQ(shown.status, kOk);
    EXPECT_EQ(shown.document, Html("<a href=\"_mail.msg\">mail</a>"));
    ASSERT_EQ(shown.pictures.count("_mail.msg"), 1U);
    EXPECT_EQ(shown.pictures.at("_mail.msg").size(), 8U);
}

// The pictures of the HTML are written before the RTF takes its place, and stay for as long as the message is open.
TEST(StorePictures, OfHtmlThatRtfHasReplaced) {
    const Rewrite item{"", "<img src=\"cid:a.png\">", {Picture("a.png")}, "", "", {}};
    const std::string store = StoreOf(item, Layout::Unicode, BytesOf(rtf::Compressed(kRtf)));
    for (const Route route : kBothRoutes) {
        const StoreShown shown = ShowStore(store, {.route = route});
        EXPECT_EQ(shown.status, kOk);
        EXPECT_EQ(shown.format, kFormatRtf);
        EXPECT_EQ(shown.document, kRtf);
        EXPECT_EQ(shown.pictures, route == Route::Memory ? Pictures() : Pictures({{"_a.png", kPicture}}));
    }
}

// Damaged pictures of a message with RTF do not keep the RTF from the reader.
TEST(StorePictures, DamagedBesideRtf) {
    const Rewrite item{"", "<img src=\"cid:a.png\">", {Picture("a.png")}, "", "", {}, [](TestStore& s, Message& m) {
                           s.spoilSubnode(kFirstAttachment, m.id());
                       }};
    const StoreShown shown = ShowStore(StoreOf(item, Layout::Unicode, BytesOf(rtf::Compressed(kRtf))));
    EXPECT_EQ(shown.status, kOk);
    EXPECT_EQ(shown.document, kRtf);
}

}  // namespace
