// Visiting every message of a file in one pass. fltLoad reaches message n of a store by stepping through the n messages in front
// of it, so a host that asks for one after the other pays a square; this library, which stands beside the filter and is made of
// the same objects, gives the same documents at the cost of one walk.
#pragma once

#include <cstdint>

#include <ternkit/records.h>
#include <ternkit/statuses.h>

namespace ternkit {

// Bodies that a message has; several at once for a message of a store or an item.
enum BatchBodies : std::uint32_t {
    kBatchBodyText = 1,
    kBatchBodyHtml = 2,
    kBatchBodyRtf = 4,
};

// What a visitor wants of a message.
enum class BatchWish : std::int32_t {
    kPass = 0,      // nothing: the message is read as far as the numbering of those behind it depends on it, and not visited
    kSummary = 1,   // header fields and sizes; no document, no temporary file
    kDocument = 2,  // the document, too; any other value means the same
};

// When a document is made of a message's plain text.
enum BatchPlainText : std::uint32_t {
    kBatchPlainTextNever = 0,   // as fltLoad with `plainTextOnly` 0
    kBatchPlainTextAlways = 1,  // as fltLoad with `plainTextOnly` 1
    // A store's message that is refused with -9 for lack of a rich body is given as fltLoad gives it with `plainTextOnly` 1. What
    // else there is to show is told by its document's format.
    kBatchPlainTextInstead = 2,
};

// One message, or a run of messages that all came to the same end. It is valid during the visit only, and so are its files.
struct BatchMessage {
    std::uint32_t structSize;    // sizeof(BatchMessage)
    std::uint32_t messageIndex;  // 0-based
    std::uint32_t run;           // messages from that one on for which everything here holds; 1 when there is something to show
    std::uint32_t messageCount;  // of the file: what a store's folders declare; 1 for an item or an Internet message
    std::uint32_t sourceFormat;  // 385, 386 or 387
    // What fltLoad would give without calling a loader. A summary does not tell of a failure that comes of making the document:
    // of expanding or composing it, or of its pictures.
    Status status;
    Status resultStatus;           // what fltLoad would leave in the request's field of that name
    std::uint32_t documentFormat;  // 369, 226 or 316; 0 without a document
    const char* document;          // the document's bytes; null without a document
    std::uint64_t documentSize;
    const char16_t* htmlPath;      // the HTML document as a temporary file, or null when it travels in memory
    const char* const* tempFiles;  // native paths of its pictures; a visitor may move these files and the HTML file away
    std::uint64_t tempFileCount;
    // Header fields as the document shows them: UTF-8, NUL-terminated, empty when missing, never null. They are told as far as
    // they were read, whatever the status. 8-bit texts that are no UTF-8 are taken to be in the system's code page.
    const char* subject;
    const char* senderName;
    const char* senderAddress;  // empty where the sender's name holds it
    const char* displayTo;
    const char* displayCc;
    const char* displayBcc;
    const char* date;       // of a store or an item "Tue Mar 05, 2024 09:07 AM", of an Internet message its Date field
    std::uint32_t bodies;   // BatchBodies; of an Internet message the one that its document is made of
    std::uint64_t size;     // bytes: what a store says of the message, else its bodies together; the file's size for others
    std::int64_t sentTime;  // seconds since 1970, UTC; kBatchNoTime when it is not known
};

inline constexpr std::int64_t kBatchNoTime = INT64_MIN;

// What a visit of all messages needs. Every pointer stays the caller's.
struct BatchRequest {
    std::uint32_t structSize;     // sizeof(BatchRequest)
    const char16_t* fileName;     // NUL-terminated
    std::uint32_t plainTextOnly;  // BatchPlainText
    void* userData;
    /// What is wanted of a message (0-based); asked once for each in order, for all of a run in front of its visit. Null: the
    /// document of every one.
    BatchWish (*wish)(void* userData, std::uint32_t messageIndex, std::uint32_t messageCount);
    /// Takes one message. @return 1 to go on; anything else ends the visit
    std::int32_t (*visit)(void* userData, const BatchMessage* message);
};

using VisitMessages = Status (*)(const BatchRequest* request);

inline constexpr char kVisitMessagesName[] = "TernVisitMessages";

}  // namespace ternkit

extern "C" {

/**
 * Visits the messages of a store in page order, or the one message of an item or an Internet message. Numbering, statuses,
 * documents and temporary files are those that fltLoad gives for each message number, whatever is damaged. Whether documents
 * travel through temporary files is the kernel's setting (TbHostSetLoadMode), as it is for the filter.
 *
 * A store may name one message in many rows, and damage may leave page after page to look for its message further on. What is
 * read anew in this way, beyond the bytes of the documents that come of it, is bounded by 64 times the file and 256 MiB; then
 * such pages get -1. No sound store reads anything anew.
 *
 * @param request what to visit and whom to tell
 * @return 1 when every message was visited, or the visitor ended it; -13 for a null request, one of another size, or one without
 *         file name or visitor, and for a store without messages; -10 when the file cannot be opened; -7 when it has fewer than
 * 12 bytes; another status of the source's reader when no message can be reached at all
 */
__attribute__((visibility("default"))) ternkit::Status TernVisitMessages(const ternkit::BatchRequest* request);
}
