#include "bench_stores.h"

#include <map>
#include <string>

#include "rtf_compressor.h"
#include "store_builder.h"

namespace bench {

namespace {

constexpr std::size_t kRtfSize = 8 * 1024;
constexpr std::size_t kHtmlSize = 30 * 1024;
constexpr std::size_t kPictureSize = 4 * 1024;
constexpr std::size_t kSmallSize = 600;

std::string text(std::size_t size, std::size_t number) {
    const std::string sentence = "Message " + std::to_string(number) + " tells of the terns on the bar, and of the tide. ";
    std::string result;
    while (result.size() < size) {
        result += sentence;
    }
    return result;
}

File writeMixedStore() {
    builder::StoreBuilder store(builder::Layout::Unicode, builder::Encoding::Permutative);
    builder::Folder& inbox = store.addFolder("Inbox");
    for (std::size_t number = 0; number < static_cast<std::size_t>(kMixedMessages); ++number) {
        builder::MessageFields fields;
        fields.subject = "Message " + std::to_string(number);
        if (number % 2 == 0) {
            const std::string block =
                rtf::Compressed("{\\rtf1\\ansi{\\fonttbl{\\f0 Arial;}}\\pard " + text(kRtfSize, number) + "\\par}");
            fields.rtfCompressed = builder::Bytes(block.begin(), block.end());
            inbox.addMessage(fields);
            continue;
        }
        fields.htmlBody =
            "<html><body>" + text(kHtmlSize, number) + "<img src=\"cid:a.png\"><img src=\"cid:b.png\"></body></html>";
        builder::Message& message = inbox.addMessage(fields);
        message.attach({.name = "a.png", .longName = "a.png", .data = builder::Bytes(kPictureSize, 0x5A)});
        message.attach({.name = "b.png", .longName = "b.png", .data = builder::Bytes(kPictureSize, 0xA5)});
    }
    return File("mixed.pst", [&](const std::string& path) { store.write(path); });
}

File writeSmallStore(std::int32_t messages) {
    builder::StoreBuilder store(builder::Layout::Unicode, builder::Encoding::Permutative);
    store.addFolder("Inbox").addMessages(static_cast<std::size_t>(messages), [](std::size_t number) {
        builder::MessageFields fields;
        fields.subject = "Message " + std::to_string(number);
        fields.plainBody = text(kSmallSize, number);
        return fields;
    });
    return File("small" + std::to_string(messages) + ".pst", [&](const std::string& path) { store.write(path); });
}

}  // namespace

const File& mixedStore() {
    static const File file = writeMixedStore();
    return file;
}

const File& smallStore(std::int32_t messages) {
    static std::map<std::int32_t, File> files;
    const auto known = files.find(messages);
    return known != files.end() ? known->second : files.emplace(messages, writeSmallStore(messages)).first->second;
}

}  // namespace bench
