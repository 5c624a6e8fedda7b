#include "repair/canonical_message.h"

#include <gmime/gmime.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <iterator>
#include <memory>
#include <utility>
#include <vector>

#include "loaders/html_charset.h"
#include "loaders/text_encoding.h"

namespace ternview {
namespace {

constexpr int kDeepest = 100;
constexpr std::size_t kMostPictures = 10'000;
constexpr std::string_view kNoTextNotice = "(This message has no text.)\r\n";
constexpr std::array kFields{"From", "To", "Cc", "Bcc", "Subject", "Date", "Importance"};

template <typename T>
struct Unref {
    void operator()(T* object) const { g_object_unref(object); }
};
template <typename T>
using Ref = std::unique_ptr<T, Unref<T>>;

struct Free {
    void operator()(void* block) const { g_free(block); }
};
using OwnedText = std::unique_ptr<char, Free>;

enum class TextKind { Plain, Html };

struct Text {
    TextKind kind;
    std::string utf8;
};

struct Picture {
    std::string_view type;
    std::string name;
    std::string id;        // without angle brackets; empty when there is none
    std::string location;  // last part of the Content-Location; empty when there is none
    std::string bytes;
};

/// What a message, or a part of one, has to show.
struct Content {
    std::vector<Text> texts;
    std::vector<Text> reserve;  // shown when there are no texts: of attached messages, reports and unknown kinds of text
    std::vector<Picture> pictures;

    void append(Content&& other) {
        std::move(other.texts.begin(), other.texts.end(), std::back_inserter(texts));
        std::move(other.reserve.begin(), other.reserve.end(), std::back_inserter(reserve));
        std::move(other.pictures.begin(), other.pictures.end(), std::back_inserter(pictures));
    }

