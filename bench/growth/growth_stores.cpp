// Stores: their two trees, data trees, subnodes, heaps, tables, and what a message holds.

#include "growth.h"
#include "rtf_compressor.h"
#include "store_builder.h"

namespace growth {

namespace {

using builder::Bytes;
using builder::Folder;
using builder::LayoutOptions;
using builder::Message;
using builder::MessageFields;
using builder::StoreBuilder;

constexpr std::size_t kMessageBytes = 1500;  // about what a small message takes

std::string textOf(const StoreBuilder& store) {
    const Bytes bytes = store.bytes();
    return {bytes.begin(), bytes.end()};
}

LayoutOptions unicode() {
    LayoutOptions options;
    options.recordPlaces = false;
    options.allocationMaps = builder::AllocationMaps::None;
    return options;
}

std::string smallMessages(std::size_t size, const LayoutOptions& options) {
    StoreBuilder store(options);
    store.addFolder("Inbox").addMessages(size / kMessageBytes, [](std::size_t number) {
        MessageFields fields;
        fields.subject = "Message " + std::to_string(number);
        fields.htmlBody = "Hello";
        return fields;
    });
    return textOf(store);
}

std::string deepTrees(std::size_t size, std::size_t pageEntries, std::size_t subnodeEntries) {
    LayoutOptions options = unicode();
    options.pageEntries = pageEntries;
    options.subnodeEntries = subnodeEntries;
    return smallMessages(size / 2, options);
}

std::string withMessage(const MessageFields& fields, const std::function<void(Message&)>& change = {}) {
    StoreBuilder store(unicode());
    Message& message = store.addFolder("Inbox").addMessage(fields);
    if (change) {
        change(message);
    }
    return textOf(store);
}

std::string folders(std::size_t size, const std::string& name) {
    StoreBuilder store(unicode());
    for (std::size_t number = 0; number < size / (2500 + 2 * name.size()); ++number) {
        store.addFolder(name + std::to_string(number)).addMessage({.subject = "a", .htmlBody = "b"});
    }
    return textOf(store);
}

std::string nestedFolders(std::size_t size) {
    StoreBuilder store(unicode());
    Folder* folder = &store.top();
    for (std::size_t number = 0; number < size / 2000; ++number) {
        folder = &folder->addFolder("f");
    }
    folder->addMessage({.subject = "a", .htmlBody = "b"});
    return textOf(store);
}

/// Rows without a message behind them.
std::string bareRows(std::size_t size) {
    StoreBuilder store(unicode());
    Folder& inbox = store.addFolder("Inbox");
    for (std::size_t number = 0; number < size / 120; ++number) {
        inbox.addBareRow(static_cast<std::uint32_t>(0x800004 + 32 * number));
    }
    inbox.addMessage({.subject = "a", .htmlBody = "b"});
    return textOf(store);
}

/// Many rows of many folders name the same large message.
std::string rowsOfOneMessage(std::size_t size, const MessageFields& fields) {
    StoreBuilder store(unicode());
    const Message& message = store.addFolder("Inbox").addMessage(fields);
    for (int number = 0; number < 10; ++number) {
        Folder& folder = store.addFolder("Copy " + std::to_string(number));
        for (std::size_t row = 0; row < size / 2500; ++row) {
            folder.addBareRow(message.id());
        }
    }
    store.addFolder("Last").addMessage({.subject = "a", .htmlBody = "b"});
    return textOf(store);
}

std::string sharingMessages(std::size_t size) {
    StoreBuilder store(unicode());
    store.addFolder("Inbox").addSharingMessages(size / 520, std::string(size / 2, 'x'));
    return textOf(store);
}

/// Rows of an attachment table that all name one attachment, whose name is long.
std::string rowsOfOneAttachment(std::size_t size) {
    StoreBuilder store(unicode());
    Folder& inbox = store.addFolder("Inbox");
    constexpr builder::NodeId kMessage = 0x300004;
    constexpr builder::NodeId kAttachmentTable = 0x671;
    MessageFields fields;
    fields.subject = "a";
    fields.htmlBody = "<html><body><img src=\"cid:none\"></body></html>";
    Message message(builder::Layout::Unicode, fields, kMessage);
    const builder::NodeId attachment = message.attach({.longName = std::string(size / 4, 'q'), .data = Bytes(60, 0x5A)}).id();
    builder::NodeContent content = message.content();
    content.subnodes[kAttachmentTable] = builder::tableContext(
        builder::Layout::Unicode, {}, std::vector<builder::TableRow>(size / 50, {static_cast<std::uint32_t>(attachment), {}}));
    inbox.addBareRow(kMessage);
    store.addNode(kMessage, content, inbox.id());
    return textOf(store);
}

enum class Named { Yes, No };

std::string attachments(std::size_t size, Named named) {
    std::string html = "<html><body><img src=\"cid:none\">";
    const std::size_t count = size / 900;
    for (std::size_t number = 0; named == Named::Yes && number < count; ++number) {
        html += "<img src=\"cid:a" + std::to_string(number) + "\">";
    }
    MessageFields fields;
    fields.subject = "a";
    fields.htmlBody = html;
    return withMessage(fields, [&](Message& message) {
        for (std::size_t number = 0; number < count; ++number) {
            const std::string name = "a" + std::to_string(number);
            message.attach({.name = name, .longName = name, .contentId = name, .data = Bytes(60, 0x5A)});
        }
    });
}

std::string recipients(std::size_t size) {
    MessageFields fields;
    fields.subject = "a";
    fields.htmlBody = "b";
    fields.to = repeated("Bob; ", size / 40);
    return withMessage(fields);
}

std::string embedded(std::size_t size) {
    MessageFields fields;
    fields.subject = "a";
    fields.htmlBody = "b";
    return withMessage(fields, [&](Message& message) {
        Message* inner = &message;
        for (std::size_t depth = 0; depth < size / 3000 && depth < 2000; ++depth) {
            inner = &inner->attach({.name = "a"}).embed(fields);
        }
    });
}

/// A heap whose BTH has as many levels as its format allows, as the properties of a message.
std::string manyProperties(std::size_t size) {
    MessageFields fields;
    fields.subject = "a";
    fields.htmlBody = "b";
    return withMessage(fields, [&](Message& message) {
        const std::size_t count = std::min<std::size_t>(size / 300, 20'000);
        for (std::size_t number = 0; number < count; ++number) {
            message.property(static_cast<std::uint16_t>(0x4000 + number), Bytes(size / count - 20, 0x41));
        }
    });
}

std::string manyNodes(std::size_t size) {
    StoreBuilder store(unicode());
    for (std::size_t number = 0; number < size / 160; ++number) {
        store.addNode(static_cast<builder::NodeId>(0x1000001 + 32 * number), {Bytes(8, 0x41), {}});
    }
    store.addFolder("Inbox").addMessage({.subject = "a", .htmlBody = "b"});
    return textOf(store);
}

/// A long text in blocks of one byte.
std::string tinyBlocks(std::size_t size) {
    StoreBuilder store(unicode());
    store.addFolder("Inbox").addMessage({.subject = "a", .htmlBody = "b"});
    store.beforeTrees([size](builder::StoreWriter& writer) {
        std::vector<builder::BlockId> extended;
        std::vector<builder::BlockId> blocks;
        const std::size_t count = size / 130;
        const Bytes byte(1, 0x41);
        for (std::size_t number = 0; number < count; ++number) {
            blocks.push_back(writer.addExternalBlock(byte));
            if (blocks.size() == writer.measures().blocksPerXblock || number + 1 == count) {
                extended.push_back(writer.addExtendedBlock(1, blocks, static_cast<std::uint32_t>(blocks.size())));
                blocks.clear();
            }
        }
        writer.addNode(0x1000001, {writer.addExtendedBlock(2, extended, static_cast<std::uint32_t>(count)), 0}, 0);
    });
    return textOf(store);
}

}  // namespace

void addStores(Cases& cases) {
    const auto add = [&](const std::string& name, std::function<std::string(std::size_t)> make) {
        cases.push_back({"pst/last of " + name, "pst", make, readLast});
        cases.push_back({"pst/all of " + name, "", make, visitAll});
    };
    add("small messages", [](std::size_t size) { return smallMessages(size, unicode()); });
    add("small messages, ANSI", [](std::size_t size) {
        LayoutOptions options = unicode();
        options.layout = builder::Layout::Ansi;
        return smallMessages(size, options);
    });
    add("deep trees", [](std::size_t size) { return deepTrees(size, 2, 1); });
    add("deep subnode trees", [](std::size_t size) { return deepTrees(size, 0, 1); });
    add("many folders", [](std::size_t size) { return folders(size, "f"); });
    add("long folder names", [](std::size_t size) { return folders(size, std::string(1500, 'f')); });
    add("nested folders", nestedFolders);
    add("bare rows", bareRows);
    add("rows of one message", [](std::size_t size) {
        MessageFields fields;
        fields.subject = "a";
        fields.htmlBody = std::string(size / 5, 'x');
        return rowsOfOneMessage(size, fields);
    });
    add("rows of one message with pictures", [](std::size_t size) {
        MessageFields fields;
        fields.subject = "a";
        fields.htmlBody = "<html><body>" + repeated("<img src=\"cid:none\">", size / 3) + "</body></html>";
        return rowsOfOneMessage(size, fields);
    });
    add("rows of one message without a body", [](std::size_t size) { return rowsOfOneMessage(size, {.subject = "a"}); });
    add("messages that share a body", sharingMessages);
    add("rows of one attachment", rowsOfOneAttachment);
    add("a long text", [](std::size_t size) {
        MessageFields fields;
        fields.subject = "a";
        fields.htmlBody = repeated("x\r\n", size / 2);
        return withMessage(fields);
    });
    add("a long subject", [](std::size_t size) {
        MessageFields fields;
        fields.subject = repeated("<a&", size / 4);
        fields.htmlBody = "<html><body>x</body></html>";
        return withMessage(fields);
    });
    add("compressed RTF", [](std::size_t size) {
        MessageFields fields;
        fields.subject = "a";
        const std::string block = rtf::Compressed("{\\rtf1\\ansi{\\fonttbl{\\f0 A;}}\\pard " + repeated("word ", size * 7) + "}");
        fields.rtfCompressed = Bytes(block.begin(), block.end());
        return withMessage(fields);
    });
    add("many attachments", [](std::size_t size) { return attachments(size, Named::No); });
    add("many pictures", [](std::size_t size) { return attachments(size, Named::Yes); });
    add("many recipients", recipients);
    add("messages in messages", embedded);
    add("many properties", manyProperties);
    add("many nodes", manyNodes);
    add("tiny blocks", tinyBlocks);
    cases.push_back({"pst/list of small messages", "", [](std::size_t size) { return smallMessages(size, unicode()); }, listAll});
    cases.push_back({"pst/list of nested folders", "", nestedFolders, listAll});
    cases.push_back({"pst/list of bare rows", "", bareRows, listAll});
}

}  // namespace growth
