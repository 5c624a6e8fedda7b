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
#include "pstsdk/tables.h"
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
constexpr prop_id kMessageSize = 0x0E08;
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

// What a message is read for.
enum class MessageRole { InFront, Summary, Target };

// One reading of a message. A message in front has no record.
class MessageReader {
public:
    MessageReader(const StoreMessage& message, MessageRole role, MessageRecord* record, BodyKind& bodyKind, MessageFacts* facts)
        : m_budget(message.db->budget()),
          m_bag(pstsdk::node(message.db, message.info)),
          m_role(role),
          m_record(record),
          m_bodyKind(bodyKind),
          m_facts(facts) {}

    Status run(PstFilterData* filterData) {
        const std::u16string subject = readSubject(m_bag);
        if (subject == kFreeBusySubject) {
            return ternkit::kAbsent;
        }
        if (m_record != nullptr) {
            m_record->body.size = 0;
            m_record->plainBody.size = 0;
            fillHeaderFields(subject);
        }
        const Status status = readBodies(filterData);
        if (m_facts != nullptr) {
            readStoredSize();
        }
        return status;
    }

private:
    void fillHeaderFields(const std::u16string& subject) {
        const pstsdk::tentative_reading tentative(m_budget);
        // A field that cannot be filled stays empty: the message is shown without it.
        SetUtf8Field(m_record->subject, subject);
        CopyPropertyToField(m_bag, m_record->senderName, kSenderName);
        CopyPropertyToField(m_bag, m_record->displayTo, kDisplayTo);
        CopyPropertyToField(m_bag, m_record->displayCc, kDisplayCc);
        CopyPropertyToField(m_bag, m_record->displayBcc, kDisplayBcc);
        if (m_bag.has_prop(kClientSubmitTime)) {
            const std::vector<pstsdk::byte> time = m_bag.read_bytes(kClientSubmitTime);
            if (time.size() == kFileTimeSize) {
                takeSentTime(time.data());
            }
        }
        if (m_bag.has_prop(kImportance)) {
            SetImportanceText(m_bag.read_4(kImportance), m_record->importanceText);
        }
    }

    void takeSentTime(const std::uint8_t* fileTime) {
        FormatSentTime(fileTime, m_record->sentTime);
        if (m_facts != nullptr) {
            m_facts->sentTime = SentSeconds(fileTime).value_or(m_facts->sentTime);
        }
    }

    // The bodies are no alternatives: the last one found decides what the document is made of.
    Status readBodies(PstFilterData* filterData) {
        if (findBody(kBody, BodyKind::Plain, ternkit::kBatchBodyText)) {
            if (m_record != nullptr) {
                m_record->plainBodyType = m_bag.prop_type(kBody);
            }
            const Status status = readBody(kBody, m_record != nullptr ? &m_record->plainBody : nullptr);
            if (status != ternkit::kOk) {
                return status;
            }
        }
        if (findBody(kHtml, BodyKind::Html, ternkit::kBatchBodyHtml)) {
            const Status status = readHtmlBody(filterData);
            if (status < ternkit::kOk) {
                return status;
            }
        }
        return findBody(kRtfCompressed, BodyKind::Rtf, ternkit::kBatchBodyRtf) ? readRtfBody() : ternkit::kOk;
    }

    bool findBody(prop_id id, BodyKind kind, std::uint32_t body) {
        if (!m_bag.has_prop(id)) {
            return false;
        }
        m_bodyKind = kind;
        if (m_facts != nullptr) {
            m_facts->bodies |= body;
        }
        return true;
    }

    Status readBody(prop_id id, OwnedBytes* target) {
        ValueStream value(m_bag, id);
        noteBody(value.size());
        if (m_role == MessageRole::Target) {
            return value.readInto(*target);
        }
        if (target != nullptr && target->ensure(0) != ternkit::kOk) {
            return ternkit::kNoMemory;
        }
        return value.pass();
    }

    void noteBody(std::uint64_t size) {
        if (m_facts != nullptr) {
            m_facts->bodyBytes += size;
        }
    }

    Status readHtmlBody(PstFilterData* filterData) {
        const Status status = readBody(kHtml, m_record != nullptr ? &m_record->body : nullptr);
        if (status != ternkit::kOk) {
            return status;
        }
        const Attachments attachments(m_bag.get_node());
        if (attachments.count() == 0 || m_role != MessageRole::Target) {
            return ternkit::kOk;
        }
        const pstsdk::tentative_reading tentative(m_budget);
        return embedAttachments(attachments, m_record->body, *filterData);
    }

    Status readRtfBody() {
        OwnedBytes block;
        const Status status = ValueStream(m_bag, kRtfCompressed).readInto(block);
        if (status != ternkit::kOk) {
            return status;
        }
        noteBody(block.size);
        if (m_role == MessageRole::Target) {
            return ExpandStoreRtf(block, *m_record);
        }
        const Status usable = CheckStoreRtf(block);
        return usable == ternkit::kOk && m_record != nullptr ? m_record->body.ensure(0) : usable;
    }

    /// The message's size as the store tells it. What is damaged here is no failure of the message.
    void readStoredSize() {
        const pstsdk::tentative_reading tentative(m_budget);
        try {
            if (m_bag.has_prop(kMessageSize)) {
                m_facts->storedSize = m_bag.read_4(kMessageSize);
            }
        } catch (const std::exception&) {
            m_facts->storedSize.reset();
        }
    }

    pstsdk::store_budget& m_budget;
    const property_bag m_bag;
    MessageRole m_role;
    MessageRecord* m_record;
    BodyKind& m_bodyKind;
    MessageFacts* m_facts;
};

}  // namespace

Status ExtractStoreMessage(const StoreMessage& message, MessageRecord& record, BodyKind& bodyKind, PstFilterData& filterData,
                           MessageFacts* facts) {
    return MessageReader(message, MessageRole::Target, &record, bodyKind, facts).run(&filterData);
}

Status SummarizeStoreMessage(const StoreMessage& message, MessageRecord& record, BodyKind& bodyKind, MessageFacts& facts) {
    return MessageReader(message, MessageRole::Summary, &record, bodyKind, &facts).run(nullptr);
}

Status PassStoreMessage(const StoreMessage& message, BodyKind& bodyKind) {
    return MessageReader(message, MessageRole::InFront, nullptr, bodyKind, nullptr).run(nullptr);
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

std::optional<std::int64_t> SentSeconds(const std::uint8_t* bytes) {
    std::uint64_t fileTime = 0;
    for (std::size_t at = kFileTimeSize; at-- > 0;) {
        fileTime = fileTime << 8 | bytes[at];
    }
    const std::int64_t seconds =
        static_cast<std::int64_t>(fileTime - static_cast<std::uint64_t>(kUnixEpochAsFileTime)) / kFileTimePerSecond;
    return seconds >= 0 && seconds < kCalendarEnd ? std::optional(seconds) : std::nullopt;
}

Status FormatSentTime(const std::uint8_t* bytes, OwnedBytes& field) {
    const std::time_t time = SentSeconds(bytes).value_or(-1);
    std::tm local{};
    if (time < 0 || localtime_r(&time, &local) == nullptr) {
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
