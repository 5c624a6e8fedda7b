#include "fileformats/pst/common/mimewalk.h"

#include <algorithm>

#include "common/apiutils.h"
#include "fileformats/pst/common/mimedecode.h"
#include "ternbase/ternbase.h"

using ternkit::Status;

namespace {

constexpr int kDeepestContainer = 100;
constexpr std::uint64_t kTempFilesRoom = 5;
constexpr char kBoundaryParameter[] = "boundary=";
constexpr std::ptrdiff_t kContentTypeDistance = sizeof("Content-Type:");

/// A message inside the message is not opened; as a part of no known type it leaves no trace.
bool isNestedMessage(const char* start, const char* end) {
    const char* field = FindFieldName(start, end, "Content-Type:");
    return field != nullptr && end - field >= kContentTypeDistance &&
           StartsWithNoCase(field + kContentTypeDistance, end, "message/rfc822");
}

/// Embeds a picture when the body names it. @return 1; 2 when it does not; the failure that ends the walk
Status embedPicture(MimePart& part, MimeMessage& message, InlineImageContext& imageContext) {
    Status status = ResolveBody(message);
    if (status == ternkit::kOk) {
        const char* contentId = part.contentId.size != 0 ? part.contentId.data : nullptr;
        status = LocateInlineImage(imageContext, part.name.bytes(), contentId);
    }
    if (status == ternkit::kOk) {
        status = DecodeContent(part.rawBegin, part.rawEnd, part.transferEncoding, part.decodedBytes);
    }
    if (status != ternkit::kOk) {
        return status;
    }
    return EmbedInlineImage(imageContext, part.decodedBytes.data, part.decodedBytes.size, nullptr);
}

// Walks one container: the state of its loop.
class ContainerWalk {
public:
    ContainerWalk(MimeMessage& message, const char* start, const char* end, const OwnedBytes& delimiter,
                  InlineImageContext& imageContext, int depth)
        : m_message(message),
          m_position(start),
          m_end(end),
          m_delimiter(delimiter),
          m_imageContext(imageContext),
          m_depth(depth) {}

    Status run() {
        Status result = ternkit::kOk;
        while (m_position < m_end) {
            if (!enterPart()) {
                return ternkit::kOk;
            }
            const char* partEnd = findDelimiter();
            result = isNestedMessage(m_position, partEnd) ? visitLeaf(partEnd) : visitPart(partEnd);
            if (result < ternkit::kOk || m_ended) {
                return result;
            }
        }
        return result;
    }

private:
    /// The next delimiter from the position on, or the container's end.
    const char* findDelimiter() const {
        // Searched by its first hyphen: encoded attachments have a line end every 76 bytes, but no hyphen at all.
        constexpr std::ptrdiff_t kHyphenAt = 2;
        const char* hyphen = FindByte(m_position + std::min(kHyphenAt, m_end - m_position), m_end, '-');
        for (; hyphen != nullptr; hyphen = FindByte(hyphen + 1, m_end, '-')) {
            if (StartsWithNoCase(hyphen - kHyphenAt, m_end, m_delimiter.data)) {
                return hyphen - kHyphenAt;
            }
        }
        return m_end;
    }

    /// Moves behind the next delimiter; false when there is none, or it is the closing one.
    bool enterPart() {
        const char* found = findDelimiter();
        if (found == m_end) {
            return false;
        }
        m_position = found + std::min(static_cast<std::ptrdiff_t>(m_delimiter.size - 1), m_end - found);
        return !(m_end - m_position >= 2 && m_position[0] == '-' && m_position[1] == '-');
    }

    Status visitPart(const char* partEnd) {
        OwnedBytes nested;
        const char* childStart = nullptr;
        const Status boundary = FindBoundary(m_position, partEnd, nested, childStart);
        if (boundary == ternkit::kAbsent) {
            return visitLeaf(partEnd);
        }
        if (boundary != ternkit::kOk) {
            return boundary;
        }
        Status status = ternkit::kOk;
        if (m_depth < kDeepestContainer) {
            status = WalkMimeParts(m_message, childStart, partEnd, nested, m_imageContext, m_depth + 1);
        }
        m_ended = status != ternkit::kOk;
        m_position = partEnd;
        return status;
    }

