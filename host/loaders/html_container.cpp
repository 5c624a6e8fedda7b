#include "html_container.h"

#include "html_bidi.h"
#include "html_elements.h"
#include "html_gradient.h"
#include "html_style_sheet.h"
#include "html_words.h"

#include <litehtml/litehtml.h>

#include <algorithm>
#include <cmath>
#include <type_traits>

namespace ternview {
namespace {

constexpr double kHuge = 1e9;
constexpr int kSmallestFrame = 20;  // of a missing picture
constexpr int kFramePadding = 4;
constexpr int kMaxFrameLines = 10;
constexpr std::size_t kLongestGradientName = 10;  // up to the word that all have in common
constexpr std::size_t kMaxTexts = 4'000'000;
constexpr std::size_t kMaxOtherItems = 300'000;  // each inline element may have a background in each line

Box boxOf(const litehtml::position& position) {
    return {static_cast<double>(position.x), static_cast<double>(position.y), static_cast<double>(position.width),
            static_cast<double>(position.height)};
}

Color colorOf(const litehtml::web_color& color) {
    const auto part = [](litehtml::byte value) { return static_cast<float>(value) / 255; };
    return {part(color.red), part(color.green), part(color.blue), part(color.alpha)};
}

CornerRadii radiiOf(const litehtml::border_radiuses& r) {
    const auto corner = [](int x, int y) { return std::array<float, 2>{static_cast<float>(x), static_cast<float>(y)}; };
    return {corner(r.top_left_x, r.top_left_y), corner(r.top_right_x, r.top_right_y), corner(r.bottom_right_x, r.bottom_right_y),
            corner(r.bottom_left_x, r.bottom_left_y)};
}

/// @param litByOutset whether it is one of the sides that are lit when the box seems to stand out
BorderItem::Side sideOf(const litehtml::border& border, bool litByOutset) {
    BorderItem::Style style = BorderItem::Style::Solid;
    Color color = colorOf(border.color);
    switch (border.style) {
        case litehtml::border_style_none:
        case litehtml::border_style_hidden:
            style = BorderItem::Style::None;
            break;
        case litehtml::border_style_dotted:
            style = BorderItem::Style::Dotted;
            break;
        case litehtml::border_style_dashed:
            style = BorderItem::Style::Dashed;
            break;
        case litehtml::border_style_double:
            style = BorderItem::Style::Double;
            break;
        case litehtml::border_style_groove:
            style = BorderItem::Style::Groove;
            break;
        case litehtml::border_style_ridge:
            style = BorderItem::Style::Ridge;
            break;
        case litehtml::border_style_inset:
            color = litByOutset ? color : litColor(color);
            break;
        case litehtml::border_style_outset:
            color = litByOutset ? litColor(color) : color;
            break;
        default:
            break;
    }
    return {style == BorderItem::Style::None ? 0.0F : static_cast<float>(border.width), style, color};
}

class Recorder final : public litehtml::document_container, public HtmlElementObserver {
public:
    Recorder(const SafeHtml& html, int width, int height, HtmlFonts& fonts, HtmlPictures& pictures)
        : m_html(html),
          m_width(width),
          m_height(height),
          m_fonts(fonts),
          m_pictures(pictures),
          m_frameFont(fonts.create({.families = "sans-serif", .size = 12})) {}

    RecordedHtml take() { return std::move(m_recorded); }

    // ---- fonts and text

