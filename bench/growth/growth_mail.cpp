// Internet messages: fields, encoded words, containers, boundaries, transfer encodings, charsets, and pictures that the body
// names.

#include <climits>

#include <ternkit/batch.h>
#include <ternkit/ternbase.h>
#include "growth.h"
#include "mime_builder.h"

namespace growth {

namespace {

constexpr std::uint32_t kMemoryOnly = 3;

std::int32_t goOn(void* /*userData*/, const ternkit::BatchMessage* /*message*/) {
    return 1;
}

std::int64_t visit(const bench::File& file, ternkit::BatchWish (*wish)(void*, std::uint32_t, std::uint32_t)) {
    TbHostSetLoadMode(kMemoryOnly);
    const std::u16string path = file.widePath();
    const ternkit::BatchRequest request{sizeof(ternkit::BatchRequest), path.c_str(), 0, nullptr, wish, goOn};
    return TernVisitMessages(&request);
}

std::string messageWith(std::string_view fields, std::string_view text, std::string_view type = "text/plain") {
    return "From: Ann <ann@example.org>\r\nTo: bob@example.org\r\n" + std::string(fields) +
           "MIME-Version: 1.0\r\nContent-Type: " + std::string(type) + "; charset=utf-8\r\n\r\n" + std::string(text);
}

/// A multipart message; `parts` begin with their delimiters.
std::string multipart(std::string_view boundary, std::string_view parts) {
    return "From: Ann <ann@example.org>\r\nMIME-Version: 1.0\r\nContent-Type: multipart/related; boundary=\"" +
           std::string(boundary) + "\"\r\n\r\n" + std::string(parts) + "\r\n--" + std::string(boundary) + "--\r\n";
}

std::string withHtml(std::string_view html, std::string_view parts) {
    return multipart("b", "--b\r\nContent-Type: text/html; charset=utf-8\r\n\r\n" + std::string(html) + std::string(parts));
}

std::string picturePart(const std::string& id, const std::string& name, std::string_view base64) {
    return "\r\n--b\r\nContent-Type: image/png; name=\"" + name + "\"\r\nContent-Transfer-Encoding: base64\r\nContent-ID: <" +
           id + ">\r\n\r\n" + std::string(base64);
}

std::string reference(const std::string& id) {
    return "<img src=\"cid:" + id + "\">";
}

// ---- header fields

std::string foldedField(std::size_t size, std::string_view name, std::string_view line) {
    return messageWith(std::string(name) + ": x" + repeated("\r\n " + std::string(line), size) + "\r\n", "Hello\r\n");
}

// ---- containers

std::string nested(std::size_t size) {
    std::string message = "From: a@example.org\r\n";
    for (std::size_t depth = 0; message.size() < size; ++depth) {
        const std::string boundary = "b" + std::to_string(depth);
        message += "Content-Type: multipart/mixed; boundary=" + boundary + "\r\n\r\n--" + boundary + "\r\n";
    }
    return message + "Content-Type: text/plain\r\n\r\nHello\r\n";
}

/// The same container in itself: each delimiter ends all of them.
std::string nestedAlike(std::size_t size) {
    return "From: a@example.org\r\n" + repeated("Content-Type: multipart/mixed; boundary=b\r\n\r\n--b\r\n", size) +
           "Content-Type: text/plain\r\n\r\nHello\r\n";
}

/// Containers side by side whose own delimiter never comes.
std::string emptyContainers(std::size_t size) {
    return multipart("b", numbered(size, [](std::size_t number) {
                         return "\r\n--b\r\nContent-Type: multipart/mixed; boundary=c" + std::to_string(number) + "\r\n\r\nx";
                     }));
}

// ---- pictures that the body names

std::string oneOfMany(std::size_t size) {
    return withHtml(repeated(reference("a@b"), size), picturePart("a@b", "a.png", mime::Base64(std::string(60, 'Z'))));
}

/// The document would be as large as the square of the message.
std::string largePicture(std::size_t size) {
    return withHtml(repeated(reference("a"), size / 2), picturePart("a", "n", mime::Base64(std::string(size / 8 * 3, 'Z'))));
}

std::string manyPictures(std::size_t size, std::size_t referencesEach) {
    std::string html;
    std::string parts;
    for (std::size_t number = 0; html.size() + parts.size() < size; ++number) {
        const std::string id = "p" + std::to_string(number) + "@b";
        html += repeated(reference(id), referencesEach * 20);
        parts += picturePart(id, "n.png", mime::Base64(std::string(60, 'Z')));
    }
    return withHtml(html, parts);
}

std::string longNames(std::size_t size) {
    std::string html;
    std::string parts;
    for (std::size_t number = 0; html.size() + parts.size() < size; ++number) {
        const std::string id = repeated(std::to_string(number) + "-", 5000);
        html += reference(id);
        parts += picturePart(id, "n.png", mime::Base64(std::string(60, 'Z')));
    }
    return withHtml(html, parts);
}

/// References of VML, which stay, in a body without any quote.
std::string vmlPictures(std::size_t size) {
    std::string parts;
    const std::string html = numbered(size / 3, [&](std::size_t number) {
        const std::string id = "p" + std::to_string(number) + "@x";
        parts += picturePart(id, "n.png", mime::Base64(std::string(60, 'Z')));
        return "<v:imagedata src=cid:" + id + ">";
    });
    return withHtml(repeated("aaaa bbbb ", size / 3) + html, parts);
}

/// Many pictures, and a body full of what is nearly one of their names.
std::string nearMatches(std::size_t size) {
    const std::string id(60, 'a');
    const std::string html = repeated("<img src=\"cid:" + id + "b\">", size / 2);
    return withHtml(html, numbered(size / 2, [&](std::size_t number) {
                        return picturePart(id + std::to_string(number), "n" + std::to_string(number), "WlpaWlpa");
                    }));
}

/// A long name, and a body that is one long run of its only letter.
std::string selfSimilar(std::size_t size) {
    return withHtml(repeated("a", size / 2), picturePart(std::string(size / 4, 'a') + "b", "n", "WlpaWlpa"));
}

/// Each name is found in what the picture in front of it left behind.
std::string inEachOther(std::size_t size) {
    std::string parts;
    for (std::size_t number = 0; parts.size() < size / 2; ++number) {
        parts += picturePart(std::string("x") + std::to_string(number),
                             std::to_string(number) + "cid:x" + std::to_string(number + 1), mime::Base64(std::string(60, 'Z')));
    }
    return withHtml(repeated("<img src=\"cid:x0\">", size / 2), parts);
}

// ---- transfer encodings and charsets

std::string encoded(std::string_view encoding, std::string_view charset, std::string_view text, std::string_view type = "plain") {
    return "From: a@example.org\r\nMIME-Version: 1.0\r\nContent-Type: text/" + std::string(type) +
           "; charset=" + std::string(charset) + "\r\nContent-Transfer-Encoding: " + std::string(encoding) + "\r\n\r\n" +
           std::string(text);
}

void addRead(Cases& cases, const std::string& name, std::function<std::string(std::size_t)> make) {
    cases.push_back({"mail/" + name, "eml", std::move(make), readFirst});
}

}  // namespace

std::string repeated(std::string_view text, std::size_t size) {
    std::string all;
    all.reserve(size + text.size());
    while (all.size() < size) {
        all += text;
    }
    return all;
}

std::string numbered(std::size_t size, const std::function<std::string(std::size_t)>& make) {
    std::string all;
    for (std::size_t number = 0; all.size() < size; ++number) {
        all += make(number);
    }
    return all;
}

std::int64_t readFirst(const std::string& /*bytes*/, const bench::File& file) {
    TbHostSetLoadMode(kMemoryOnly);
    return bench::callInfo(file, 1);
}

std::int64_t readThroughFiles(const std::string& /*bytes*/, const bench::File& file) {
    TbHostSetLoadMode(0);
    return bench::callInfo(file, 1);
}

std::int64_t readLast(const std::string& /*bytes*/, const bench::File& file) {
    TbHostSetLoadMode(kMemoryOnly);
    return bench::callLoad(file, INT_MAX);
}

std::int64_t listAll(const std::string& /*bytes*/, const bench::File& file) {
    return visit(file, [](void*, std::uint32_t, std::uint32_t) { return ternkit::BatchWish::kSummary; });
}

std::int64_t visitAll(const std::string& /*bytes*/, const bench::File& file) {
    return visit(file, [](void*, std::uint32_t, std::uint32_t) { return ternkit::BatchWish::kDocument; });
}

void addMail(Cases& cases) {
    const auto fields = [&](const std::string& name, const std::string& unit) {
        addRead(cases, name, [unit](std::size_t size) { return messageWith(repeated(unit, size), "Hello\r\n"); });
    };
    fields("many fields", "X-A: b\r\n");
    fields("many Subject fields", "Subject: b\r\n");
    fields("nearly field names", "Content-Typ: a\r\nSubjec: a\r\nFro: a\r\n");
    fields("charset again and again", "X-A: charset=\r\n");
    for (const std::string name : {"Subject", "To", "Date", "Content-Type", "X-Long"}) {
        addRead(cases, "folded " + name, [name](std::size_t size) { return foldedField(size, name, "a"); });
    }
    addRead(cases, "folded blanks", [](std::size_t size) { return foldedField(size, "Subject", "\t \t"); });
    addRead(cases, "long Subject",
            [](std::size_t size) { return messageWith("Subject: " + repeated("<&\">", size) + "\r\n", "Hello\r\n"); });
    const auto words = [&](const std::string& name, const std::string& word) {
        addRead(cases, "encoded words " + name, [word](std::size_t size) { return foldedField(size, "Subject", word); });
    };
    words("B", "=?utf-8?B?w6Q=?=");
    words("Q", "=?utf-8?Q?=C3=A4?=");
    words("ISO-2022-JP", "=?iso-2022-jp?B?GyRCJDMbKEI=?=");
    words("windows", "=?windows-1251?Q?=E4?=");
    words("unknown", "=?x?Q?a?=");
    words("open", "=?utf-8?Q?a");
    words("start", "=?");
    addRead(cases, "one long encoded word", [](std::size_t size) {
        return messageWith("Subject: =?utf-8?Q?" + repeated("=C3=A4", size) + "?=\r\n", "Hello\r\n");
    });
    addRead(cases, "nested containers", nested);
    addRead(cases, "nested alike", nestedAlike);
    addRead(cases, "empty containers", emptyContainers);
    addRead(cases, "nested messages", [](std::size_t size) {
        return "From: a@example.org\r\n" + repeated("Content-Type: message/rfc822\r\n\r\n", size) + "Hello\r\n";
    });
    const auto parts = [&](const std::string& name, const std::string& part) {
        addRead(cases, name, [part](std::size_t size) { return multipart("b", repeated(part, size)); });
    };
    parts("many texts", "\r\n--b\r\nContent-Type: text/plain\r\n\r\nx");
    parts("many HTML texts", "\r\n--b\r\nContent-Type: text/html\r\n\r\n<p>x");
    parts("many empty parts", "\r\n--b\r\n");
    parts("parts without header end", "\r\n--b\r\nContent-Type: text/html\r");
    parts("many attachments",
          "\r\n--b\r\nContent-Type: application/pdf; name=a\r\nContent-Transfer-Encoding: base64\r\n\r\nWlpa");
    parts("nearly delimiters", "\r\n-- b\r\n-b\r\n--B");
    addRead(cases, "long boundary nearly matched", [](std::size_t size) {
        const std::string boundary(70, 'a');
        return multipart(boundary, repeated("\r\n--" + boundary.substr(1) + "b", size));
    });
    addRead(cases, "boundary as long as the text", [](std::size_t size) {
        const std::string boundary = repeated("a", size / 2);
        return multipart(boundary, repeated("\r\n--" + boundary.substr(0, boundary.size() / 8), size / 2));
    });
    addRead(cases, "one picture, many references", oneOfMany);
    addRead(cases, "large picture, many references", largePicture);
    addRead(cases, "many pictures", [](std::size_t size) { return manyPictures(size, 1); });
    addRead(cases, "many pictures, many references", [](std::size_t size) { return manyPictures(size, 20); });
    addRead(cases, "long picture names", longNames);
    addRead(cases, "pictures of VML", vmlPictures);
    addRead(cases, "nearly picture names", nearMatches);
    addRead(cases, "self-similar picture name", selfSimilar);
    addRead(cases, "pictures in each other", inEachOther);
    cases.push_back(
        {"mail/many pictures in files", "", [](std::size_t size) { return manyPictures(size, 1); }, readThroughFiles});
    cases.push_back({"mail/pictures in each other's files", "", inEachOther, readThroughFiles});
    const auto texts = [&](const std::string& name, std::string_view encoding, std::string_view charset, std::string_view unit,
                           std::string_view type = "plain") {
        addRead(cases, name, [=](std::size_t size) { return encoded(encoding, charset, repeated(unit, size), type); });
    };
    texts("base64 of blanks", "base64", "utf-8", " \r\nW");
    texts("quoted-printable soft breaks", "quoted-printable", "utf-8", "=\r\n");
    texts("quoted-printable broken", "quoted-printable", "utf-8", "=Z=");
    texts("quoted-printable blanks", "quoted-printable", "utf-8", " \t");
    texts("seven bits", "7bit", "utf-7", "+AOQ-+");
    texts("ISO-2022-JP each letter", "7bit", "iso-2022-jp", "\x1B$B$3\x1B(Ba");
    texts("ISO-2022-JP escapes only", "7bit", "iso-2022-jp", "\x1B$B\x1B(B\x1B(J");
    texts("ISO-2022-JP broken", "7bit", "iso-2022-jp", "\x1B$\x1B");
    texts("GB2312 broken", "8bit", "gb2312", "\xB0\xFF\xB0");
    texts("windows-1251", "8bit", "windows-1251", "\xE4\xE5 ");
    texts("unknown charset", "8bit", "x-none", "\xE4\xFF");
    texts("UTF-8 broken", "8bit", "utf-8", "\xE4\xC3\xF0\x9F");
    texts("plain text to be escaped", "8bit", "utf-8", "<&>\"\r\n");
    texts("HTML with many charsets", "8bit", "windows-1252", "<meta charset=x content=\"charset=\">", "html");
    for (const Markup& html : htmlDocuments()) {
        addRead(cases, "html " + html.name, [make = html.make](std::size_t size) {
            return messageWith("Subject: " + std::string("Worst cases") + "\r\n", make(size), "text/html");
        });
    }
}

}  // namespace growth
