#include "repair/item_copy.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "external/pole/pole.h"
#include "loaders/html_charset.h"
#include "loaders/text_encoding.h"
#include "repair/ascii_case.h"
#include "repair/compound_writer.h"
#include "ternbase/windows.h"
#include "utf.h"

namespace ternview {
namespace {

constexpr std::uint64_t kLargestItem = std::uint64_t{128} << 20;

constexpr std::string_view kStreamLead = "__substg1.0_";
constexpr std::string_view kUnicodeType = "001F";
constexpr std::string_view kEightBitType = "001E";
constexpr std::string_view kBinaryType = "0102";

constexpr std::string_view kPlainBody = "1000";
constexpr std::string_view kRichBody = "1009";
constexpr std::string_view kHtmlBody = "1013";
// Subject, names and addresses of the sender, recipients.
constexpr std::array<std::string_view, 8> kHeaderTexts{"0037", "0C1A", "5D01", "0065", "004D", "0E04", "0E03", "0E02"};
constexpr std::string_view kPropertyStream = "__properties_version1.0";

constexpr std::string_view kAttachmentLead = "__attach_version1.0_#";
constexpr std::array<std::string_view, 2> kAttachmentTexts{"3704", "3712"};  // file name, content id
constexpr std::string_view kAttachmentBytes = "3701";

// Records of the property stream: type, id, four bytes of flags, value.
constexpr std::size_t kFirstRecord = 32;
constexpr std::size_t kRecordSize = 16;
constexpr std::size_t kRecordValue = 8;
constexpr std::uint32_t kMessageCodePage = 0x3FFD0003;
constexpr std::uint32_t kInternetCodePage = 0x3FDE0003;

constexpr std::uint32_t kWestern = 1252;

std::string streamName(std::string_view property, std::string_view type) {
    std::string name(kStreamLead);
    name.append(property);
    name.append(type);
    return name;
}

std::uint32_t numberAt(std::string_view bytes, std::size_t offset) {
    std::uint32_t value = 0;
    std::memcpy(&value, bytes.data() + offset, sizeof(value));
    return value;
}

/// Mail programs declare these and mean the superset of Windows.
std::optional<std::uint32_t> windowsPage(std::uint32_t declared) {
    switch (declared) {
        case 20127:
        case 28591:
            return kWestern;
        case 28599:
            return 1254;
        case 0:
        case 1200:
        case 1201:
        case 65001:
            return std::nullopt;  // of no 8-bit text, or of none that is not known for what it is without it
        default:
            return declared;
    }
}

std::optional<std::u16string> decoded(std::string_view text, std::uint32_t codePage) {
    std::u16string wide(text.size() * 2, u'\0');
    const int units =
        MultiByteToWideChar(codePage, 0, text.data(), static_cast<int>(text.size()), wide.data(), static_cast<int>(wide.size()));
    if (units <= 0) {
        return std::nullopt;
    }
    wide.resize(static_cast<std::size_t>(units));
    return wide;
}

std::string utf16Bytes(const std::u16string& text) {
    std::string bytes;
    bytes.reserve(text.size() * 2);
    for (const char16_t unit : text) {
        bytes += static_cast<char>(unit);
        bytes += static_cast<char>(unit >> 8);
    }
    return bytes;
}

std::string utf8Of(const std::u16string& text) {
    return utf8FromUtf16(utf16Bytes(text), ByteOrder::kLittleEndian);
}

/// A character as ASCII can name it. Nothing resolves references in a style sheet, which has escapes of its own (CSS 2.2, 4.1.3);
/// their backslash is escaped once more, for RTF.
std::string named(char32_t character, bool isInStyle) {
    std::array<char, 8> digits{};
    const auto number = static_cast<std::uint32_t>(character);
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), number, isInStyle ? 16 : 10).ptr;
    const std::string text(digits.data(), end);
    return isInStyle ? "\\'5c" + text + " " : "&#" + text + ";";
}

