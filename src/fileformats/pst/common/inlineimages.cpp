#include "fileformats/pst/common/inlineimages.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

#include "common/apiutils.h"
#include "ternbase/ternbase.h"
#include "ternbase/windows.h"

TB_SOURCE(u"src/fileformats/pst/common/pst")

using ternkit::Status;

namespace {

constexpr char kDataUriLead[] = "data:image;base64,";
constexpr std::uint64_t kDataUriLeadSize = sizeof(kDataUriLead) - 1;
constexpr double kDataUriGrowth = 1.4;
constexpr std::uint64_t kRewriteCost = 64;  // what a replacement costs beside its bytes, in bytes
constexpr std::string_view kVmlImageData = "<v:imagedata";
// What rewriting one message may cost, so that a large picture in the place of each of many references does not fill the memory:
// something in any case, and several times the message's own bytes.
constexpr std::uint64_t kRewritingAnyway = std::uint64_t{64} << 20;
constexpr std::uint64_t kRewritingPerTextByte = 16;
constexpr std::uint64_t kRewritingsPerPicture = 4;

bool isPresent(const char* text) {
    return text != nullptr && *text != '\0';
}

bool findInText(InlineImageContext& context, const char* needle) {
    const auto match = context.text->find(needle, context.text->begin());
    if (match) {
        context.needle = needle;
        context.matchOffset = *match;
    }
    return match.has_value();
}

// A path under construction: NUL-terminated, in a buffer of fixed size.
class PathBuilder {
public:
    explicit PathBuilder(char (&path)[kPathUnits]) : m_path(path) { m_path[0] = '\0'; }

    void append(const char* begin, const char* end) {
        const std::uint64_t length = static_cast<std::uint64_t>(end - begin);
        if (m_overflow || length >= kPathUnits - m_length) {
            m_overflow = true;
            return;
        }
        std::memcpy(m_path + m_length, begin, length);
        m_length += length;
        m_path[m_length] = '\0';
    }

    void append(const char* text) {
        if (text != nullptr) {
            append(text, text + std::strlen(text));
        }
    }

    Status status() const { return m_overflow ? ternkit::kPathTooLong : ternkit::kOk; }

private:
    char (&m_path)[kPathUnits];
    std::uint64_t m_length = 0;
    bool m_overflow = false;
};

Status makeTemporaryDirectory(char16_t (&directory)[kPathUnits]) {
    const Status status = TbTempName(nullptr, directory, kPathUnits, 1, u"pst", nullptr);
    if (status != ternkit::kOk) {
        return status;
    }
    TbFileDelete(directory);  // the name was reserved as a file
    if (CreateDirectoryW(directory, nullptr) == 0 && GetLastError() != kErrorAlreadyExists) {
        directory[0] = 0;
        return ternkit::kCannotCreate;
    }
    const std::size_t length = std::char_traits<char16_t>::length(directory);
    const char16_t last = directory[length - 1];
    if (last != u'/' && last != u':' && last != u'\\' && length + 1 < kPathUnits) {
        directory[length] = u'\\';
        directory[length + 1] = 0;
    }
    return ternkit::kOk;
}

Status writeFile(const char16_t* path, const char* data, std::uint64_t size) {
    const ternkit::FileHandle handle = TbFileCreate(path, 0);
    if (handle == ternkit::kInvalidHandle) {
        return TbMapError(ternkit::kCannotCreate);
    }
    const std::uint64_t written = TbFileWrite(handle, data, size, 0);
    TbFileCreatedClose(handle, 0);
    return written == size ? ternkit::kOk : TbMapError(ternkit::kShortWrite);
}

/// Writes the attachment and enters its path in the record's list.
Status writeTemporaryFile(PstFilterData& owner, const char* path, const char* data, std::uint64_t size) {
    const std::uint64_t length = std::strlen(path);
    const ScopedBlock wide(TbMemAllocZero(4 * length + 4, sizeof(char16_t), TB_HERE));
    if (!wide) {
        return ternkit::kNoMemory;
    }
    Status status = ternkit::kWideConversionFailed;
    if (TbWideFromUtf8(path, length, wide.wide(), 4 * length + 3) != 0) {
        status = writeFile(wide.wide(), data, size);
    }
    PointerBuffer& files = owner.tempFiles;
    if (status == ternkit::kOk && files.reserve(files.size + 1) == nullptr) {
        status = ternkit::kNoMemory;
    }
    if (status == ternkit::kOk) {
        ScopedBlock copy = CopyRange(path, path + length);
        if (copy) {
            files.data[files.size++] = copy.bytes();
            copy.block = nullptr;
            return ternkit::kOk;
        }
        status = ternkit::kNoMemory;
    }
    TbFileDeleteNarrow(path);
    return status;
}

// Rewrites the references to one attachment, from the first to the last. Each byte is looked at no more than twice for the quotes
// and angle brackets in front of a reference, however many references there are.
class ReferenceRewriter {
public:
    ReferenceRewriter(RewritableText& text, std::string_view needle, std::string_view replacement, std::uint64_t& budget)
        : m_text(text), m_needle(needle), m_replacement(replacement), m_budget(budget) {}

