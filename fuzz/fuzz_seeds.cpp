// Writes the seed corpora: fuzz_seeds DIRECTORY makes a folder for each target in it.

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "mime_builder.h"
#include "rtf_compressor.h"
#include "store_builder.h"

namespace {

namespace fs = std::filesystem;

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
            StoreBuilder store(options);
            Message& mail = store.addFolder("Inbox").addMessage({.subject = "Hello",
                                                                 .subjectPrefix = "RE: ",
                                                                 .plainBody = "plain",
                                                                 .htmlBody = "<html><body><img src=\"cid:a.png\">"});
            mail.attach({.name = "a.png", .longName = "a.png", .data = Bytes(100, 0x5A)});
            const Bytes bytes = store.bytes();
            const std::string text(bytes.begin(), bytes.end());
            const std::string name = std::string(layoutName) + std::to_string(static_cast<int>(encoding));
            seeds.add(name, text);
            messageSeeds.add(name, "\x01" + text);
            messageSeeds.add(name + "_plain", "\x81" + text);
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

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: fuzz_seeds DIRECTORY\n");
        return 2;
    }
    writeInternetMessages(SeedFolder(fs::path(argv[1]) / "internet_message"));
    writeStores(SeedFolder(fs::path(argv[1]) / "store"), SeedFolder(fs::path(argv[1]) / "store_message"));
    writeRichText(SeedFolder(fs::path(argv[1]) / "compressed_rtf"), SeedFolder(fs::path(argv[1]) / "rtf_to_html"));
    return 0;
}
