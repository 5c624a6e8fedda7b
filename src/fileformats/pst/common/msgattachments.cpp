#include "fileformats/pst/common/msgattachments.h"

#include <cstdint>
#include <cstdio>

#include "fileformats/pst/common/inlineimages.h"

using ternkit::Status;

namespace {

constexpr char kFileName[] = "__substg1.0_3704";
constexpr char kContentId[] = "__substg1.0_3712";
constexpr char kData[] = "__substg1.0_37010102";

/// The storage of an attachment, or null.
const DirectoryEntry* findAttachment(const MsgStorage& message, std::uint32_t number) {
    char name[32];
    std::snprintf(name, sizeof(name), "__attach_version1.0_#%08X", number);
    const DirectoryEntry* entry = message.file.findEntry(message.entry, name);
    return entry != nullptr && entry->isDirectory ? entry : nullptr;
}

/// @return 1, also for an attachment that the body does not name or that has no bytes; else the failure
Status embedAttachment(const MsgStorage& attachment, InlineImageContext& context) {
    OwnedBytes name;
    Status status = ReadMsgText(attachment, kFileName, name);
    if (status < ternkit::kOk) {
        return status;
    }
    if (name.data == nullptr || name.data[0] == '\0') {
        return ternkit::kOk;
    }
    OwnedBytes contentId;
    ReadMsgText(attachment, kContentId, contentId);  // an attachment whose id cannot be read still has its name
    status = LocateInlineImage(context, name.data, contentId.data);
    if (status != ternkit::kOk) {
        return status == ternkit::kAbsent ? ternkit::kOk : status;
    }
    OwnedBytes bytes;
    status = ReadMsgBytes(attachment, kData, bytes);
    if (status != ternkit::kOk) {
        return status == ternkit::kAbsent ? ternkit::kOk : status;  // a message inside the message has a storage there
    }
    return EmbedInlineImage(context, bytes.data, bytes.size, nullptr);
}

}  // namespace

Status ReadMsgAttachments(MessageRecord& record, PstFilterData& filterData, const MsgStorage& message) {
    InlineImageContext context(filterData, record.body);
    Status status = ternkit::kOk;
    for (std::uint32_t number = 0; status == ternkit::kOk; ++number) {
        const DirectoryEntry* attachment = findAttachment(message, number);
        if (attachment == nullptr) {
            attachment = findAttachment(message, ++number);
        }
        if (attachment == nullptr) {
            break;
        }
        status = embedAttachment({message.file, attachment}, context);
    }
    const Status finished = FinishInlineImages(context);
    return status == ternkit::kOk ? finished : status;
}
