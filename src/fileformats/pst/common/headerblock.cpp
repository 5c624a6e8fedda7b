#include "fileformats/pst/common/headerblock.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <initializer_list>
#include <iterator>
#include <string_view>
#include <utility>

#include "common/apiutils.h"
#include "fileformats/pst/common/headerlabels.h"
#include "fileformats/pst/common/mimecharset.h"
#include "fileformats/pst/common/rtfunicode.h"
#include "ternbase/ternbase.h"
#include "ternbase/windows.h"

TB_SOURCE(u"src/fileformats/pst/common/pst")

using ternkit::Status;

namespace {

// Literal texts of the block. A row is its head, the label, its middle, the value and its end.
constexpr std::string_view kHtmlRowHead =
    "\n<table style = 'border-collapse: collapse ; table-layout: fixed; width: 100%'><tr><td style = 'width:87pt; padding: 0px; "
    "vertical-align:top'><b><span style = 'font-family:\"Calibri\",\"sans-serif\";mso-bidi-font-family:Calibri; color:black'>";
constexpr std::string_view kHtmlRowMiddle =
    "</span></b></td><td style = 'padding: 0px'><span style = 'font-family:\"Calibri\",\"sans-serif\";"
    "mso-bidi-font-family:Calibri; color:black; word-wrap: break-word;'>";
constexpr std::string_view kHtmlRowEnd = "</span></td></tr></table>\r\n";
constexpr std::string_view kHtmlSeparator = "<p class=MsoNormal><o:p>&nbsp;</o:p></p>";
constexpr std::string_view kRtfRowHead = "\r{\\rtlch\\fcs1 \\ab\\af37 \\ltrch\\fcs0 \\b\\cf0\\insrsid5716485 ";
constexpr std::string_view kRtfRowMiddle = "\\tab }{\\rtlch\\fcs1 \\af37 \\ltrch\\fcs0 \\cf0 ";
constexpr std::string_view kRtfRowEnd = "\\insrsid5716485 \\par }\r\n";
constexpr std::string_view kRtfSeparator =
    "\\pard \\ltrpar\\ql \\li0\\ri0\\widctlpar\\wrapdefault\\aspalpha\\aspnum\\faauto\\adjustright\\rin0\\lin0\\itap0 "
    "{\\rtlch\\fcs1 \\af1 \\ltrch\\fcs0 \\insrsid5716485 \\par }";
constexpr std::string_view kPlainLabelEnd = "\t";
constexpr std::string_view kPlainRowEnd = "\r\n";
constexpr std::string_view kOnBehalfOf = " on behalf of ";
constexpr std::string_view kUtf16Mark = "\xFF\xFE";
static_assert(kHtmlRowHead.size() == 238 && kHtmlRowMiddle.size() == 160 && kHtmlRowEnd.size() == 27 &&
              kHtmlSeparator.size() == 40);
static_assert(kRtfRowHead.size() == 57 && kRtfRowMiddle.size() == 42 && kRtfRowEnd.size() == 24 && kRtfSeparator.size() == 151);

struct HeaderRow {
    OwnedBytes MessageRecord::*field;
    std::int32_t label;
};

// In the order in which the document shows them.
constexpr HeaderRow kRows[] = {
    {&MessageRecord::senderName, kLabelFrom},
    {&MessageRecord::sentTime, kLabelSent},
    {&MessageRecord::displayTo, kLabelTo},
    {&MessageRecord::displayCc, kLabelCc},
    {&MessageRecord::displayBcc, kLabelBcc},
    {&MessageRecord::subject, kLabelSubject},
    {&MessageRecord::importanceText, kLabelImportance},
};

std::string_view textOf(const OwnedBytes& value) {
    return value.data != nullptr ? std::string_view(value.data, value.textLength()) : std::string_view();
}

std::string_view storedBytes(const OwnedBytes& value) {
    return value.data != nullptr ? std::string_view(value.data, value.size) : std::string_view();
}

std::string_view textOf(const ByteBuffer& buffer) {
    return {buffer.data, buffer.size};
}

Status appendAll(ByteBuffer& buffer, std::initializer_list<std::string_view> texts) {
    Status status = ternkit::kOk;
    for (auto text = texts.begin(); text != texts.end() && status == ternkit::kOk; ++text) {
        status = buffer.append(text->data(), text->size());
    }
    return status;
}

Status escape(HeaderComposer& composer, std::string_view text) {
    return EscapeRtfText(composer, text.data(), text.size());
}

/// Puts the merged text, closed by a NUL that its size counts, in a body's place.
Status replaceBody(OwnedBytes& body, ByteBuffer& merged) {
    if (merged.size == 0 || merged.data[merged.size - 1] != '\0') {
        const char terminator = '\0';
        const Status status = merged.append(&terminator, 1);
        if (status != ternkit::kOk) {
            return status;
        }
    }
    body.take(merged);
    return ternkit::kOk;
}

// HTML.

Status AppendHtmlRow(ByteBuffer& header, const MessageRecord& record, const HeaderRow& row) {
    const std::string_view text = textOf(record.*row.field);
    if (text.empty()) {
        return ternkit::kOk;
    }
    Status status = appendAll(header, {kHtmlRowHead, HeaderLabel(row.label), kHtmlRowMiddle, text});
    if (status == ternkit::kOk && row.label == kLabelFrom) {
        const std::string_view representing = textOf(record.representingName);
        const std::string_view address = textOf(record.senderAddress);
        if (!representing.empty() && representing != text) {
            status = appendAll(header, {kOnBehalfOf, representing});
        } else if (!address.empty() && address.front() != '\0') {
            status = appendAll(header, {" &lt;", address, "&gt;"});
        }
    }
    return status == ternkit::kOk ? appendAll(header, {kHtmlRowEnd}) : status;
}

/// Brings a body into UTF-8 when one of its "<meta" tags declares another charset.
Status makeBodyUtf8(OwnedBytes& body) {
    constexpr std::string_view kMeta = "<meta";
    const char* end = body.data + body.textLength();
    const char* position = body.data;
    while (const char* tag =
               FindNoCaseCounted(position, kMeta.data(), static_cast<std::uint64_t>(end - position), kMeta.size())) {
        const char* close = FindByte(tag + kMeta.size(), end, '>');
        const char* tagEnd = close != nullptr ? close : end;
        MimeCharset charset;
        if (ParseCharsetParameter(charset, tag, tagEnd) == ternkit::kOk) {
            if (charset.id == MimeCharsetId::Utf8) {
                return ternkit::kOk;
            }
            body.size = body.textLength();  // the conversion takes a size without the closing NUL
            return ConvertPartToUtf8(body, charset, 1);
        }
        position = tagEnd;
    }
    return ternkit::kOk;
}

Status MergeHtmlHeader(ByteBuffer& header, OwnedBytes& body) {
    if (header.size == 0) {
        return ternkit::kOk;
    }
    Status status = appendAll(header, {kHtmlSeparator});
    if (status != ternkit::kOk) {
        return status;
    }
    const auto isAscii = [](char byte) { return static_cast<unsigned char>(byte) < 0x80; };
    if (!textOf(body).empty() && !std::all_of(header.data, header.data + header.size, isAscii)) {
        status = makeBodyUtf8(body);
        if (status != ternkit::kOk) {
            return status;
        }
    }
    const std::string_view text = textOf(body);
    std::uint64_t offset = 0;
    if (const char* tag = FindLiteral(text.data(), text.data() + text.size(), "<body")) {
        const char* tagEnd = FindByte(tag, text.data() + text.size(), '>');
        if (tagEnd == nullptr) {
            return ternkit::kUnusable;
        }
        offset = static_cast<std::uint64_t>(tagEnd + 1 - text.data());
    }
    const std::string_view stored = storedBytes(body);
    ByteBuffer merged(kLineGrowBy);
    if (merged.reserve(stored.size() + header.size + 1) == nullptr) {
        return merged.lastError;
    }
    status = appendAll(merged, {stored.substr(0, offset), textOf(header), stored.substr(offset)});
    return status == ternkit::kOk ? replaceBody(body, merged) : status;
}

Status composeHtml(MessageRecord& record) {
    ByteBuffer header;
    for (const HeaderRow& row : kRows) {
        const Status status = AppendHtmlRow(header, record, row);
        if (status != ternkit::kOk) {
            return status;
        }
    }
    return MergeHtmlHeader(header, record.body);
}

// RTF.

Status AppendRtfRow(HeaderComposer& composer, const MessageRecord& record, const HeaderRow& row) {
    const std::string_view text = textOf(record.*row.field);
    if (text.empty()) {
        return ternkit::kOk;
    }
    ByteBuffer& header = composer.headerText;
    Status status = appendAll(header, {kRtfRowHead});
    if (status == ternkit::kOk) {
        status = escape(composer, HeaderLabel(row.label));
    }
    if (status == ternkit::kOk) {
        status = appendAll(header, {kRtfRowMiddle});
    }
    if (status == ternkit::kOk) {
        status = escape(composer, text);
    }
    if (status == ternkit::kOk && row.label == kLabelFrom && record.senderAddress.data != nullptr) {
        status = appendAll(header, {" <"});
        if (status == ternkit::kOk) {
            status = escape(composer, textOf(record.senderAddress));
        }
        if (status == ternkit::kOk) {
            status = appendAll(header, {">"});
        }
    }
    return status == ternkit::kOk ? appendAll(header, {kRtfRowEnd}) : status;
}

/// Appends the pieces that make up a document, with a text inserted `offset` bytes from their start.
Status appendWithInsertion(ByteBuffer& merged, std::initializer_list<std::string_view> pieces, std::uint64_t offset,
                           std::string_view insertion) {
    Status status = ternkit::kOk;
    for (const std::string_view piece : pieces) {
        if (offset <= piece.size() && !insertion.empty()) {
            status = appendAll(merged, {piece.substr(0, offset), insertion, piece.substr(offset)});
            insertion = std::string_view();
        } else {
            status = appendAll(merged, {piece});
            offset -= piece.size();
        }
        if (status != ternkit::kOk) {
            break;
        }
    }
    return status;
}

Status MergeRtfHeader(HeaderComposer& composer, OwnedBytes& body) {
    ByteBuffer& header = composer.headerText;
    RtfFontTable& fonts = composer.fonts;
    if (header.size == 0) {
        return ternkit::kOk;
    }
    Status status = appendAll(header, {kRtfSeparator});
    if (status != ternkit::kOk) {
        return status;
    }
    const std::string_view stored = storedBytes(body);
    if (stored.empty()) {
        return ternkit::kEmptyInput;
    }
    const char* paragraph = FindLiteral(stored.data(), stored.data() + stored.size(), "\\pard");
    if (paragraph == nullptr) {
        return ternkit::kOk;
    }
    std::uint64_t offset = static_cast<std::uint64_t>(paragraph - stored.data());
    const std::uint64_t growth = fonts.changed ? fonts.tableText.size() - (fonts.tableEnd - fonts.tableStart) : 0;
    ByteBuffer merged;
    if (merged.reserve(header.size + stored.size() + growth + 1) == nullptr) {
        return ternkit::kNoMemory;
    }
    if (fonts.changed) {
        // The added fonts stand at the table's end, so only what follows it moves. A table that is never closed goes on to the
        // end of the document, and the paragraph lies inside it.
        if (offset >= fonts.tableEnd) {
            offset += growth;
        }
        status = appendWithInsertion(merged, {stored.substr(0, fonts.tableStart), fonts.tableText, stored.substr(fonts.tableEnd)},
                                     offset, textOf(header));
        fonts.changed = false;
        fonts.parsed = false;
    } else {
        status = appendWithInsertion(merged, {stored}, offset, textOf(header));
    }
    return status == ternkit::kOk ? replaceBody(body, merged) : status;
}

Status composeRtf(MessageRecord& record) {
    HeaderComposer composer;
    const std::string_view document = textOf(record.body);
    Status status = ParseRtfFonts(composer.fonts, document.data(), document.size());
    for (const HeaderRow& row : kRows) {
        if (status == ternkit::kOk) {
            status = AppendRtfRow(composer, record, row);
        }
    }
    return status == ternkit::kOk ? MergeRtfHeader(composer, record.body) : status;
}

// Plain text.

Status PrependTextRow(MessageRecord& record, const HeaderRow& row) {
    const std::string_view text = textOf(record.*row.field);
    if (text.empty() || record.plainBody.data == nullptr) {
        return ternkit::kOk;
    }
    const bool addressed = row.label == kLabelFrom && record.senderAddress.data != nullptr;
    const bool isLast = row.label == kLabelImportance || (row.label == kLabelSubject && textOf(record.importanceText).empty());
    const std::string_view address = textOf(record.senderAddress);
    const std::string_view label = HeaderLabel(row.label);
    const std::string_view stored = storedBytes(record.plainBody);
    ByteBuffer merged(kLineGrowBy);
    if (merged.reserve(label.size() + text.size() + address.size() + stored.size() + kLineGrowBy) == nullptr) {
        return merged.lastError;
    }
    Status status = appendAll(merged, {label, kPlainLabelEnd, text});
    if (status == ternkit::kOk && addressed) {
        status = appendAll(merged, {" <", address, ">"});
    }
    if (status == ternkit::kOk) {
        // A blank line divides the block from the body.
        status = appendAll(merged, {kPlainRowEnd, isLast ? kPlainRowEnd : std::string_view(), stored});
    }
    return status == ternkit::kOk ? replaceBody(record.plainBody, merged) : status;
}

Status composePlain(MessageRecord& record) {
    // Each row goes in front of those that are there, so the last one comes first.
    Status status = ternkit::kOk;
    for (auto row = std::rbegin(kRows); row != std::rend(kRows) && status == ternkit::kOk; ++row) {
        status = PrependTextRow(record, *row);
    }
    return status;
}

}  // namespace

