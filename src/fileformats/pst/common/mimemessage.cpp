#include "fileformats/pst/common/mimemessage.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "common/apiutils.h"
#include "fileformats/pst/common/mimedecode.h"
#include "fileformats/pst/common/mimewalk.h"
#include "ternbase/ternbase.h"

using ternkit::Status;

namespace {

constexpr char kContentLocation[] = "Content-Location:";
constexpr char kContentType[] = "Content-Type:";
constexpr char kContentTransferEncoding[] = "Content-Transfer-Encoding:";
constexpr char kContentId[] = "Content-ID:";
constexpr char kFileNameParameter[] = "name=";
constexpr char kHtml5Doctype[] = "<!DOCTYPE html>";

Status readFile(MimeMessage& message, ternkit::FileHandle fileHandle) {
    const std::int64_t noted = TbFileSeek(fileHandle, 0, kTbSeekCurrent);
    char lastByte = 0;
    TbFileSeek(fileHandle, -1, kTbSeekEnd);
    if (TbFileRead(fileHandle, &lastByte, 1) != 1) {
        return ternkit::kShortRead;
    }
    const std::int64_t fileSize = TbFileSeek(fileHandle, 0, kTbSeekCurrent);
    if (fileSize < 0) {
        return ternkit::kSeekFailed;
    }
    TbFileSeek(fileHandle, noted, kTbSeekStart);
    if (TbFileSeek(fileHandle, 0, kTbSeekStart) != 0) {
        return ternkit::kSeekFailed;
    }
    const std::uint64_t size = static_cast<std::uint64_t>(fileSize);
    if (message.fileBytes.ensure(size + 1) != ternkit::kOk) {
        return ternkit::kNoMemory;
    }
    if (TbFileRead64(fileHandle, message.fileBytes.data, size) != size) {
        return ternkit::kShortRead;
    }
    message.fileBytes.data[size] = '\0';
    message.fileEnd = message.fileBytes.data + size;
    return ternkit::kOk;
}

/// End of the message's own header block: the first CR LF CR LF of the whole file, else the first LF LF, else the file's end.
const char* messageHeaderEnd(const MimeMessage& message) {
    const char* start = message.fileBytes.data;
    const char* end = FindLiteral(start, message.fileEnd, "\r\n\r\n");
    if (end == nullptr) {
        end = FindLiteral(start, message.fileEnd, "\n\n");
    }
    return end != nullptr ? end : message.fileEnd;
}

Status readHeaderFields(MimeMessage& message) {
    const char* headerEnd = messageHeaderEnd(message);
    const std::pair<const char*, OwnedBytes*> fields[] = {
        {"From:", &message.from}, {"To:", &message.to},   {"Subject:", &message.subject},       {"Date:", &message.date},
        {"CC:", &message.cc},     {"BCC:", &message.bcc}, {"Importance:", &message.importance},
    };
    for (const auto& [name, destination] : fields) {
        const Status status = ReadHeaderField(message, headerEnd, *destination, name);
        if (status != ternkit::kOk) {
            return status;
        }
    }
    return ternkit::kOk;
}

/// Start of the next physical line of a folded field whose line ends at `lineEnd`, or null when the field is complete. A bare LF
/// continues before a space only; CR LF (or any two line-end bytes) before a space or a tab.
const char* continuation(const char* lineEnd, const char* blockEnd) {
    if (blockEnd - lineEnd <= 3) {
        return nullptr;
    }
    if (lineEnd[1] == ' ') {
        return lineEnd + 2;
    }
    if ((lineEnd[1] == '\r' || lineEnd[1] == '\n') && (lineEnd[2] == ' ' || lineEnd[2] == '\t')) {
        return lineEnd + 3;
    }
    return nullptr;
}

/// Appends as OwnedBytes::appendText does, in a buffer that grows in steps: a field may be folded over any number of lines.
Status appendFieldText(ByteBuffer& text, const char* begin, const char* end) {
    if (text.size != 0 && text.data[text.size - 1] == '\0') {
        --text.size;
    }
    return text.append(begin, static_cast<std::uint64_t>(end - begin));
}

/// A field of a part: a value that begins one byte behind the name's colon, whatever that byte is.
const char* findPartValue(const char* headers, const char* headersEnd, const char* name) {
    const char* field = FindFieldName(headers, headersEnd, name);
    const std::ptrdiff_t distance = static_cast<std::ptrdiff_t>(std::strlen(name)) + 1;
    return field != nullptr && headersEnd - field >= distance ? field + distance : nullptr;
}

MimeContentType classify(const char* value, const char* end) {
    static constexpr std::pair<const char*, MimeContentType> kTypes[] = {
        {"text/html", MimeContentType::Html},
        {"text/plain", MimeContentType::Plain},
        {"image/png", MimeContentType::Png},
        {"image/jpeg", MimeContentType::Jpeg},
        {"text/css", MimeContentType::Css},
        {"image/svg", MimeContentType::Svg},
        {"application/javascript", MimeContentType::JavaScript},
        {"application/vnd.ms-officetheme", MimeContentType::OfficeTheme},
        {"text/xml", MimeContentType::Xml},
        {"image/gif", MimeContentType::Gif},
        {"image/x-wmf", MimeContentType::Wmf},
    };
    for (const auto& [prefix, type] : kTypes) {
        if (StartsWithNoCase(value, end, prefix)) {
            return type;
        }
    }
    return MimeContentType::Other;
}

TransferEncoding transferEncodingOf(const char* value, const char* end) {
    if (StartsWithNoCase(value, end, "Quoted-Printable")) {
        return TransferEncoding::QuotedPrintable;
    }
    if (StartsWithNoCase(value, end, "base64")) {
        return TransferEncoding::Base64;
    }
    return StartsWithNoCase(value, end, "7bit") ? TransferEncoding::SevenBit : TransferEncoding::Other;
}

Status keepName(MimePart& part, const char* begin, const char* end) {
    part.name = CopyRange(begin, end);
    if (!part.name) {
        return ternkit::kNoMemory;
    }
    if (*part.name.bytes() == '\0') {
        part.name = ScopedBlock();  // an empty name is none
    }
    return ternkit::kOk;
}

Status readLocation(MimePart& part, const char* headers, const char* headersEnd) {
    const char* value = findPartValue(headers, headersEnd, kContentLocation);
    if (value == nullptr) {
        return ternkit::kOk;
    }
    const char* lineEnd = FindLineEnd(value, headersEnd);
    const char* slash = FindLastByte(value, lineEnd, '/');
    return keepName(part, slash != nullptr ? slash + 1 : value, lineEnd);
}

Status readContentType(MimePart& part, const char* headers, const char* headersEnd) {
    const char* value = findPartValue(headers, headersEnd, kContentType);
    if (value == nullptr) {
        return ternkit::kOk;
    }
    part.contentType = classify(value, headersEnd);
    if (part.isText()) {
        ParseCharsetParameter(part.charset, value, FindFieldEnd(value, headersEnd));
    }
    if (part.name) {
        return ternkit::kOk;
    }
    // Not tied to the field: a "filename=" of a later field counts as well. The step over the parameter's name assumes that a
    // double quote follows.
    const char* parameter = FindNoCaseInRange(value, headersEnd, kFileNameParameter);
    constexpr std::ptrdiff_t kDistance = sizeof(kFileNameParameter);
    if (parameter == nullptr || headersEnd - parameter < kDistance) {
        return ternkit::kOk;
    }
    const char* name = parameter + kDistance;
    const char* quote = FindByte(name, headersEnd, '"');
    return keepName(part, name, quote != nullptr ? quote : headersEnd);
}

Status readContentId(MimePart& part, const char* headers, const char* headersEnd) {
    part.contentId.size = 0;
    const char* id = findPartValue(headers, headersEnd, kContentId);
    if (id == nullptr) {
        return ternkit::kOk;
    }
    const char* idEnd = FindLineEnd(id, headersEnd);
    if (const char* open = FindByte(id, idEnd, '<')) {
        id = open + 1;
    }
    if (const char* close = FindByte(id, idEnd, '>')) {
        idEnd = close;
    }
    const char terminator = '\0';
    if (part.contentId.append(id, static_cast<std::uint64_t>(idEnd - id)) != ternkit::kOk ||
        part.contentId.append(&terminator, 1) != ternkit::kOk) {
        return ternkit::kNoMemory;
    }
    return ternkit::kOk;
}

/// A message without parts is read as one part that spans the whole file.
Status parseSinglePart(MimeMessage& message) {
    const char* value = findPartValue(message.fileBytes.data, message.fileEnd, kContentType);
    if (value == nullptr ||
        (!StartsWithNoCase(value, message.fileEnd, "text/plain") && !StartsWithNoCase(value, message.fileEnd, "text/html"))) {
        return ternkit::kUnusable;
    }
    MimePart part;
    part.start = message.fileBytes.data;
    const char* position = part.start;
    const Status status = ParseMimePart(part, position, message.fileEnd);
    if (status != ternkit::kOk || !part.isText()) {
        return status;
    }
    KeptBody kept = KeptBody::Kept;
    return KeepBody(part, message, kept);
}

/// The declaration would put the host's loader into a mode that mail is not written for.
void blankHtml5Doctype(OwnedBytes& body) {
    char* end = body.data + BoundedLength(body.data, body.size);
    const char* found = FindLiteral(body.data, end, kHtml5Doctype);
    if (found != nullptr) {
        std::memset(body.data + (found - body.data), ' ', sizeof(kHtml5Doctype) - 1);
    }
}

}  // namespace

