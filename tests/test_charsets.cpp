// Encoded words, the conversion of bodies to UTF-8, and ISO-2022-JP.
#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "expected_document.h"
#include "fileformats/pst/common/mimecharset.h"
#include "filter_host.h"
#include "mime_builder.h"

using namespace ternkit;
using namespace mime;
using std::string_literals::operator""s;

namespace {

const std::string kEscape = "\x1B";
const std::string kAscii = kEscape + "(B";
const std::string kRoman = kEscape + "(J";
const std::string kKanji = kEscape + "$B";
const std::string kKanji1978 = kEscape + "$@";
const std::string kUnknown = "\xEF\xBF\xBD";            // U+FFFD
const std::string kNihon = "\xE6\x97\xA5\xE6\x9C\xAC";  // what F|K\ stands for

/// The subject as the document shows it.
std::string Subject(const std::string& value) {
    const Shown shown = Show(Plain("").field("From", "f").field("Subject", value).bytes());
    const std::string before = "From:   \tf\r\nSubject:\t";
    const std::string after = Closed("\r\n\r\n");
    EXPECT_EQ(shown.status, kOk);
    EXPECT_EQ(shown.document.substr(0, before.size()), before);
    const std::size_t length = shown.document.size() - before.size() - after.size();
    EXPECT_EQ(shown.document.substr(before.size() + length), after);
    return shown.document.substr(before.size(), length);
}

/// The body as the document shows it, in a message without a header block.
std::string Body(const std::string& text, const std::string& charset, const std::string& subject = "s") {
    std::string document = Show(Html(text, Encoding::EightBit, charset).field("Subject", subject).bytes()).document;
    EXPECT_TRUE(!document.empty() && document.back() == '\0');
    document.resize(document.empty() ? 0 : document.size() - 1);
    return document;
}

std::string Japanese(const std::string& text) {
    return Body(text, "iso-2022-jp");
}

TEST(EncodedWords, Decoded) {
    struct {
        std::string value;
        std::string text;
    } const cases[] = {
        {"=?utf-8?Q?a?=", "a"},
        {"=?utf-8?Q?a?= =?utf-8?Q?b?=", "a b"},
        {"=?utf-8?Q?a?==?utf-8?B?Yg==?=", "ab"},
        {"Re: =?utf-8?Q?a_b=5Fc?= end", "Re: a b_c end"},
        {"=?UTF-8?B?w6k=?= and =?x", "\xC3\xA9 and =?x"},
        {"=?utf-8*de?Q?=C3=BC?=", "\xC3\xBC"},
        {"=?us-ascii?Q?plain_text?=", "plain text"},
        {"=?iso-8859-1?Q?caf=e9_=80?=", "caf\xC3\xA9 \xE2\x82\xAC"},
        {EncodedWord("windows-1251", 'B', "\xCF\xF0\xE8"), "\xD0\x9F\xD1\x80\xD0\xB8"},
        {EncodedWord("GB2312", 'B', "\xC4\xE3\xBA\xC3"), "\xE4\xBD\xA0\xE5\xA5\xBD"},
        {EncodedWord("ISO-2022-JP", 'B', kKanji + "F|K\\" + kAscii + "!"), kNihon + "!"},
        {EncodedWord("iso-2022-jp-2", 'B', kKanji + "F|K\\" + kAscii), kNihon},
        {"a " + EncodedWord("iso-2022-jp", 'B', kKanji + "F|" + kAscii) + EncodedWord("iso-8859-1", 'Q', "\xFC") + " z",
         "a \xE6\x97\xA5\xC3\xBC z"},
        {"=?utf-8?Q?=41?= x", "A x"},
        {"=?utf-8?B?QUJD?=", "ABC"},
    };
    for (const auto& item : cases) {
        EXPECT_EQ(Subject(item.value), item.text) << item.value;
    }
}

TEST(EncodedWords, LeftAsTheyAre) {
    for (const char* value : {
             "=?utf-8?q?abc?=",        // a small letter
             "=?utf-8?b?YWJj?=",       //
             "=?utf-8?X?abc?=",        //
             "=?utf-8?QQ?abc?=",       //
             "=?koi8-r?B?8NLJ?=",      // no charset of ours
             "=?iso-8859-15?Q?abc?=",  //
             "=?gb2312x?Q?abc?=",      //
             "=?utf-8?Q?"
             "?=",                                    // 12 characters are too few
             "=?utf-8?Q?abcdef",                      // no end
             "=?utf-8?Q?abcdef?",                     //
             "=?utf-8?Q abcdefgh?=",                  //
             "=?utf-8 abcdefghijk",                   //
             "=?koi8-r?B?8NLJ?= =?utf-8?Q?behind?=",  // the first that fails ends decoding
             "plain text of more than 14 characters",
         }) {
        EXPECT_EQ(Subject(value), value);
    }
    EXPECT_EQ(Subject("=?utf-8?Q?a?= =?koi8-r?B?8NLJ?= =?utf-8?Q?b?="), "a =?koi8-r?B?8NLJ?= =?utf-8?Q?b?=");
}

TEST(EncodedWords, FoldedWordsJoin) {
    const std::string word = EncodedWord("utf-8", 'Q', "ab");
    MimeBuilder message = Plain("x").field("From", "f").foldedField("Subject", {word, word, "c"});
    EXPECT_EQ(Show(message.bytes()).document, Closed("From:   \tf\r\nSubject:\tababc\r\n\r\nx"));
    MimeBuilder all = Plain("x").field("From", word).field("To", word).field("Date", word).field("Cc", word);
    all.field("Bcc", word).field("Importance", word);
    EXPECT_EQ(Show(all.bytes()).document,
              Closed("From:   \tab\r\nTo:     \tab\r\nSent:   \tab\r\nCc:     \tab\r\nBcc:    \tab\r\nImportance: ab\r\n\r\nx"));
}

TEST(EncodedWords, AnyBytesAreSafe) {
    for (const char* value : {"=?utf-8?B?QQ?= abcdef", "=?utf-8?Q?=ZZ=4?=",
                              "=?utf-8?B?"
                              "?"
                              "?"
                              "?=====?=",
                              "=?windows-?Q?abc=FF?=", "=?windows-99999999999999?Q?abc=FF?=", "=?iso-2022-jp?B?GyRCRg==?=",
                              "=?gb2312?Q?=C4?=", "=?utf-8?B?=?= =?utf-8?B?==?=",
                              "=?"
                              "?"
                              "?"
                              "?"
                              "?"
                              "?"
                              "?"
                              "?"
                              "?"
                              "?"
                              "?="}) {
        EXPECT_EQ(Show(Plain("x").field("From", "f").field("Subject", value).bytes()).status, kOk) << value;
    }
}

TEST(CharsetNames, Table) {
    struct {
        std::string_view name;
        MimeCharsetId id;
        std::uint32_t codePage;
    } const cases[] = {
        {"GB2312", MimeCharsetId::Gb2312, 0},
        {"gb23120", MimeCharsetId::Unknown, 0},
        {"Iso-2022-JP", MimeCharsetId::Iso2022Jp, 0},
        {"iso-2022-jp-ms", MimeCharsetId::Iso2022Jp, 0},
        {"ISO-8859-1", MimeCharsetId::Latin1, 0},
        {"iso-8859-15", MimeCharsetId::Unknown, 0},
        {"US-ASCII", MimeCharsetId::UsAscii, 0},
        {"us-asciix", MimeCharsetId::UsAscii, 0},
        {"utf-8", MimeCharsetId::Utf8, 0},
        {"UTF-8MB4", MimeCharsetId::Utf8, 0},
        {"Windows-1252", MimeCharsetId::Windows, 1252},
        {"windows-874x", MimeCharsetId::Windows, 874},
        {"windows-", MimeCharsetId::Windows, 0},
        {"utf-7", MimeCharsetId::Unknown, 0},
        {"", MimeCharsetId::Unknown, 0},
        {"gb231", MimeCharsetId::Unknown, 0},
    };
    for (const auto& item : cases) {
        const MimeCharset charset = ParseCharsetName(item.name.data(), item.name.data() + item.name.size());
        EXPECT_EQ(charset.id, item.id) << item.name;
        EXPECT_EQ(charset.codePage, item.codePage) << item.name;
    }
}

TEST(CharsetNames, Parameter) {
    struct {
        std::string_view text;
        Status found;
        MimeCharsetId id;
    } const cases[] = {
        {"text/html; CharSet=gb2312", kOk, MimeCharsetId::Gb2312},
        {"x; charset=\"gb2312\"; y", kOk, MimeCharsetId::Gb2312},
        {"x; charset=gb2312; y=\"z\"", kOk, MimeCharsetId::Gb2312},
        {"x; charset=gb2312\"", kOk, MimeCharsetId::Gb2312},
        {"x; charset=\"gb2312;x\"", kOk, MimeCharsetId::Gb2312},
        {"x; charset=\"gb2312 \t\r\n\"", kOk, MimeCharsetId::Gb2312},
        {"x; charset= gb2312", kOk, MimeCharsetId::Unknown},
        {"x; charset=", kOk, MimeCharsetId::Unknown},
        {"x; charset=\"", kOk, MimeCharsetId::Unknown},
        {"x; charset", 0, MimeCharsetId::None},
    };
    for (const auto& item : cases) {
        MimeCharset charset{MimeCharsetId::Windows, 1252};
        EXPECT_EQ(ParseCharsetParameter(charset, item.text.data(), item.text.data() + item.text.size()), item.found) << item.text;
        EXPECT_EQ(charset.id, item.id) << item.text;
        EXPECT_EQ(charset.codePage, 0U);
    }
}

TEST(BodyConversion, NeedsAnEncodedWordInTheHeader) {
    const std::string word = EncodedWord("iso-8859-1", 'Q', "\xE9");
    struct {
        const char* what;
        std::string text;
        std::string charset;
        std::string subject;
        std::string converted;
    } const cases[] = {
        {"no word", "charset=iso-8859-1 \xE9", "iso-8859-1", "s", "charset=iso-8859-1 \xE9"},
        {"a word in us-ascii", "charset=iso-8859-1 \xE9", "iso-8859-1", "=?us-ascii?Q?ab?=", "charset=iso-8859-1 \xE9"},
        {"a word that stays", "charset=iso-8859-1 \xE9", "iso-8859-1", "=?koi8-r?B?8NLJ?=", "charset=iso-8859-1 \xE9"},
        {"behind the declaration only", "\xE8 <x ISO-8859-1>\xE9\x80", "iso-8859-1", word, "\xE8 <x UTF-8>\xC3\xA9\xE2\x82\xAC"},
        {"the first declaration only", "iso-8859-1 iso-8859-1", "iso-8859-1", word, "UTF-8 iso-8859-1"},
        {"no declaration", "\xE9t\xE9", "iso-8859-1", word, "\xC3\xA9t\xC3\xA9"},
        {"a word in utf-8", "\xE9t\xE9", "\"iso-8859-1\"", "=?utf-8?Q?ab?=", "\xC3\xA9t\xC3\xA9"},
        {"windows", "Windows-1251 \xCF", "windows-1251", word, "UTF-8 \xD0\x9F"},
        {"another windows", "windows-1252 \xCF", "windows-1251", word, "windows-1252 \xD0\x9F"},
        {"gb2312", "gb2312 \xC4\xE3", "GB2312", word, "UTF-8 \xE4\xBD\xA0"},
        {"us-ascii", "US-ASCII \xE9", "us-ascii", word, "UTF-8 \xE9"},
        {"us-ascii undeclared", "x \xE9", "us-ascii", word, "x \xE9"},
        {"utf-8", "iso-8859-1 \xE9", "utf-8", word, "iso-8859-1 \xE9"},
        {"unknown", "koi8-r \xE9", "koi8-r", word, "koi8-r \xE9"},
        {"a page that is none", "windows-4711 \xE9", "windows-4711", word, "UTF-8 \xE9"},
        {"nothing to convert", "iso-8859-1", "iso-8859-1", word, "UTF-8"},
    };
    for (const auto& item : cases) {
        EXPECT_EQ(Body(item.text, item.charset, item.subject), item.converted) << item.what;
    }
    EXPECT_EQ(Show(MimeBuilder("text/html", "\xE9", Encoding::EightBit).field("Subject", word).bytes()).document, Closed("\xE9"));
    EXPECT_EQ(Show(Multipart("mixed", {Html("\xE9", Encoding::Base64, "iso-8859-1")}).field("From", word).bytes()).document,
              Closed(HtmlBlock(HtmlRow("From:", "\xC3\xA9")) + "\xC3\xA9"));
}

TEST(BodyConversion, Arguments) {
    MimeCharset charset{MimeCharsetId::UsAscii, 0};
    OwnedBytes none;
    EXPECT_EQ(ConvertPartToUtf8(none, charset, 1), kNullPointer);
    OwnedBytes bytes;
    ASSERT_EQ(bytes.appendText("us-ascii", -1), kOk);
    bytes.size = 8;
    EXPECT_EQ(ConvertPartToUtf8(bytes, charset, 1), kOk);
    EXPECT_EQ(charset.id, MimeCharsetId::Utf8);
    EXPECT_EQ(std::string(bytes.data, bytes.size), "UTF-8");
    EXPECT_EQ(ConvertRangeToUtf8(bytes, 5, {MimeCharsetId::Latin1, 0}), kOk) << "nothing behind the end";
    EXPECT_EQ(ConvertIso2022JpToUtf8(bytes, 99), kOk);
    EXPECT_EQ(std::string(bytes.data, bytes.size), "UTF-8");
}

TEST(Iso2022Jp, Modes) {
    struct {
        const char* what;
        std::string text;
        std::string converted;
    } const cases[] = {
        {"always converted", "a" + kKanji + "F|K\\" + kAscii + "b", "a" + kNihon + "b"},
        {"the older escape", kKanji1978 + "F|" + kAscii, "\xE6\x97\xA5"},
        {"the declaration", "<x ISO-2022-JP iso-2022-jp>" + kKanji + "F|", "<x UTF-8 iso-2022-jp>\xE6\x97\xA5"},
        {"the declaration without an escape", "iso-2022-jp", "UTF-8"},
        {"roman", "\\~" + kRoman + "\\~a" + kAscii + "\\~",
         "\\~\xC2\xA5\xE2\x80\xBE"
         "a\\~"},
        {"an escape that is none", "a" + kEscape + "(Ib", "a" + kEscape + "(Ib"},
        {"such an escape among kanji", kKanji + "F|" + kEscape + "(I" + kAscii, "\xE6\x97\xA5" + kUnknown + kUnknown},
        {"escapes at the end", kAscii + "a" + kEscape + "$", "a" + kEscape + "$"},
        {"an escape alone", "a" + kEscape, "a" + kEscape},
        {"from kanji to roman", kKanji + "F|" + kRoman + "~", "\xE6\x97\xA5\xE2\x80\xBE"},
        {"kanji twice", kKanji + "F|" + kKanji + "K\\" + kAscii, kNihon},
        {"an empty segment", kKanji + kAscii + "x", "x"},
        {"bytes above 7F in ASCII", kAscii + "\xE9", "\xE9"},
        {"NUL in ASCII", kAscii + "a\0b"s, "a\0b"s},
    };
    for (const auto& item : cases) {
        EXPECT_EQ(Japanese(item.text), item.converted) << item.what;
    }
}

TEST(Iso2022Jp, LineEndsResetTheMode) {
    EXPECT_EQ(Japanese(kKanji + "F|\r\nF|" + kAscii + "F|"), "\xE6\x97\xA5\r\nF|F|");
    EXPECT_EQ(Japanese(kKanji + "F|\nab" + kKanji + "K\\" + kAscii), "\xE6\x97\xA5\nab\xE6\x9C\xAC");
    EXPECT_EQ(Japanese(kRoman + "\\" + kKanji + "F|\r\n\\" + kAscii + "\\"), "\xC2\xA5\xE6\x97\xA5\r\n\xC2\xA5\\");
    EXPECT_EQ(Japanese(kRoman + kAscii + kKanji + "F|\r\\"), "\xE6\x97\xA5\r\\");
    EXPECT_EQ(Japanese(kKanji + "F\n|"), "\n|") << "the first byte of a character that the line end cuts is dropped";
}

TEST(Iso2022Jp, CharactersOfTheTable) {
    struct {
        const char* what;
        std::string bytes;
        std::string text;
    } const cases[] = {
        {"an odd byte at the end", "F|K", "\xE6\x97\xA5"},
        {"blank and delete pass",
         "F| \x7F"
         "F|",
         "\xE6\x97\xA5 \x7F\xE6\x97\xA5"},
        {"control byte",
         "\x01"
         "F|",
         kUnknown + "\xE6\x97\xA5"},
        {"first bytes outside the rows",
         "\x29\x2F\x75\x7E\x80\xFF"
         "F|",
         kUnknown + kUnknown + kUnknown + kUnknown + kUnknown + kUnknown + "\xE6\x97\xA5"},
        {"second byte below", "F F|", kUnknown + "\xE6\x97\xA5"},
        {"second byte above",
         "F\x7F"
         "F\xFF"
         "F|",
         kUnknown + kUnknown + "\xE6\x97\xA5"},
        {"first and last row", "\x21\x21\x74\x26\x74\x27", "\xE3\x80\x80\xE7\x86\x99" + kUnknown},
        {"as page 932 has them", "!A!B!]!q!r\"L", "\xEF\xBD\x9E\xE2\x88\xA5\xEF\xBC\x8D\xEF\xBF\xA0\xEF\xBF\xA1\xEF\xBF\xA2"},
        {"a gap in row 3", "#!#0", kUnknown + "\xEF\xBC\x90"},
        {"end of row 6", "&X&Y", "\xCF\x89" + kUnknown},
        {"end of row 7", "'q'r", "\xD1\x8F" + kUnknown},
        {"end of row 8", "(@(A", "\xE2\x95\x82" + kUnknown},
        {"end of row 47", "OSOT", "\xE8\x85\x95" + kUnknown},
        {"around the gap between rows 8 and 16", "0!", "\xE4\xBA\x9C"},
    };
    for (const auto& item : cases) {
        EXPECT_EQ(Japanese(kKanji + item.bytes + kAscii), item.text) << item.what;
    }
}

TEST(Iso2022Jp, OfAMegabyte) {
    std::string text = kKanji;
    std::string expected;
    for (int count = 0; count < 250'000; ++count) {
        text += count % 100 == 99 ? "F|" + kAscii + kKanji : "F|";
        expected += "\xE6\x97\xA5";
    }
    EXPECT_TRUE(Japanese(text) == expected);
}

TEST(Iso2022Jp, WhereTheCharsetIsNamed) {
    const std::string text = kKanji + "F|" + kAscii;
    const std::string day = "\xE6\x97\xA5";
    const auto document = [&](const std::string& type) {
        return Show("X: 1\r\nContent-Type: text/html" + type + "\r\n\r\n" + text).document;
    };
    EXPECT_EQ(document(";\r\n\tcharset=\"ISO-2022-JP\""), Closed(day)) << "on a folded line";
    EXPECT_EQ(document(";\r\n x=y;\r\n charset=iso-2022-jp;\r\n z=1"), Closed(day));
    EXPECT_EQ(document("\r\nX-Charset: charset=iso-2022-jp"), Closed(text)) << "in another field";
    EXPECT_EQ(document(";\n charset=iso-2022-jp"), Closed(text)) << "a fold needs CR LF";
    const MimeBuilder undeclared("text/html", text, Encoding::EightBit);
    EXPECT_EQ(Show(Multipart("alternative", {Plain(text, Encoding::EightBit, "iso-2022-jp"), undeclared}).bytes()).document,
              Closed(text))
        << "the charset of the part before does not stay";
}

TEST(Iso2022Jp, InSevenBitParts) {
    const std::string message = Plain(kKanji + "F|" + kAscii, Encoding::SevenBit, "iso-2022-jp").field("From", "f").bytes();
    EXPECT_EQ(Show(message).document, Closed("+/vFrom:   \tf\r\n\r\n\xE6\x97\xA5"));
}

}  // namespace