    litehtml::uint_ptr create_font(const char* faceName, int size, int weight, litehtml::font_style italic,
                                   unsigned int decoration, litehtml::font_metrics* metrics) override {
        std::string families = faceName;
        const FontDetails details = takeFontDetails(families);
        HtmlFont* font = m_fonts.create({.families = std::move(families),
                                         .size = details.size > 0 ? details.size : size,
                                         .weight = weight,
                                         .italic = italic == litehtml::fontStyleItalic,
                                         .underline = (decoration & litehtml::font_decoration_underline) != 0,
                                         .strikeThrough = (decoration & litehtml::font_decoration_linethrough) != 0,
                                         .overline = (decoration & litehtml::font_decoration_overline) != 0,
                                         .letterSpacing = details.letterSpacing});
        if (metrics != nullptr) {
            metrics->ascent = font->ascent();
            metrics->descent = font->descent();
            metrics->height = font->height();
            metrics->x_height = font->xHeight();
            metrics->draw_spaces = decoration != 0;
        }
        return reinterpret_cast<litehtml::uint_ptr>(font);
    }
    void delete_font(litehtml::uint_ptr /*font*/) override {}  // recorded text goes on using it
    int text_width(const char* text, litehtml::uint_ptr font) override { return fontOf(font)->textWidth(text); }
    void draw_text(litehtml::uint_ptr /*device*/, const char* text, litehtml::uint_ptr font, litehtml::web_color color,
                   const litehtml::position& position) override {
        const double baseline = static_cast<double>(position.top()) + fontOf(font)->ascent();
        add(boxOf(position), TextItem{text, fontOf(font), faded(colorOf(color)), baseline});
    }
    int pt_to_px(int points) const override { return static_cast<int>(std::lround(points * 96.0 / 72)); }
    int get_default_font_size() const override { return 16; }
    const char* get_default_font_name() const override { return "Times New Roman, serif"; }

    void transform_text(litehtml::tstring& text, litehtml::text_transform transform) override {
        gchar* changed = nullptr;
        if (transform == litehtml::text_transform_uppercase) {
            changed = g_utf8_strup(text.c_str(), -1);
        } else if (transform == litehtml::text_transform_lowercase) {
            changed = g_utf8_strdown(text.c_str(), -1);
        } else if (transform == litehtml::text_transform_capitalize && !text.empty()) {
            const gchar* rest = g_utf8_next_char(text.c_str());
            gchar* first = g_utf8_strup(text.c_str(), rest - text.c_str());
            changed = g_strconcat(first, rest, nullptr);
            g_free(first);
        }
        if (changed != nullptr) {
            text = changed;
            g_free(changed);
        }
    }

    void split_text(const char* text, const std::function<void(const char*)>& onWord,
                    const std::function<void(const char*)>& onSpace) override {
        splitIntoPieces(text, onWord, onSpace);
    }

    // ---- pictures

    void load_image(const char* /*source*/, const char* /*base*/, bool /*redraw*/) override {}
    void get_image_size(const char* source, const char* /*base*/, litehtml::size& size) override {
        const PictureAddress* address = m_html.pictures.find(source);
        if (address == nullptr) {
            return;
        }
        if (isGradient(*address)) {
            size.width = size.height = 1;  // it fills its box, whatever is said of its size
        } else if (const Picture* picture = m_pictures.load(address->address)) {
            size.width = std::max(1, static_cast<int>(std::lround(picture->width)));
            size.height = std::max(1, static_cast<int>(std::lround(picture->height)));
        } else if (address->use == PictureAddress::Use::Element) {
            size = frameOf(*address, 0);
        }
    }

    void draw_background(litehtml::uint_ptr /*device*/, const litehtml::background_paint& paint) override {
        if (paint.color.alpha > 0 && paint.is_root) {
            m_recorded.pageColor = colorOf(paint.color);
        } else if (paint.color.alpha > 0) {
            add(boxOf(paint.clip_box), FillItem{faded(colorOf(paint.color)), radiiOf(paint.border_radius)});
        }
        const PictureAddress* address = m_html.pictures.find(paint.image);
        if (address == nullptr) {
            return;
        }
        if (isGradient(*address)) {
            if (auto gradient = m_othersLeft > 0 ? parseGradient(address->address) : std::nullopt) {
                m_othersLeft -= std::min(m_othersLeft, gradient->stops.size());
                gradient->radii = radiiOf(paint.border_radius);
                for (GradientItem::Stop& stop : gradient->stops) {
                    stop.color = faded(stop.color);
                }
                add(boxOf(paint.clip_box), std::make_unique<GradientItem>(std::move(*gradient)));
            }
            return;
        }
        const bool content = address->use == PictureAddress::Use::Element;
        if (const Picture* picture = m_pictures.load(address->address)) {
            const bool both = paint.repeat == litehtml::background_repeat_repeat;
            add(boxOf(paint.clip_box),
                std::make_unique<PictureItem>(
                    PictureItem{picture,
                                {static_cast<double>(paint.position_x), static_cast<double>(paint.position_y),
                                 static_cast<double>(paint.image_size.width), static_cast<double>(paint.image_size.height)},
                                !content && (both || paint.repeat == litehtml::background_repeat_repeat_x),
                                !content && (both || paint.repeat == litehtml::background_repeat_repeat_y),
                                radiiOf(paint.border_radius),
                                m_opacities.back(),
                                content ? PictureItem::Role::Content : PictureItem::Role::Background}));
        } else if (content) {
            add(boxOf(paint.clip_box), FrameItem{address->alternative, m_frameFont});
        }
    }

