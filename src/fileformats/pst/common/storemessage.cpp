#include "fileformats/pst/common/storemessage.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <exception>
#include <string>
#include <string_view>
#include <vector>

#include "common/apiutils.h"
#include "fileformats/pst/common/compressedrtf.h"
#include "fileformats/pst/common/headerlabels.h"
#include "fileformats/pst/common/inlineimages.h"
#include "pstsdk/properties.h"
#include "pstsdk/streams.h"
#include "ternbase/ternbase.h"

TB_SOURCE(u"src/fileformats/pst/common/pst")

using pstsdk::hnid_stream;
using pstsdk::prop_id;
using pstsdk::property_bag;
using ternkit::Status;

namespace {

// Property ids, [MS-OXPROPS].
constexpr prop_id kSubject = 0x0037;
constexpr prop_id kSenderName = 0x0C1A;
constexpr prop_id kDisplayTo = 0x0E04;
constexpr prop_id kDisplayCc = 0x0E03;
constexpr prop_id kDisplayBcc = 0x0E02;
constexpr prop_id kClientSubmitTime = 0x0039;
constexpr prop_id kImportance = 0x0017;
constexpr prop_id kBody = 0x1000;
constexpr prop_id kHtml = 0x1013;
constexpr prop_id kRtfCompressed = 0x1009;
constexpr prop_id kAttachDataBinary = 0x3701;
constexpr prop_id kAttachLongFilename = 0x3707;
constexpr prop_id kAttachFilename = 0x3704;

constexpr pstsdk::node_id kAttachmentTable = 0x671;
constexpr char16_t kSubjectPrefixMarker = 0x0001;
constexpr std::u16string_view kNoSubject = u"No Subject";
constexpr std::u16string_view kFreeBusySubject = u"LocalFreebusy";

constexpr std::int64_t kUnixEpochAsFileTime = 0x019DB1DED53E8000;
constexpr std::int64_t kFileTimePerSecond = 10'000'000;
constexpr std::int64_t kCalendarEnd = 32'535'244'800;  // seconds since 1970 from which local time is not told
constexpr std::size_t kFileTimeSize = 8;

/// The subject without the marker and prefix length that a stored one may begin with. @throws std::out_of_range for half of them
std::u16string readSubject(const property_bag& bag) {
    if (!bag.has_prop(kSubject)) {
        return std::u16string(kNoSubject);
    }
    const std::u16string stored = bag.read_text(kSubject);
    return !stored.empty() && stored.front() == kSubjectPrefixMarker ? stored.substr(2) : stored;
}

// A property's value as a stream, with its size.
class ValueStream {
public:
    ValueStream(const property_bag& bag, prop_id id) : m_stream(bag.open_prop(id)) {
        m_stream.seekg(0, std::ios_base::end);
        m_size = static_cast<std::uint32_t>(m_stream.tellg());
        m_stream.seekg(0, std::ios_base::beg);
    }

    std::uint32_t size() const { return m_size; }

    void read(char* target) {
        if (m_size != 0) {
            m_stream.read(target, m_size);
        }
    }

    /// Reads the value and keeps nothing, so that what is damaged throws. @return 1, or -1 where keeping it would have failed
    Status pass() {
        if (m_size > TbMemBlockLimit()) {
            return ternkit::kNoMemory;
        }
        std::array<char, 4096> piece;
        for (std::uint32_t left = m_size; left != 0 && m_stream;) {
            const std::uint32_t count = std::min<std::uint32_t>(left, piece.size());
            m_stream.read(piece.data(), count);
            left -= count;
        }
        return ternkit::kOk;
    }