    Status visitLeaf(const char* partEnd) {
        m_part.start = m_position;
        const Status status = ParseMimePart(m_part, m_position, partEnd);
        if (status != ternkit::kOk) {
            m_ended = true;
            return status;
        }
        if (m_part.isText()) {
            // Pictures may have used the body's text up, and whether it is empty decides what replaces it.
            const bool usedUp = m_imageContext.rewritten && m_imageContext.text->size() == 0;
            if (usedUp && FinishInlineImages(m_imageContext) != ternkit::kOk) {
                return ternkit::kNoMemory;
            }
            KeptBody kept = KeptBody::Kept;
            const Status keeping = KeepBody(m_part, m_message, kept);
            if (kept == KeptBody::Kept) {
                // The body that the pictures so far went into is gone.
                m_imageContext.rewritten = false;
                m_imageContext.text.reset();
            } else {
                // The delimiter behind a skipped part is passed over with it, and so is the part behind that.
                m_position = partEnd + (partEnd < m_end ? 1 : 0);
            }
            return keeping;
        }
        const bool wanted = m_message.pictures == Pictures::Embed;
        return wanted && m_part.isPicture() && m_part.name ? embedPicture(m_part, m_message, m_imageContext) : ternkit::kOk;
    }

    MimeMessage& m_message;
    const char* m_position;
    const char* m_end;
    const OwnedBytes& m_delimiter;
    InlineImageContext& m_imageContext;
    int m_depth;
    bool m_ended = false;  // a result that ends this walk, although it may be no failure
    MimePart m_part;       // reused from part to part
};

}  // namespace

Status FindBoundary(const char* start, const char* end, OwnedBytes& delimiter, const char*& childStart) {
    if (start == nullptr || end == nullptr) {
        return ternkit::kNullPointer;
    }
    const char* headerEnd = FindHeaderEnd(start, end);
    const char* value = FindNoCaseInRange(start, headerEnd, kBoundaryParameter);
    if (value == nullptr) {
        return ternkit::kAbsent;
    }
    value += sizeof(kBoundaryParameter) - 1;
    const char* valueEnd = FindLineEnd(value, headerEnd);
    if (value < valueEnd && *value == '"') {
        ++value;
        if (const char* quote = FindByte(value, valueEnd, '"')) {
            valueEnd = quote;
        }
    }
    // The delimiter carries its line end, so a message with bare LF line ends has none.
    constexpr char kLead[] = "\r\n--";
    delimiter.clear();
    if (delimiter.appendText(kLead, sizeof(kLead) - 1) != ternkit::kOk ||
        delimiter.appendText(value, valueEnd - value) != ternkit::kOk) {
        return ternkit::kNoMemory;
    }
    const char* fieldEnd = FindFieldEnd(valueEnd, headerEnd);
    childStart = fieldEnd + std::min<std::ptrdiff_t>(2, end - fieldEnd);
    return ternkit::kOk;
}

Status WalkMimeParts(MimeMessage& message, const char* start, const char* end, const OwnedBytes& delimiter,
                     InlineImageContext& imageContext, int depth) {
    return ContainerWalk(message, start, end, delimiter, imageContext, depth).run();
}

Status WalkMessageParts(MimeMessage& message, PstFilterData& filterData, const char* childStart, const OwnedBytes& delimiter) {
    if (filterData.tempFiles.data == nullptr && filterData.tempFiles.reserve(kTempFilesRoom) == nullptr) {
        return ternkit::kNoMemory;
    }
    InlineImageContext imageContext(filterData, message.body);
    const Status status = WalkMimeParts(message, childStart, message.fileEnd, delimiter, imageContext, 0);
    const Status finished = status >= ternkit::kOk ? FinishInlineImages(imageContext) : ternkit::kOk;
    return finished == ternkit::kOk ? status : finished;
}
