#include "fileformats/pst/common/msgreader.h"

#include <cstring>
#include <string>
#include <string_view>
#include <utility>

#include "common/apiutils.h"
#include "fileformats/pst/common/compressedrtf.h"
#include "fileformats/pst/common/documentpasses.h"
#include "fileformats/pst/common/msgattachments.h"
#include "fileformats/pst/common/storemessage.h"
#include "ternbase/ternbase.h"

TB_SOURCE(u"src/fileformats/pst/common/pst")

using ternkit::Status;

namespace {

constexpr std::uint32_t kOpenForReading = 256;

constexpr char kRtfCompressed[] = "__substg1.0_10090102";
constexpr char kBody[] = "__substg1.0_1000";
constexpr char kSubject[] = "__substg1.0_0037";
constexpr char kSenderName[] = "__substg1.0_0C1A";
constexpr char kSenderSmtpAddress[] = "__substg1.0_5D01";
constexpr char kSentRepresentingAddress[] = "__substg1.0_0065";
constexpr char kOriginalAuthorName[] = "__substg1.0_004D";
constexpr char kDisplayTo[] = "__substg1.0_0E04";
constexpr char kDisplayCc[] = "__substg1.0_0E03";
constexpr char kDisplayBcc[] = "__substg1.0_0E02";
constexpr char kProperties[] = "__properties_version1.0";

constexpr std::string_view kUnicodeType = "001F";
constexpr std::string_view kEightBitType = "001E";

// The two kinds of compressed RTF, as they stand in a block.
constexpr std::uint64_t kRtfKindOffset = 8;
constexpr std::uint64_t kRtfKindSize = 4;
constexpr std::string_view kRtfCompressedKind = "LZFu";
constexpr std::string_view kRtfStoredKind = "MELA";
constexpr std::string_view kRtfLead = "{\\rtf";

// An entry of the property stream.
struct PropertyEntry {
    std::uint16_t type;
    std::uint16_t id;
    std::uint32_t flags;
    std::uint8_t value[8];
};
static_assert(sizeof(PropertyEntry) == 16);
constexpr std::uint64_t kFirstEntryOffset = 16;  // in a head of 32 bytes, whose last 8 are reserved and whose counts are small
constexpr std::uint64_t kSmallestPropertyStream = 32;
constexpr std::uint16_t kTypeTime = 0x0040;
constexpr std::uint16_t kTypeInteger32 = 0x0003;
constexpr std::uint16_t kClientSubmitTime = 0x0039;
constexpr std::uint16_t kImportance = 0x0017;

class OpenFile {
public:
    explicit OpenFile(const char16_t* path) : handle(TbFileOpen(path, 0, kOpenForReading)) {}
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;
    ~OpenFile() { TbFileClose(handle); }