const char* FindHeaderEnd(const char* start, const char* end) {
    if (const char* found = FindLiteral(start, end, "\r\n\r\n")) {
        return found + 4;
    }
    if (const char* found = FindLiteral(start, end, "\n\n")) {
        return found + 2;
    }
    if (const char* found = FindLiteral(start, end, "\r\n")) {
        return found + 2;
    }
    return end;
}

const char* FindFieldEnd(const char* start, const char* limit) {
    while (true) {
        const char* lineEnd = FindLineEnd(start, limit);
        // The test takes for granted that lines end in CR LF.
        if (limit - lineEnd <= 2 || (lineEnd[2] != ' ' && lineEnd[2] != '\t')) {
            return lineEnd;
        }
        start = lineEnd + 3;
    }
}

const char* FindFieldName(const char* begin, const char* end, const char* name) {
    for (const char* line = begin; line < end;) {
        if (StartsWithNoCase(line, end, name)) {
            return line;
        }
        line = FindLineEnd(line, end);
        line += line < end ? 1 : 0;
    }
    return nullptr;
}

Status ReadHeaderField(MimeMessage& message, const char* headerEnd, OwnedBytes& destination, const char* name) {
    const char* value = FindFieldName(message.fileBytes.data, headerEnd, name);
    if (value == nullptr) {
        return ternkit::kOk;
    }
    value += std::strlen(name);
    if (value < headerEnd && *value == ' ') {
        ++value;
    }
    ByteBuffer text(kLineGrowBy);
    const char* lineEnd = FindLineEnd(value, headerEnd);
    Status status = appendFieldText(text, value, lineEnd);
    while (status == ternkit::kOk) {
        const char* next = continuation(lineEnd, headerEnd);
        if (next == nullptr) {
            break;
        }
        lineEnd = FindLineEnd(next, headerEnd);
        if (lineEnd == next) {
            break;
        }
        status = appendFieldText(text, next, lineEnd);
    }
    const char terminator = '\0';
    if (status == ternkit::kOk && (text.size == 0 || text.data[text.size - 1] != '\0')) {
        status = text.append(&terminator, 1);
    }
    if (status != ternkit::kOk) {
        return ternkit::kNoMemory;
    }
    destination.take(text);
    DecodeEncodedWords(destination, &message.headerWordsDecoded);  // a value that cannot be decoded stays as it is
    return ternkit::kOk;
}

