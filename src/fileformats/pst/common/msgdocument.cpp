#include "fileformats/pst/common/msgdocument.h"

#include <algorithm>
#include <string_view>

#include "common/apiutils.h"
#include "fileformats/pst/common/documentpasses.h"
#include "fileformats/pst/common/headerblock.h"
#include "fileformats/pst/common/messagerecord.h"
#include "fileformats/pst/common/msgreader.h"

using ternkit::Status;

namespace {

constexpr std::string_view kRtfLead = "{\\rtf";
constexpr std::string_view kHtmlBegin = "<html>";
constexpr std::string_view kHtmlEnd = "</html>";
constexpr std::string_view kUtf8Mark = "\xEF\xBB\xBF";

/// True for HTML that brings its own root element, perhaps behind white space.
bool startsWithHtmlTag(std::string_view text) {
    constexpr char kName[] = "HTML";
    const std::size_t first = text.find_first_not_of("\r\n ");
    if (first == std::string_view::npos || text[first] != '<') {
        return false;
    }
    return StartsWithNoCase(text.data() + first + 1, text.data() + text.size(), kName);
}

/// Puts the parts into the document, with a NUL behind them that its size does not count. @return 1 or -1
Status writeDocument(ByteBuffer& document, std::string_view lead, std::string_view text, std::string_view trail) {
    if (document.reserve(lead.size() + text.size() + trail.size() + 1) == nullptr) {
        return ternkit::kNoMemory;
    }
    for (const std::string_view part : {lead, text, trail}) {
        document.append(part.data(), part.size());
    }
    document.data[document.size] = '\0';
    return ternkit::kOk;
}

Status makeRichDocument(MessageRecord& message, BodyKind bodyKind, ByteBuffer& document) {
    if (ComposeMessageHeader(message, bodyKind) != ternkit::kOk) {
        return ternkit::kNoMemory;
    }
    const std::string_view text(message.body.data, message.body.textLength());
    if (bodyKind == BodyKind::Rtf) {
        return writeDocument(document, {}, text, {});
    }
    const bool complete = startsWithHtmlTag(text);
    const Status status = writeDocument(document, complete ? "" : kHtmlBegin, text, complete ? "" : kHtmlEnd);
    if (status != ternkit::kOk) {
        return status;
    }
    InsertCharsetMeta(document);  // a document without the declaration is still a document
    if (document.reserve(document.size + 1) == nullptr) {
        return ternkit::kNoMemory;
    }
    document.data[document.size] = '\0';
    return ternkit::kOk;
}

Status makeTextDocument(MessageRecord& message, ByteBuffer& document) {
    if (message.plainBody.data == nullptr) {
        return ternkit::kUnusable;
    }
    if (ComposeMessageHeader(message, BodyKind::Plain) != ternkit::kOk) {
        return ternkit::kNoMemory;
    }
    return writeDocument(document, kUtf8Mark, {message.plainBody.data, message.plainBody.textLength()}, {});
}

}  // namespace

Status MakeMsgDocument(MessageRecord& message, BodyKind& bodyKind, bool plainTextOnly, PstFilterData& record) {
    Status status = ternkit::kOk;
    if (plainTextOnly || message.body.data == nullptr) {
        bodyKind = BodyKind::Plain;
        status = makeTextDocument(message, record.document);
    } else {
        const std::string_view body(message.body.data, message.body.size);
        bodyKind = body.starts_with(kRtfLead) ? BodyKind::Rtf : BodyKind::Html;
        status = makeRichDocument(message, bodyKind, record.document);
    }
    if (status == ternkit::kOk) {
        record.sourceKind = SourceKind::Msg;
        record.attachmentStatus = message.attachmentStatus;
    }
    return status;
}

Status DispatchMsgMessage(const char16_t* fileName, PstFilterData& record, BodyKind& bodyKind, bool plainTextOnly) {
    MessageRecord message;
    const Status status = ReadMsgFile(message, &record, fileName, nullptr);
    return status == ternkit::kOk ? MakeMsgDocument(message, bodyKind, plainTextOnly, record) : status;
}
