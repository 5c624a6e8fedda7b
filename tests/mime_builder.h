// Writes valid Internet messages (RFC 5322, RFC 2045, RFC 2046), so that a test, a benchmark or a seed file reads as the message
// it describes. Whoever needs a broken message damages the bytes at one place afterwards.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace mime {

enum class Encoding { Unnamed, SevenBit, EightBit, QuotedPrintable, Base64 };

/// Base64 in lines of 76 characters, without a line end behind the last.
std::string Base64(std::string_view bytes);
/// Quoted-printable text in lines of at most 76 characters; CR LF stays a line end.
std::string QuotedPrintable(std::string_view text);
/// An encoded word of RFC 2047, `letter` being 'B' or 'Q'.
std::string EncodedWord(std::string_view charset, char letter, std::string_view bytes);
/// Puts `with` in the place of the first `what`, which must be there: the one deviation of a test.
std::string Replaced(std::string bytes, std::string_view what, std::string_view with);

/// One entity: a message, a container or a leaf.
class MimeBuilder {
public:
    /// A leaf whose Content-Type field has the value `type`; an empty one leaves the field out.
    MimeBuilder(std::string type, std::string content, Encoding encoding);
    /// A container; without a boundary it takes one that none of its parts contains.
    MimeBuilder(std::string subtype, std::vector<MimeBuilder> parts, std::string boundary = {});

    /// Adds a header field in front of the Content-Type field.
    MimeBuilder& field(std::string_view name, std::string_view value);
    /// A field of several lines; `fold` is the line end and the white space that continues it.
    MimeBuilder& foldedField(std::string_view name, const std::vector<std::string>& lines, std::string_view fold = "\r\n ");
    /// Adds a header field behind the Content-Type field.
    MimeBuilder& fieldBehind(std::string_view name, std::string_view value);
    /// From, To, Date and Subject.
    MimeBuilder& addressed();

    std::string bytes() const;

private:
    std::string body() const;
    std::string freeBoundary(const std::vector<std::string>& parts) const;

    std::string m_fields;
    std::string m_type;
    std::string m_fieldsBehind;
    std::string m_content;
    Encoding m_encoding = Encoding::Unnamed;
    std::vector<MimeBuilder> m_parts;
    std::string m_boundary;
    unsigned m_depth = 0;
};

MimeBuilder Plain(std::string text, Encoding encoding = Encoding::EightBit, std::string_view charset = "utf-8");
MimeBuilder Html(std::string text, Encoding encoding = Encoding::EightBit, std::string_view charset = "utf-8");
/// A picture in base64 with a name, and a content id unless it is empty.
MimeBuilder Picture(std::string_view name, std::string bytes, std::string_view contentId = {},
                    std::string_view type = "image/png");
MimeBuilder Multipart(std::string subtype, std::vector<MimeBuilder> parts, std::string boundary = {});
/// A message as an attachment.
MimeBuilder Attached(const MimeBuilder& message);

}  // namespace mime