Status ParseMimePart(MimePart& part, const char*& position, const char* partEnd) {
    // The header fields begin behind the line end of the delimiter's line.
    const char* headers = part.start + std::min<std::ptrdiff_t>(2, partEnd - part.start);
    const char* content = FindHeaderEnd(headers, partEnd);
    part.name = ScopedBlock();
    part.contentType = MimeContentType::Other;
    part.charset = MimeCharset();
    part.decodedBytes.clear();
    Status status = readLocation(part, headers, content);
    if (status == ternkit::kOk) {
        status = readContentType(part, headers, content);
    }
    if (status == ternkit::kOk) {
        status = readContentId(part, headers, content);
    }
    if (status != ternkit::kOk) {
        return status;
    }
    const char* encoding = findPartValue(headers, content, kContentTransferEncoding);
    part.transferEncoding = encoding != nullptr ? transferEncodingOf(encoding, content) : TransferEncoding::Other;
    part.rawBegin = content;
    part.rawEnd = partEnd;
    position = partEnd;
    return part.transferEncoding == TransferEncoding::Base64 && content == partEnd ? ternkit::kNoMemory : ternkit::kOk;
}

Status KeepBody(MimePart& part, MimeMessage& message, KeptBody& kept) {
    kept = KeptBody::Kept;
    if (part.contentType == MimeContentType::Plain && message.bodyFormat == BodyKind::Html) {
        const Status status = ResolveBody(message);
        if (status != ternkit::kOk) {
            return status;
        }
        if (message.body.textLength() != 0) {
            kept = KeptBody::Skipped;
            return ternkit::kOk;
        }
    }
    message.pendingBody = PendingBody{part.rawBegin, part.rawEnd, part.transferEncoding, part.charset, true};
    message.bodyFormat = part.contentType == MimeContentType::Html ? BodyKind::Html : BodyKind::Plain;
    return ternkit::kOk;
}

