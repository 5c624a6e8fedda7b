#include "mime_builder.h"

#include <algorithm>
#include <cstdlib>

namespace mime {

namespace {

constexpr std::size_t kLineLength = 76;
constexpr char kHexDigits[] = "0123456789ABCDEF";

std::string Escaped(char byte) {
    const auto value = static_cast<unsigned char>(byte);
    return {'=', kHexDigits[value >> 4], kHexDigits[value & 15]};
}

std::string Base64Line(std::string_view bytes) {
    static constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text;
    for (std::size_t at = 0; at < bytes.size(); at += 3) {
        const std::size_t count = std::min<std::size_t>(3, bytes.size() - at);
        unsigned group = 0;
        for (std::size_t index = 0; index < 3; ++index) {
            group = group << 8 | (index < count ? static_cast<unsigned char>(bytes[at + index]) : 0U);
        }
        for (std::size_t index = 0; index < 4; ++index) {
            text += index <= count ? kAlphabet[group >> (18 - 6 * index) & 63] : '=';
        }
    }
    return text;
}

const char* EncodingName(Encoding encoding) {
    switch (encoding) {
        case Encoding::SevenBit:
            return "7bit";
        case Encoding::EightBit:
            return "8bit";
        case Encoding::QuotedPrintable:
            return "quoted-printable";
        case Encoding::Base64:
            return "base64";
        case Encoding::Unnamed:
            break;
    }
    return nullptr;
}

}  // namespace

std::string Base64(std::string_view bytes) {
    constexpr std::size_t kBytesOfALine = kLineLength / 4 * 3;
    std::string text;
    for (std::size_t at = 0; at < bytes.size(); at += kBytesOfALine) {
        text += (at != 0 ? "\r\n" : "") + Base64Line(bytes.substr(at, kBytesOfALine));
    }
    return text;
}

std::string QuotedPrintable(std::string_view text) {
    std::string encoded;
    std::size_t lineStart = 0;
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (text.substr(at, 2) == "\r\n") {
            encoded += "\r\n";
            lineStart = encoded.size();
            ++at;
            continue;
        }
        const bool endsLine = at + 1 == text.size() || text.substr(at + 1, 2) == "\r\n";
        const bool blank = text[at] == ' ' || text[at] == '\t';
        const bool printable = text[at] > ' ' && text[at] <= '~' && text[at] != '=';
        const std::string piece = printable || (blank && !endsLine) ? std::string(1, text[at]) : Escaped(text[at]);
        if (encoded.size() - lineStart + piece.size() + 1 > kLineLength) {
            encoded += "=\r\n";
            lineStart = encoded.size();
        }
        encoded += piece;
    }
    return encoded;
}

std::string EncodedWord(std::string_view charset, char letter, std::string_view bytes) {
    std::string text;
    if (letter == 'B') {
        text = Base64Line(bytes);
    } else {
        for (const char byte : bytes) {
            const bool plain = byte > ' ' && byte <= '~' && byte != '=' && byte != '?' && byte != '_';
            text += byte == ' ' ? "_" : plain ? std::string(1, byte) : Escaped(byte);
        }
    }
    return "=?" + std::string(charset) + "?" + letter + "?" + text + "?=";
}

std::string Replaced(std::string bytes, std::string_view what, std::string_view with) {
    const std::size_t at = bytes.find(what);
    if (at == std::string::npos) {
        std::abort();  // the test would go on with an undamaged message
    }
    return bytes.replace(at, what.size(), with);
}

MimeBuilder::MimeBuilder(std::string type, std::string content, Encoding encoding)
    : m_type(std::move(type)), m_content(std::move(content)), m_encoding(encoding) {}

MimeBuilder::MimeBuilder(std::string subtype, std::vector<MimeBuilder> parts, std::string boundary)
    : m_type("multipart/" + std::move(subtype)), m_parts(std::move(parts)), m_boundary(std::move(boundary)), m_depth(1) {
    for (const MimeBuilder& part : m_parts) {
        m_depth = std::max(m_depth, part.m_depth + 1);
    }
}

