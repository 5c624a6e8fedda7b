// Outlook items: chains and trees of the compound file, property streams, recipients, attachments, bodies.

#include <algorithm>
#include <vector>

#include "growth.h"
#include "msg_builder.h"
#include "rtf_compressor.h"

namespace growth {

namespace {

using compound::CompoundImage;

constexpr compound::Options kScattered{compound::SectorSize::Of512, compound::Arrangement::Scattered};

msg::MsgBuilder item(compound::Options options = {}) {
    msg::MsgBuilder built(msg::TextForm::Unicode, options);
    built.text(msg::kSubject, "Worst cases").text(msg::kSenderName, "Ann").text(msg::kDisplayTo, "Bob");
    return built;
}

std::string rtfItem(const std::string& rtf, compound::Options options = {}) {
    return item(options).binary(msg::kRtfCompressed, rtf::Compressed(rtf)).bytes();
}

/// An item whose HTML stands as it is.
msg::MsgBuilder htmlItem(const std::string& html) {
    msg::MsgBuilder built = item();
    built.binary(msg::kRtfCompressed, rtf::Stored(html));
    return built;
}

std::string streamName(std::size_t number) {
    return "s" + std::to_string(number);
}

CompoundImage withStreams(std::size_t size, const std::string& content) {
    const std::size_t count = size / (128 + content.size());
    return item()
        .text(msg::kBody, "Hello")
        .extra([&](compound::Storage& root) {
            for (std::size_t number = 0; number < count; ++number) {
                root.stream(streamName(number), content);
            }
        })
        .image();
}

/// The root's tree as one long branch: each name is looked for behind all those in front of it.
std::string degenerate(std::size_t size, std::size_t branch) {
    CompoundImage image = withStreams(size, "");
    std::vector<std::pair<std::string, std::uint32_t>> names;
    for (const auto& [path, number] : image.entries) {
        if (!path.empty() && path.find('/') == std::string::npos) {
            names.emplace_back(path, number);
        }
    }
    const auto upper = [](std::string text) {
        std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return static_cast<char>(toupper(c)); });
        return text;
    };
    std::sort(names.begin(), names.end(), [&](const auto& one, const auto& other) {
        return one.first.size() != other.first.size() ? one.first.size() < other.first.size()
                                                      : upper(one.first) < upper(other.first);
    });
    if (branch == compound::kEntryLeft) {
        std::reverse(names.begin(), names.end());
    }
    for (std::size_t at = 0; at < names.size(); ++at) {
        const std::size_t entry = image.entryNumber(names[at].second);
        image.put32(entry + compound::kEntryLeft, compound::kNoEntry);
        image.put32(entry + compound::kEntryRight, compound::kNoEntry);
        image.put32(entry + branch, at + 1 < names.size() ? names[at + 1].second : compound::kNoEntry);
    }
    image.put32(image.entryOf("") + compound::kEntryChild, names.front().second);
    return image.bytes;
}

/// Property entries that name what is not there.
std::string manyProperties(std::size_t size) {
    return item()
        .text(msg::kBody, "Hello")
        .extra([&](compound::Storage& root) {
            std::string stream = root.streams().at(msg::kProperties);
            stream += numbered(size, [](std::size_t number) {
                const std::size_t id = 0x3000 + number % 0x4000;
                return std::string{
                    '\x1F', '\0', static_cast<char>(id), static_cast<char>(id >> 8), 6, 0, 0, 0, '\x10', 0, 0, 0, 0, 0, 0, 0};
            });
            root.stream(msg::kProperties, stream);
        })
        .bytes();
}

enum class Named { Yes, No };

std::string attachments(std::size_t size, Named named) {
    std::string html = "<html><body>";
    const std::size_t count = size / 1800;
    for (std::size_t number = 0; named == Named::Yes && number < count; ++number) {
        html += "<img src=\"cid:" + streamName(number) + "\">";
    }
    msg::MsgBuilder built = htmlItem(html + "<img src=\"cid:none\"></body></html>");
    for (std::size_t number = 0; number < count; ++number) {
        built.attach({.name = "a.png", .contentId = streamName(number), .data = std::string(60, 'Z')});
    }
    return built.bytes();
}

/// All attachments claim the sectors of one of them.
std::string sharedSectors(std::size_t size) {
    std::string html;
    const std::size_t count = size / 4000;
    for (std::size_t number = 0; number < count; ++number) {
        html += "<img src=\"cid:" + streamName(number) + "\">";
    }
    msg::MsgBuilder built = htmlItem("<html><body>" + html + "</body></html>");
    for (std::size_t number = 0; number < count; ++number) {
        built.attach({.name = "a.png", .contentId = streamName(number), .data = std::string(number == 0 ? size / 2 : 100, 'Z')});
    }
    CompoundImage image = built.image();
    const auto entryOfData = [&](std::size_t number) {
        return image.entryOf(msg::AttachmentStorage(static_cast<std::uint32_t>(number)) + "/" +
                             msg::StreamName(0x3701, msg::kBinary));
    };
    for (std::size_t number = 1; number < count; ++number) {
        for (const std::size_t field : {compound::kEntryStart, compound::kEntrySize}) {
            image.put32(entryOfData(number) + field, image.get32(entryOfData(0) + field));
        }
    }
    return image.bytes;
}

