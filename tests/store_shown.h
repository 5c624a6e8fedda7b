// What the host sees of a message of a store, stores with blocks that cannot be read, and the header block as it stands in
// front of a message of a store.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "filter_host.h"
#include "store_builder.h"

namespace store_shown {

inline constexpr std::uint32_t kEnglish = 0x0409;
inline constexpr std::uint32_t kGerman = 0x0407;
inline constexpr builder::Layout kBothLayouts[] = {builder::Layout::Unicode, builder::Layout::Ansi};

inline const char* NameOf(builder::Layout layout) {
    return layout == builder::Layout::Unicode ? "Unicode" : "ANSI";
}

/// A store without allocation maps, which nothing here reads, so that a test of many stores stays quick.
class TestStore : public builder::StoreBuilder {
public:
    explicit TestStore(builder::Layout layout = builder::Layout::Unicode, std::size_t pageEntries = 0)
        : StoreBuilder(optionsFor(layout, pageEntries)) {}

    builder::Layout layout() const { return options().layout; }
    /// Whoever reads this block or page of the finished store finds a wrong signature.
    void spoil(const std::string& place) {
        damage([place](builder::StoreImage& image) { image.damage("trailer of " + place, 2, {1, 2}); });
    }
    void spoilNode(builder::NodeId id) { spoil("block of " + builder::StoreWriter::nodeName(id)); }
    void spoilSubnode(builder::NodeId subnode, builder::NodeId id) {
        spoil("block of sub" + builder::StoreWriter::nodeName(subnode) + " of " + builder::StoreWriter::nodeName(id));
    }
    void damage(std::function<void(builder::StoreImage&)> step) { m_damage.push_back(std::move(step)); }

    std::string finished() const {
        builder::StoreImage damaged = image();
        for (const auto& step : m_damage) {
            step(damaged);
        }
        return {damaged.bytes().begin(), damaged.bytes().end()};
    }

private:
    static builder::LayoutOptions optionsFor(builder::Layout layout, std::size_t pageEntries) {
        builder::LayoutOptions options{layout, builder::Encoding::Permutative};
        options.pageEntries = pageEntries;
        options.allocationMaps = builder::AllocationMaps::None;
        return options;
    }

    std::vector<std::function<void(builder::StoreImage&)>> m_damage{};
};

struct Request {
    std::int32_t number = 1;
    Route route = Route::Memory;
    bool plainText = false;
    std::uint32_t language = kEnglish;
};

struct StoreShown : Shown {
    std::int32_t index = 0;   // 0-based, as the filter gives it back
    std::uint32_t count = 0;  // messages of the store
};

/// Calls both exports, which must agree and leave nothing behind.
inline StoreShown ShowStore(const std::string& store, const Request& request = {}) {
    FilterHost host(store, request.route);
    TbHostSetUiLanguage(request.language);
    host.infoRequest.messageNumber = host.loadRequest.messageNumber = request.number;
    host.infoRequest.plainTextOnly = host.loadRequest.plainTextOnly = request.plainText ? 1 : 0;
    StoreShown shown;
    shown.status = host.info();
    shown.format = host.delivery.info.format;
    shown.document = host.delivery.document;
    shown.pictures = host.delivery.files;
    shown.index = host.infoRequest.messageNumber;
    shown.count = host.fileInfo.messageCount;
    if (shown.status == ternkit::kOk) {
        EXPECT_EQ(Value(host.fileInfo.format), ternkit::kFormatPst);
        const bool fromFile = request.route == Route::TemporaryFiles && shown.format == ternkit::kFormatHtml;
        EXPECT_EQ(host.delivery.loader, fromFile ? "loadInfoFromFile" : "loadInfoFromMemory");
    }
    EXPECT_EQ(host.load(), shown.status);
    EXPECT_EQ(Value(host.delivery.info.format), shown.format);
    EXPECT_TRUE(host.delivery.document == shown.document) << "the two exports make different documents";
    EXPECT_EQ(host.delivery.files, shown.pictures);
    TbHostSetUiLanguage(0);
    return shown;
}

/// Fields of a message that has nothing to show in its header block.
inline builder::MessageFields Bare() {
    builder::MessageFields fields;
    fields.subject = "";
    fields.senderName = "";
    fields.submitTime.reset();
    return fields;
}

inline std::string HtmlRow(const std::string& label, const std::string& value) {
    return "\n<table style = 'border-collapse: collapse ; table-layout: fixed; width: 100%'><tr><td style = 'width:87pt; "
           "padding: 0px; vertical-align:top'><b><span style = 'font-family:\"Calibri\",\"sans-serif\";"
           "mso-bidi-font-family:Calibri; color:black'>" +
           label +
           "</span></b></td><td style = 'padding: 0px'><span style = 'font-family:\"Calibri\",\"sans-serif\";"
           "mso-bidi-font-family:Calibri; color:black; word-wrap: break-word;'>" +
           value + "</span></td></tr></table>\r\n";
}

inline std::string RtfRow(const std::string& label, const std::string& value) {
    return "\r{\\rtlch\\fcs1 \\ab\\af37 \\ltrch\\fcs0 \\b\\cf0\\insrsid5716485 " + label +
           "\\tab }{\\rtlch\\fcs1 \\af37 \\ltrch\\fcs0 \\cf0 " + value + "\\insrsid5716485 \\par }\r\n";
}

inline std::string TextRow(const std::string& label, const std::string& value) {
    return label + "\t" + value + "\r\n";
}

inline const std::string kHtmlSeparator = "<p class=MsoNormal><o:p>&nbsp;</o:p></p>";
inline const std::string kRtfSeparator =
    "\\pard \\ltrpar\\ql \\li0\\ri0\\widctlpar\\wrapdefault\\aspalpha\\aspnum\\faauto\\adjustright\\rin0\\lin0\\itap0 "
    "{\\rtlch\\fcs1 \\af1 \\ltrch\\fcs0 \\insrsid5716485 \\par }";

inline std::string Html(const std::string& text) {
    return "<html>" + text + "</html>";
}

/// The bytes of a plain text document.
inline std::string Utf16(std::u16string_view text) {
    std::string bytes = "\xFF\xFE";
    for (const char16_t unit : text) {
        bytes.push_back(static_cast<char>(unit & 0xFF));
        bytes.push_back(static_cast<char>(unit >> 8));
    }
    return bytes;
}

}  // namespace store_shown
