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
#include "repair/lenient_form.h"
#include "utf.h"

namespace ternview {
namespace {

constexpr int kDeepest = 100;
constexpr std::size_t kMostPictures = 10'000;
constexpr std::string_view kUtf8Mark = "\xEF\xBB\xBF";
constexpr std::string_view kNoTextNotice = "(This message has no text.)\r\n";
constexpr std::array kFields{"From", "To", "Cc", "Bcc", "Subject", "Date", "Importance"};
/// Fields that the document does not show, and that still tell a mail from any other text.
constexpr std::array kFieldsOfMail{"Received",   "Return-Path",  "Delivered-To", "Reply-To",
                                   "Message-ID", "MIME-Version", "Content-Type"};

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

/// Decoded only when it is needed: most messages are read by the filter as they are.
struct Text {
    TextKind kind;
    GMimePart* part;
    std::string bytes;  // in the charset of the part
};

struct DecodedText {
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
    std::vector<Text> reserve;         // shown when there are no texts: of attached messages, reports and unknown kinds of text
    std::vector<GMimePart*> pictures;  // what may be one

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
    for (const std::string& name : {webCharset(charset), textOf(g_mime_charset_iconv_name(charset))}) {
        gsize written = 0;
        const OwnedText converted(
            g_convert(bytes.data(), static_cast<gssize>(bytes.size()), "UTF-8", name.c_str(), nullptr, &written, nullptr));
        if (converted) {
            return std::string(converted.get(), written);
        }
    }
    return std::nullopt;
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

/// Whether a declaration says more than the bytes do. Text that is valid UTF-8 is hardly anything else, and what has seven bits
/// is read without a declaration too, unless it is UTF-16.
bool canTell(std::string_view charset, std::string_view bytes) {
    const std::string name = webCharset(charset);
    if (bytes.find('\0') != std::string_view::npos) {
        return name.starts_with("utf-16");
    }
    const bool isSevenBit = std::ranges::all_of(bytes, [](unsigned char c) { return c < 0x80; });
    return !isSevenBit && (name == "utf-8" || name == "UTF-8" || !isValidUtf8(bytes));
}

/// A declaration that is given without knowing; the text alone may tell more.
bool isHabit(std::string_view charset) {
    return webCharset(charset) == "CP1252";
}

std::string decode(TextKind kind, std::string_view bytes) {
    return kind == TextKind::Plain ? decodeText(bytes) : decodeHtml(bytes).text;
}

std::string declaredCharset(const Text& text) {
    return textOf(g_mime_object_get_content_type_parameter(GMIME_OBJECT(text.part), "charset"));
}

/// The text in its declared charset; nothing when that says nothing more than the bytes.
std::optional<std::string> decodedAsDeclared(const Text& text) {
    const std::string charset = declaredCharset(text);
    std::optional<std::string> known =
        canTell(charset, text.bytes) ? fromDeclaredCharset(text.bytes, charset.c_str()) : std::nullopt;
    if (!known) {
        return std::nullopt;
    }
    known->insert(0, known->starts_with(kUtf8Mark) ? std::string_view() : kUtf8Mark);
    return decode(text.kind, *known);
}

std::string utf8Of(const Text& text) {
    std::optional<std::string> known = decodedAsDeclared(text);
    std::string utf8 = known ? std::move(*known) : decode(text.kind, text.bytes);
    return text.kind == TextKind::Html ? declareUtf8(utf8) : utf8;
}

/// True for a text that would be read in another charset without the declaration of its part.
bool needsItsCharset(const Text& text) {
    const bool isReadAsUtf8 = text.kind == TextKind::Plain && isValidUtf8(text.bytes);
    const bool hasNuls = text.bytes.find('\0') != std::string::npos;
    if (isHabit(declaredCharset(text)) || (isReadAsUtf8 && !hasNuls)) {
        return false;
    }
    const std::optional<std::string> known = decodedAsDeclared(text);
    return known && *known != decode(text.kind, text.bytes);
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

std::vector<Picture> readPictures(const std::vector<GMimePart*>& parts) {
    std::vector<Picture> pictures;
    for (GMimePart* part : parts) {
        std::string bytes = decodedContent(part);
        const std::string_view type = pictureType(bytes);
        if (!type.empty() && pictures.size() < kMostPictures) {
            pictures.push_back({type, textOf(g_mime_part_get_filename(part)), textOf(g_mime_part_get_content_id(part)),
                                lastSegment(textOf(g_mime_part_get_content_location(part))), std::move(bytes)});
        }
    }
    return pictures;
}

/// Passes over an element of HTML whose content is not shown. @return its end
std::size_t behindHiddenElement(std::string_view html, std::size_t open, std::string_view name) {
    const std::string end = "</" + std::string(name);
    for (std::size_t at = html.find("</", open); at != std::string_view::npos; at = html.find("</", at + 2)) {
        if (startsWithNoCase(html.substr(at), end)) {
            return at;
        }
    }
    return html.size();
}

/// True for HTML of which nothing but white space is seen.
bool showsNothing(std::string_view html) {
    constexpr std::string_view kBlank = "&nbsp;";
    std::size_t at = 0;
    while (at < html.size()) {
        const std::string_view rest = html.substr(at);
        if (rest.front() == '<') {
            const std::string_view tag = rest.substr(0, rest.find('>'));
            if (startsWithNoCase(tag, "<img") || tag.find("background") != std::string_view::npos) {
                return false;
            }
            for (const std::string_view name : {"head", "style", "title"}) {
                at = startsWithNoCase(rest.substr(1), name) ? behindHiddenElement(html, at, name) : at;
            }
            at = std::min(html.find('>', at), html.size() - 1) + 1;
        } else if (rest.starts_with(kBlank)) {
            at += kBlank.size();
        } else if (rest.front() == ' ' || (rest.front() >= '\t' && rest.front() <= '\r')) {
            ++at;
        } else {
            return false;
        }
    }
    return true;
}

/// Decodes only where the bytes leave it open: a visible ASCII character is one in every charset, unless a control character
/// switches to another.
bool isBlank(const Text& text) {
    const auto has = [&text](char c) { return text.bytes.find(c) != std::string::npos; };
    const auto isSeen = [](unsigned char c) { return c > ' ' && c < 0x7F; };
    const auto seen = std::ranges::find_if(text.bytes, isSeen);
    const bool beginsInAscii = !text.bytes.empty() && static_cast<unsigned char>(text.bytes.front()) < 0x80;
    if (seen != text.bytes.end() && !has('\0') && !has('\x1B') &&
        (text.kind == TextKind::Plain || (beginsInAscii && !showsNothing(text.bytes)))) {
        return false;
    }
    const std::string utf8 = utf8Of(text);
    return text.kind == TextKind::Html ? showsNothing(utf8) : utf8.find_first_not_of(" \t\r\n") == std::string::npos;
}

Content readObject(GMimeObject* object, int depth);

Content readLeaf(GMimePart* part) {
    Content content;
    GMimeContentType* type = g_mime_object_get_content_type(GMIME_OBJECT(part));
    const auto isType = [type](const char* kind, const char* subtype) {
        return g_mime_content_type_is_type(type, kind, subtype) != 0;
    };
    if (isType("image", "*") || isType("application", "octet-stream")) {
        content.pictures.push_back(part);
        return content;
    }
    const bool isHtml = isType("text", "html") || isType("application", "xhtml+xml");
    if (!isHtml && !isType("text", "*") && !isType("message", "*")) {
        return content;
    }
    const bool isShown = (isHtml || isType("text", "plain")) && g_mime_part_is_attachment(part) == 0;
    if (Text text{isHtml ? TextKind::Html : TextKind::Plain, part, decodedContent(part)}; !isBlank(text)) {
        (isShown ? content.texts : content.reserve).push_back(std::move(text));
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

/// Of parts that belong together the one that the others are for: the one that the field names, or the first with a text.
Content readRelated(GMimeMultipart* multipart, int depth) {
    const std::string start = textOf(g_mime_object_get_content_type_parameter(GMIME_OBJECT(multipart), "start"));
    const std::string root = start.starts_with('<') && start.ends_with('>') ? start.substr(1, start.size() - 2) : start;
    Content content;
    std::vector<Text> texts;
    const int count = g_mime_multipart_get_count(multipart);
    for (int at = 0; at < count; ++at) {
        GMimeObject* part = g_mime_multipart_get_part(multipart, at);
        content.append(readObject(part, depth));
        const bool isRoot = !root.empty() && textOf(g_mime_object_get_content_id(part)) == root;
        if (!content.texts.empty() && (texts.empty() || isRoot)) {
            texts = std::move(content.texts);
        }
        content.texts.clear();
    }
    content.texts = std::move(texts);
    return content;
}

Content readMultipart(GMimeMultipart* multipart, int depth) {
    GMimeContentType* type = g_mime_object_get_content_type(GMIME_OBJECT(multipart));
    if (g_mime_content_type_is_type(type, "multipart", "alternative")) {
        return readAlternative(multipart, depth);
    }
    if (g_mime_content_type_is_type(type, "multipart", "related")) {
        return readRelated(multipart, depth);
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

bool isSameLetter(char a, char b) {
    return g_ascii_tolower(a) == b;
}

/// The filter puts the header lines behind the body's start tag, and refuses HTML in which that has no end.
void endBodyTag(std::string& html) {
    constexpr std::string_view kBody = "<body";
    const auto body = std::search(html.begin(), html.end(), kBody.begin(), kBody.end(), isSameLetter);
    if (body != html.end() && std::find(body, html.end(), '>') == html.end()) {
        html += '>';
    }
}

/// Several texts as one: HTML when one of them is.
DecodedText joined(const std::vector<Text>& texts) {
    if (texts.size() == 1) {
        DecodedText only{texts.front().kind, utf8Of(texts.front())};
        if (only.kind == TextKind::Html) {
            endBodyTag(only.utf8);
        }
        return only;
    }
    const bool isHtml = std::any_of(texts.begin(), texts.end(), [](const Text& text) { return text.kind == TextKind::Html; });
    DecodedText all{isHtml ? TextKind::Html : TextKind::Plain, {}};
    for (const Text& text : texts) {
        const std::string utf8 = utf8Of(text);
        if (!isHtml) {
            all.utf8 += utf8;
            all.utf8 += utf8.ends_with('\n') ? "\n" : "\n\n";
        } else if (text.kind == TextKind::Html) {
            all.utf8 += "<div>" + utf8 + "</div>\n";
        } else {
            all.utf8 += "<pre style=\"white-space:pre-wrap\">" + escaped(utf8) + "</pre>\n";
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

/// The filter looks for the words of the fields about content in all fields, in which a stranger may have put them.
std::string withoutContentWords(const std::string& value) {
    const auto holds = [&value](std::string_view word) {
        return std::search(value.begin(), value.end(), word.begin(), word.end(), isSameLetter) != value.end();
    };
    if (!holds("content-") && !holds("boundary") && !holds("charset")) {
        return value;
    }
    const OwnedText decoded(g_mime_utils_header_decode_text(nullptr, value.c_str()));
    const std::string_view text = decoded.get();
    const OwnedText encoded(g_base64_encode(reinterpret_cast<const guchar*>(text.data()), text.size()));
    return "=?utf-8?B?" + std::string(encoded.get()) + "?=";
}

std::string fieldLines(GMimeMessage* message) {
    GMimeHeaderList* headers = g_mime_object_get_header_list(GMIME_OBJECT(message));
    std::string lines;
    for (const char* name : kFields) {
        GMimeHeader* header = g_mime_header_list_get_header(headers, name);
        const std::string value = header != nullptr ? fieldValue(g_mime_header_get_raw_value(header)) : std::string();
        if (!value.empty()) {
            lines += std::string(name) + ": " + withoutContentWords(value) + "\r\n";
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

std::string textFields(const DecodedText& text) {
    return std::string("Content-Type: text/") + (text.kind == TextKind::Html ? "html" : "plain") +
           "; charset=\"utf-8\"\r\nContent-Transfer-Encoding: base64\r\n";
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

/// The fields that tell of the content stand first, where the filter finds them before any word of a stranger.
std::string write(const std::string& fields, const DecodedText& text, const std::vector<Picture>& pictures) {
    // Base64 has no underscore, and the header fields stand in front of the first delimiter.
    constexpr std::string_view kBoundary = "_ternview_part_";
    std::string out = "MIME-Version: 1.0\r\n";
    if (text.kind == TextKind::Plain || pictures.empty()) {
        return out + textFields(text) + fields + "\r\n" + base64Lines(text.utf8);
    }
    const std::string delimiter = "\r\n--" + std::string(kBoundary);
    out += "Content-Type: multipart/related; boundary=\"" + std::string(kBoundary) + "\"\r\n" + fields;
    out += delimiter + "\r\n" + textFields(text) + "\r\n" + base64Lines(text.utf8);
    for (std::size_t at = 0; at < pictures.size(); ++at) {
        out += delimiter + "\r\n" + picturePart(pictures[at], at);
    }
    return out + delimiter + "--\r\n";
}

/// True for a field with so many beginnings of encoded words that GMime, which looks for the end of each, would take its time.
bool hasEndlessWords(std::string_view message) {
    constexpr std::size_t kMostWords = 4096;
    std::size_t words = 0;
    for (std::size_t at = 0; at + 1 < message.size(); ++at) {
        const char next = message[at + 1];
        if (message[at] == '\n' && next != ' ' && next != '\t') {
            words = 0;
        } else if (message[at] == '=' && next == '?' && ++words > kMostWords) {
            return true;
        }
    }
    return false;
}

/// @return null also for a message that is not worth its time
Ref<GMimeMessage> parse(std::string_view bytes) {
    if (hasEndlessWords(bytes)) {
        return {};
    }
    static const bool isReady = (g_mime_init(), true);
    static_cast<void>(isReady);
    const Ref<GMimeStream> stream(g_mime_stream_mem_new_with_buffer(bytes.data(), bytes.size()));
    const Ref<GMimeParser> parser(g_mime_parser_new_with_stream(stream.get()));
    return Ref<GMimeMessage>(g_mime_parser_construct_message(parser.get(), nullptr));
}

bool isMail(GMimeMessage* message) {
    GMimeObject* part = g_mime_message_get_mime_part(message);
    return std::any_of(kFieldsOfMail.begin(), kFieldsOfMail.end(), [message, part](const char* name) {
        return g_mime_object_get_header(GMIME_OBJECT(message), name) != nullptr ||
               (part != nullptr && g_mime_object_get_header(part, name) != nullptr);
    });
}

/// The message again, with a Content-Type that tells what its body holds: parts behind another boundary than the declared one, or
/// plain text. Empty when the declared type is neither of the two.
std::string redeclared(std::string_view message, GMimeObject* object) {
    const auto field = [object](const char* name) {
        return object != nullptr ? fieldValue(g_mime_object_get_header(object, name)) : std::string();
    };
    const std::string type = field("Content-Type");
    const bool isMultipart = startsWithNoCase(type, "multipart/");
    const bool isText = type.find('/') == std::string::npos || startsWithNoCase(type, "text/");
    if (!isMultipart && !isText) {
        return {};
    }
    const std::string_view body = bodyBehindHeader(message);
    const std::string_view boundary = boundaryInUse(body);
    std::string fields;
    if (!boundary.empty()) {
        fields = "Content-Type: multipart/mixed; boundary=\"" + std::string(boundary) + "\"\n";
    } else if (isMultipart && (body.starts_with("--") || body.find("\n--") != std::string_view::npos)) {
        return {};  // delimiters with nothing between them
    } else if (const std::string encoding = field("Content-Transfer-Encoding"); isText && !encoding.empty()) {
        fields = "Content-Transfer-Encoding: " + encoding + "\n";
    }
    return fields + "\n" + std::string(body);
}

/// The part that is taken by a reader which keeps one text of each kind, attached or not, and prefers HTML.
const GMimePart* lastTextPart(GMimeObject* object, const char* subtype, int depth) {
    if (object == nullptr || depth >= kDeepest) {
        return nullptr;
    }
    if (GMIME_IS_PART(object)) {
        return g_mime_content_type_is_type(g_mime_object_get_content_type(object), "text", subtype) != 0 ? GMIME_PART(object)
                                                                                                         : nullptr;
    }
    const GMimePart* found = nullptr;
    if (GMIME_IS_MULTIPART(object)) {
        for (int at = g_mime_multipart_get_count(GMIME_MULTIPART(object)) - 1; at >= 0 && found == nullptr; --at) {
            found = lastTextPart(g_mime_multipart_get_part(GMIME_MULTIPART(object), at), subtype, depth + 1);
        }
    }
    return found;
}

}  // namespace

bool losesText(std::string_view message) {
    const Ref<GMimeMessage> parsed = parse(message);
    GMimeObject* object = parsed ? g_mime_message_get_mime_part(parsed.get()) : nullptr;
    const Content content = readObject(object, 0);
    if (std::ranges::any_of(content.texts, needsItsCharset)) {
        return true;
    }
    if (object == nullptr || !GMIME_IS_MULTIPART(object)) {
        return false;
    }
    const GMimePart* html = lastTextPart(object, "html", 0);
    const GMimePart* taken = html != nullptr ? html : lastTextPart(object, "plain", 0);
    return content.texts.size() > 1 || (content.texts.size() == 1 && content.texts.front().part != taken);
}

std::optional<CanonicalMessage> canonicalMessage(std::string_view original) {
    std::string common;
    if (hasForeignForm(original)) {
        common = inCommonForm(original);
    }
    const std::string_view message = common.empty() ? original : common;
    const Ref<GMimeMessage> parsed = parse(message);
    if (!parsed) {
        return std::nullopt;
    }
    const std::string fields = fieldLines(parsed.get());
    if (fields.empty() && !isMail(parsed.get())) {
        return std::nullopt;
    }
    GMimeObject* object = g_mime_message_get_mime_part(parsed.get());
    Content content = readObject(object, 0);
    Ref<GMimeMessage> parsedAgain;
    if (content.texts.empty() && content.reserve.empty()) {
        if (const std::string again = redeclared(message, object); !again.empty()) {
            parsedAgain = parse(again);
            content = parsedAgain ? readObject(g_mime_message_get_mime_part(parsedAgain.get()), 0) : Content{};
        }
    }
    std::vector<Text>& texts = content.texts.empty() ? content.reserve : content.texts;
    if (texts.empty()) {
        return fields.empty()
                   ? std::nullopt
                   : std::optional(CanonicalMessage{write(fields, {TextKind::Plain, std::string(kNoTextNotice)}, {}), false});
    }
    return CanonicalMessage{write(fields, joined(texts), readPictures(content.pictures)), true};
}

}  // namespace ternview