Status ComposeMessageHeader(MessageRecord& record, BodyKind kind) {
    switch (kind) {
        case BodyKind::Html:
            return composeHtml(record);
        case BodyKind::Rtf:
            return composeRtf(record);
        case BodyKind::Plain:
            return composePlain(record);
        default:
            return ternkit::kOk;
    }
}

Status ConvertPlainBodyToUtf8(MessageRecord& record) {
    OwnedBytes& body = record.plainBody;
    if (body.data == nullptr || body.size == 0) {
        return ternkit::kOk;
    }
    if (body.size > INT_MAX) {
        return ternkit::kNoMemory;
    }
    const ScopedBlock wide(TbMemAlloc(body.size, sizeof(char16_t), TB_HERE));
    if (!wide) {
        return ternkit::kNoMemory;
    }
    std::uint64_t units = 0;
    if (record.plainBodyType == kPropertyTypeUnicode) {
        units = body.size / sizeof(char16_t);
        std::memcpy(wide.block, body.data, units * sizeof(char16_t));
        while (units != 0 && wide.wide()[units - 1] == 0) {
            --units;
        }
    } else {
        const int count = static_cast<int>(body.size);
        units = static_cast<std::uint64_t>(MultiByteToWideChar(GetACP(), 0, body.data, count, wide.wide(), count));
    }
    OwnedBytes converted;
    int size = 0;
    if (units != 0) {
        size = WideCharToMultiByte(kCodePageUtf8, 0, wide.wide(), static_cast<int>(units), nullptr, 0, nullptr, nullptr);
        if (size == 0) {
            return ternkit::kNoMemory;
        }
    }
    if (converted.ensure(static_cast<std::uint64_t>(size)) != ternkit::kOk) {
        return ternkit::kNoMemory;
    }
    if (size != 0) {
        WideCharToMultiByte(kCodePageUtf8, 0, wide.wide(), static_cast<int>(units), converted.data, size, nullptr, nullptr);
    }
    body = std::move(converted);
    return ternkit::kOk;
}

Status WriteUtf16Document(ByteBuffer& document, const OwnedBytes& text) {
    const std::string_view bytes = textOf(text);
    if (bytes.size() > INT_MAX || document.reserve(kUtf16Mark.size() + sizeof(char16_t) * bytes.size()) == nullptr) {
        return ternkit::kNoMemory;
    }
    std::memcpy(document.data, kUtf16Mark.data(), kUtf16Mark.size());
    int units = 0;
    if (!bytes.empty()) {
        const int size = static_cast<int>(bytes.size());
        units = MultiByteToWideChar(kCodePageUtf8, 0, bytes.data(), size,
                                    static_cast<char16_t*>(static_cast<void*>(document.data + kUtf16Mark.size())), size);
    }
    document.size = kUtf16Mark.size() + sizeof(char16_t) * static_cast<std::uint64_t>(units);
    return ternkit::kOk;
}
