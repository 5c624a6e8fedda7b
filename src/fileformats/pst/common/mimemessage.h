// Reader of one Internet message (RFC 5322, RFC 2045): a byte scanner over the whole file, which builds no tree of parts.
#pragma once

#include <cstdint>

#include <ternkit/records.h>
#include "common/filterdata.h"
#include "fileformats/pst/common/mimecharset.h"
#include "internal/ternclasses_.h"

enum class TransferEncoding : std::uint32_t { QuotedPrintable = 0, Base64 = 1, SevenBit = 2, Other = 3 };

enum class MimeContentType : std::uint32_t {
    Html = 0,
    Plain = 1,
    Xml = 2,
    OfficeTheme = 3,
    JavaScript = 4,
    Svg = 5,
    Png = 6,
    Gif = 7,
    Jpeg = 8,
    Wmf = 9,
    Css = 10,
    Other = 11
};

/// The seven-bit decoder writes these bytes in front of its output.
inline constexpr char kSevenBitMark[] = {'+', '/', 'v'};
inline constexpr std::uint64_t kSevenBitMarkSize = sizeof(kSevenBitMark);

// One part of a message. `start`, `rawBegin` and `rawEnd` point into the message's file bytes.
struct MimePart {
    ScopedBlock name;  // file name from the part's header fields, NUL-terminated, or none
    TransferEncoding transferEncoding = TransferEncoding::Other;
    MimeContentType contentType = MimeContentType::Other;
    MimeCharset charset;
    const char* start = nullptr;     // just behind the delimiter that opens the part
    const char* rawBegin = nullptr;  // content before decoding
    const char* rawEnd = nullptr;
    ByteBuffer contentId{kLineGrowBy};  // without angle brackets, NUL-terminated; size 0 when there is none
    OwnedBytes decodedBytes;            // content after transfer decoding, of a picture that the body names

    bool isText() const { return contentType == MimeContentType::Html || contentType == MimeContentType::Plain; }
    bool isPicture() const { return contentType >= MimeContentType::Png && contentType <= MimeContentType::Wmf; }
};

// A text part that stands as the body and has not been needed yet. A later text part may still take its place, so it is decoded
// only when somebody looks at the body.
struct PendingBody {
    const char* rawBegin = nullptr;
    const char* rawEnd = nullptr;
    TransferEncoding transferEncoding = TransferEncoding::Other;
    MimeCharset charset;
    bool present = false;
};

enum class Pictures { Embed, Leave };

struct MimeMessage {
    Pictures pictures = Pictures::Embed;  // what becomes of those that the body names
    OwnedBytes fileBytes;                 // the whole file; its size is the file's + 1
    const char* fileEnd = nullptr;
    PendingBody pendingBody;
    OwnedBytes body;  // the chosen body, then the document; valid once ResolveBody has run
    BodyKind bodyFormat = BodyKind::Html;
    // Field values, unfolded, encoded words decoded; empty when the field is absent.
    OwnedBytes from;
    OwnedBytes to;
    OwnedBytes subject;
    OwnedBytes date;
    OwnedBytes cc;
    OwnedBytes bcc;
    OwnedBytes importance;
    std::uint32_t headerWordsDecoded = 0;  // 1: bodies are converted to UTF-8
};

/**
 * Reads a message: its seven header fields and the text that stands as its body, with its pictures embedded.
 *
 * @param message empty record, filled; `body` has no data when the message has no text
 * @param fileHandle open file, the caller's; its position changes
 * @param filterData takes the temporary files of pictures
 * @return 1 or 2; -7, -4, -1 or -9 as the reading fails; a status of the inline pictures
 */
ternkit::Status ParseMimeMessage(MimeMessage& message, ternkit::FileHandle fileHandle, PstFilterData& filterData);

/**
 * Reads one part's header fields and the range of its content, without decoding it.
 *
 * @param part record with `start` set, filled
 * @param position set to the part's end
 * @return 1; -1 without memory, and for base64 without content
 */
ternkit::Status ParseMimePart(MimePart& part, const char*& position, const char* partEnd);

/// Position behind the header block of an entity: behind the first CR LF CR LF, else LF LF, else CR LF, else `end`.
const char* FindHeaderEnd(const char* start, const char* end);
/// End of a folded field: the first line end whose next line is no continuation, or `limit`.
const char* FindFieldEnd(const char* start, const char* limit);
/// First occurrence of a field name at `begin` or directly behind a CR or LF, without regard to case; null when there is none.
const char* FindFieldName(const char* begin, const char* end, const char* name);
/// Reads one field of the message's header block into `destination`. @return 1, or -1 without memory
ternkit::Status ReadHeaderField(MimeMessage& message, const char* headerEnd, OwnedBytes& destination, const char* name);

enum class KeptBody { Kept, Skipped };

/// Lets a text part stand as the body: the last one does, except that plain text never replaces a non-empty HTML body.
/// @return 1, or -1 without memory
ternkit::Status KeepBody(MimePart& part, MimeMessage& message, KeptBody& kept);
/// Decodes the pending body, if there is one, into `body`. @return 1 or -1
ternkit::Status ResolveBody(MimeMessage& message);
