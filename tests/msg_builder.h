/**
 * MsgBuilder writes Outlook items for tests, examples and benchmarks, valid by [MS-OXMSG]: a property stream and one stream for
 * each property of variable size, in the message and in the storages of its recipients and attachments, and the storage of named
 * properties.
 *
 *     MsgBuilder item;
 *     item.text(kSubject, "Hello").text(kBody, "How are you?").time(kClientSubmitTime, 0x01D321C5D1711780);
 *     item.recipient(RecipientKind::To, "Ann", "ann@example.org");
 *     item.attach({.name = "a.png", .contentId = "a@b", .data = picture});
 *     const std::string bytes = item.bytes();
 *
 * Text is UTF-8; an 8-bit item keeps its bytes. `extra()` changes streams behind the builder's back.
 */
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "compound_file_builder.h"

namespace msg {

// Property ids.
inline constexpr std::uint16_t kImportance = 0x0017;
inline constexpr std::uint16_t kMessageClass = 0x001A;
inline constexpr std::uint16_t kSubject = 0x0037;
inline constexpr std::uint16_t kClientSubmitTime = 0x0039;
inline constexpr std::uint16_t kOriginalAuthorName = 0x004D;
inline constexpr std::uint16_t kSentRepresentingAddress = 0x0065;
inline constexpr std::uint16_t kSenderName = 0x0C1A;
inline constexpr std::uint16_t kDisplayBcc = 0x0E02;
inline constexpr std::uint16_t kDisplayCc = 0x0E03;
inline constexpr std::uint16_t kDisplayTo = 0x0E04;
inline constexpr std::uint16_t kBody = 0x1000;
inline constexpr std::uint16_t kRtfCompressed = 0x1009;
inline constexpr std::uint16_t kSenderSmtpAddress = 0x5D01;
inline constexpr std::uint16_t kAttachFilename = 0x3704;
inline constexpr std::uint16_t kAttachContentId = 0x3712;

// Stream names of properties: id and type, in hexadecimal.
inline constexpr char kProperties[] = "__properties_version1.0";
std::string StreamName(std::uint16_t id, std::uint16_t type);
inline constexpr std::uint16_t kUnicode = 0x001F;
inline constexpr std::uint16_t kEightBit = 0x001E;
inline constexpr std::uint16_t kBinary = 0x0102;
std::string AttachmentStorage(std::uint32_t number);

/// UTF-8 as UTF-16LE bytes.
std::string Utf16(std::string_view text);

enum class TextForm { Unicode, EightBit };

// The properties of one storage.
class PropertyBag {
public:
    void text(std::uint16_t id, std::string_view text, TextForm form);
    void binary(std::uint16_t id, std::string bytes);
    void number(std::uint16_t id, std::uint32_t value);
    void time(std::uint16_t id, std::uint64_t fileTime);
    void boolean(std::uint16_t id, bool value);
    /// An object whose content is a storage of its own.
    void object(std::uint16_t id);

    /// Writes the streams, with `head` in front of the entries of the property stream.
    void write(compound::Storage& storage, std::string head) const;

private:
    struct Property {
        std::uint16_t type;
        std::uint64_t value;                 // of fixed size, or what the property stream has in its place
        std::optional<std::string> content;  // of variable size
    };
    std::map<std::uint16_t, Property> m_properties;
};

enum class RecipientKind : std::uint32_t { To = 1, Cc = 2, Bcc = 3 };

struct AttachmentFields {
    std::string name = {};
    std::string contentId = {};
    std::string mimeTag = "image/png";
    std::string data = {};
};

class MsgBuilder {
public:
    explicit MsgBuilder(TextForm form = TextForm::Unicode, compound::Options options = {});

    MsgBuilder& text(std::uint16_t id, std::string_view text);
    MsgBuilder& binary(std::uint16_t id, std::string bytes);
    MsgBuilder& number(std::uint16_t id, std::uint32_t value);
    MsgBuilder& time(std::uint16_t id, std::uint64_t fileTime);
    MsgBuilder& recipient(RecipientKind kind, const std::string& name, const std::string& address);
    MsgBuilder& attach(const AttachmentFields& fields);
    /// Attaches a message: its content is a storage where a file has a stream.
    MsgBuilder& attach(const MsgBuilder& message, const AttachmentFields& fields);
    /// The next attachment takes this number.
    MsgBuilder& nextAttachment(std::uint32_t number);
    /// Changes the storages once they are complete.
    MsgBuilder& extra(std::function<void(compound::Storage& root)> change);

    compound::CompoundImage image() const;
    std::string bytes() const { return image().bytes; }

private:
    struct Attachment {
        std::uint32_t number;
        PropertyBag bag;
        std::shared_ptr<const MsgBuilder> message;
    };
    enum class Place { Top, Embedded };
    Attachment& addAttachment(const AttachmentFields& fields, std::uint32_t method);
    void write(compound::Storage& storage, Place place) const;

    TextForm m_form;
    compound::Options m_options;
    PropertyBag m_bag;
    std::vector<PropertyBag> m_recipients;
    std::vector<Attachment> m_attachments;
    std::uint32_t m_nextAttachment = 0;
    std::vector<std::function<void(compound::Storage&)>> m_extras;
};

/// HTML as mail clients wrap it in RTF ([MS-OXRTFEX]): tags in groups of their own, text between them.
std::string HtmlInRtf(std::string_view html);

}  // namespace msg