/// The HTML as rich text that an HTML message is wrapped in, stored without compression ([MS-OXRTFCP] 2.1.3.1). All of it is
/// ASCII: other characters are named, and what means something in RTF is escaped.
std::string wrappedHtml(std::string_view html) {
    std::string rtf = "{\\rtf1\\ansi\\ansicpg1252\\fromhtml1{\\*\\htmltag0 ";
    bool isInStyle = false;
    while (!html.empty()) {
        if (html.front() == '<') {
            isInStyle = isInStyle ? !startsWithNoCase(html, "</style") : startsWithNoCase(html, "<style");
        }
        const Utf8Step step = readUtf8(html);
        const std::string_view raw = html.substr(0, step.size);
        html.remove_prefix(step.size);
        if (step.character >= 0x80) {
            rtf += named(step.character, isInStyle);
        } else if (raw == "\n") {
            rtf += "\\par\r\n";
        } else if (raw == "\\") {
            rtf += "\\'5c";
        } else if (raw == "{" || raw == "}") {
            rtf += "\\";
            rtf += raw;
        } else if (raw != "\r" && raw != std::string_view("\0", 1)) {
            rtf += raw;
        }
    }
    rtf += "}}";

    constexpr std::size_t kSizeBehindFirstField = 12;
    const auto number = [](std::size_t value) {
        const auto small = static_cast<std::uint32_t>(value);
        return std::string(reinterpret_cast<const char*>(&small), sizeof(small));
    };
    return number(rtf.size() + kSizeBehindFirstField) + number(rtf.size()) + "MELA" + number(0) + rtf;
}

class Copier {
public:
    explicit Copier(ternkit::FileHandle handle) : file_(handle) { file_.open(); }

    std::optional<ItemCopy> copy(Attachments attachments, RichText richText) {
        root_ = file_.result == CompoundResult::Ok ? file_.findEntry("/") : nullptr;
        const std::optional<std::string> properties = root_ != nullptr ? read(*root_, kPropertyStream) : std::nullopt;
        if (!properties) {
            return std::nullopt;
        }
        readCodePages(*properties);
        const bool hasForeignTexts = copyTexts();
        const bool hasRichText = richText == RichText::kCopied && copyRichBody();
        const bool hasHtml = !hasRichText && copyHtmlBody();
        const bool isNeeded = richText == RichText::kCopied ? hasForeignTexts || hasHtml : hasHtml || hasPlainBody();
        if (!isNeeded) {
            return std::nullopt;
        }
        if (attachments == Attachments::kCopied) {
            copyAttachments();
        }
        contents_.streams.emplace(kPropertyStream, *properties);
        return ItemCopy{writeCompoundFile(contents_), !hasRichText && !hasHtml};
    }

private:
    std::optional<std::string> read(const DirectoryEntry& storage, std::string_view name) {
        const DirectoryEntry* entry = file_.findEntry(&storage, name);
        if (entry == nullptr || entry->isDirectory || size_ + entry->size > kLargestItem || !file_.claimBytes(entry->size)) {
            return std::nullopt;
        }
        size_ += entry->size;
        std::string bytes(entry->size, '\0');
        CompoundStream(file_, *entry).read(0, bytes.data(), bytes.size());
        return bytes;
    }

    void readCodePages(std::string_view properties) {
        for (std::size_t at = kFirstRecord; at + kRecordSize <= properties.size(); at += kRecordSize) {
            const std::uint32_t tag = numberAt(properties, at);
            if (tag == kMessageCodePage) {
                textPage_ = windowsPage(numberAt(properties, at + kRecordValue));
            } else if (tag == kInternetCodePage) {
                htmlPage_ = windowsPage(numberAt(properties, at + kRecordValue));
            }
        }
        textPage_ = textPage_ ? textPage_ : htmlPage_;
    }