    void draw_borders(litehtml::uint_ptr /*device*/, const litehtml::borders& borders, const litehtml::position& position,
                      bool /*root*/) override {
        BorderItem item{
            {sideOf(borders.top, true), sideOf(borders.right, false), sideOf(borders.bottom, false), sideOf(borders.left, true)},
            radiiOf(borders.radius)};
        for (BorderItem::Side& side : item.sides) {
            side.color = faded(side.color);
        }
        if (std::ranges::any_of(item.sides, [](const BorderItem::Side& side) { return side.width > 0; })) {
            add(boxOf(position), std::make_unique<BorderItem>(item));
        }
    }

    void draw_list_marker(litehtml::uint_ptr /*device*/, const litehtml::list_marker& marker) override {
        MarkerItem::Shape shape = MarkerItem::Shape::Disc;
        if (marker.marker_type == litehtml::list_style_type_circle) {
            shape = MarkerItem::Shape::Circle;
        } else if (marker.marker_type == litehtml::list_style_type_square) {
            shape = MarkerItem::Shape::Square;
        } else if (marker.marker_type != litehtml::list_style_type_disc) {
            return;
        }
        add(boxOf(marker.pos), MarkerItem{shape, faded(colorOf(marker.color))});
    }

    // ---- clipping

    void set_clip(const litehtml::position& position, const litehtml::border_radiuses& /*radii*/, bool validX,
                  bool validY) override {
        Box box = boxOf(position);
        if (!validX) {
            box.x = -kHuge;
            box.width = 2 * kHuge;
        }
        if (!validY) {
            box.y = -kHuge;
            box.height = 2 * kHuge;
        }
        m_clips.push_back(box.intersected(m_clips.back()));
    }
    void del_clip() override {
        if (m_clips.size() > 1) {
            m_clips.pop_back();
        }
    }

    // ---- the page, and what a document on paper has no use for

    void get_client_rect(litehtml::position& client) const override { client = litehtml::position(0, 0, m_width, m_height); }
    void get_media_features(litehtml::media_features& media) const override {
        // A mail is made for the screen of a mail reader; rules for printing would hide or change what its reader saw.
        media.type = litehtml::media_type_screen;
        media.width = media.device_width = m_width;
        media.height = media.device_height = m_height;
        media.color = 8;
        media.resolution = 96;
    }
    void get_language(litehtml::tstring& language, litehtml::tstring& culture) const override {
        language = "en";
        culture.clear();
    }
    std::shared_ptr<litehtml::element> create_element(const char* name, const litehtml::string_map& /*attributes*/,
                                                      const std::shared_ptr<litehtml::document>& document) override {
        return createHtmlElement(name, document, *this);
    }
    void import_css(litehtml::tstring& text, const litehtml::tstring& /*url*/, litehtml::tstring& /*base*/) override {
        text.clear();
    }
    void set_caption(const char* /*caption*/) override {}
    void set_base_url(const char* /*base*/) override {}
    void link(const std::shared_ptr<litehtml::document>& /*document*/, const litehtml::element::ptr& /*element*/) override {}
    void on_anchor_click(const char* /*url*/, const litehtml::element::ptr& /*element*/) override {}
    void set_cursor(const char* /*cursor*/) override {}

private:
    void enterLink(std::size_t number) override { m_link = static_cast<std::uint32_t>(number) + 1; }
    void leaveLink() override { m_link = 0; }
    void enterOpacity(float opacity) override { m_opacities.push_back(m_opacities.back() * opacity); }
    void leaveOpacity() override { m_opacities.pop_back(); }

