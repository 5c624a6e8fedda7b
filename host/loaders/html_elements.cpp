#include "html_elements.h"

#include "html_mended.h"
#include "html_tables.h"

#include <litehtml/el_anchor.h>
#include <litehtml/el_body.h>
#include <litehtml/el_div.h>
#include <litehtml/el_font.h>
#include <litehtml/el_image.h>
#include <litehtml/el_para.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <optional>
#include <string_view>

namespace ternview {
namespace {

// Stand in the list of families for what the engine's fonts cannot say, followed by numbers in hundredths of a pixel.
constexpr std::string_view kDetails = ",details=";
constexpr double kDetailUnits = 100;
constexpr double kMaxLetterSpacing = 200;
constexpr std::string_view kRightToLeft = "\xE2\x80\xAB";
constexpr std::string_view kEndOfDirection = "\xE2\x80\xAC";

std::string latinNumber(int number, char first) {
    std::string text;
    for (; number > 0; number = (number - 1) / 26) {
        text.insert(text.begin(), static_cast<char>(first + (number - 1) % 26));
    }
    return text;
}

std::string romanNumber(int number) {
    struct Digit {
        int value;
        const char* text;
    };
    static constexpr std::array<Digit, 13> kDigits{{{1000, "m"},
                                                    {900, "cm"},
                                                    {500, "d"},
                                                    {400, "cd"},
                                                    {100, "c"},
                                                    {90, "xc"},
                                                    {50, "l"},
                                                    {40, "xl"},
                                                    {10, "x"},
                                                    {9, "ix"},
                                                    {5, "v"},
                                                    {4, "iv"},
                                                    {1, "i"}}};
    std::string text;
    for (const Digit& digit : kDigits) {
        for (; number >= digit.value; number -= digit.value) {
            text += digit.text;
        }
    }
    return text;
}

std::string greekNumber(int number) {
    static constexpr std::array<const char*, 24> kLetters{"α", "β", "γ", "δ", "ε", "ζ", "η", "θ", "ι", "κ", "λ", "μ",
                                                          "ν", "ξ", "ο", "π", "ρ", "σ", "τ", "υ", "φ", "χ", "ψ", "ω"};
    std::string text;
    for (; number > 0; number = (number - 1) / 24) {
        text.insert(0, kLetters[static_cast<std::size_t>((number - 1) % 24)]);
    }
    return text;
}

std::string numberText(litehtml::list_style_type type, int number) {
    constexpr int kMaxRoman = 3999;
    std::string text;
    const bool upper = type == litehtml::list_style_type_upper_roman;
    if (number > 0) {
        switch (type) {
            case litehtml::list_style_type_lower_alpha:
            case litehtml::list_style_type_lower_latin:
                text = latinNumber(number, 'a');
                break;
            case litehtml::list_style_type_upper_alpha:
            case litehtml::list_style_type_upper_latin:
                text = latinNumber(number, 'A');
                break;
            case litehtml::list_style_type_lower_roman:
            case litehtml::list_style_type_upper_roman:
                text = number <= kMaxRoman ? romanNumber(number) : std::string();
                break;
            case litehtml::list_style_type_lower_greek:
                text = greekNumber(number);
                break;
            case litehtml::list_style_type_decimal_leading_zero:
                text = number < 10 ? "0" + std::to_string(number) : std::string();
                break;
            default:
                break;
        }
    }
    if (upper) {
        std::ranges::transform(text, text.begin(), [](char c) { return static_cast<char>(c - 32); });
    }
    return (text.empty() ? std::to_string(number) : text) + ".";
}

std::optional<int> numberOf(const char* text) {
    int number = 0;
    const std::string_view digits = text == nullptr ? std::string_view() : text;
    return std::from_chars(digits.data(), digits.data() + digits.size(), number).ec == std::errc() ? std::optional(number)
                                                                                                   : std::nullopt;
}

struct Length {
    double value = 0;
    std::string_view unit;
};

Length lengthOf(const char* text) {
    const std::string_view value = text == nullptr ? std::string_view() : text;
    Length length;
    const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), length.value);
    if (error == std::errc()) {
        length.unit = value.substr(static_cast<std::size_t>(end - value.data()));
    }
    return length;
}

/// An item that knows its number, however long its list is.
class ListItem final : public Mended<litehtml::html_tag> {
public:
    using Mended::Mended;

