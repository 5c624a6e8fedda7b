#include "fileformats/pst/common/mimeheader.h"

#include <cstring>

#include "common/apiutils.h"

using ternkit::Status;

namespace {

// Literal texts of the block. A row of HTML is its beginning, the label, its middle, the value and its end.
constexpr char kHtmlRowBegin[] =
    "<table style = 'border-collapse: collapse ; table-layout: fixed; width: 100%'><tr><td style = 'width:87pt; padding: 0px; "
    "vertical-align:top'><b><span lang = EN-US style = 'font-family:\"Calibri\",\"sans-serif\";mso-bidi-font-family:Calibri; "
    "color:black; mso-ansi-language:EN-US'>";
constexpr char kHtmlRowMiddle[] =
    "</span></b></td><td style = 'padding: 0px'><span lang = EN-US style = "
    "'font-family:\"Calibri\",\"sans-serif\";mso-bidi-font-family:Calibri; color:black; mso-ansi-language:EN-US; word-wrap: "
    "break-word;'>";
constexpr char kHtmlRowEnd[] = "</span></td></tr></table>\r\n";
constexpr char kHtmlSeparator[] = "<p class=MsoNormal><o:p>&nbsp;</o:p></p>";
constexpr char kHtmlBegin[] = "<html>";
constexpr char kHtmlEnd[] = "</html>";
constexpr char kPlainRowEnd[] = "\r\n";
constexpr char kPlainSeparator[] = "\r\n";

struct HeaderRow {
    OwnedBytes MimeMessage::*field;
    const char* htmlLabel;
    const char* plainLabel;
};

// In the order in which the document shows them.
constexpr HeaderRow kRows[] = {
    {&MimeMessage::from, "From:", "From:   \t"},
    {&MimeMessage::to, "To:", "To:     \t"},
    {&MimeMessage::date, "Sent:", "Sent:   \t"},
    {&MimeMessage::cc, "Cc:", "Cc:     \t"},
    {&MimeMessage::bcc, "Bcc:", "Bcc:    \t"},
    {&MimeMessage::subject, "Subject:", "Subject:\t"},
    {&MimeMessage::importance, "Importance:", "Importance: "},
};

// Collects the block; after the first failure nothing more is appended.
class HeaderText {
public:
    void append(const char* text) { append(text, std::strlen(text)); }

    void append(const char* text, std::uint64_t length) {
        if (m_status == ternkit::kOk) {
            m_status = m_text.append(text, length);
        }
    }

    /// A value up to its first NUL, with its angle brackets escaped.
    void appendEscaped(const OwnedBytes& value) {
        const char* run = value.data;
        const char* end = value.data + BoundedLength(value.data, value.size);
        for (const char* at = run; at < end; ++at) {
            if (*at == '<' || *at == '>') {
                append(run, static_cast<std::uint64_t>(at - run));
                append(*at == '<' ? "&lt;" : "&gt;");
                run = at + 1;
            }
        }
        append(run, static_cast<std::uint64_t>(end - run));
    }

    Status insertInto(OwnedBytes& body, std::uint64_t offset) const {
        return m_status == ternkit::kOk ? body.insert(offset, m_text.data, m_text.size) : ternkit::kNoMemory;
    }

private:
    ByteBuffer m_text{kLineGrowBy};
    Status m_status = ternkit::kOk;
};

Status mergeHtml(MimeMessage& message) {
    OwnedBytes& body = message.body;
    std::uint64_t offset = 0;
    const char* end = body.data + BoundedLength(body.data, body.size);
    if (const char* tag = FindLiteral(body.data, end, "<body")) {
        const char* tagEnd = FindByte(tag, end, '>');
        if (tagEnd == nullptr) {
            return ternkit::kUnusable;
        }
        offset = static_cast<std::uint64_t>(tagEnd + 1 - body.data);
    }
    HeaderText header;
    header.append(kHtmlBegin);
    for (const HeaderRow& row : kRows) {
        const OwnedBytes& value = message.*row.field;
        if (value.size != 0) {
            header.append(kHtmlRowBegin);
            header.append(row.htmlLabel);
            header.append(kHtmlRowMiddle);
            header.appendEscaped(value);
            header.append(kHtmlRowEnd);
        }
    }
    header.append(kHtmlSeparator);
    header.append(kHtmlEnd);
    return header.insertInto(body, offset);
}

Status mergePlain(MimeMessage& message) {
    HeaderText header;
    for (const HeaderRow& row : kRows) {
        const OwnedBytes& value = message.*row.field;
        if (value.size != 0) {
            header.append(row.plainLabel);
            header.append(value.data, value.textLength());
            header.append(kPlainRowEnd);
        }
    }
    header.append(kPlainSeparator);
    const bool marked =
        message.body.size > kSevenBitMarkSize && std::memcmp(message.body.data, kSevenBitMark, kSevenBitMarkSize) == 0;
    return header.insertInto(message.body, marked ? kSevenBitMarkSize : 0);
}

}  // namespace

Status ComposeMimeHeader(MimeMessage& message) {
    const bool anonymous = message.date.size == 0 && message.from.size == 0 && message.to.size == 0 && message.cc.size == 0;
    if (anonymous) {
        return ternkit::kOk;
    }
    switch (message.bodyFormat) {
        case BodyKind::Html:
            return mergeHtml(message);
        case BodyKind::Plain:
            return mergePlain(message);
        default:
            return ternkit::kOk;
    }
}