    Color faded(Color color) const {
        color.alpha *= m_opacities.back();
        return color;
    }

    std::optional<litehtml::size> frameSize(const char* source, int width) override {
        const PictureAddress* address = m_html.pictures.find(source);
        const bool missing = address != nullptr && m_pictures.load(address->address) == nullptr;
        return missing ? std::optional(frameOf(*address, width)) : std::nullopt;
    }

    /// With room for its text, in several lines when the width is given.
    litehtml::size frameOf(const PictureAddress& address, int width) {
        const int text = address.alternative.empty() ? 0 : m_frameFont->textWidth(address.alternative) + 2 * kFramePadding;
        litehtml::size size;
        size.width = std::clamp(width > 0 ? width : text, kSmallestFrame, std::max(m_width, kSmallestFrame));
        const int lines = (text + size.width - 1) / std::max(size.width - 2 * kFramePadding, 1);
        size.height = std::max(kSmallestFrame, std::clamp(lines, 1, kMaxFrameLines) * m_frameFont->height() + kFramePadding);
        return size;
    }

    static bool isGradient(const PictureAddress& address) {
        return address.use == PictureAddress::Use::Background && address.address.find("gradient(") < kLongestGradientName;
    }
    static HtmlFont* fontOf(litehtml::uint_ptr font) { return reinterpret_cast<HtmlFont*>(font); }

    template <typename Content>
    void add(const Box& box, Content content) {
        std::size_t& left = std::is_same_v<Content, TextItem> ? m_textsLeft : m_othersLeft;
        if (left > 0 && !box.intersected(m_clips.back()).empty()) {
            --left;
            m_recorded.items.push_back({.box = box, .clip = m_clips.back(), .content = std::move(content), .link = m_link});
        }
    }

    const SafeHtml& m_html;
    int m_width;
    int m_height;
    HtmlFonts& m_fonts;
    HtmlPictures& m_pictures;
    HtmlFont* m_frameFont;
    RecordedHtml m_recorded;
    std::size_t m_textsLeft = kMaxTexts;
    std::size_t m_othersLeft = kMaxOtherItems;
    std::uint32_t m_link = 0;
    std::vector<float> m_opacities{1.0F};
    std::vector<Box> m_clips{Box{-kHuge, -kHuge, 2 * kHuge, 2 * kHuge}};
};

/// Of the parts of the body, where their borders and backgrounds start.
std::vector<double> outermostTops(const litehtml::element::ptr& root) {
    std::vector<double> tops;
    for (std::size_t i = 0; root != nullptr && i < root->get_children_count(); ++i) {
        const litehtml::element::ptr body = root->get_child(static_cast<int>(i));
        for (std::size_t k = 0; k < body->get_children_count(); ++k) {
            const litehtml::element::ptr part = body->get_child(static_cast<int>(k));
            if (!part->is_inline_box()) {
                tops.push_back(part->get_placement().y - part->padding_top() - part->border_top());
            }
        }
    }
    return tops;
}

}  // namespace

RecordedHtml recordHtml(const SafeHtml& html, int width, int height, HtmlFonts& fonts, HtmlPictures& pictures) {
    Recorder recorder(html, width, height, fonts, pictures);
    litehtml::context context;
    std::string master = kHtmlStyleSheet;
    if (html.mode == SafeHtml::Mode::Quirks) {
        master += kHtmlQuirksStyleSheet;
    }
    if (html.demands.rightToLeft) {
        master += kHtmlRightToLeftStyleSheet;
    }
    context.load_master_stylesheet(master.c_str());
    const litehtml::document::ptr document = litehtml::document::createFromUTF8(html.html.c_str(), &recorder, &context);
    if (document == nullptr) {
        return recorder.take();
    }
    if (html.mode == SafeHtml::Mode::Quirks) {
        applyLineQuirks(document->root());
    }
    if (html.demands.rightToLeft) {
        prepareDirections(document->root());
    }
    document->render(width);
    if (html.demands.rightToLeft) {
        orderLines(document->root());
    }
    document->draw(0, 0, 0, nullptr);
    RecordedHtml recorded = recorder.take();
    recorded.tops = outermostTops(document->root());
    return recorded;
}

}  // namespace ternview