    /// Reads the value into a block of its size, which is zero where the reading ends early.
    Status readInto(OwnedBytes& target) {
        target.clear();
        target.data = static_cast<char*>(TbMemAllocZero(m_size, 1, TB_HERE));
        if (target.data == nullptr) {
            return ternkit::kNoMemory;
        }
        target.size = m_size;
        read(target.data);
        return ternkit::kOk;
    }

private:
    hnid_stream m_stream;
    std::uint32_t m_size = 0;
};

Status readBody(const property_bag& bag, prop_id id, MessageRole role, OwnedBytes& target) {
    ValueStream value(bag, id);
    return role == MessageRole::Target ? value.readInto(target) : value.pass();
}

// The attachment table of a message, if it has one.
class Attachments {
public:
    explicit Attachments(const pstsdk::node& message) : m_message(message) {
        try {
            m_table.emplace_back(m_message.lookup(kAttachmentTable));
        } catch (const pstsdk::key_not_found<pstsdk::ulong>&) {
            // A message without the subnode has no attachments.
        }
        m_count = m_table.empty() ? 0 : m_table.front()->row_count();
    }

    std::uint32_t count() const { return m_count; }
    property_bag open(std::uint32_t row) const { return property_bag(m_message.lookup(m_table.front()->row_id(row))); }

private:
    const pstsdk::node& m_message;
    std::vector<pstsdk::table> m_table;  // one or none
    std::uint32_t m_count = 0;
};

/// A text up to its first NUL in UTF-8; empty when it cannot be converted.
ScopedBlock utf8Text(const std::u16string& text) {
    return Utf8FromWideString(text.c_str());
}

/// Embeds one attachment when the body names it. @return 1; 2 when it does not; the failure that ends the extraction
Status embedAttachment(const property_bag& attachment, InlineImageContext& context) {
    ValueStream data(attachment, kAttachDataBinary);
    const bool hasLongName = attachment.has_prop(kAttachLongFilename);
    const std::u16string longName = hasLongName ? attachment.read_text(kAttachLongFilename) : std::u16string();
    const ScopedBlock location = utf8Text(hasLongName ? longName : attachment.read_text(kAttachFilename));
    // The long name stands for the content id as well: "cid:" and the name is how the body refers to it.
    const ScopedBlock contentId = utf8Text(longName);
    const char* id = contentId && *contentId.bytes() != '\0' ? contentId.bytes() : nullptr;
    Status status = LocateInlineImage(context, location.bytes(), id);
    if (status != ternkit::kOk) {
        return status;
    }
    OwnedBytes bytes;
    if (data.size() == 0 || data.readInto(bytes) != ternkit::kOk) {
        return ternkit::kNoMemory;
    }
    std::uint64_t replaced = 0;
    return EmbedInlineImage(context, bytes.data, bytes.size, &replaced);
}

/// Embeds the attachments that the HTML body names. Damage ends the loop without a word, and what was embedded stays.
Status embedAttachments(const Attachments& attachments, OwnedBytes& body, PstFilterData& filterData) {
    if (filterData.tempFiles.reserve(attachments.count()) == nullptr) {
        return ternkit::kNoMemory;
    }
    InlineImageContext context(filterData, body);
    Status status = ternkit::kOk;
    try {
        for (std::uint32_t row = 0; row < attachments.count() && status >= ternkit::kOk; ++row) {
            status = embedAttachment(attachments.open(row), context);
        }
    } catch (const std::exception&) {
        status = ternkit::kOk;
    }
    const Status finished = FinishInlineImages(context);
    return status >= ternkit::kOk ? finished : status;
}

void fillHeaderFields(const property_bag& bag, const std::u16string& subject, MessageRecord& record) {
    // A field that cannot be filled stays empty: the message is shown without it.
    SetUtf8Field(record.subject, subject);
    CopyPropertyToField(bag, record.senderName, kSenderName);
    CopyPropertyToField(bag, record.displayTo, kDisplayTo);
    CopyPropertyToField(bag, record.displayCc, kDisplayCc);
    CopyPropertyToField(bag, record.displayBcc, kDisplayBcc);
    if (bag.has_prop(kClientSubmitTime)) {
        const std::vector<pstsdk::byte> time = bag.read_bytes(kClientSubmitTime);
        if (time.size() == kFileTimeSize) {
            FormatSentTime(time.data(), record.sentTime);
        }
    }
    if (bag.has_prop(kImportance)) {
        SetImportanceText(bag.read_4(kImportance), record.importanceText);
    }
}

Status readHtmlBody(const property_bag& bag, MessageRole role, MessageRecord& record, PstFilterData& filterData) {
    const Status status = readBody(bag, kHtml, role, record.body);
    if (status != ternkit::kOk) {
        return status;
    }
    const Attachments attachments(bag.get_node());
    return attachments.count() != 0 && role == MessageRole::Target ? embedAttachments(attachments, record.body, filterData)
                                                                   : ternkit::kOk;
}

Status readRtfBody(const property_bag& bag, MessageRole role, MessageRecord& record) {
    OwnedBytes block;
    const Status status = ValueStream(bag, kRtfCompressed).readInto(block);
    if (status != ternkit::kOk) {
        return status;
    }
    return role == MessageRole::Target ? ExpandStoreRtf(block, record) : CheckStoreRtf(block);
}

}  // namespace

