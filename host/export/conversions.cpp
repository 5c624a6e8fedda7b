#include "export/conversions.h"

#include <ternkit/formats.h>

#include <optional>

#include "export/browser_page.h"
#include "export/readable_text.h"
#include "loaders/html_charset.h"
#include "loaders/rtf_loader.h"
#include "loaders/text_encoding.h"

namespace ternview {
namespace {

constexpr std::size_t kMaxHtmlBytes = std::size_t{512} << 20;
// The suite tells the margins below paragraphs, and those above only where there are any. Browsers add their own.
constexpr char kOfficeStyle[] = "<style>p{margin-top:0}</style>";

DecodedHtml decode(std::string_view html) {
    if (html.size() > kMaxHtmlBytes) {
        throw LoadError("The message is too large to be shown.");
    }
    return decodeHtml(html);
}

std::string pageOfHtml(std::string_view html, const std::optional<std::filesystem::path>& directory, std::string_view title) {
    const DecodedHtml decoded = decode(html);
    return browserPage(decoded.text, EmbeddedPictures(HtmlPictureData(directory, decoded.charset)), title);
}

[[noreturn]] void refuse(std::uint32_t format) {
    throw LoadError("its text has the format " + std::to_string(format) + ", for which there is no conversion");
}

}  // namespace

std::string safeHtmlPage(const HandedDocument& document, std::string_view title) {
    switch (document.format) {
        case ternkit::kFormatHtml:
            return pageOfHtml(document.bytes, document.file ? std::optional(document.file->parent_path()) : std::nullopt, title);
        case ternkit::kFormatRtf:
            return pageOfHtml(kOfficeStyle + convertRtf(document.bytes, {}, OfficeTarget::kHtml), std::nullopt, title);
        case ternkit::kFormatText:
            return browserPageOfText(decodeText(document.bytes), title);
        default:
            refuse(document.format);
    }
}

std::string plainText(const HandedDocument& document) {
    std::string text;
    switch (document.format) {
        case ternkit::kFormatHtml:
            return readableText(decode(document.bytes).text);
        case ternkit::kFormatRtf:
            text = decodeText(convertRtf(document.bytes, {}, OfficeTarget::kText));
            break;
        case ternkit::kFormatText:
            text = decodeText(document.bytes);
            break;
        default:
            refuse(document.format);
    }
    return text.ends_with('\n') ? text : text + '\n';
}

}  // namespace ternview