MimeBuilder& MimeBuilder::field(std::string_view name, std::string_view value) {
    return foldedField(name, {std::string(value)});
}

MimeBuilder& MimeBuilder::foldedField(std::string_view name, const std::vector<std::string>& lines, std::string_view fold) {
    m_fields.append(name).append(":");
    for (std::size_t index = 0; index < lines.size(); ++index) {
        m_fields.append(index == 0 ? " " : fold).append(lines[index]);
    }
    m_fields += "\r\n";
    return *this;
}

MimeBuilder& MimeBuilder::fieldBehind(std::string_view name, std::string_view value) {
    m_fieldsBehind.append(name).append(": ").append(value).append("\r\n");
    return *this;
}

MimeBuilder& MimeBuilder::addressed() {
    field("From", "Ann <ann@example.org>").field("To", "bob@example.org");
    return field("Date", "Mon, 2 Feb 2026 10:00:00 +0100").field("Subject", "Greetings");
}

std::string MimeBuilder::freeBoundary(const std::vector<std::string>& parts) const {
    // The digits stand between marks, so that no boundary is the beginning of another one. Containers inside this one took
    // smaller numbers.
    for (unsigned number = m_depth;; ++number) {
        std::string boundary = "=_" + std::to_string(number) + "_=";
        if (std::none_of(parts.begin(), parts.end(),
                         [&](const std::string& part) { return part.find("--" + boundary) != std::string::npos; })) {
            return boundary;
        }
    }
}

std::string MimeBuilder::body() const {
    switch (m_encoding) {
        case Encoding::Base64:
            return Base64(m_content);
        case Encoding::QuotedPrintable:
            return QuotedPrintable(m_content);
        default:
            return m_content;
    }
}

std::string MimeBuilder::bytes() const {
    std::string fields = m_fields;
    std::string content;
    if (m_parts.empty()) {
        content = body();
        if (!m_type.empty()) {
            fields += "Content-Type: " + m_type + "\r\n";
        }
        if (const char* encoding = EncodingName(m_encoding)) {
            fields += std::string("Content-Transfer-Encoding: ") + encoding + "\r\n";
        }
    } else {
        std::vector<std::string> parts;
        for (const MimeBuilder& part : m_parts) {
            parts.push_back(part.bytes());
        }
        const std::string boundary = m_boundary.empty() ? freeBoundary(parts) : m_boundary;
        fields += "Content-Type: " + m_type + "; boundary=\"" + boundary + "\"\r\n";
        content = "Parts follow.";
        for (const std::string& part : parts) {
            content += "\r\n--" + boundary + "\r\n" + part;
        }
        content += "\r\n--" + boundary + "--\r\n";
    }
    return fields + m_fieldsBehind + "\r\n" + content;
}

MimeBuilder Plain(std::string text, Encoding encoding, std::string_view charset) {
    return {"text/plain; charset=" + std::string(charset), std::move(text), encoding};
}

MimeBuilder Html(std::string text, Encoding encoding, std::string_view charset) {
    return {"text/html; charset=" + std::string(charset), std::move(text), encoding};
}

MimeBuilder Picture(std::string_view name, std::string bytes, std::string_view contentId, std::string_view type) {
    MimeBuilder picture(std::string(type) + "; name=\"" + std::string(name) + "\"", std::move(bytes), Encoding::Base64);
    if (!contentId.empty()) {
        picture.fieldBehind("Content-ID", "<" + std::string(contentId) + ">");
    }
    return picture;
}

MimeBuilder Multipart(std::string subtype, std::vector<MimeBuilder> parts, std::string boundary) {
    return {std::move(subtype), std::move(parts), std::move(boundary)};
}

MimeBuilder Attached(const MimeBuilder& message) {
    return {"message/rfc822", message.bytes(), Encoding::Unnamed};
}

}  // namespace mime
