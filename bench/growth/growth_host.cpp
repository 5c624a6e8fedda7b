// What the host does with strangers' documents, in one process: the guards in front of layout engines, layout, conversions, and
// its helping hands.

#include <fcntl.h>

#include "descriptor.h"
#include "export/conversions.h"
#include "export/journal_lines.h"
#include "growth.h"
#include "loaders/html_demands.h"
#include "loaders/html_guard.h"
#include "loaders/rtf_guard.h"
#include "repair/canonical_message.h"
#include "repair/mbox.h"

#include <ternkit/formats.h>

namespace growth {

namespace {

using Bytes = std::string;

/// A reader that needs the bytes only.
auto reads(std::int64_t (*read)(const Bytes&)) {
    return [read](const Bytes& bytes, const bench::File&) { return read(bytes); };
}

std::int64_t layOut(std::uint32_t format, const Bytes& bytes) {
    const auto pages = ternview::layOut({format, bytes, {}}, {});
    return pages->pageCount();
}

std::int64_t splitMbox(const Bytes& /*bytes*/, const bench::File& file) {
    const ternview::Descriptor descriptor(::open(file.path().c_str(), O_RDONLY | O_CLOEXEC));
    const auto mbox = ternview::Mbox::open(descriptor.get());
    std::int64_t size = 0;
    for (std::size_t at = 0; mbox && at < mbox->count(); ++at) {
        size += static_cast<std::int64_t>(mbox->message(at).size());
    }
    return size;
}

std::int64_t mend(const Bytes& bytes) {
    const auto message = ternview::canonicalMessage(bytes);
    return message ? static_cast<std::int64_t>(message->bytes.size()) : -1;
}

void addHtml(Cases& cases) {
    for (const Markup& html : htmlDocuments()) {
        const auto add = [&](const char* way, std::int64_t (*read)(const Bytes&)) {
            cases.push_back({std::string(way) + "/" + html.name, "", html.make, reads(read)});
        };
        add("guard", [](const Bytes& bytes) { return static_cast<std::int64_t>(ternview::guardHtml(bytes).html.size()); });
        add("demands", [](const Bytes& bytes) { return static_cast<std::int64_t>(ternview::htmlDemands(bytes).any()); });
        add("page", [](const Bytes& bytes) {
            return static_cast<std::int64_t>(ternview::safeHtmlPage({ternkit::kFormatHtml, bytes, {}}, {}).size());
        });
        add("text", [](const Bytes& bytes) {
            return static_cast<std::int64_t>(ternview::plainText({ternkit::kFormatHtml, bytes, {}}).size());
        });
        add("layout", [](const Bytes& bytes) { return layOut(ternkit::kFormatHtml, bytes); });
    }
}

void addText(Cases& cases) {
    const auto add = [&](const std::string& name, const std::string& unit) {
        cases.push_back({"plain/" + name, "", [unit](std::size_t size) { return repeated(unit, size); },
                         reads([](const Bytes& bytes) { return layOut(ternkit::kFormatText, bytes); })});
    };
    add("one long word", "a");
    add("one long line", "a ");
    add("empty lines", "\n");
    add("lines", "a line of some words\r\n");
    add("form feeds", "\f");
    add("tabulators", "\ta");
    add("East Asian letters", "\xE6\xBC\xA2");
    add("right-to-left letters", "\xD7\x90\xD7\x91 a 1 ");
    add("combining marks", "\xCC\x81");
    add("marks of direction", "\xE2\x80\xAB\xE2\x80\xAA a");
    add("emoji", "\xF0\x9F\x91\xA8\xE2\x80\x8D\xF0\x9F\x91\xA9");
    add("many scripts", "\xE0\xA4\x95\xE0\xB8\x81\xE1\x83\x90\xD4\xB1");
    add("no UTF-8", "\xE4\xFF");
    add("NULs", std::string(1, '\0'));
}

void addMending(Cases& cases) {
    const auto add = [&](const std::string& name, const std::string& start, const std::string& unit) {
        cases.push_back({"mend/" + name, "", [=](std::size_t size) { return start + repeated(unit, size); }, reads(mend)});
    };
    const std::string from = "From: a@example.org\n";
    const std::string multipart = from + "Content-Type: multipart/mixed; boundary=b\n\n";
    add("fields", from, "X-A: b\n");
    add("folded field", from + "Subject: a", "\n b");
    add("encoded words", from + "Subject: a", "\n =?utf-8?Q?=C3=A4?=");
    add("addresses", from + "To: a", ", Ann <ann@example.org>");
    add("open groups", from + "To: a", "a:(<\"");
    add("References", from + "References: ", "<a@b> ");
    add("parameters", from + "Content-Type: text/plain", "; a*0*=b");
    add("nested alike", from, "Content-Type: multipart/mixed; boundary=b\n\n--b\n");
    add("nested messages", from, "Content-Type: message/rfc822\n\n");
    add("texts", multipart, "--b\nContent-Type: text/plain\n\nx\n");
    add("HTML texts", multipart, "--b\nContent-Type: text/html\n\n<p>x\n");
    add("pictures", multipart + "--b\nContent-Type: text/html\n\n<img src=cid:a>\n",
        "--b\nContent-Type: image/png\nContent-ID: <a>\n\nx\n");
    add("empty parts", multipart, "--b\n");
    add("nearly delimiters", multipart, "\n-- b\n--B");
    add("lines", from + "\n", "\n");
    add("quoted-printable", from + "Content-Transfer-Encoding: quoted-printable\n\n", "=\n=E4");
    add("uuencoded", from + "\n", "begin 644 a\n");
    cases.push_back({"mend/nested containers", "",
                     [](std::size_t size) {
                         return "From: a@example.org\n" + numbered(size, [](std::size_t depth) {
                                    const std::string boundary = "b" + std::to_string(depth);
                                    return "Content-Type: multipart/mixed; boundary=" + boundary + "\n\n--" + boundary + "\n";
                                });
                     },
                     reads(mend)});
    const auto mbox = [&](const std::string& name, const std::string& unit) {
        cases.push_back({"mbox/" + name, "mbox",
                         [unit](std::size_t size) {
                             return "From a@example.org Mon Jan  1 00:00:00 2024\nFrom: a@example.org\n\n" + repeated(unit, size);
                         },
                         splitMbox});
    };
    mbox("small messages", "\nFrom a@example.org Mon Jan  1 00:00:00 2024\nFrom: a@example.org\n\nx\n");
    mbox("separators only", "\nFrom a@example.org Mon Jan  1 00:00:00 2024\n");
    mbox("nearly separators", "\nFrom \n>From a\nFrom a\n");
    mbox("quoted separators", ">>>From a\n");
    mbox("line ends", "\r\n\r\n");
    mbox("one long line", "From ");
    cases.push_back(
        {"journal/members of a line", "",
         [](std::size_t size) {
             return "{" + numbered(size, [](std::size_t number) { return "\"" + std::to_string(number) + "\":0,"; }) + "\"\":0}";
         },
         reads([](const Bytes& bytes) { return static_cast<std::int64_t>(ternview::parseLine(bytes).has_value()); })});
}

}  // namespace

void addHost(Cases& cases) {
    addHtml(cases);
    addText(cases);
    for (const Markup& rtf : rtfDocuments()) {
        cases.push_back({"rtf guard/" + rtf.name, "", rtf.make, reads([](const Bytes& bytes) {
                             return static_cast<std::int64_t>(ternview::guardRtf(bytes, {}).size());
                         })});
    }
    addMending(cases);
}

}  // namespace growth