Status ExtractStoreMessage(const StoreRow& row, MessageRecord& record, BodyKind& bodyKind, MessageRole role,
                           PstFilterData& filterData) {
    const property_bag bag(row.db->lookup_node(row.row.get_row_id()));
    const std::u16string subject = readSubject(bag);
    if (subject == kFreeBusySubject) {
        return ternkit::kAbsent;
    }
    record.body.size = 0;
    record.plainBody.size = 0;
    if (role == MessageRole::Target) {
        fillHeaderFields(bag, subject, record);
    }
    // The bodies are no alternatives: the last one found decides what the document is made of.
    if (bag.has_prop(kBody)) {
        bodyKind = BodyKind::Plain;
        record.plainBodyType = bag.prop_type(kBody);
        const Status status = readBody(bag, kBody, role, record.plainBody);
        if (status != ternkit::kOk) {
            return status;
        }
    }
    if (bag.has_prop(kHtml)) {
        bodyKind = BodyKind::Html;
        const Status status = readHtmlBody(bag, role, record, filterData);
        if (status < ternkit::kOk) {
            return status;
        }
    }
    if (bag.has_prop(kRtfCompressed)) {
        bodyKind = BodyKind::Rtf;
        const Status status = readRtfBody(bag, role, record);
        if (status != ternkit::kOk) {
            return status;
        }
    }
    return ternkit::kOk;
}

Status CopyPropertyToField(const pstsdk::const_property_object& bag, OwnedBytes& field, prop_id tag) {
    return bag.has_prop(tag) ? SetUtf8Field(field, bag.read_text(tag)) : ternkit::kOk;
}

Status SetUtf8Field(OwnedBytes& field, std::u16string_view text) {
    field.clear();
    if (text.empty()) {
        return ternkit::kOk;
    }
    constexpr std::uint64_t kBytesPerUnit = 4;
    if (field.ensure(kBytesPerUnit * text.size()) != ternkit::kOk) {
        return ternkit::kNoMemory;
    }
    field.size = TbUtf8FromWide(text.data(), text.size(), field.data, field.size);
    return ternkit::kOk;
}

Status FormatSentTime(const std::uint8_t* bytes, OwnedBytes& field) {
    std::uint64_t fileTime = 0;
    for (std::size_t at = kFileTimeSize; at-- > 0;) {
        fileTime = fileTime << 8 | bytes[at];
    }
    const std::int64_t seconds =
        static_cast<std::int64_t>(fileTime - static_cast<std::uint64_t>(kUnixEpochAsFileTime)) / kFileTimePerSecond;
    const std::time_t time = seconds;
    std::tm local{};
    if (seconds < 0 || seconds >= kCalendarEnd || localtime_r(&time, &local) == nullptr) {
        return ternkit::kOk;
    }
    char text[100];
    if (std::strftime(text, sizeof(text), "%a %b %d, %Y %I:%M %p", &local) == 0) {
        return ternkit::kEmptyInput;
    }
    return field.appendText(text, -1);
}

Status SetImportanceText(std::uint32_t value, OwnedBytes& field) {
    constexpr std::uint32_t kLow = 0;
    constexpr std::uint32_t kHigh = 2;
    if (value != kLow && value != kHigh) {
        return ternkit::kOk;
    }
    return field.appendText(HeaderLabel(value == kLow ? 8 : 7), -1);
}