    std::u16string unicodeOf(std::string_view text) const {
        if (isValidUtf8(text)) {
            return utf16FromUtf8(text);
        }
        const std::optional<std::u16string> wide = textPage_ ? decoded(text, *textPage_) : std::nullopt;
        return wide ? *wide : utf16FromUtf8(decodeText(text));
    }

    /// @return whether the text is of a kind that the filter would not show
    bool copyText(const DirectoryEntry& storage, std::string_view property, CompoundContents::Streams& target) {
        const std::string name = streamName(property, kUnicodeType);
        if (std::optional<std::string> unicode = read(storage, name)) {
            target.emplace(name, std::move(*unicode));
            return false;
        }
        const std::optional<std::string> text = read(storage, streamName(property, kEightBitType));
        if (!text || text->empty()) {
            return false;
        }
        const bool isUtf8 = isValidUtf8(*text);
        target.emplace(name, utf16Bytes(unicodeOf(*text)));
        return !isUtf8;
    }

    bool copyTexts() {
        bool isForeign = copyText(*root_, kPlainBody, contents_.streams);
        for (const std::string_view property : kHeaderTexts) {
            isForeign = copyText(*root_, property, contents_.streams) || isForeign;
        }
        return isForeign;
    }

    bool hasPlainBody() const {
        const auto body = contents_.streams.find(streamName(kPlainBody, kUnicodeType));
        return body != contents_.streams.end() && !body->second.empty();
    }

    bool copyRichBody() {
        std::optional<std::string> body = read(*root_, streamName(kRichBody, kBinaryType));
        return body && contents_.streams.emplace(streamName(kRichBody, kBinaryType), std::move(*body)).second;
    }

    bool copyHtmlBody() {
        std::string html;
        if (const auto binary = read(*root_, streamName(kHtmlBody, kBinaryType))) {
            const bool isDeclared = binary->find("charset") != std::string::npos;
            const auto wide = htmlPage_ && !isDeclared ? decoded(*binary, *htmlPage_) : std::nullopt;
            html = wide ? utf8Of(*wide) : decodeHtml(*binary).text;
        } else if (const auto unicode = read(*root_, streamName(kHtmlBody, kUnicodeType))) {
            html = utf8FromUtf16(*unicode, ByteOrder::kLittleEndian);
        } else if (const auto text = read(*root_, streamName(kHtmlBody, kEightBitType))) {
            html = utf8Of(unicodeOf(*text));
        }
        if (html.find('<') == std::string::npos) {
            return false;
        }
        contents_.streams.emplace(streamName(kRichBody, kBinaryType), wrappedHtml(html));
        return true;
    }

    void copyAttachments() {
        for (const DirectoryEntry& entry : file_.directory) {
            const bool isAttachment = entry.valid && entry.isDirectory && entry.text().starts_with(kAttachmentLead);
            // One of a message inside this one has the same name, and is not found from here.
            if (isAttachment && file_.findEntry(root_, entry.text()) == &entry) {
                copyAttachment(entry);
            }
        }
    }

    void copyAttachment(const DirectoryEntry& storage) {
        const std::string name = streamName(kAttachmentBytes, kBinaryType);
        CompoundContents::Streams& target = contents_.storages[std::string(storage.text())];
        for (const std::string_view property : kAttachmentTexts) {
            copyText(storage, property, target);
        }
        if (std::optional<std::string> bytes = read(storage, name)) {
            target.emplace(name, std::move(*bytes));
        }
    }

    CompoundFile file_;
    const DirectoryEntry* root_ = nullptr;
    std::optional<std::uint32_t> textPage_;
    std::optional<std::uint32_t> htmlPage_;
    std::uint64_t size_ = 0;  // bytes read
    CompoundContents contents_;
};

}  // namespace

std::optional<ItemCopy> itemCopy(ternkit::FileHandle file, Attachments attachments, RichText richText) {
    return Copier(file).copy(attachments, richText);
}

}  // namespace ternview
