#include "repair/canonical_message.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <memory>
#include <utility>
#include <vector>

#include "loaders/html_charset.h"
#include "loaders/text_encoding.h"
#include "repair/ascii_case.h"
#include "repair/blank_html.h"
#include "repair/gmime_values.h"
#include "repair/lenient_form.h"
#include "repair/message_pictures.h"
#include "utf.h"

namespace ternview {
namespace {

constexpr int kDeepest = 100;
constexpr std::string_view kUtf8Mark = "\xEF\xBB\xBF";
constexpr std::string_view kNoTextNotice = "(This message has no text.)\r\n";
constexpr std::array kFields{"From", "To", "Cc", "Bcc", "Subject", "Date", "Importance"};
/// Fields that the document does not show, and that still tell a mail from any other text.
constexpr std::array kFieldsOfMail{"Received",   "Return-Path",  "Delivered-To", "Reply-To",
                                   "Message-ID", "MIME-Version", "Content-Type"};

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

/// A charset that writes other letters with seven bits, behind a sign that switches to them.
struct SevenBitCharset {
    std::string_view name;
    std::string_view sign;
    const char* iconvName;
};

constexpr std::string_view kHzOpen = "~{";
constexpr SevenBitCharset kSevenBitCharsets[] = {
    {"utf-7", "+", "UTF-7"},
    {"unicode-1-1-utf-7", "+", "UTF-7"},
    {"iso-2022-kr", "\x1B", "ISO-2022-KR"},
    {"iso-2022-cn", "\x1B", "ISO-2022-CN"},
    {"hz-gb-2312", kHzOpen, "GB18030"},  // of the eight-bit form
};

const SevenBitCharset* sevenBitCharset(std::string_view declared) {
    const auto found = std::ranges::find_if(kSevenBitCharsets, [declared](const SevenBitCharset& charset) {
        return declared.size() == charset.name.size() && startsWithNoCase(declared, charset.name);
    });
    return found == std::end(kSevenBitCharsets) ? nullptr : found;
}

/// Text in HZ (RFC 1843) with the eighth bit of what stands between its signs.
std::string eightBitForm(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    bool isChinese = false;
    for (std::size_t at = 0; at < text.size(); ++at) {
        const std::string_view sign = text.substr(at, 2);
        if (sign == kHzOpen || sign == "~}") {
            isChinese = sign == kHzOpen;
            ++at;
        } else if (!isChinese && (sign == "~~" || sign == "~\n")) {
            out += sign == "~~" ? "~" : "";
            ++at;
        } else {
            isChinese = isChinese && text[at] != '\n';
            out += static_cast<char>(isChinese && text[at] > ' ' ? text[at] | '\x80' : text[at]);
        }
    }
    return out;
}

/// In the declared charset when the bytes are text in it; nothing otherwise.
std::optional<std::string> fromDeclaredCharset(const std::string& text, const char* charset) {
    if (charset == nullptr || *charset == '\0') {
        return std::nullopt;
    }
    const SevenBitCharset* sevenBit = sevenBitCharset(charset);
    const std::string bytes = sevenBit != nullptr && sevenBit->sign == kHzOpen ? eightBitForm(text) : text;
    for (const std::string& name : {sevenBit != nullptr ? std::string(sevenBit->iconvName) : webCharset(charset),
                                    textOf(g_mime_charset_iconv_name(charset))}) {
        gsize written = 0;
        const OwnedText converted(
            g_convert(bytes.data(), static_cast<gssize>(bytes.size()), "UTF-8", name.c_str(), nullptr, &written, nullptr));
        if (converted) {
            return std::string(converted.get(), written);
        }
    }
    return std::nullopt;
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

/// Whether text has the sign of its charset, and, in UTF-7 (RFC 2152), nothing that the sign does not stand in front of there.
bool switchesLetters(const SevenBitCharset& charset, std::string_view bytes) {
    std::size_t at = bytes.find(charset.sign);
    const bool isFound = at != std::string_view::npos;
    for (; charset.sign == "+" && at != std::string_view::npos; at = bytes.find('+', at + 1)) {
        const char next = at + 1 < bytes.size() ? bytes[at + 1] : ' ';
        if (g_ascii_isalnum(next) == 0 && next != '+' && next != '/' && next != '-') {
            return false;
        }
    }
    return isFound;
}

/// Whether a declaration says more than the bytes do. Text that is valid UTF-8 is hardly anything else, and what has seven bits
/// is read without a declaration too, unless it is UTF-16 or switches to other letters.
bool canTell(std::string_view charset, std::string_view bytes) {
    const std::string name = webCharset(charset);
    if (bytes.find('\0') != std::string_view::npos) {
        return name.starts_with("utf-16");
    }
    if (const SevenBitCharset* sevenBit = sevenBitCharset(charset)) {
        return switchesLetters(*sevenBit, bytes);
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
    const std::string charset = declaredCharset(text);
    if (isHabit(charset) || (isReadAsUtf8 && !hasNuls && sevenBitCharset(charset) == nullptr)) {
        return false;
    }
    const std::optional<std::string> known = decodedAsDeclared(text);
    return known && *known != decode(text.kind, text.bytes);
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

/// The filter puts the header lines behind the body's start tag, and refuses HTML in which that has no end. Which of several it
/// takes depends on their letters; when the last one has an end, all have.
void endBodyTag(std::string& html) {
    constexpr std::string_view kBody = "<body";
    const auto body = std::find_end(html.begin(), html.end(), kBody.begin(), kBody.end(), isSameLetter);
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

/// @return of the encoded word (RFC 2047) at the start of the text; 0 when there is none
std::size_t encodedWordSize(std::string_view text) {
    const std::size_t charsetEnd = text.starts_with("=?") ? text.find('?', 2) : std::string_view::npos;
    if (charsetEnd == std::string_view::npos || charsetEnd + 2 >= text.size() || text[charsetEnd + 2] != '?') {
        return 0;
    }
    const std::size_t end = text.find('?', charsetEnd + 3);
    return end != std::string_view::npos && text.substr(end, 2) == "?=" ? end + 2 : 0;
}

/// White space between encoded words does not count (RFC 2047 6.2); the filter leaves it out at a fold only.
std::string withWordsJoined(std::string_view value) {
    std::string out;
    while (!value.empty()) {
        const std::size_t size = encodedWordSize(value);
        out += value.substr(0, std::max<std::size_t>(size, 1));
        value.remove_prefix(std::max<std::size_t>(size, 1));
        if (size != 0 && value.starts_with(' ') && encodedWordSize(value.substr(1)) != 0) {
            value.remove_prefix(1);
        }
    }
    return out;
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
            lines += std::string(name) + ": " + withWordsJoined(withoutContentWords(value)) + "\r\n";
        }
    }
    return lines;
}

std::string textFields(const DecodedText& text) {
    return std::string("Content-Type: text/") + (text.kind == TextKind::Html ? "html" : "plain") +
           "; charset=\"utf-8\"\r\nContent-Transfer-Encoding: base64\r\n";
}

std::string picturePart(const Picture& picture) {
    return "Content-Type: " + std::string(picture.type) + "; name=\"" + picture.ownName() +
           "\"\r\nContent-Transfer-Encoding: base64\r\nContent-ID: <" + picture.ownId() + ">\r\n\r\n" +
           base64Lines(picture.bytes);
}

/// The fields that tell of the content stand first, where the filter finds them before any word of a stranger.
std::string write(const std::string& fields, const DecodedText& text, const std::vector<const Picture*>& pictures) {
    // Base64 has no underscore, and the header fields stand in front of the first delimiter.
    constexpr std::string_view kBoundary = "_ternview_part_";
    std::string out = "MIME-Version: 1.0\r\n";
    if (pictures.empty()) {
        return out + textFields(text) + fields + "\r\n" + base64Lines(text.utf8);
    }
    const std::string delimiter = "\r\n--" + std::string(kBoundary);
    out += "Content-Type: multipart/related; boundary=\"" + std::string(kBoundary) + "\"\r\n" + fields;
    out += delimiter + "\r\n" + textFields(text) + "\r\n" + base64Lines(text.utf8);
    for (const Picture* picture : pictures) {
        out += delimiter + "\r\n" + picturePart(*picture);
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
    if (content.texts.size() != 1) {
        return content.texts.size() > 1;
    }
    const Text& text = content.texts.front();
    return text.part != taken || (text.kind == TextKind::Html && MessagePictures(content.pictures).areLostIn(text.bytes));
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
    DecodedText text = joined(texts);
    MessagePictures pictures(content.pictures);
    const auto named = text.kind == TextKind::Html ? pictures.rename(text.utf8) : std::vector<const Picture*>();
    return CanonicalMessage{write(fields, text, named), true};
}

}  // namespace ternview