Status ResolveBody(MimeMessage& message) {
    PendingBody& pending = message.pendingBody;
    if (!pending.present) {
        return ternkit::kOk;
    }
    pending.present = false;
    OwnedBytes decoded;
    const Status status = DecodeContent(pending.rawBegin, pending.rawEnd, pending.transferEncoding, decoded);
    if (status != ternkit::kOk) {
        return status;
    }
    ConvertPartToUtf8(decoded, pending.charset, message.headerWordsDecoded);  // what cannot be converted stays as it is
    if (decoded.data == nullptr || decoded.ensure(decoded.size + 1) != ternkit::kOk) {
        return ternkit::kNoMemory;
    }
    decoded.data[decoded.size - 1] = '\0';
    if (decoded.size > 1 && decoded.data[decoded.size - 2] == '\0') {
        --decoded.size;  // the content's own closing NUL serves
    }
    message.body = std::move(decoded);
    blankHtml5Doctype(message.body);
    return ternkit::kOk;
}

Status ParseMimeMessage(MimeMessage& message, ternkit::FileHandle fileHandle, PstFilterData& filterData) {
    Status status = readFile(message, fileHandle);
    if (status == ternkit::kOk) {
        status = readHeaderFields(message);
    }
    if (status != ternkit::kOk) {
        return status;
    }
    const char* start = message.fileBytes.data;
    const char* childStart = nullptr;
    OwnedBytes delimiter;
    status = FindBoundary(start, message.fileEnd, delimiter, childStart);
    if (status == ternkit::kOk) {
        status = WalkMessageParts(message, filterData, childStart, delimiter);
    } else if (status == ternkit::kAbsent) {
        status = parseSinglePart(message);
    }
    if (status < ternkit::kOk) {
        return status;
    }
    const Status resolved = ResolveBody(message);
    return resolved == ternkit::kOk ? status : resolved;
}