    void draw(litehtml::uint_ptr device, int x, int y, const litehtml::position* clip) override {
        const litehtml::list_style_type type = m_list_style_type;
        const bool numbered = type >= litehtml::list_style_type_armenian;
        const bool own =
            m_display == litehtml::display_list_item && type != litehtml::list_style_type_none && (numbered || isRightToLeft());
        m_list_style_type = own ? litehtml::list_style_type_none : type;
        Mended::draw(device, x, y, clip);
        m_list_style_type = type;
        if (own && numbered) {
            drawNumber(device, x, y, numberText(type, numberOf(get_attr("number")).value_or(1)));
        } else if (own) {
            drawMark(device, x, y);
        }
    }

private:
    void drawNumber(litehtml::uint_ptr device, int x, int y, const std::string& number) {
        litehtml::font_metrics metrics;
        const litehtml::uint_ptr font = get_font(&metrics);
        litehtml::document_container* container = get_document()->container();
        const std::string text = isRightToLeft() ? std::string(kRightToLeft) + number + std::string(kEndOfDirection) : number;
        const int width = container->text_width(text.c_str(), font);
        const int gap = container->text_width(" ", font);
        const int left = m_pos.x + (isRightToLeft() ? m_pos.width + gap : -width - gap);
        const int baseline = y + m_pos.y + firstBaseline().value_or(metrics.ascent);
        const litehtml::position place(x + left, baseline - metrics.ascent, width, metrics.height);
        container->draw_text(device, text.c_str(), font, get_color("color", true, get_document()->get_def_color()), place);
    }

    /// On the right side, as large and as far away as the engine does it on the left.
    void drawMark(litehtml::uint_ptr device, int x, int y) {
        litehtml::list_marker mark;
        const int size = m_font_size - m_font_size * 2 / 3;
        mark.marker_type = m_list_style_type;
        mark.color = get_color("color", true, get_document()->get_def_color());
        mark.pos = litehtml::position(x + m_pos.x + m_pos.width + m_font_size - size, y + m_pos.y + line_height() / 2 - size / 2,
                                      size, size);
        get_document()->container()->draw_list_marker(device, mark);
    }
};

/// A picture that is not stretched in one direction because of what it has in the other, when all there is of it is a frame.
class Image final : public litehtml::el_image {
public:
    Image(const std::shared_ptr<litehtml::document>& document, HtmlElementObserver& observer)
        : el_image(document), m_observer(observer) {}

    void parse_attributes() override {
        el_image::parse_attributes();
        if (const char* hints = get_attr("hints")) {
            m_style.add(hints, nullptr, this);
        }
    }

    void parse_styles(bool again) override {
        el_image::parse_styles(again);
        m_display = m_display == litehtml::display_inline ? litehtml::display_inline_block : m_display;
        const char* source = get_attr("src");
        if (source == nullptr || m_css_width.is_predefined() == m_css_height.is_predefined()) {
            return;
        }
        const bool pixels = !m_css_width.is_predefined() && m_css_width.units() != litehtml::css_units_percentage;
        const int width = pixels ? get_document()->cvt_units(m_css_width, m_font_size) : 0;
        const std::optional<litehtml::size> frame = m_observer.frameSize(source, width);
        if (frame && m_css_width.is_predefined()) {
            m_css_width = static_cast<float>(frame->width);
        } else if (frame) {
            m_css_height = static_cast<float>(frame->height);
        }
    }

private:
    HtmlElementObserver& m_observer;
};

/// A link that tells what is drawn as a part of it.
class Anchor final : public Mended<litehtml::el_anchor> {
public:
    Anchor(const std::shared_ptr<litehtml::document>& document, HtmlElementObserver& observer)
        : Mended(document), m_observer(observer) {}

    void draw(litehtml::uint_ptr device, int x, int y, const litehtml::position* clip) override {
        inside([&] { Mended::draw(device, x, y, clip); });
    }
    void draw_children(litehtml::uint_ptr device, int x, int y, const litehtml::position* clip, litehtml::draw_flag flag,
                       int order) override {
        inside([&] { Mended::draw_children(device, x, y, clip, flag, order); });
    }
    void draw_stacking_context(litehtml::uint_ptr device, int x, int y, const litehtml::position* clip,
                               bool withPositioned) override {
        inside([&] { Mended::draw_stacking_context(device, x, y, clip, withPositioned); });
    }

private:
    template <typename Draw>
    void inside(Draw draw) {
        const std::optional<int> number = numberOf(get_attr("link"));
        if (number && *number >= 0) {
            m_observer.enterLink(static_cast<std::size_t>(*number));
        }
        draw();
        if (number && *number >= 0) {
            m_observer.leaveLink();
        }
    }

    HtmlElementObserver& m_observer;
};

}  // namespace