    bool hasHtml() const {
        return std::any_of(texts.begin(), texts.end(), [](const Text& text) { return text.kind == TextKind::Html; });
    }
};

std::string decodedContent(GMimePart* part) {
    GMimeDataWrapper* wrapper = g_mime_part_get_content(part);
    if (wrapper == nullptr) {
        return {};
    }
    const Ref<GMimeStream> stream(g_mime_stream_mem_new());
    g_mime_data_wrapper_write_to_stream(wrapper, stream.get());
    const GByteArray* bytes = g_mime_stream_mem_get_byte_array(GMIME_STREAM_MEM(stream.get()));
    return {reinterpret_cast<const char*>(bytes->data), bytes->len};
}

std::string textOf(const char* text) {
    return text == nullptr ? std::string() : std::string(text);
}

/// In the declared charset when the bytes are text in it; nothing otherwise.
std::optional<std::string> fromDeclaredCharset(const std::string& bytes, const char* charset) {
    if (charset == nullptr || *charset == '\0') {
        return std::nullopt;
    }
    gsize written = 0;
    const OwnedText converted(g_convert(bytes.data(), static_cast<gssize>(bytes.size()), "UTF-8",
                                        g_mime_charset_iconv_name(charset), nullptr, &written, nullptr));
    return converted ? std::optional(std::string(converted.get(), written)) : std::nullopt;
}

bool startsWithNoCase(std::string_view text, std::string_view prefix) {
    return text.size() >= prefix.size() && std::equal(prefix.begin(), prefix.end(), text.begin(), [](char a, char b) {
               return a == std::tolower(static_cast<unsigned char>(b));
           });
}

/// Lets the declarations in an HTML text that was converted say what it is now.
std::string declareUtf8(std::string_view html) {
    constexpr std::string_view kMeta = "<meta";
    constexpr std::string_view kCharset = "charset=";
    constexpr std::size_t kLongestTag = 1024;  // one that has no end must not be looked for through the whole text
    std::string out;
    out.reserve(html.size() + 16);
    while (!html.empty()) {
        const std::size_t open = html.find('<');
        out += html.substr(0, open);
        if (open == std::string_view::npos) {
            break;
        }
        html.remove_prefix(open);
        if (!startsWithNoCase(html, kMeta)) {
            out += '<';
            html.remove_prefix(1);
            continue;
        }
        const std::string_view tag = html.substr(0, html.substr(0, kLongestTag).find('>'));
        if (tag.size() == html.size() || html[tag.size()] != '>') {
            out += html.substr(0, kMeta.size());
            html.remove_prefix(kMeta.size());
            continue;
        }
        std::size_t at = 0;
        while (at < tag.size() && !startsWithNoCase(tag.substr(at), kCharset)) {
            ++at;
        }
        if (at >= tag.size()) {
            out += tag;
        } else {
            at += kCharset.size();
            at += at < tag.size() && (tag[at] == '"' || tag[at] == '\'') ? 1 : 0;
            out += tag.substr(0, at);
            out += "utf-8";
            out += tag.substr(std::min(tag.size(), tag.find_first_of("\"' ;/", at)));
        }
        html.remove_prefix(tag.size());
    }
    return out;
}

Text readText(GMimePart* part, TextKind kind) {
    const std::string bytes = decodedContent(part);
    const char* charset = g_mime_object_get_content_type_parameter(GMIME_OBJECT(part), "charset");
    const std::optional<std::string> declared = fromDeclaredCharset(bytes, charset);
    if (kind == TextKind::Plain) {
        return {kind, decodeText(declared ? *declared : bytes)};
    }
    return {kind, declareUtf8(declared ? *declared : decodeHtml(bytes).text)};
}

/// The kinds of picture that a document can carry, by their first bytes; the declared type is often wrong.
std::string_view pictureType(std::string_view bytes) {
    if (bytes.starts_with("\x89PNG")) {
        return "image/png";
    }
    if (bytes.starts_with("\xFF\xD8\xFF")) {
        return "image/jpeg";
    }
    if (bytes.starts_with("GIF8")) {
        return "image/gif";
    }
    return {};
}

std::string_view extensionOf(std::string_view type) {
    return type == "image/jpeg" ? "jpg" : type.substr(type.find('/') + 1);
}

std::string lastSegment(const std::string& location) {
    return location.substr(location.find_last_of('/') + 1);
}

void addPicture(GMimePart* part, Content& content) {
    std::string bytes = decodedContent(part);
    const std::string_view type = pictureType(bytes);
    if (type.empty() || content.pictures.size() >= kMostPictures) {
        return;
    }
    content.pictures.push_back({type, textOf(g_mime_part_get_filename(part)), textOf(g_mime_part_get_content_id(part)),
                                lastSegment(textOf(g_mime_part_get_content_location(part))), std::move(bytes)});
}

Content readObject(GMimeObject* object, int depth);

Content readLeaf(GMimePart* part) {
    Content content;
    GMimeContentType* type = g_mime_object_get_content_type(GMIME_OBJECT(part));
    const bool isAttachment = g_mime_part_is_attachment(part) != 0;
    if (g_mime_content_type_is_type(type, "image", "*") || g_mime_content_type_is_type(type, "application", "octet-stream")) {
        addPicture(part, content);
    } else if (g_mime_content_type_is_type(type, "text", "html")) {
        (isAttachment ? content.reserve : content.texts).push_back(readText(part, TextKind::Html));
    } else if (g_mime_content_type_is_type(type, "text", "plain")) {
        (isAttachment ? content.reserve : content.texts).push_back(readText(part, TextKind::Plain));
    } else if (g_mime_content_type_is_type(type, "text", "*") || g_mime_content_type_is_type(type, "message", "*")) {
        content.reserve.push_back(readText(part, TextKind::Plain));
    }
    return content;
}

/// Of alternatives the last is the best, but HTML is what a document is made of where there is any.
Content readAlternative(GMimeMultipart* multipart, int depth) {
    Content best;
    bool found = false;
    for (int at = g_mime_multipart_get_count(multipart) - 1; at >= 0 && !best.hasHtml(); --at) {
        Content content = readObject(g_mime_multipart_get_part(multipart, at), depth);
        const bool isBetter = content.hasHtml() || (!found && !content.texts.empty());
        if (isBetter) {
            std::swap(best, content);
            found = true;
        }
        std::move(content.pictures.begin(), content.pictures.end(), std::back_inserter(best.pictures));
        std::move(content.reserve.begin(), content.reserve.end(), std::back_inserter(best.reserve));
    }
    return best;
}

Content readMultipart(GMimeMultipart* multipart, int depth) {
    if (g_mime_content_type_is_type(g_mime_object_get_content_type(GMIME_OBJECT(multipart)), "multipart", "alternative")) {
        return readAlternative(multipart, depth);
    }
    Content content;
    const int count = g_mime_multipart_get_count(multipart);
    for (int at = 0; at < count; ++at) {
        content.append(readObject(g_mime_multipart_get_part(multipart, at), depth));
    }
    return content;
}

/// Of an attached message only what stands in for a missing text.
Content readAttachedMessage(GMimeMessagePart* part, int depth) {
    Content content;
    GMimeMessage* message = g_mime_message_part_get_message(part);
    GMimeObject* inner = message != nullptr ? g_mime_message_get_mime_part(message) : nullptr;
    if (inner != nullptr) {
        Content attached = readObject(inner, depth);
        std::vector<Text>& texts = attached.texts.empty() ? attached.reserve : attached.texts;
        content.reserve = std::move(texts);
        content.pictures = std::move(attached.pictures);
    }
    return content;
}

Content readObject(GMimeObject* object, int depth) {
    if (object == nullptr || depth >= kDeepest) {
        return {};
    }
    if (GMIME_IS_MULTIPART(object)) {
        return readMultipart(GMIME_MULTIPART(object), depth + 1);
    }
    if (GMIME_IS_MESSAGE_PART(object)) {
        return readAttachedMessage(GMIME_MESSAGE_PART(object), depth + 1);
    }
    return GMIME_IS_PART(object) ? readLeaf(GMIME_PART(object)) : Content{};
}

std::string escaped(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (const char c : text) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            default:
                out += c;
        }
    }
    return out;
}