/// All header texts claim the sectors of the subject, and letters of two code pages in turn grow a lot in RTF.
std::string sharedHeader(std::size_t size) {
    constexpr std::uint16_t kOthers[] = {msg::kSenderName, msg::kDisplayTo, msg::kDisplayCc, msg::kDisplayBcc};
    msg::MsgBuilder built = item();
    built.text(msg::kSubject, repeated("\xE4\xB8\xAD\xE0\xB8\x81", size))
        .text(msg::kDisplayCc, "Cy")
        .text(msg::kDisplayBcc, "Di");
    built.binary(msg::kRtfCompressed, rtf::Compressed("{\\rtf1\\ansi{\\fonttbl{\\f0 Arial;}}\\pard x}"));
    CompoundImage image = built.image();
    const auto entryOf = [&](std::uint16_t id) { return image.entryOf(msg::StreamName(id, msg::kUnicode)); };
    for (const std::uint16_t id : kOthers) {
        for (const std::size_t field : {compound::kEntryStart, compound::kEntrySize}) {
            image.put32(entryOf(id) + field, image.get32(entryOf(msg::kSubject) + field));
        }
    }
    return image.bytes;
}

std::string recipients(std::size_t size) {
    msg::MsgBuilder built = item();
    built.text(msg::kBody, "Hello");
    for (std::size_t number = 0; number < size / 1500; ++number) {
        built.recipient(msg::RecipientKind::To, "Bob " + std::to_string(number), "bob@example.org");
    }
    return built.bytes();
}

std::string embedded(std::size_t size) {
    msg::MsgBuilder inner = item();
    for (std::size_t depth = 0; depth < size / 4000; ++depth) {
        msg::MsgBuilder outer = item();
        outer.attach(inner, {.name = "a", .contentId = "a"});
        inner = std::move(outer);
    }
    return inner.bytes();
}

}  // namespace

void addItems(Cases& cases) {
    const auto add = [&](const std::string& name, std::function<std::string(std::size_t)> make) {
        cases.push_back({"msg/" + name, "msg", std::move(make), readFirst});
    };
    add("long plain text", [](std::size_t size) { return item().text(msg::kBody, repeated("x\r\n", size / 2)).bytes(); });
    add("scattered sectors",
        [](std::size_t size) { return item(kScattered).text(msg::kBody, repeated("x\r\n", size / 2)).bytes(); });
    add("long Subject",
        [](std::size_t size) { return item().text(msg::kSubject, repeated("<&>", size / 2)).text(msg::kBody, "Hello").bytes(); });
    add("long Subject above RTF", [](std::size_t size) {
        return item()
            .text(msg::kSubject, repeated("\xD0\xB6\xE1\x83\x90 a", size / 2))
            .binary(msg::kRtfCompressed, rtf::Compressed("{\\rtf1\\ansi{\\fonttbl{\\f0 Arial;}}\\pard x}"))
            .bytes();
    });
    add("many streams", [](std::size_t size) { return withStreams(size, "").bytes; });
    add("many small streams", [](std::size_t size) { return withStreams(size, std::string(60, 'x')).bytes; });
    add("directory as a right branch", [](std::size_t size) { return degenerate(size, compound::kEntryRight); });
    add("directory as a left branch", [](std::size_t size) { return degenerate(size, compound::kEntryLeft); });
    add("many properties", manyProperties);
    add("many recipients", recipients);
    add("many attachments", [](std::size_t size) { return attachments(size, Named::No); });
    add("many pictures", [](std::size_t size) { return attachments(size, Named::Yes); });
    add("pictures that share sectors", sharedSectors);
    add("header texts that share sectors above RTF", sharedHeader);
    add("items in items", embedded);
    add("HTML in RTF", [](std::size_t size) {
        return item().binary(msg::kRtfCompressed, rtf::Stored(msg::HtmlInRtf(repeated("<p>x</p>", size / 4)))).bytes();
    });
    add("RTF that expands", [](std::size_t size) {
        return item()
            .binary(msg::kRtfCompressed,
                    rtf::Compressed("{\\rtf1\\ansi{\\fonttbl{\\f0 Arial;}}\\pard " + repeated("word ", size * 7) + "}"))
            .bytes();
    });
    add("HTML in RTF that expands", [](std::size_t size) { return rtfItem(msg::HtmlInRtf(repeated("<div>", size))); });
    for (const Markup& rtf : rtfDocuments()) {
        add("rtf " + rtf.name,
            [make = rtf.make](std::size_t size) { return item().binary(msg::kRtfCompressed, rtf::Stored(make(size))).bytes(); });
    }
}

}  // namespace growth