    const ternkit::FileHandle handle;
};

/// UTF-16 bytes, NULs and all, as UTF-8 with a closing NUL that the size counts unless nothing was written.
Status takeUtf16(const OwnedBytes& wide, OwnedBytes& target) {
    constexpr std::uint64_t kMostBytesPerUnit = 3;
    const std::uint64_t units = wide.size / sizeof(char16_t);
    const std::uint64_t room = kMostBytesPerUnit * units;
    OwnedBytes text;
    if (text.ensure(room + 1) != ternkit::kOk) {
        return ternkit::kNoMemory;
    }
    text.size = TbUtf8FromWide(reinterpret_cast<const char16_t*>(wide.data), units, text.data, room);
    text.data[text.size] = '\0';
    if (text.size != 0 && text.data[text.size - 1] != '\0') {
        ++text.size;
    }
    target = std::move(text);
    return ternkit::kOk;
}

/// What is no Internet address is one of a directory, which says nothing to a reader.
void keepInternetAddress(OwnedBytes& address) {
    const std::uint64_t length = address.textLength();
    if (length != 0 && FindByte(address.data, address.data + length, '@') == nullptr) {
        address.clear();
    }
}

Status readSender(MessageRecord& record, const MsgStorage& message) {
    Status status = ReadMsgText(message, kSenderName, record.senderName);
    if (status == ternkit::kOk) {
        status = ReadMsgText(message, kSenderSmtpAddress, record.senderAddress);
    }
    if (status == ternkit::kOk && record.senderAddress.textLength() == 0) {
        status = ReadMsgText(message, kSentRepresentingAddress, record.senderAddress);
    }
    if (status == ternkit::kOk) {
        keepInternetAddress(record.senderAddress);
        status = ReadMsgText(message, kOriginalAuthorName, record.representingName);
    }
    return status;
}

Status readRecipients(MessageRecord& record, const MsgStorage& message) {
    Status status = ReadMsgText(message, kDisplayTo, record.displayTo);
    if (status == ternkit::kOk) {
        status = ReadMsgText(message, kDisplayCc, record.displayCc);
    }
    if (status == ternkit::kOk) {
        status = ReadMsgText(message, kDisplayBcc, record.displayBcc);
    }
    return status;
}

/// The first entry of a type and id. @return false when there is none
bool findProperty(const OwnedBytes& stream, std::uint16_t type, std::uint16_t id, PropertyEntry& entry) {
    for (std::uint64_t at = kFirstEntryOffset; at + sizeof(entry) <= stream.size; at += sizeof(entry)) {
        std::memcpy(&entry, stream.data + at, sizeof(entry));
        if (entry.type == type && entry.id == id) {
            return true;
        }
    }
    return false;
}

/// Sent time and importance, which are numbers and so have no streams of their own.
Status readNumbers(MessageRecord& record, const MsgStorage& message, MessageFacts& facts) {
    OwnedBytes stream;
    if (ReadMsgBytes(message, kProperties, stream) != ternkit::kOk || stream.size < kSmallestPropertyStream) {
        return ternkit::kOk;
    }
    PropertyEntry entry;
    if (findProperty(stream, kTypeTime, kClientSubmitTime, entry)) {
        facts.sentTime = SentSeconds(entry.value).value_or(ternkit::kBatchNoTime);
        const Status status = FormatSentTime(entry.value, record.sentTime);
        if (status < ternkit::kOk) {
            return status;
        }
    }
    if (findProperty(stream, kTypeInteger32, kImportance, entry)) {
        std::uint32_t importance = 0;
        std::memcpy(&importance, entry.value, sizeof(importance));
        const Status status = SetImportanceText(importance, record.importanceText);
        if (status < ternkit::kOk) {
            return status;
        }
    }
    return ternkit::kOk;
}

/// What the message's bodies turned out to be.
std::uint32_t bodiesOf(const MessageRecord& record) {
    std::uint32_t bodies = 0;
    if (record.plainBody.textLength() != 0) {
        bodies |= ternkit::kBatchBodyText;
    }
    if (record.body.data != nullptr) {
        const std::string_view body(record.body.data, record.body.size);
        bodies |= body.starts_with(kRtfLead) ? ternkit::kBatchBodyRtf : ternkit::kBatchBodyHtml;
    }
    return bodies;
}

Status readMessage(MessageRecord& record, PstFilterData* filterData, const MsgStorage& message, MessageFacts& facts) {
    Status status = ReadMsgRichBody(record, message);
    if (status != ternkit::kOk && status != ternkit::kAbsent) {
        return status;
    }
    status = ReadMsgText(message, kBody, record.plainBody);
    if (status < ternkit::kOk) {
        return status;
    }
    if (record.plainBody.data == nullptr && record.body.data == nullptr) {
        return ternkit::kUnusable;
    }
    facts.bodies = bodiesOf(record);
    status = ReadMsgText(message, kSubject, record.subject);
    if (status == ternkit::kOk) {
        status = readSender(record, message);
    }
    if (status == ternkit::kOk) {
        status = readRecipients(record, message);
    }
    if (status == ternkit::kOk) {
        status = readNumbers(record, message, facts);
    }
    // A record that is loaded again has its pictures on disk already.
    if (status == ternkit::kOk && filterData != nullptr && filterData->tempFiles.data == nullptr) {
        const Status attachments = ReadMsgAttachments(record, *filterData, message);
        if (record.attachmentStatus == ternkit::kOk) {
            record.attachmentStatus = attachments;  // the message can be shown without them
        }
    }
    return status;
}

}  // namespace