/// Several texts as one: HTML when one of them is.
Text joined(std::vector<Text>&& texts) {
    if (texts.size() == 1) {
        return std::move(texts.front());
    }
    const bool isHtml = std::any_of(texts.begin(), texts.end(), [](const Text& text) { return text.kind == TextKind::Html; });
    Text all{isHtml ? TextKind::Html : TextKind::Plain, {}};
    for (const Text& text : texts) {
        if (!isHtml) {
            all.utf8 += text.utf8;
            all.utf8 += text.utf8.ends_with('\n') ? "\n" : "\n\n";
        } else if (text.kind == TextKind::Html) {
            all.utf8 += "<div>" + text.utf8 + "</div>\n";
        } else {
            all.utf8 += "<pre style=\"white-space:pre-wrap\">" + escaped(text.utf8) + "</pre>\n";
        }
    }
    return all;
}

std::string base64Lines(std::string_view bytes) {
    constexpr std::size_t kLineBytes = 57;  // 76 characters
    std::string out;
    out.reserve(bytes.size() * 4 / 3 + bytes.size() / kLineBytes * 2 + 8);
    for (; !bytes.empty(); bytes.remove_prefix(std::min(kLineBytes, bytes.size()))) {
        const std::string_view line = bytes.substr(0, kLineBytes);
        const OwnedText encoded(g_base64_encode(reinterpret_cast<const guchar*>(line.data()), line.size()));
        out += encoded.get();
        out += "\r\n";
    }
    return out;
}

/// One line, and UTF-8 whatever 8-bit bytes stood in it; encoded words stay as they are.
std::string fieldValue(const char* raw) {
    std::string line = textOf(raw);
    std::replace_if(
        line.begin(), line.end(), [](char c) { return c == '\r' || c == '\n' || c == '\t'; }, ' ');
    line.erase(std::unique(line.begin(), line.end(), [](char a, char b) { return a == ' ' && b == ' '; }), line.end());
    const std::size_t first = line.find_first_not_of(' ');
    line = first == std::string::npos ? std::string() : line.substr(first, line.find_last_not_of(' ') + 1 - first);
    return decodeText(line);
}

