#include "fileformats/pst/common/storedocument.h"

#include <algorithm>

#include "fileformats/pst/common/headerblock.h"
#include "fileformats/pst/common/messagerecord.h"
#include "fileformats/pst/common/storewalk.h"
#include "pstsdk/database.h"

using ternkit::Status;

namespace {

constexpr char kHtmlBegin[] = "<html>";
constexpr char kHtmlEnd[] = "</html>";
constexpr std::uint64_t kHtmlWrapperSize = sizeof(kHtmlBegin) + sizeof(kHtmlEnd) - 2;

/// The document of a plain text request: one text in UTF-16.
Status makeTextDocument(MessageRecord& message, ByteBuffer& document) {
    if (message.plainBody.data == nullptr) {
        return ternkit::kUnusable;
    }
    const bool made = ConvertPlainBodyToUtf8(message) == ternkit::kOk &&
                      ComposeMessageHeader(message, BodyKind::Plain) == ternkit::kOk &&
                      WriteUtf16Document(document, message.plainBody) == ternkit::kOk;
    return made ? ternkit::kOk : ternkit::kNoMemory;
}

/// The document of an HTML or RTF body. HTML is wrapped once more, whatever it begins with.
Status makeRichDocument(MessageRecord& message, BodyKind bodyKind, ByteBuffer& document) {
    if (message.body.data == nullptr) {
        return ternkit::kUnusable;
    }
    if (ComposeMessageHeader(message, bodyKind) != ternkit::kOk) {
        return ternkit::kNoMemory;
    }
    const std::uint64_t length = message.body.textLength();
    const bool wrapped = bodyKind == BodyKind::Html;
    if (document.reserve(length + (wrapped ? kHtmlWrapperSize : 0)) == nullptr) {
        return ternkit::kNoMemory;
    }
    if (wrapped) {
        document.append(kHtmlBegin, sizeof(kHtmlBegin) - 1);
    }
    document.append(message.body.data, length);
    if (wrapped) {
        document.append(kHtmlEnd, sizeof(kHtmlEnd) - 1);
    }
    return ternkit::kOk;
}

}  // namespace

Status MakeStoreDocument(MessageRecord& message, BodyKind& bodyKind, bool plainTextOnly, PstFilterData& record) {
    Status status = ternkit::kOk;
    if (plainTextOnly) {
        bodyKind = BodyKind::Plain;
        status = makeTextDocument(message, record.document);
    } else {
        status = makeRichDocument(message, bodyKind, record.document);
    }
    if (status == ternkit::kOk) {
        record.sourceKind = SourceKind::Pst;
    }
    return status;
}

Status DispatchStoreMessage(const char16_t* fileName, PstFilterData& record, std::int32_t& messageIndex, BodyKind& bodyKind,
                            bool plainTextOnly) {
    const pstsdk::shared_db_ptr db = pstsdk::open_database(fileName);
    MessagePageTableOwner table;
    Status status = CountStoreMessages(table, db);
    if (status != ternkit::kOk) {
        return status;
    }
    record.messageCount = static_cast<std::uint32_t>(table->count);
    messageIndex = std::clamp(messageIndex, 0, table->count - 1);
    status = WalkStoreToPage(*table, db, static_cast<std::uint32_t>(messageIndex), bodyKind, record);
    if (status != ternkit::kOk) {
        return status;
    }
    return MakeStoreDocument(table->records[messageIndex], bodyKind, plainTextOnly, record);
}