std::shared_ptr<litehtml::element> createHtmlElement(const std::string& name, const std::shared_ptr<litehtml::document>& document,
                                                     HtmlElementObserver& observer) {
    if (auto part = createTablePart(name, document)) {
        return part;
    }
    if (name == "a") {
        return std::make_shared<Anchor>(document, observer);
    }
    if (name == "img") {
        return std::make_shared<Image>(document, observer);
    }
    if (name == "li") {
        return std::make_shared<ListItem>(document);
    }
    if (name == "p") {
        return std::make_shared<Mended<litehtml::el_para>>(document);
    }
    if (name == "div") {
        return std::make_shared<Mended<litehtml::el_div>>(document);
    }
    if (name == "font") {
        return std::make_shared<Mended<litehtml::el_font>>(document);
    }
    if (name == "body") {
        return std::make_shared<Mended<litehtml::el_body>>(document);
    }
    const bool own = name == "br" || name == "style" || name == "title" || name == "script" || name == "link";
    return own ? nullptr : std::make_shared<Mended<litehtml::html_tag>>(document);
}

std::optional<double> ownFontSize(const litehtml::element& element, double inherited) {
    const char* property = element.get_style_property("font-size", false, nullptr);
    if (property != nullptr && std::string_view(property) == "inherit") {
        return inherited;
    }
    const Length size = lengthOf(property);
    if (size.unit == "px") {
        return size.value;
    }
    const double factor = size.unit == "em" ? 1 : size.unit == "%" ? 0.01 : 0;
    return factor > 0 ? std::optional(size.value * factor * inherited) : std::nullopt;
}

std::string fontSuffix(const litehtml::element& element, double fontSize) {
    const Length spacing = lengthOf(element.get_style_property("letter-spacing", true, nullptr));
    const double pixels = spacing.value * (spacing.unit == "em" ? fontSize : spacing.unit == "px" ? 1 : 0);
    const auto units = [](double value) { return std::to_string(std::lround(value * kDetailUnits)); };
    return std::string(kDetails) + units(fontSize) + "/" + units(std::clamp(pixels, -kMaxLetterSpacing, kMaxLetterSpacing));
}

std::optional<int> firstBaselineOf(const litehtml::box::vector& boxes) {
    for (const litehtml::box::ptr& box : boxes) {
        litehtml::elements_vector parts;
        box->get_elements(parts);
        for (const auto& part : parts) {
            if (part->get_display() == litehtml::display_inline_text) {
                litehtml::font_metrics metrics;
                part->get_font(&metrics);
                return part->get_position().y + metrics.ascent;
            }
            const auto* mended = dynamic_cast<const MendedElement*>(part.get());
            const std::optional<int> inside = mended != nullptr ? mended->firstBaseline() : std::nullopt;
            if (inside) {
                return part->get_position().y + *inside;
            }
        }
    }
    return std::nullopt;
}

float opacityOf(const litehtml::element& element) {
    const char* property = element.get_style_property("opacity", false, nullptr);
    const std::string_view value = property == nullptr ? std::string_view() : property;
    float opacity = 1;
    std::from_chars(value.data(), value.data() + value.size(), opacity);
    return std::clamp(opacity, 0.0F, 1.0F);
}

void drawFaded(const litehtml::element& element, float opacity, const std::function<void()>& draw) {
    auto* observer = dynamic_cast<HtmlElementObserver*>(element.get_document()->container());
    if (observer != nullptr) {
        observer->enterOpacity(opacity);
    }
    draw();
    if (observer != nullptr) {
        observer->leaveOpacity();
    }
}

bool hasTextOfItsOwn(const litehtml::element& element) {
    bool behindInline = false;
    bool blank = false;
    for (std::size_t i = 0; i < element.get_children_count(); ++i) {
        const litehtml::element::ptr child = element.get_child(static_cast<int>(i));
        const bool text = child->get_display() == litehtml::display_inline_text;
        const bool inside = text || child->is_inline_box();
        if ((text && !child->is_white_space()) || (inside && !text && blank)) {
            return true;
        }
        blank = inside && behindInline && text;
        behindInline = inside;
    }
    return false;
}

FontDetails takeFontDetails(std::string& families) {
    const std::size_t start = families.rfind(kDetails);
    if (start == std::string::npos) {
        return {};
    }
    const std::string_view numbers = std::string_view(families).substr(start + kDetails.size());
    double size = 0;
    double spacing = 0;
    const char* end = numbers.data() + numbers.size();
    const char* separator = std::from_chars(numbers.data(), end, size).ptr;
    std::from_chars(std::min(separator + 1, end), end, spacing);
    families.resize(start);
    return {size / kDetailUnits, std::clamp(spacing / kDetailUnits, -kMaxLetterSpacing, kMaxLetterSpacing)};
}

void applyLineQuirks(const litehtml::element::ptr& root) {
    if (auto* mended = dynamic_cast<MendedElement*>(root.get())) {
        mended->setQuirks();
    }
    for (std::size_t i = 0; i < root->get_children_count(); ++i) {
        applyLineQuirks(root->get_child(static_cast<int>(i)));
    }
}

}  // namespace ternview