std::string fieldLines(GMimeMessage* message) {
    GMimeHeaderList* headers = g_mime_object_get_header_list(GMIME_OBJECT(message));
    std::string lines;
    for (const char* name : kFields) {
        GMimeHeader* header = g_mime_header_list_get_header(headers, name);
        const std::string value = header != nullptr ? fieldValue(g_mime_header_get_raw_value(header)) : std::string();
        if (!value.empty()) {
            lines += std::string(name) + ": " + value + "\r\n";
        }
    }
    return lines;
}

/// A name or an id as it can stand in a field.
std::string plainToken(const std::string& text) {
    std::string out;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        const bool isPlain = byte > 0x20 && byte < 0x7F && c != '"' && c != '<' && c != '>' && c != '\\';
        if (!isPlain) {
            return {};
        }
        out += c;
    }
    return out;
}

std::string textPart(const Text& text) {
    return std::string("Content-Type: text/") + (text.kind == TextKind::Html ? "html" : "plain") +
           "; charset=\"utf-8\"\r\nContent-Transfer-Encoding: base64\r\n\r\n" + base64Lines(text.utf8);
}

std::string picturePart(const Picture& picture, std::size_t index) {
    std::string name = plainToken(picture.location.empty() ? picture.name : picture.location);
    if (name.empty() || name.find_first_of("/:") != std::string::npos) {
        name = "picture-" + std::to_string(index + 1) + "." + std::string(extensionOf(picture.type));
    }
    std::string part =
        "Content-Type: " + std::string(picture.type) + "; name=\"" + name + "\"\r\nContent-Transfer-Encoding: base64\r\n";
    if (const std::string id = plainToken(picture.id); !id.empty()) {
        part += "Content-ID: <" + id + ">\r\n";
    }
    return part + "\r\n" + base64Lines(picture.bytes);
}

std::string write(const std::string& fields, const Text& text, const std::vector<Picture>& pictures) {
    // Base64 has no underscore, and the header fields stand in front of the first delimiter.
    constexpr std::string_view kBoundary = "_ternview_part_";
    std::string out = fields + "MIME-Version: 1.0\r\n";
    if (text.kind == TextKind::Plain || pictures.empty()) {
        return out + textPart(text);
    }
    const std::string delimiter = "\r\n--" + std::string(kBoundary);
    out +=
        "Content-Type: multipart/related; boundary=\"" + std::string(kBoundary) + "\"\r\n" + delimiter + "\r\n" + textPart(text);
    for (std::size_t at = 0; at < pictures.size(); ++at) {
        out += delimiter + "\r\n" + picturePart(pictures[at], at);
    }
    return out + delimiter + "--\r\n";
}

Ref<GMimeMessage> parse(std::string_view bytes) {
    static const bool isReady = (g_mime_init(), true);
    static_cast<void>(isReady);
    const Ref<GMimeStream> stream(g_mime_stream_mem_new_with_buffer(bytes.data(), bytes.size()));
    const Ref<GMimeParser> parser(g_mime_parser_new_with_stream(stream.get()));
    return Ref<GMimeMessage>(g_mime_parser_construct_message(parser.get(), nullptr));
}

}  // namespace

std::optional<CanonicalMessage> canonicalMessage(std::string_view message) {
    const Ref<GMimeMessage> parsed = parse(message);
    if (!parsed) {
        return std::nullopt;
    }
    const std::string fields = fieldLines(parsed.get());
    if (fields.empty()) {
        return std::nullopt;
    }
    Content content = readObject(g_mime_message_get_mime_part(parsed.get()), 0);
    std::vector<Text>& texts = content.texts.empty() ? content.reserve : content.texts;
    std::erase_if(texts, [](const Text& text) { return text.utf8.find_first_not_of(" \t\r\n") == std::string::npos; });
    if (texts.empty()) {
        return CanonicalMessage{write(fields, {TextKind::Plain, std::string(kNoTextNotice)}, {}), false};
    }
    return CanonicalMessage{write(fields, joined(std::move(texts)), content.pictures), true};
}

}  // namespace ternview
