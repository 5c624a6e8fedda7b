#include "msg_builder.h"

#include <cstdio>
#include <utility>

namespace msg {

namespace {

constexpr std::uint16_t kInteger32 = 0x0003;
constexpr std::uint16_t kBoolean = 0x000B;
constexpr std::uint16_t kObject = 0x000D;
constexpr std::uint16_t kTime = 0x0040;
constexpr std::uint32_t kReadableAndWritable = 6;

constexpr std::uint16_t kMessageFlags = 0x0E07;
constexpr std::uint16_t kRecipientType = 0x0C15;
constexpr std::uint16_t kAttachSize = 0x0E20;
constexpr std::uint16_t kAttachNumber = 0x0E21;
constexpr std::uint16_t kObjectType = 0x0FFE;
constexpr std::uint16_t kRowId = 0x3000;
constexpr std::uint16_t kDisplayName = 0x3001;
constexpr std::uint16_t kAddressType = 0x3002;
constexpr std::uint16_t kEmailAddress = 0x3003;
constexpr std::uint16_t kStoreSupportMask = 0x340D;
constexpr std::uint16_t kAttachData = 0x3701;
constexpr std::uint16_t kAttachMethod = 0x3705;
constexpr std::uint16_t kAttachLongFilename = 0x3707;
constexpr std::uint16_t kRenderingPosition = 0x370B;
constexpr std::uint16_t kAttachMimeTag = 0x370E;
constexpr std::uint32_t kStoreUnicodeOk = 0x00040000;
constexpr std::uint32_t kMailUser = 6;
constexpr std::uint32_t kByValue = 1;
constexpr std::uint32_t kEmbeddedMessage = 5;

void put(std::string& out, std::uint64_t value, std::size_t size) {
    for (std::size_t at = 0; at < size; ++at) {
        out += static_cast<char>(value >> 8 * at);
    }
}

std::string formatted(const char* format, std::uint32_t number) {
    char name[40];
    std::snprintf(name, sizeof(name), format, number);
    return name;
}

/// The first code point of a UTF-8 text, which loses it.
std::uint32_t takeCodePoint(std::string_view& text) {
    const auto lead = static_cast<unsigned char>(text.front());
    const std::size_t size = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    std::uint32_t point = size == 1 ? lead : lead & (0xFFU >> (size + 1));
    for (std::size_t at = 1; at < size; ++at) {
        point = point << 6 | (static_cast<unsigned char>(text.at(at)) & 0x3F);
    }
    text.remove_prefix(size);
    return point;
}

std::string codeUnits(std::uint32_t point) {
    constexpr std::uint32_t kFirstBeyond = 0x10000;
    std::string out;
    if (point >= kFirstBeyond) {
        put(out, 0xD800 + ((point - kFirstBeyond) >> 10), 2);
        put(out, 0xDC00 + ((point - kFirstBeyond) & 0x3FF), 2);
    } else {
        put(out, point, 2);
    }
    return out;
}

}  // namespace

std::string StreamName(std::uint16_t id, std::uint16_t type) {
    return formatted("__substg1.0_%08X", std::uint32_t{id} << 16 | type);
}

std::string AttachmentStorage(std::uint32_t number) {
    return formatted("__attach_version1.0_#%08X", number);
}

std::string Utf16(std::string_view text) {
    std::string out;
    while (!text.empty()) {
        out += codeUnits(takeCodePoint(text));
    }
    return out;
}

void PropertyBag::text(std::uint16_t id, std::string_view text, TextForm form) {
    // The stream has no closing NUL; the size in the property stream counts one.
    if (form == TextForm::Unicode) {
        const std::string units = Utf16(text);
        m_properties[id] = {kUnicode, units.size() + 2, units};
    } else {
        m_properties[id] = {kEightBit, text.size() + 1, std::string(text)};
    }
}

void PropertyBag::binary(std::uint16_t id, std::string bytes) {
    const std::size_t size = bytes.size();
    m_properties[id] = {kBinary, size, std::move(bytes)};
}

void PropertyBag::number(std::uint16_t id, std::uint32_t value) {
    m_properties[id] = {kInteger32, value, {}};
}

void PropertyBag::time(std::uint16_t id, std::uint64_t fileTime) {
    m_properties[id] = {kTime, fileTime, {}};
}

void PropertyBag::boolean(std::uint16_t id, bool value) {
    m_properties[id] = {kBoolean, value ? 1U : 0U, {}};
}

void PropertyBag::object(std::uint16_t id) {
    constexpr std::uint64_t kMessageObject = 0x00000001'FFFFFFFF;
    m_properties[id] = {kObject, kMessageObject, {}};
}

void PropertyBag::write(compound::Storage& storage, std::string head) const {
    for (const auto& [id, property] : m_properties) {
        put(head, property.type, 2);
        put(head, id, 2);
        put(head, kReadableAndWritable, 4);
        put(head, property.value, 8);
        if (property.content) {
            storage.stream(StreamName(id, property.type), *property.content);
        }
    }
    storage.stream(kProperties, std::move(head));
}

MsgBuilder::MsgBuilder(TextForm form, compound::Options options) : m_form(form), m_options(options) {
    text(kMessageClass, "IPM.Note");
    number(kStoreSupportMask, form == TextForm::Unicode ? kStoreUnicodeOk : 0);
    number(kMessageFlags, 1);
}

MsgBuilder& MsgBuilder::text(std::uint16_t id, std::string_view text) {
    m_bag.text(id, text, m_form);
    return *this;
}

MsgBuilder& MsgBuilder::binary(std::uint16_t id, std::string bytes) {
    m_bag.binary(id, std::move(bytes));
    return *this;
}

MsgBuilder& MsgBuilder::number(std::uint16_t id, std::uint32_t value) {
    m_bag.number(id, value);
    return *this;
}

MsgBuilder& MsgBuilder::time(std::uint16_t id, std::uint64_t fileTime) {
    m_bag.time(id, fileTime);
    return *this;
}

MsgBuilder& MsgBuilder::recipient(RecipientKind kind, const std::string& name, const std::string& address) {
    PropertyBag bag;
    bag.number(kRowId, static_cast<std::uint32_t>(m_recipients.size()));
    bag.number(kRecipientType, static_cast<std::uint32_t>(kind));
    bag.number(kObjectType, kMailUser);
    bag.text(kDisplayName, name, m_form);
    bag.text(kAddressType, "SMTP", m_form);
    bag.text(kEmailAddress, address, m_form);
    m_recipients.push_back(std::move(bag));
    return *this;
}

MsgBuilder::Attachment& MsgBuilder::addAttachment(const AttachmentFields& fields, std::uint32_t method) {
    constexpr std::uint32_t kNotRendered = 0xFFFFFFFF;
    Attachment attachment{m_nextAttachment++, {}, nullptr};
    PropertyBag& bag = attachment.bag;
    bag.number(kAttachNumber, attachment.number);
    bag.number(kAttachMethod, method);
    bag.number(kAttachSize, static_cast<std::uint32_t>(fields.data.size()));
    bag.number(kRenderingPosition, kNotRendered);
    for (const auto& [id, value] : {std::pair(kAttachFilename, fields.name), std::pair(kAttachLongFilename, fields.name),
                                    std::pair(kAttachContentId, fields.contentId), std::pair(kAttachMimeTag, fields.mimeTag)}) {
        if (!value.empty()) {
            bag.text(id, value, m_form);
        }
    }
    m_attachments.push_back(std::move(attachment));
    return m_attachments.back();
}

MsgBuilder& MsgBuilder::attach(const AttachmentFields& fields) {
    addAttachment(fields, kByValue).bag.binary(kAttachData, fields.data);
    return *this;
}

MsgBuilder& MsgBuilder::attach(const MsgBuilder& message, const AttachmentFields& fields) {
    Attachment& attachment = addAttachment(fields, kEmbeddedMessage);
    attachment.bag.object(kAttachData);
    attachment.message = std::make_shared<MsgBuilder>(message);
    return *this;
}

MsgBuilder& MsgBuilder::nextAttachment(std::uint32_t number) {
    m_nextAttachment = number;
    return *this;
}

MsgBuilder& MsgBuilder::extra(std::function<void(compound::Storage&)> change) {
    m_extras.push_back(std::move(change));
    return *this;
}

void MsgBuilder::write(compound::Storage& storage, Place place) const {
    std::string head(8, '\0');
    put(head, m_recipients.size(), 4);
    put(head, m_nextAttachment, 4);
    put(head, m_recipients.size(), 4);
    put(head, m_attachments.size(), 4);
    if (place == Place::Top) {
        head.append(8, '\0');
        compound::Storage& named = storage.storage("__nameid_version1.0");
        for (std::uint16_t id = 2; id <= 4; ++id) {  // GUIDs, entries, strings: no property has a name
            named.stream(StreamName(id, kBinary), "");
        }
    }
    m_bag.write(storage, std::move(head));
    for (std::size_t at = 0; at < m_recipients.size(); ++at) {
        const std::string name = formatted("__recip_version1.0_#%08X", static_cast<std::uint32_t>(at));
        m_recipients[at].write(storage.storage(name), std::string(8, '\0'));
    }
    for (const Attachment& attachment : m_attachments) {
        compound::Storage& inner = storage.storage(AttachmentStorage(attachment.number));
        attachment.bag.write(inner, std::string(8, '\0'));
        if (attachment.message) {
            attachment.message->write(inner.storage(StreamName(kAttachData, kObject)), Place::Embedded);
        }
    }
    for (const auto& change : m_extras) {
        change(storage);
    }
}

compound::CompoundImage MsgBuilder::image() const {
    compound::CompoundFileBuilder file(m_options);
    write(file.root(), Place::Top);
    return file.image();
}

std::string HtmlInRtf(std::string_view html) {
    std::string out =
        "{\\rtf1\\ansi\\ansicpg1252\\fromhtml1 \\fbidis \\deff0{\\fonttbl\r\n{\\f0\\fswiss\\fcharset0 Arial;}}\r\n"
        "{\\colortbl\\red0\\green0\\blue0;}\r\n\\uc1\\pard\\plain\\deftab360 \\f0\\fs24 \r\n";
    while (!html.empty()) {
        if (html.front() == '<') {
            out += "{\\*\\htmltag64 ";
        }
        const bool inTag = html.front() == '<';
        while (!html.empty() && (inTag || html.front() != '<')) {
            const std::uint32_t point = takeCodePoint(html);
            if (point >= 0x80) {
                const std::string units = codeUnits(point);
                for (std::size_t at = 0; at < units.size(); at += 2) {
                    const int unit = static_cast<unsigned char>(units[at]) | static_cast<unsigned char>(units[at + 1]) << 8;
                    out += "\\u" + std::to_string(static_cast<std::int16_t>(unit)) + "?";
                }
            } else if (point == '\\' || point == '{' || point == '}') {
                out += '\\';
                out += static_cast<char>(point);
            } else if (point == '\n') {
                out += inTag ? "\n" : "{\\*\\htmltag64 \\par }";
            } else {
                out += static_cast<char>(point);
            }
            if (inTag && point == '>') {
                break;
            }
        }
        if (inTag) {
            out += "}";
        }
    }
    return out + "}";
}

}  // namespace msg
