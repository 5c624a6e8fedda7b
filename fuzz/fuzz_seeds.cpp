// Writes the seed corpora: fuzz_seeds DIRECTORY makes a folder for each target in it. Fails when the mutators' mending would
// change a sound file.

#include <cairo.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "compound_mending.h"
#include "frames.h"
#include "json_output.h"
#include "mailbox/mailbox_frames.h"
#include "mime_builder.h"
#include "msg_builder.h"
#include "rtf_compressor.h"
#include "store_builder.h"
#include "store_mending.h"

namespace {

namespace fs = std::filesystem;

void requireSound(const std::string& file, void (*mend)(std::span<std::uint8_t>)) {
    const std::vector<std::uint8_t> bytes(file.begin(), file.end());
    std::vector<std::uint8_t> mended = bytes;
    mend(mended);
    if (mended != bytes) {
        std::fprintf(stderr, "mending changes a sound file\n");
        std::exit(1);
    }
}

class SeedFolder {
public:
    explicit SeedFolder(fs::path path) : m_path(std::move(path)) { fs::create_directories(m_path); }

    void add(const std::string& name, const std::string& bytes) const {
        std::ofstream(m_path / name, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    }

private:
    fs::path m_path;
};

void writeInternetMessages(const SeedFolder& seeds) {
    using namespace mime;
    const std::string picture(60, '\x5A');
    const std::string html =
        "<html><head></head><body><p>caf\xE9</p><img src=\"cid:a@b\"><v:imagedata src=\"cid:a@b\"></body></html>";
    seeds.add("plain", Plain("Hello\r\n").addressed().bytes());
    seeds.add("seven_bit", Plain("Hello\r\n", Encoding::SevenBit).addressed().bytes());
    seeds.add("html", Html(html, Encoding::QuotedPrintable, "iso-8859-1").addressed().bytes());
    seeds.add("words",
              Plain("caf\xE9", Encoding::Base64, "windows-1252")
                  .addressed()
                  .field("CC", EncodedWord("utf-8", 'Q', "J\xC3\xB6rg") + " " + EncodedWord("windows-1251", 'B', "\xCF\xF0"))
                  .field("Importance", "high")
                  .bytes());
    seeds.add("japanese", Plain("\x1B$B$\"$$\x1B(B ok \x1B(J\\~\x1B(B", Encoding::SevenBit, "iso-2022-jp")
                              .addressed()
                              .field("BCC", EncodedWord("iso-2022-jp", 'B', "\x1B$B8}\x1B(B"))
                              .bytes());
    seeds.add(
        "related",
        Multipart("related", {Html(html), Picture("a.png", picture, "a@b"), Picture("b.png", picture)}).addressed().bytes());
    seeds.add("mixed", Multipart("mixed", {Multipart("alternative", {Plain("one"), Html(html)}), Picture("a.png", picture, "a@b"),
                                           Attached(Plain("inner").addressed()), Plain("two")})
                           .addressed()
                           .bytes());
    seeds.add("passes", Html("<!DOCTYPE html><html><head></head><body><div>&nbsp;value=\"/x\">&#1;&#12;&#31;&#65;</body></html>")
                            .addressed()
                            .bytes());
    seeds.add("bare_line_feeds", "From: a\nSubject: b\n c\nContent-Type: text/plain\n\nHello\n");
}

/// A store in which everything has levels: trees of pages and subnodes, data trees of both kinds, with holes, heaps of many
/// pages, a BTH, a row matrix in a subnode.
void writeStoreOfLevels(const SeedFolder& seeds, const SeedFolder& messageSeeds, builder::Layout layout, const char* layoutName) {
    using namespace builder;
    constexpr std::size_t severalBlocks = 9'000;
    constexpr std::uint32_t rows = 30;
    constexpr NodeId bag = 0x1000001;
    constexpr NodeId holes = 0x1000021;
    LayoutOptions options;
    options.layout = layout;
    options.encoding = Encoding::None;
    options.allocationMaps = AllocationMaps::None;
    options.pageEntries = 4;
    options.subnodeEntries = 2;
    StoreBuilder store(options);
    Folder& inbox = store.addFolder("Inbox");
    Message& mail = inbox.addMessage({.subject = "Hello", .plainBody = std::string(severalBlocks, 'x')});
    mail.attach({.name = "a.bin", .data = Bytes(severalBlocks, 0x5A)});
    mail.attach({.name = "b.bin", .data = Bytes(1, 0x5A)});
    for (std::uint32_t row = 0; row < rows; ++row) {
        inbox.addBareRow(bag + 32 * row);
    }
    PropertyList list(layout);
    for (std::uint16_t id = 0x3001; id < 0x3021; ++id) {
        list.property(id, Bytes(300, static_cast<std::uint8_t>(id)));
    }
    store.addNode(bag, propertyContext(layout, list.properties(), 16));
    store.beforeTrees([&](StoreWriter& writer) {
        const auto full = static_cast<std::uint32_t>(writer.measures().maxContent * writer.measures().blocksPerXblock);
        const BlockId block = writer.addExternalBlock(Bytes(100, 1));
        const BlockId inner = writer.addExtendedBlock(1, {block}, 100);
        writer.addNode(holes, {writer.addExtendedBlock(2, {0, inner}, full + 100), 0}, 0);
    });
    const Bytes bytes = store.bytes();
    const std::string text(bytes.begin(), bytes.end());
    requireSound(text, fuzz::mendStore);
    seeds.add(std::string(layoutName) + "_levels", text);
    messageSeeds.add(std::string(layoutName) + "_levels", "\x01" + text);
}

/// Stores alone, and behind the byte that names a message.
void writeStores(const SeedFolder& seeds, const SeedFolder& messageSeeds) {
    using namespace builder;
    const std::pair<const char*, Layout> layouts[] = {{"ansi", Layout::Ansi}, {"unicode", Layout::Unicode}};
    for (const auto& [layoutName, layout] : layouts) {
        for (const Encoding encoding : {Encoding::None, Encoding::Permutative, Encoding::Cyclic}) {
            LayoutOptions options;
            options.layout = layout;
            options.encoding = encoding;
            options.allocationMaps = AllocationMaps::None;
            options.pageEntries = encoding == Encoding::None ? 2 : 0;
            options.subnodeEntries = options.pageEntries;
            StoreBuilder store(options);
            Message& mail = store.addFolder("Inbox").addMessage({.subject = "Hello",
                                                                 .subjectPrefix = "RE: ",
                                                                 .plainBody = "plain",
                                                                 .htmlBody = "<html><body><img src=\"cid:a.png\">"});
            mail.attach({.name = "a.png", .longName = "a.png", .data = Bytes(100, 0x5A)});
            const Bytes bytes = store.bytes();
            const std::string text(bytes.begin(), bytes.end());
            requireSound(text, fuzz::mendStore);
            const std::string name = std::string(layoutName) + std::to_string(static_cast<int>(encoding));
            seeds.add(name, text);
            messageSeeds.add(name, "\x01" + text);
            messageSeeds.add(name + "_plain", "\x81" + text);
        }
        writeStoreOfLevels(seeds, messageSeeds, layout, layoutName);
    }
}

/// Items: the compound file and what it holds go to both targets.
void writeItems(const SeedFolder& files, const SeedFolder& items) {
    using namespace msg;
    const std::string html =
        "<html><head></head><body><p>caf\xC3\xA9</p><img src=\"cid:a@b\"><img src=\"b.png\"><v:imagedata "
        "src=\"cid:a@b\"></body></html>";
    // Stored blocks have no CRC that would stop a mutation.
    const std::pair<const char*, std::string> bodies[] = {
        {"html", rtf::Stored(html)},
        {"wrapped", rtf::Stored(HtmlInRtf(html))},
        {"rtf", rtf::Compressed("{\\rtf1\\ansi{\\fonttbl{\\f0 Arial;}}\\pard a.png\\par}")},
    };
    for (const auto sectors : {compound::SectorSize::Of512, compound::SectorSize::Of4096}) {
        for (const auto form : {TextForm::Unicode, TextForm::EightBit}) {
            MsgBuilder item(form, {sectors, compound::Arrangement::Scattered});
            item.text(kSubject, "Hello").text(kSenderName, "Ann").text(kSenderSmtpAddress, "a@b").text(kDisplayTo, "Bob");
            item.text(kBody, "How are you?").time(kClientSubmitTime, 0x01D321C5D1711780).number(kImportance, 2);
            item.attach({.name = "a.png", .contentId = "a@b", .data = std::string(60, 'Z')});
            const std::string name = std::string(sectors == compound::SectorSize::Of512 ? "512" : "4096") +
                                     (form == TextForm::Unicode ? "_wide_" : "_narrow_");
            for (const auto& [kind, block] : bodies) {
                const std::string bytes = MsgBuilder(item).binary(kRtfCompressed, block).bytes();
                requireSound(bytes, fuzz::mendCompoundFile);
                files.add(name + kind, bytes);
                items.add(name + kind, bytes);
            }
        }
    }
}

void writeRichText(const SeedFolder& blocks, const SeedFolder& texts) {
    const std::string rtf =
        "{\\rtf1\\ansi\\ansicpg1251\\fromhtml1 \\deff0{\\fonttbl{\\f0\\fcharset204 Arial;}}{\\*\\htmltag19 "
        "<html>}{\\*\\htmltag64 <p>}"
        "\\htmlrtf {\\htmlrtf0 \\'cf\\'f0 \\u1055?\\u55357?\\u56832? text text text\\par {\\*\\htmltag72 </p>}{\\*\\htmltag27 "
        "</html>}}";
    blocks.add("compressed", rtf::Compressed(rtf));
    blocks.add("stored", rtf::Stored(rtf));
    texts.add("html", rtf);
}

/// One file of each kind, and a store whose messages are damaged in several ways, behind the byte that says what is wanted.
void writeBatches(const SeedFolder& seeds) {
    using namespace builder;
    const auto add = [&seeds](const std::string& name, const std::string& file) {
        seeds.add(name, std::string(1, '\0') + file);
        seeds.add(name + "_summaries", "\x01" + file);
        seeds.add(name + "_plain", "\x02" + file);
    };
    add("message", mime::Html("<p>Hello").addressed().bytes());
    add("item", msg::MsgBuilder().text(msg::kSubject, "Hello").text(msg::kBody, "How are you?").bytes());
    for (const auto& [name, layout] : {std::pair("ansi", Layout::Ansi), std::pair("unicode", Layout::Unicode)}) {
        LayoutOptions options;
        options.layout = layout;
        options.encoding = Encoding::None;
        options.allocationMaps = AllocationMaps::None;
        StoreBuilder store(options);
        for (const char* folderName : {"A", "Freebusy Data", "C"}) {
            Folder& folder = store.addFolder(folderName);
            Message& mail = folder.addMessage({.subject = "Hello", .htmlBody = "<img src=\"cid:a.png\">"});
            mail.attach({.name = "a.png", .longName = "a.png", .data = Bytes(60, 0x5A)});
            folder.addMessage({.subject = "Sender"}).property(0x0C1A, Bytes(4000, 'x'));
            folder.addMessage({.subject = "LocalFreebusy"});
            folder.addMessage({.subject = "Text", .plainBody = std::string(4000, 'x')});
        }
        const Bytes bytes = store.bytes();
        add(name, std::string(bytes.begin(), bytes.end()));
    }
}

void writePages(const SeedFolder& pages) {
    pages.add("table",
              "<html><head><style>p.a{margin:0}.b{display:none}@media print{td > b:first-child{color:red}}</style></head><body "
              "bgcolor=#fff><table border=1><colgroup><col width=50></colgroup><tr><td colspan=2 style=\"background:url(x.png) "
              "0 0\">a<td><p class=a>b<p><b>c<p>d</b></table></body></html>");
    pages.add("text",
              "<!DOCTYPE html><h1>a</h1><ol start=3><li>b<ul><li>c</ul></ol><blockquote>d<br>e</blockquote><pre>\n f\n</pre><a "
              "href=\"http://x/?a&amp;b\">g</a><img src=\"data:image/gif;base64,R0lGODlhAQABAAAAACw=\" alt=h>&eacute;&#146;<hr>");
    pages.add("boxes",
              "<body dir=rtl><div style=\"float:left;width:50%;border:1px dotted;border-radius:3px\">&#1488;</div><span "
              "style=\"display:inline-block;position:relative;opacity:.5\">a</span><li style=\"list-style:upper-roman\">b<p "
              "style=\"background:linear-gradient(red,blue);page-break-before:always;letter-spacing:2px\">c");
}

void writeRtf(const SeedFolder& texts) {
    texts.add("field", "\\ansi {\\field{\\*\\fldinst HYPERLINK \"http://x/\"}{\\fldrslt a}}{\\pict\\pngblip\\bin3 {}\\}\\'e4}");
    texts.add("object",
              "{\\object\\objemb{\\*\\objdata 0105}{\\result b}}{\\*\\template x}{\\field{\\*\\fldinst INCLUDEPICTURE \"x\"}}}");
}

void writePictures(const SeedFolder& pictures) {
    const std::unique_ptr<cairo_surface_t, decltype(&cairo_surface_destroy)> surface(
        cairo_image_surface_create(CAIRO_FORMAT_ARGB32, 3, 2), &cairo_surface_destroy);
    std::string png;
    const auto append = [](void* target, const unsigned char* data, unsigned size) {
        static_cast<std::string*>(target)->append(reinterpret_cast<const char*>(data), size);
        return CAIRO_STATUS_SUCCESS;
    };
    cairo_surface_write_to_png_stream(surface.get(), append, &png);
    pictures.add("png", png);
    pictures.add("gif", std::string("GIF89a\1\0\1\0\x80\0\0\0\0\0\xFF\xFF\xFF,\0\0\0\0\1\0\1\0\0\2\2\x44\1\0;", 35));
    pictures.add("bmp", std::string("BM\x3A\0\0\0\0\0\0\0\x36\0\0\0\x28\0\0\0\1\0\0\0\1\0\0\0\1\0\x18", 29) +
                            std::string(25, '\0') + "abcd");
    pictures.add("svg",
                 "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"9\" height=\"9\"><rect width=\"5\" height=\"5\"/></svg>");
}

void writeTexts(const SeedFolder& texts) {
    texts.add("header", "From:       \tAnn\nSubject:    \tHello\n\nsee <http://x/?a=b>, mailto:a@b.\n");
    texts.add("long_line", std::string(5000, 'x') + "\t\f\v" + std::string(300, ' ') + "y\r\n\rz");
    texts.add("wide", std::string("\xFF\xFEH\0\x35\xD8\0\xDC\n\0", 10));
    texts.add(
        "scripts",
        "\xD7\xA9\xD7\x9C \xE2\x80\xAE abc \xE0\xA4\x95\xE0\xA5\x8D\xE0\xA4\xB7 \xF0\x9F\x91\xA9\xE2\x80\x8D\xF0\x9F\x92\xBB");
    texts.add("cyrillic", "\xCF\xF0\xE8\xE2\xE5\xF2, \xEC\xE8\xF0");
}

void writeRefused(const SeedFolder& messages) {
    using namespace mime;
    msg::MsgBuilder item(msg::TextForm::EightBit, {compound::SectorSize::Of512, compound::Arrangement::Neighbours});
    item.text(msg::kSubject,
              "Gr\xFC\xDF"
              "e")
        .number(0x3FFD, 1252)
        .binary(0x1013, "<p>caf\xE9");
    item.attach({.name = "\xE9.png", .contentId = "a@b", .data = std::string(60, 'Z')});
    messages.add("item", item.bytes());
    messages.add("mbox",
                 "From a Mon Jan  1 00:00:00 2024\nFrom: a\nSubject: b\n\nHello\n>From here\n\nFrom b Mon Jan  1 00:00:00 "
                 "2024\nFrom: c\n\n");
    messages.add("bare", "From: a\nSubject: b\n c\n\nHello\n");
    messages.add("parts", Multipart("related", {Html("<img src=\"cid:a@b\">"), Picture("a.png", "zzz", "a@b"),
                                                Attached(Plain("inner").addressed())})
                              .addressed()
                              .bytes());
    messages.add("report",
                 "From: a\r\nContent-Type: multipart/report; boundary=x\r\n\r\n--x\r\nContent-Type: "
                 "text/rfc822-headers\r\n\r\nSubject: b\r\n--x\r\nContent-Type: text/calendar\r\n\r\nBEGIN\r\n--x--");
}

std::string frame(ternview::FrameKind kind, const std::string& payload) {
    std::string bytes;
    for (const std::size_t number : {static_cast<std::size_t>(kind), payload.size()}) {
        for (int at = 0; at < 4; ++at) {
            bytes += static_cast<char>(number >> 8 * at);
        }
    }
    return bytes + payload;
}

/// What processes tell, behind the byte that says which kind of process it is.
void writeFrames(const SeedFolder& seeds) {
    using namespace ternview;
    MessageSummary message;
    message.number = 2;
    message.count = 3;
    message.subject = "b";
    message.senderName = "a";
    message.date = "today";
    message.sentTime = 1'700'000'000;
    message.helps = {Help::kMbox};
    message.files = {{"message.html", 5}};
    JobResult result;
    result.failure = Failure::kLoader;
    result.detail = "x";
    const std::string file = frame(FrameKind::kMessage, packMessage(message)) + frame(FrameKind::kMessagePass, "");
    seeds.add("reader", std::string(1, '\0') + file + frame(FrameKind::kFileEnd, packFileEnd(result)));
    result.tempFiles = {{"a.png", 3}};
    result.helps = {Help::kPlainText};
    seeds.add("worker", "\x01" + packResult(result));
    seeds.add("service", "\x02" + frame(FrameKind::kPdf, "label") + frame(FrameKind::kData, "%PDF") + frame(FrameKind::kEnd, ""));
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: fuzz_seeds DIRECTORY\n");
        return 2;
    }
    writeInternetMessages(SeedFolder(fs::path(argv[1]) / "internet_message"));
    writeStores(SeedFolder(fs::path(argv[1]) / "store"), SeedFolder(fs::path(argv[1]) / "store_message"));
    writeItems(SeedFolder(fs::path(argv[1]) / "compound_file"), SeedFolder(fs::path(argv[1]) / "msg"));
    writeBatches(SeedFolder(fs::path(argv[1]) / "batch"));
    writeRichText(SeedFolder(fs::path(argv[1]) / "compressed_rtf"), SeedFolder(fs::path(argv[1]) / "rtf_to_html"));
    writePages(SeedFolder(fs::path(argv[1]) / "conversions"));
    writePages(SeedFolder(fs::path(argv[1]) / "html_layout"));
    writeRtf(SeedFolder(fs::path(argv[1]) / "rtf_guard"));
    writePictures(SeedFolder(fs::path(argv[1]) / "pictures"));
    writeTexts(SeedFolder(fs::path(argv[1]) / "text_loader"));
    writeRefused(SeedFolder(fs::path(argv[1]) / "repair"));
    writeFrames(SeedFolder(fs::path(argv[1]) / "frames"));
    return 0;
}