    /// @return 1, or -1 when the text would outgrow a block, or a budget is used up
    Status run(RewritableText::Position firstMatch, std::uint64_t& replaced) {
        std::optional<RewritableText::Position> match = firstMatch;
        m_seenUpTo = m_text.begin();
        m_angleSeenUpTo = m_text.begin();
        while (match) {
            RewritableText::Position next = m_text.advance(*match, m_needle.size());
            if (!isVmlImageData(*match)) {
                look(*match);
                const std::uint64_t cost = m_replacement.size() + kRewriteCost;
                if (cost > m_budget || m_text.size() + m_replacement.size() > TbMemBlockLimit()) {
                    return ternkit::kNoMemory;
                }
                m_budget -= cost;
                next = replaceValue(next);
                ++replaced;
            }
            match = m_text.find(m_needle, next);
        }
        return m_text.isExhausted() ? ternkit::kNoMemory : ternkit::kOk;
    }

private:
    using Place = std::optional<RewritableText::Position>;

    static Place either(Place one, Place other) { return one ? one : other; }

    /// Notes the last quote in front of a place, and the last angle brackets in front of it and behind it.
    void look(RewritableText::Position upTo) {
        if (const Place quote = m_text.findLastByte('"', m_seenUpTo, upTo)) {
            m_angleBeforeQuote =
                either(m_text.findLastByte('<', m_seenUpTo, *quote), either(m_angleBehindQuote, m_angleBeforeQuote));
            m_angleBehindQuote = m_text.findLastByte('<', *quote, upTo);
            m_quote = quote;
        } else {
            m_angleBehindQuote = either(m_text.findLastByte('<', m_seenUpTo, upTo), m_angleBehindQuote);
        }
        m_seenUpTo = upTo;
    }

    /// True when the nearest "<" at or before the match opens VML image data, whose reference stays.
    bool isVmlImageData(RewritableText::Position match) {
        m_angle = either(m_text.findLastByte('<', m_angleSeenUpTo, match), m_angle);
        m_angleSeenUpTo = match;
        const Place angle = either(m_text.findLastByte('<', match, m_text.advance(match, 1)), m_angle);
        return angle && m_text.bytesAt(*angle, kVmlImageData.size()) == kVmlImageData;
    }

    /// Replaces what stands between the last quote and the next one, or the text's ends. @return the place behind
    RewritableText::Position replaceValue(RewritableText::Position matchEnd) {
        const Place close = m_text.findByte('"', matchEnd);
        const RewritableText::Position open = m_quote ? m_text.advance(*m_quote, 1) : m_text.begin();
        const bool fromBegin = !m_quote;
        const RewritableText::Position behind = m_text.replace(open, close ? *close : m_text.end(), m_replacement);
        // The angle brackets behind the quote are gone with the value; the replacement may have brought others.
        m_angleBehindQuote.reset();
        m_seenUpTo = fromBegin ? m_text.begin() : m_text.advance(*m_quote, 1);
        look(behind);
        m_angle = either(m_angleBehindQuote, m_angleBeforeQuote);
        m_angleSeenUpTo = behind;
        return behind;
    }

    RewritableText& m_text;
    std::string_view m_needle;
    std::string_view m_replacement;
    std::uint64_t& m_budget;
    RewritableText::Position m_angleSeenUpTo;
    Place m_angle;                        // the last one in front of that
    RewritableText::Position m_seenUpTo;  // for what only a replacement needs: the quote, the angle brackets on its two sides
    Place m_quote;
    Place m_angleBeforeQuote;
    Place m_angleBehindQuote;
};

}  // namespace

Status FinishInlineImages(InlineImageContext& context) {
    if (context.rewritten) {
        const std::uint64_t textEnd = BoundedLength(context.body.data, context.body.size);
        const std::uint64_t tailSize = context.body.size - textEnd;
        OwnedBytes rewritten;
        if (rewritten.ensure(context.text->size() + tailSize) != ternkit::kOk) {
            return ternkit::kNoMemory;
        }
        context.text->copyTo(rewritten.data);
        if (tailSize != 0) {
            std::memcpy(rewritten.data + context.text->size(), context.body.data + textEnd, tailSize);
        }
        context.body = std::move(rewritten);
    }
    context.rewritten = false;
    context.text.reset();
    return ternkit::kOk;
}

Status LocateInlineImage(InlineImageContext& context, const char* location, const char* contentId) {
    if (context.body.data == nullptr || context.body.size == 0) {
        return ternkit::kAbsent;
    }
    context.location = location;
    context.contentId = contentId;
    if (!context.text) {
        context.text.emplace(std::string_view(context.body.data, BoundedLength(context.body.data, context.body.size)));
        context.rewriteBudget = kRewritingAnyway + kRewritingPerTextByte * context.text->size();
    }
    if (isPresent(contentId)) {
        context.cidText.size = 0;
        if (context.cidText.appendFormatted("cid:%s", contentId) != ternkit::kOk) {
            return ternkit::kNoMemory;
        }
        if (findInText(context, context.cidText.data)) {
            return ternkit::kOk;
        }
    }
    // An empty name would match everywhere.
    if (isPresent(location) && findInText(context, location)) {
        return ternkit::kOk;
    }
    return context.text->isExhausted() ? ternkit::kNoMemory : ternkit::kAbsent;
}

