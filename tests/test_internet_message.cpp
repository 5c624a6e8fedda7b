// From the bytes of an Internet message to its document: fields, parts, transfer decoding, the passes over the document.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "expected_document.h"
#include "filter_host.h"
#include "mime_builder.h"

using namespace ternkit;
using namespace mime;

using std::string_literals::operator""s;

namespace {

/// The document of a message on the memory route; empty with a failure noted when there is none.
std::string Document(const std::string& message) {
    const Shown shown = Show(message);
    EXPECT_EQ(shown.status, kOk);
    return shown.document;
}

/// A single-part message without a header block, so that the document is the body alone.
std::string BodyOnly(MimeBuilder leaf) {
    return leaf.field("MIME-Version", "1.0").bytes();
}

std::string Encoded(const std::string& encoding, const std::string& content) {
    return BodyOnly(MimeBuilder("text/plain", content, Encoding::Unnamed).fieldBehind("Content-Transfer-Encoding", encoding));
}

// Fields and the header block.

TEST(HeaderBlock, RowsOfPlainText) {
    MimeBuilder message = Plain("Body\r\n");
    message.field("Importance", "high").field("Subject", "a <b>").field("BCC", "d").field("Cc", "c");
    message.field("Date", "today").field("to", "b").field("From", "A <a@x>");
    EXPECT_EQ(Document(message.bytes()),
              Closed("From:   \tA <a@x>\r\nTo:     \tb\r\nSent:   \ttoday\r\nCc:     \tc\r\nBcc:    \td\r\nSubject:\ta <b>\r\n"
                     "Importance: high\r\n\r\nBody\r\n"));
}

TEST(HeaderBlock, RowsOfHtml) {
    MimeBuilder message = Html("<body bgcolor=\"red\">Body</body>");
    message.field("From", "A <a@x>").field("To", "b").field("Date", "today").field("CC", "c").field("Bcc", "d");
    message.field("Subject", "1 < 2 & \"x\"").field("Importance", "low");
    EXPECT_EQ(Document(message.bytes()),
              Closed("<body bgcolor=\"red\">" +
                     HtmlBlock(HtmlRow("From:", "A &lt;a@x&gt;") + HtmlRow("To:", "b") + HtmlRow("Sent:", "today") +
                               HtmlRow("Cc:", "c") + HtmlRow("Bcc:", "d") + HtmlRow("Subject:", "1 &lt; 2 & \"x\"") +
                               HtmlRow("Importance:", "low")) +
                     "Body</body>"));
}

TEST(HeaderBlock, PlaceInTheBody) {
    const auto html = [](const std::string& text) { return Show(Html(text).addressed().bytes()); };
    EXPECT_EQ(html("<p>no tag").document, Closed(kAddressedHtml + "<p>no tag"));
    EXPECT_EQ(html("<BODY>upper").document, Closed(kAddressedHtml + "<BODY>upper"));
    EXPECT_EQ(html("<body\r\nx>one<body>two").document, Closed("<body\r\nx>" + kAddressedHtml + "one<body>two"));
    EXPECT_EQ(html("<p>text</p><body lang=de").status, kUnusable);
    EXPECT_EQ(Document(Plain("abc", Encoding::SevenBit).addressed().bytes()), Closed("+/v" + kAddressedPlain + "abc"));
    EXPECT_EQ(Document(Plain("+/v").addressed().bytes()), Closed("+/v" + kAddressedPlain)) << "whoever wrote these bytes";
    EXPECT_EQ(Document(Plain("+/").addressed().bytes()), Closed(kAddressedPlain + "+/"));
}

TEST(HeaderBlock, ComesOnlyWithDateSenderOrRecipients) {
    EXPECT_EQ(Document(Plain("x").field("Subject", "s").field("Bcc", "b").field("Importance", "low").bytes()), Closed("x"));
    struct {
        const char* name;
        const char* row;
    } const fields[] = {
        {"From", "From:   \tv\r\n"}, {"To", "To:     \tv\r\n"}, {"Date", "Sent:   \tv\r\n"}, {"Cc", "Cc:     \tv\r\n"}};
    for (const auto& field : fields) {
        EXPECT_EQ(Document(Plain("x").field("X", "1").field(field.name, "v").bytes()), Closed(field.row + std::string("\r\nx")));
    }
    EXPECT_EQ(Document("X: 1\r\nCc:\r\nSubject: s\r\nContent-Type: text/plain\r\n\r\nx"),
              Closed("Cc:     \t\r\nSubject:\ts\r\n\r\nx"))
        << "an empty field that is present counts";
}

TEST(Fields, ValuesAndTheirContinuations) {
    struct {
        const char* field;
        const char* value;
    } const cases[] = {
        {"Subject: plain", "plain"},
        {"Subject:tight", "tight"},
        {"Subject:  two", " two"},
        {"Subject:\ttab", "\ttab"},
        {"SUBJECT: upper", "upper"},
        {"Subject: a\r\n\tb", "ab"},
        {"Subject: a\r\n b\r\n  c", "ab c"},
        {"Subject: a\n b", "ab"},
        {"Subject: a\n\tb", "a"},
        {"Subject: a\r\n \r\n b", "a"},
        {"Subject: first\r\nSubject: second", "first"},
        {"X-Subject: no\r\nSubject: yes", "yes"},
        {"X: Subject: no\r\nSubject: yes", "yes"},
    };
    for (const auto& item : cases) {
        EXPECT_EQ(Document(std::string("From: f\r\n") + item.field + "\r\nContent-Type: text/plain\r\n\r\nx"),
                  Closed("From:   \tf\r\nSubject:\t" + std::string(item.value) + "\r\n\r\nx"))
            << item.field;
    }
    EXPECT_EQ(Document("Reply-To: r\r\nBcc: b\r\nDate: d\r\nContent-Type: text/plain\r\n\r\nx"),
              Closed("Sent:   \td\r\nBcc:    \tb\r\n\r\nx"))
        << "neither To in Reply-To nor CC in Bcc";
    EXPECT_EQ(Document("Content-ID: <1>\r\nContent-Type: text/plain\r\nFrom: a\r\n b\r\n\r\nx"), Closed("From:   \tab\r\n\r\nx"))
        << "folded at the end of the block";
}

TEST(Fields, BareLineFeeds) {
    EXPECT_EQ(Document("From: f\nContent-Type: text/plain\nSubject: s\n\none\n\ntwo\n"),
              Closed("From:   \tf\r\nSubject:\ts\r\n\r\none\n\ntwo\n"));
    // The first CR LF CR LF of the file ends the header block, wherever it stands.
    EXPECT_EQ(Document("From: f\nContent-Type: text/plain\n\nTo: t\r\n\r\nrest"),
              Closed("From:   \tf\r\nTo:     \tt\r\n\r\nrest"));
}

// One part.

TEST(SinglePart, RefusedMessages) {
    struct {
        const char* what;
        std::string message;
        Status status;
    } const cases[] = {
        {"no Content-Type", "From: someone\r\n\r\ntext", kUnusable},
        {"another type", "From: someone\r\nContent-Type: application/pdf\r\n\r\ntext", kUnusable},
        {"on the first line", "Content-Type: text/plain\r\nFrom: f\r\n\r\ntext", kUnusable},
        {"no space behind the colon", "From: f\r\nContent-Type:text/plain\r\n\r\ntext", kUnusable},
        {"two spaces", "From: f\r\nContent-Type:  text/plain\r\n\r\ntext", kUnusable},
        {"not at a line start", "From: f\r\nX-Content-Type: text/plain\r\n\r\ntext", kUnusable},
        {"in the text only", "From: f\r\nX: 1\r\n\r\nContent-Type: text/plain\r\n\r\ntext", kUnusable},
        {"cut inside the name", "From: fffffff\r\nContent-Type:", kUnusable},
        {"no text in base64", Encoded("base64", ""), kNoMemory},
        {"12 bytes of nothing", std::string(12, '\0'), kUnusable},
    };
    for (const auto& item : cases) {
        EXPECT_EQ(Show(item.message).status, item.status) << item.what;
    }
}

TEST(SinglePart, TypesAndHeaderEnds) {
    EXPECT_EQ(Show("From: f\r\nCONTENT-TYPE: TEXT/HTML\r\n\r\nx").format, kFormatHtml);
    EXPECT_EQ(Show("From: f\r\nContent-type: Text/Plainish\r\n\r\nx").format, kFormatText);
    // Without a blank line the headers end at their first CR LF, here directly behind the two bytes that are skipped.
    EXPECT_EQ(Show("X:\r\nContent-Type: text/plain\r\nx").status, kUnusable);
    EXPECT_EQ(Document("X: 1\r\nContent-Type: text/plain\r\n\r\n"), Closed("")) << "an empty text is a text";
}

TEST(TransferDecoding, QuotedPrintable) {
    struct {
        std::string encoded;
        std::string decoded;
    } const cases[] = {
        {"=E9=e9", "\xE9\xE9"},
        {"a=\r\nb", "ab"},
        {"=ZZ", "\0ZZ"s},
        {"=Z1", "\xA1"},
        {"=\nA", "\xAA"},
        {"=\nz", "\x1A"},
        {"=\x80\x90.", "\x90."},
        {"x=", "x\0"s},
        {"x=4", std::string("x\0"
                            "4",
                            3)},
        {"x=\r", "x\0\r"s},
        {"_ _\t=3D", "_ _\t="},
    };
    for (const auto& item : cases) {
        std::string expected = item.decoded;
        if (expected.back() != '\0') {
            expected = Closed(expected);
        }
        EXPECT_EQ(Document(Encoded("QUOTED-printable", item.encoded)), expected) << item.encoded;
    }
    const std::string text = "R\xC3\xA9sum\xC3\xA9 = " + std::string(200, 'x') + " \r\nnext\tline \t";
    EXPECT_EQ(Document(BodyOnly(Plain(text, Encoding::QuotedPrintable))), Closed(text));
}

TEST(TransferDecoding, Base64) {
    struct {
        std::string encoded;
        std::string decoded;
    } const cases[] = {
        {"QUJD", "ABC"},  {"Q U\r\nJ*D", "ABC"}, {"QQ==Qg==", "AB"},       {"QQ", "A\0\0"s},
        {"QUI", "AB\0"s}, {"QQ=Q", "A\xD0"},     {"+/+/", "\xFB\xFF\xBF"}, {"QUJDRA", "ABCD\0\0"s},
    };
    for (const auto& item : cases) {
        std::string expected = item.decoded;
        if (expected.back() != '\0') {
            expected = Closed(expected);
        }
        EXPECT_EQ(Document(Encoded("base64", item.encoded)), expected) << item.encoded;
    }
    const std::string text(1000, '\xA7');
    EXPECT_EQ(Document(BodyOnly(Plain(text, Encoding::Base64))), Closed(text));
}

TEST(TransferDecoding, TheOthers) {
    const std::string content = "a=3D\xE9+/v";
    EXPECT_EQ(Document(Encoded("7BIT", content)), Closed("+/v" + content));
    for (const char* encoding : {"8bit", "binary", "x-unknown", ""}) {
        EXPECT_EQ(Document(Encoded(encoding, content)), Closed(content)) << encoding;
    }
    EXPECT_EQ(Document("X: 1\r\nContent-Type: text/plain\r\nContent-Transfer-Encoding:base64\r\n\r\nQUJD"), Closed("QUJD"))
        << "the value is taken behind the byte that follows the colon";
    EXPECT_EQ(Document(BodyOnly(Plain(content))), Closed(content));
    EXPECT_EQ(Document(BodyOnly(Html("<body>x", Encoding::SevenBit))), Closed("+/v<body>x"));
}

TEST(SinglePart, ALineOfTenMegabytes) {
    const std::string line(10'000'000, 'y');
    EXPECT_TRUE(Document(BodyOnly(Plain(line))) == Closed(line));
    EXPECT_TRUE(Document(BodyOnly(Plain(line, Encoding::QuotedPrintable))) == Closed(line));
}

// Several parts.

TEST(Parts, TheLastTextStandsUnlessPlainFollowsHtml) {
    const MimeBuilder plain1 = Plain("plain1");
    const MimeBuilder plain2 = Plain("plain2");
    const MimeBuilder html1 = Html("<p>html1");
    const MimeBuilder html2 = Html("<p>html2");
    const MimeBuilder pdf("application/pdf", "bytes", Encoding::Base64);
    struct {
        const char* what;
        std::vector<MimeBuilder> parts;
        std::string document;
    } const cases[] = {
        {"plain, html", {plain1, html1}, "<p>html1"},
        {"html, plain", {html1, plain1}, "<p>html1"},
        {"two html", {html1, html2}, "<p>html2"},
        {"two plain", {plain1, plain2}, "plain2"},
        {"html behind a skipped plain goes with it", {html1, plain1, html2}, "<p>html1"},
        {"the one after that counts", {html1, plain1, pdf, html2}, "<p>html2"},
        {"plain replaces an empty html", {Html(""), plain1}, "plain1"},
        {"plain replaces what decodes to nothing", {Html("\x1B(B", Encoding::EightBit, "iso-2022-jp"), plain1}, "plain1"},
        {"likewise a NUL", {Html("\0"s, Encoding::Base64), plain1}, "plain1"},
        {"but not two", {Html("<\0\0"s, Encoding::Base64), plain1}, "<\0"s},
        {"an empty html takes the place of the one before", {html1, Html(""), plain1}, "plain1"},
        {"the mark of seven bits is text", {Html("", Encoding::SevenBit), Plain("<p>x")}, "+/v"},
        {"attachments say nothing", {plain1, pdf, Attached(Html("inner").addressed())}, "plain1"},
        {"other text says nothing", {plain1, MimeBuilder("text/calendar", "x", Encoding::EightBit)}, "plain1"},
        {"a message with parts of its own", {plain1, Attached(Multipart("mixed", {html1}).addressed())}, "plain1"},
        {"containers", {Multipart("alternative", {plain1, html1}), pdf}, "<p>html1"},
        {"a container that is closed by a skipped part",
         {Multipart("related", {Multipart("alternative", {html1, plain1}), pdf}), html2},
         "<p>html2"},
    };
    for (const auto& item : cases) {
        const Shown shown = Show(Multipart("mixed", item.parts).bytes());
        EXPECT_EQ(shown.status, kOk) << item.what;
        EXPECT_EQ(shown.document, Closed(item.document)) << item.what;
        EXPECT_EQ(shown.format, item.document[0] == '<' || item.document == "+/v" ? kFormatHtml : kFormatText) << item.what;
    }
}

TEST(Parts, EmptyBase64EndsTheMessage) {
    const MimeBuilder empty("application/pdf", "", Encoding::Base64);
    const std::string message = Multipart("mixed", {Plain("text"), empty}).bytes();
    EXPECT_EQ(Show(message).status, kNoMemory);
    EXPECT_EQ(Show(Replaced(message, "base64\r\n\r\n", "base64\r\n\r\n*")).status, kOk) << "content, though nothing of it counts";
    // The blank line belongs to the delimiter. The headers end at their first line then, and the encoding is not seen.
    EXPECT_EQ(Show(Replaced(message, "base64\r\n\r\n\r\n", "base64\r\n\r\n")).status, kOk);
}

TEST(Parts, Boundaries) {
    const std::string container = "From: f\r\nContent-Type: multipart/mixed; ";
    const auto parts = [](const std::string& delimiter) {
        return "\r\n\r\npreamble\r\n--" + delimiter + "\r\nContent-Type: text/plain\r\n\r\nbody\r\n--" + delimiter +
               "--\r\nepilogue\r\n--" + delimiter + "\r\nContent-Type: text/plain\r\n\r\nmore";
    };
    const std::string expected = Closed("From:   \tf\r\n\r\nbody");
    EXPECT_EQ(Document(container + "boundary=abc" + parts("abc")), expected);
    EXPECT_EQ(Document(container + "BOUNDARY=\"a b;c\"; x=y" + parts("a b;c")), expected);
    EXPECT_EQ(Document(container + "boundary=abc; x=y" + parts("abc; x=y")), expected) << "unquoted: up to the line's end";
    EXPECT_EQ(Document(container + "\r\n\tboundary=\"abc\"\r\nX: 1" + parts("abc")), expected) << "on a folded line";
    EXPECT_EQ(Document(container + "boundary=\"abc" + parts("abc")), expected) << "the quote is not closed";
    EXPECT_EQ(Document(container + "boundary=\"aBc\"" + parts("AbC")), expected) << "without regard to case";
    EXPECT_EQ(Document(container + "boundary=\"abc\"\r\nX: y\r\n\tz" + parts("abc")), expected);
    EXPECT_EQ(Show(container + "boundary=abc; x=y" + parts("abc")).status, kUnusable) << "no such delimiter";
    EXPECT_EQ(Show("Subject: the boundary=x\r\n" + container + "boundary=abc" + parts("abc")).status, kUnusable)
        << "the first in the header fields counts, in whatever field";
    std::string bare = container + "boundary=abc" + parts("abc");
    for (std::size_t at = bare.find('\r'); at != std::string::npos; at = bare.find('\r')) {
        bare.erase(at, 1);
    }
    EXPECT_EQ(Show(bare).status, kUnusable) << "delimiters need CR LF";
    EXPECT_EQ(Show(Multipart("mixed", {MimeBuilder("application/pdf", "x", Encoding::Base64)}).bytes()).status, kUnusable);
}

TEST(Parts, WithoutContent) {
    const std::string message = Multipart("mixed", {Plain("one"), Plain("two"), Plain("three")}, "b").bytes();
    EXPECT_EQ(Document(Replaced(message, "--b\r\n", "--b\r\n--b\r\n--b\r\n")), Closed("three"));
    EXPECT_EQ(Show(Replaced(message, "--b\r\n", "--b--")).status, kUnusable) << "closed before it starts";
    EXPECT_EQ(Document(Replaced(message, "three\r\n--b--", "three\r\n--b-")), Closed("three"));
}

TEST(Parts, AnUnclosedContainerThatEndsInAnUnusedPictureEndsTheWalk) {
    const MimeBuilder inner = Multipart("related", {Html("<p>first"), Picture("~.png", "bytes")}, "inner");
    const std::string message = Multipart("mixed", {inner, Html("<p>second")}).bytes();
    EXPECT_EQ(Document(message), Closed("<p>second"));
    EXPECT_EQ(Document(Replaced(message, "\r\n--inner--\r\n", "")), Closed("<p>first"));
}

TEST(Parts, CutOff) {
    const std::string whole =
        Multipart("mixed", {Plain("first"), Html("<p>second"), Picture("~.png", "0123456789")}).addressed().bytes();
    for (std::size_t length = 0; length < whole.size(); ++length) {
        const Status status = Show(whole.substr(0, length)).status;
        ASSERT_TRUE(length < 12 ? status == kShortRead : status == kOk || status == kUnusable || status == kNoMemory) << length;
    }
}

std::string Nested(unsigned levels) {
    MimeBuilder message = Html("<p>innermost");
    for (unsigned level = 0; level < levels; ++level) {
        message = Multipart("mixed", {std::move(message)});
    }
    return Multipart("mixed", {Plain("outer"), std::move(message), Plain("behind")}).bytes();
}

TEST(Parts, ContainersAreVisitedToADepthOf100) {
    EXPECT_EQ(Document(Nested(100)), Closed("<p>innermost"));
    EXPECT_EQ(Document(Nested(101)), Closed("behind")) << "what lies deeper is passed over, and what follows is not";
    EXPECT_EQ(Document(Nested(400)), Closed("behind"));
}

TEST(Parts, FiveThousand) {
    std::vector<MimeBuilder> parts(2500, Plain("plain"));
    parts.insert(parts.end(), 2499, MimeBuilder("application/octet-stream", "attachment", Encoding::Base64));
    parts.push_back(Html("<p>last"));
    EXPECT_EQ(Document(Multipart("mixed", parts).bytes()), Closed("<p>last"));
}

// The passes over the document.

TEST(DocumentPasses, DocumentType) {
    const std::string blanks(15, ' ');
    EXPECT_EQ(Document(BodyOnly(Html("<!DOCTYPE html><p>a<!DOCTYPE html>"))), Closed(blanks + "<p>a<!DOCTYPE html>"));
    EXPECT_EQ(Document(BodyOnly(Plain("a<!DOCTYPE html>b"))), Closed("a" + blanks + "b"));
    EXPECT_EQ(Document(BodyOnly(Html("<!doctype html>"))), Closed("<!doctype html>"));
}

TEST(DocumentPasses, MarkersAndControlReferences) {
    struct {
        std::string before;
        std::string after;
    } const cases[] = {
        {R"(a<div>&nbsp;value="/x y">b<div>&nbsp;value="/">c)", "a" + std::string(24, ' ') + "b" + std::string(21, ' ') + "c"},
        {R"(<DIV>&nbsp;value="/x">)", R"(<DIV>&nbsp;value="/x">)"},
        {R"(<div>&nbsp;value="/x)", R"(<div>&nbsp;value="/x)"},
        {"&#1;&#2;&#11;&#12;&#14;&#19;&#20;&#29;&#30;&#31;.", std::string(48, ' ') + "."},
        {"a&#2;b&#10;c&#2;d", "a    b&#10;c&#2;d"},
        {"&#13;&#2;", "&#13;&#2;"},
        {"&#3;&#2;", "&#3;&#2;"},
        {"&#32;&#2;", "&#32;&#2;"},
        {"&#0;&#2;", "&#0;&#2;"},
        {"&#2;x;&#2;", "    x;&#2;"},  // the first ";" that is left stands before the second reference
        {"&#2x;&#123;", "     &#123;"},
        {"&#2xy;&#2;", "&#2xy;&#2;"},
        {"&#2", "&#2"},
        {";&#2;&#x1F;", ";    &#x1F;"},
    };
    for (const auto& item : cases) {
        EXPECT_EQ(Document(BodyOnly(Html(item.before))), Closed(item.after)) << item.before;
    }
    EXPECT_EQ(Document(Plain("x").field("From", "a&#2;b").bytes()), Closed("From:   \ta    b\r\n\r\nx"))
        << "the header lines too";
}

TEST(DocumentPasses, CharsetMeta) {
    const std::string meta = R"(<meta http-equiv=Content-Type content="text/html; charset=utf-8">)";
    struct {
        std::string before;
        std::string after;
    } const cases[] = {
        {"<html><head><title>", "<html><head>" + meta + "<title>"},
        {"<head><head>", "<head>" + meta + "<head>"},
        {"<HEAD>", "<HEAD>"},
        {"<head >", "<head >"},
        {"<head><p>charset", "<head><p>charset"},
        {"<head><p>CHARSET", "<head>" + meta + "<p>CHARSET"},
    };
    for (const auto& item : cases) {
        EXPECT_EQ(Document(BodyOnly(Html(item.before))), Closed(item.after)) << item.before;
    }
    EXPECT_EQ(Document(BodyOnly(Plain("a <head> b"))), Closed("a <head>" + meta + " b"));
}

}  // namespace
