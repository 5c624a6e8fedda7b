#include "fileformats/pst/common/mimedocument.h"

#include "fileformats/pst/common/documentpasses.h"
#include "fileformats/pst/common/mimeheader.h"

using ternkit::Status;

Status MakeMimeDocument(MimeMessage& message, BodyKind& bodyKind, PstFilterData& record) {
    if (message.body.data == nullptr) {
        return ternkit::kUnusable;
    }
    const Status status = ComposeMimeHeader(message);
    if (status != ternkit::kOk) {
        return status;
    }
    CleanDocument(message.body.data, message.body.size);
    bodyKind = message.bodyFormat;
    message.body.giveTo(record.document);
    InsertCharsetMeta(record.document);  // a document without the declaration is still a document
    record.sourceKind = SourceKind::Eml;
    return ternkit::kOk;
}

Status DispatchMimeMessage(PstFilterData& record, BodyKind& bodyKind, ternkit::FileHandle fileHandle) {
    MimeMessage message;
    const Status status = ParseMimeMessage(message, fileHandle, record);
    return status < ternkit::kOk ? status : MakeMimeDocument(message, bodyKind, record);
}