Status MakeInlineImagePath(char (&path)[kPathUnits], char16_t (&directory)[kPathUnits], const char* contentId,
                           const char* location) {
    if (directory[0] == 0) {
        const Status status = makeTemporaryDirectory(directory);
        if (status != ternkit::kOk) {
            return status;
        }
    }
    const ScopedBlock directoryText = Utf8FromWideString(directory);
    if (!directoryText) {
        return ternkit::kUtf8ConversionFailed;
    }
    PathBuilder builder(path);
    builder.append(directoryText.bytes());
    if (!isPresent(contentId)) {
        builder.append(location);
        return builder.status();
    }
    // The id goes in front, without the name where it repeats that: an id is mostly "name@something".
    const char* name = location != nullptr ? location : "";
    const char* occurrence = std::strstr(contentId, name);
    if (occurrence == nullptr) {
        builder.append(contentId);
    } else {
        builder.append(contentId, occurrence);
        const char* behind = occurrence + std::strlen(name);
        builder.append(*behind == '@' ? behind + 1 : behind);
    }
    builder.append("_");
    builder.append(name);
    return builder.status();
}

Status BuildImageDataUri(OwnedBytes& target, const char* data, std::uint64_t size) {
    static constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    const std::uint64_t room = static_cast<std::uint64_t>(static_cast<double>(size) * kDataUriGrowth);
    target.clear();
    if (target.ensure(room + kDataUriLeadSize) != ternkit::kOk) {
        return ternkit::kNoMemory;
    }
    std::memcpy(target.data, kDataUriLead, kDataUriLeadSize);
    if (data == nullptr || size == 0 || room == 0) {
        return ternkit::kBadArgument;
    }
    const std::uint64_t encodedSize = (size + 2) / 3 * 4;
    if (encodedSize + 1 > room) {
        return 0;  // the room is an estimate that some short inputs do not fit
    }
    const auto byteAt = [data](std::uint64_t at) { return static_cast<unsigned>(static_cast<unsigned char>(data[at])); };
    char* out = target.data + kDataUriLeadSize;
    std::uint64_t at = 0;
    for (; at + 2 < size; at += 3) {
        const unsigned bits = byteAt(at) << 16 | byteAt(at + 1) << 8 | byteAt(at + 2);
        *out++ = kAlphabet[bits >> 18];
        *out++ = kAlphabet[bits >> 12 & 63];
        *out++ = kAlphabet[bits >> 6 & 63];
        *out++ = kAlphabet[bits & 63];
    }
    if (at < size) {
        const bool two = at + 1 < size;
        const unsigned bits = byteAt(at) << 16 | (two ? byteAt(at + 1) << 8 : 0);
        *out++ = kAlphabet[bits >> 18];
        *out++ = kAlphabet[bits >> 12 & 63];
        *out++ = two ? kAlphabet[bits >> 6 & 63] : '=';
        *out++ = '=';
    }
    *out = '\0';
    target.size = kDataUriLeadSize + encodedSize;
    return ternkit::kOk;
}

Status EmbedInlineImage(InlineImageContext& context, const char* data, std::uint64_t size, std::uint64_t* replacedCount) {
    char path[kPathUnits];
    OwnedBytes dataUri;
    const char* replacement = nullptr;
    std::uint64_t replacementSize = 0;
    Status status = ternkit::kOk;
    if (context.owner.useTempFiles != 0) {
        status = MakeInlineImagePath(path, context.owner.tempDirectory, context.contentId, context.location);
        if (status == ternkit::kOk) {
            status = writeTemporaryFile(context.owner, path, data, size);
        }
        if (status == ternkit::kOk) {
            // The document lies in the same directory, so the name alone leads there.
            const char* separator = std::strrchr(path, '\\');
            replacement = separator != nullptr ? separator + 1 : path;
            replacementSize = std::strlen(replacement);
        }
    } else {
        status = BuildImageDataUri(dataUri, data, size);
        replacement = dataUri.data;
        replacementSize = dataUri.size;
    }
    if (status != ternkit::kOk) {
        return status;
    }
    std::uint64_t replaced = 0;
    context.rewritten = true;
    context.rewriteBudget += kRewritingsPerPicture * (replacementSize + kRewriteCost);
    status =
        ReferenceRewriter(*context.text, context.needle, std::string_view(replacement, replacementSize), context.rewriteBudget)
            .run(context.matchOffset, replaced);
    if (replacedCount != nullptr) {
        *replacedCount = replaced;
    }
    return status;
}
