// What all elements have in common that may contain text: what the layout engine lacks of it.
#pragma once

#include <litehtml/litehtml.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace ternview {

/// What is known of a mended element, whatever it is.
class MendedElement {
public:
    /// In CSS pixels, with the fractions that the engine has no place for.
    virtual double exactFontSize() const = 0;
    /// Says which way its text runs, and aligns the text by that unless styles say more.
    virtual void setDirection(bool rightToLeft) = 0;
    virtual bool isRightToLeft() const = 0;
    /// Lines of nothing but inline elements are as high as those need, as in documents without a modern document type.
    virtual void setQuirks() = 0;
    /// Of the first line of its text, below the top of its content; nothing when it has none.
    virtual std::optional<int> firstBaseline() const = 0;
    /// Its lines and blocks, after layout.
    virtual const litehtml::box::vector& lineBoxes() const = 0;
    /// Of a table: puts the columns into the opposite order, after layout.
    virtual void mirrorColumns() {}

protected:
    ~MendedElement() = default;
};

/// The size of an element's font by its own style; nothing when that has none or says it by a word.
std::optional<double> ownFontSize(const litehtml::element& element, double inherited);

/// What the engine's fonts cannot say, as it is added to the list of font families; empty for nothing.
std::string fontSuffix(const litehtml::element& element, double fontSize);

/// Of the first line in boxes.
std::optional<int> firstBaselineOf(const litehtml::box::vector& boxes);

/// How opaque the style attribute or a rule makes an element, from 0 to 1.
float opacityOf(const litehtml::element& element);

/// Draws with an opacity.
void drawFaded(const litehtml::element& element, float opacity, const std::function<void()>& draw);

/// Whether text stands directly in an element, and not in inline elements of it only.
bool hasTextOfItsOwn(const litehtml::element& element);

template <typename Base>
class Mended : public Base, public MendedElement {
public:
    using Base::Base;

    double exactFontSize() const override { return m_exactFontSize; }
    void setDirection(bool rightToLeft) override {
        m_rightToLeft = rightToLeft;
        const std::string_view alignment = this->get_style_property("text-align", true, "start");
        if (rightToLeft && (alignment == "start" || alignment == "initial")) {
            this->m_text_align = litehtml::text_align_right;
        }
    }
    bool isRightToLeft() const override { return m_rightToLeft; }
    void setQuirks() override { m_withoutStrut = !hasTextOfItsOwn(*this); }
    std::optional<int> firstBaseline() const override { return firstBaselineOf(this->m_boxes); }
    const litehtml::box::vector& lineBoxes() const override { return this->m_boxes; }

    /// Presentational attributes stand between the rules of the engine and those of the author.
    void parse_attributes() override {
        Base::parse_attributes();
        if (const char* hints = this->get_attr("hints")) {
            this->m_style.add(hints, nullptr, this);
        }
    }

    // The engine's own counting goes on to the child in question, which takes a square of time for many children.
    bool is_nth_child(const litehtml::element::ptr& child, int step, int offset, bool ofType) const override {
        return step == 0 && !ofType ? isAtPlace(this->m_children.begin(), this->m_children.end(), child, offset)
                                    : Base::is_nth_child(child, step, offset, ofType);
    }
    bool is_nth_last_child(const litehtml::element::ptr& child, int step, int offset, bool ofType) const override {
        return step == 0 && !ofType ? isAtPlace(this->m_children.rbegin(), this->m_children.rend(), child, offset)
                                    : Base::is_nth_last_child(child, step, offset, ofType);
    }

    void init_font() override {
        Base::init_font();
        const auto* around = dynamic_cast<const MendedElement*>(this->parent().get());
        const double inherited = around != nullptr ? around->exactFontSize() : this->m_font_size;
        const bool own = this->get_style_property("font-size", false, nullptr) != nullptr;
        m_exactFontSize = own ? ownFontSize(*this, inherited).value_or(this->m_font_size) : inherited;
        this->m_font_size = static_cast<int>(std::lround(m_exactFontSize));
        const std::string suffix = fontSuffix(*this, m_exactFontSize);
        const auto property = [this](const char* name, const char* otherwise) {
            return this->get_style_property(name, true, otherwise);
        };
        const std::shared_ptr<litehtml::document> document = this->get_document();
        const std::string families = property("font-family", document->container()->get_default_font_name()) + suffix;
        this->m_font =
            document->get_font(families.c_str(), this->m_font_size, property("font-weight", "normal"),
                               property("font-style", "normal"), property("text-decoration", "none"), &this->m_font_metrics);
    }

    void parse_styles(bool again) override {
        Base::parse_styles(again);
        m_opacity = opacityOf(*this);
    }

    void draw(litehtml::uint_ptr device, int x, int y, const litehtml::position* clip) override {
        faded([&] { Base::draw(device, x, y, clip); });
    }
    void draw_children(litehtml::uint_ptr device, int x, int y, const litehtml::position* clip, litehtml::draw_flag flag,
                       int order) override {
        faded([&] { Base::draw_children(device, x, y, clip, flag, order); });
    }
    void draw_stacking_context(litehtml::uint_ptr device, int x, int y, const litehtml::position* clip,
                               bool withPositioned) override {
        faded([&] { Base::draw_stacking_context(device, x, y, clip, withPositioned); });
    }

    int render(int x, int y, int maxWidth, bool secondPass) override {
        const int lineHeight = this->m_line_height;
        const litehtml::font_metrics metrics = this->m_font_metrics;
        if (m_withoutStrut) {
            this->m_line_height = this->m_font_metrics.descent = 0;
        }
        const int width = Base::render(x, y, maxWidth, secondPass);
        this->m_line_height = lineHeight;
        this->m_font_metrics = metrics;
        keepToGreatestHeight();
        return width;
    }

private:
    /// @param place among those that are no text, from 1
    template <typename Children>
    static bool isAtPlace(Children other, Children end, const litehtml::element::ptr& child, int place) {
        for (; other != end; ++other) {
            const bool counts = (*other)->get_display() != litehtml::display_inline_text;
            if (*other == child || (counts && place <= 1)) {
                return counts && *other == child && place == 1;
            }
            place -= counts ? 1 : 0;
        }
        return false;
    }

    /// Draws as opaque as the element is; what it draws calls others of its operations.
    template <typename Draw>
    void faded(Draw draw) {
        if (m_opacity >= 1 || m_fading) {
            draw();
            return;
        }
        m_fading = true;
        drawFaded(*this, m_opacity, draw);
        m_fading = false;
    }

    void keepToGreatestHeight() {
        const bool box = this->m_display == litehtml::display_block || this->m_display == litehtml::display_inline_block ||
                         this->m_display == litehtml::display_list_item;
        if (box && !this->m_css_max_height.is_predefined() && this->m_css_max_height.units() != litehtml::css_units_percentage) {
            const int most = this->get_document()->cvt_units(this->m_css_max_height, this->m_font_size);
            this->m_pos.height = std::min(this->m_pos.height, std::max(most, 0));
        }
    }

    double m_exactFontSize = 16;
    float m_opacity = 1;
    bool m_fading = false;
    bool m_rightToLeft = false;
    bool m_withoutStrut = false;
};

}  // namespace ternview
