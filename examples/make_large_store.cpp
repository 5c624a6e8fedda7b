// Makes a store of any number of messages, to try things on: plain text, HTML, RTF, and HTML with a picture, in equal parts.
//
//     make_large_store large.pst 10000

#include <array>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>

#include "rtf_compressor.h"
#include "store_builder.h"

namespace {

using namespace builder;

constexpr std::size_t kKinds = 4;

// A red dot as PNG.
constexpr unsigned char kPicture[] = {0x89, 0x50, 0x4E, 0x47, 0x0D, 0x0A, 0x1A, 0x0A, 0x00, 0x00, 0x00, 0x0D, 0x49, 0x48,
                                      0x44, 0x52, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x01, 0x08, 0x02, 0x00, 0x00,
                                      0x00, 0x90, 0x77, 0x53, 0xDE, 0x00, 0x00, 0x00, 0x0C, 0x49, 0x44, 0x41, 0x54, 0x78,
                                      0x9C, 0x63, 0xF8, 0xCF, 0xC0, 0x00, 0x00, 0x03, 0x01, 0x01, 0x00, 0xC9, 0xFE, 0x92,
                                      0xEF, 0x00, 0x00, 0x00, 0x00, 0x49, 0x45, 0x4E, 0x44, 0xAE, 0x42, 0x60, 0x82};

constexpr std::array kSenders{"Anna Berg", "Jürgen Groß", "Елена Соколова", "山田 花子", "Γιώργος Παπαδόπουλος"};

/// A message of three paragraphs, more or less.
std::string textOf(std::size_t number, const char* lineEnd) {
    std::string text = "Dear reader," + std::string(lineEnd);
    for (std::size_t line = 0; line < 8 + number % 24; ++line) {
        text += "this is line " + std::to_string(line + 1) + " of message " + std::to_string(number + 1) +
                ", which tells of the terns on the bar." + lineEnd;
    }
    return text;
}

MessageFields fieldsOf(std::size_t number) {
    constexpr std::uint64_t kFirstOfJanuary2024 = 133'485'408'000'000'000;  // 100 ns since 1601
    constexpr std::uint64_t kSeventyMinutes = std::uint64_t{70} * 60 * 10'000'000;
    MessageFields fields;
    fields.subject = "Message " + std::to_string(number + 1) + " of the terns";
    fields.senderName = kSenders[number % kSenders.size()];
    fields.senderAddress = "sender" + std::to_string(number % kSenders.size()) + "@example.org";
    fields.to = "Reader; Keeper";
    fields.submitTime = kFirstOfJanuary2024 + number * kSeventyMinutes;
    return fields;
}

MessageFields plainMessage(std::size_t number) {
    MessageFields fields = fieldsOf(number);
    fields.plainBody = textOf(number, "\r\n");
    return fields;
}

MessageFields htmlMessage(std::size_t number, const std::string& picture = {}) {
    MessageFields fields = fieldsOf(number);
    fields.plainBody = textOf(number, "\r\n");
    fields.htmlBody = "<html><body><p>" + textOf(number, "<br>") + "</p>" + picture + "</body></html>";
    return fields;
}

MessageFields rtfMessage(std::size_t number) {
    MessageFields fields = fieldsOf(number);
    const std::string block =
        rtf::Compressed("{\\rtf1\\ansi{\\fonttbl{\\f0 Arial;}}\\pard\\f0 " + textOf(number, "\\par ") + "}");
    fields.rtfCompressed = Bytes(block.begin(), block.end());
    return fields;
}

void makeStore(const std::string& path, std::size_t messages) {
    StoreBuilder store(Layout::Unicode, Encoding::Permutative);
    const std::size_t each = messages / kKinds;
    store.addFolder("Text").addMessages(messages - 3 * each, plainMessage);
    store.addFolder("HTML").addMessages(each, [](std::size_t number) { return htmlMessage(number); });
    store.addFolder("RTF").addMessages(each, rtfMessage);
    Folder& pictures = store.addFolder("Pictures");
    for (std::size_t number = 0; number < each; ++number) {
        pictures.addMessage(htmlMessage(number, "<img src=\"cid:dot.png\">"))
            .attach({.name = "dot.png",
                     .longName = "dot.png",
                     .contentId = "dot.png",
                     .mimeTag = "image/png",
                     .data = Bytes(std::begin(kPicture), std::end(kPicture))});
    }
    store.write(path);
}

}  // namespace

int main(int argc, char** argv) {
    std::uint32_t messages = 0;
    if (argc != 3 || std::from_chars(argv[2], argv[2] + std::strlen(argv[2]), messages).ec != std::errc() || messages == 0) {
        std::fprintf(stderr, "usage: make_large_store FILE MESSAGES\n");
        return 2;
    }
    try {
        makeStore(argv[1], messages);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "make_large_store: %s: %s\n", argv[1], error.what());
        return 1;
    }
    return 0;
}