Status ReadMsgBytes(const MsgStorage& storage, const char* stream, OwnedBytes& target) {
    const DirectoryEntry* entry = storage.file.findEntry(storage.entry, stream);
    if (entry == nullptr || entry->isDirectory) {
        return ternkit::kAbsent;
    }
    if (!storage.file.claimBytes(entry->size)) {
        return ternkit::kNoMemory;
    }
    constexpr std::uint64_t kClosingZeros = 2;  // end a text of either width
    OwnedBytes bytes;
    bytes.data = static_cast<char*>(TbMemAllocZero(entry->size + kClosingZeros, 1, TB_HERE));
    if (bytes.data == nullptr) {
        return ternkit::kNoMemory;
    }
    bytes.size = entry->size;
    CompoundStream reader(storage.file, *entry);
    reader.position += reader.read(reader.position, bytes.data, bytes.size);
    target = std::move(bytes);
    return ternkit::kOk;
}

Status ReadMsgText(const MsgStorage& storage, const char* stream, OwnedBytes& target) {
    OwnedBytes wide;
    const std::string name(stream);
    Status status = ReadMsgBytes(storage, (name + std::string(kUnicodeType)).c_str(), wide);
    if (status == ternkit::kOk && wide.size == 0) {
        target.clear();
        return ternkit::kOk;
    }
    if (status == ternkit::kOk) {
        return takeUtf16(wide, target);
    }
    if (status != ternkit::kAbsent) {
        return status;
    }
    status = ReadMsgBytes(storage, (name + std::string(kEightBitType)).c_str(), target);
    if (status != ternkit::kAbsent) {
        return status;
    }
    // A missing text is an empty one, and differs from an empty stream by its block: a message without any body can be shown.
    target.clear();
    target.data = static_cast<char*>(TbMemAllocZero(1, 1, TB_HERE));
    return target.data != nullptr ? ternkit::kOk : ternkit::kNoMemory;
}

Status ReadMsgRichBody(MessageRecord& record, const MsgStorage& message) {
    OwnedBytes block;
    Status status = ReadMsgBytes(message, kRtfCompressed, block);
    if (status != ternkit::kOk) {
        return status;
    }
    record.rawCompressedRtf = ScopedBlock(std::exchange(block.data, nullptr));
    const std::uint64_t size = std::exchange(block.size, 0);
    if (size < kRtfKindOffset + kRtfKindSize) {
        return ternkit::kOk;
    }
    const std::string_view kind(record.rawCompressedRtf.bytes() + kRtfKindOffset, kRtfKindSize);
    if (kind != kRtfCompressedKind && kind != kRtfStoredKind) {
        return ternkit::kOk;
    }
    status = DecodeMsgRtf(std::move(record.rawCompressedRtf), record, size);
    if (status != ternkit::kOk) {
        return status;
    }
    if (std::string_view(record.body.data, record.body.size).substr(0, kRtfLead.size()) != kRtfLead) {
        CleanDocument(record.body.data, record.body.size);
    }
    return ternkit::kOk;
}

Status ReadMsgFile(MessageRecord& record, PstFilterData* filterData, const char16_t* path, MessageFacts* facts) {
    const OpenFile opened(path);
    if (opened.handle == ternkit::kInvalidHandle) {
        return ternkit::kMsgCannotOpen;
    }
    CompoundFile file(opened.handle);
    file.open();
    if (file.result != CompoundResult::Ok) {
        return ternkit::kOk;  // the empty record has nothing to show
    }
    MessageFacts unasked;
    return readMessage(record, filterData, {file, file.findEntry("/")}, facts != nullptr ? *facts : unasked);
}
