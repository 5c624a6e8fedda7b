#include "html_fonts.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace ternview {
namespace {

constexpr int kMaxFontSize = 1000;
constexpr std::size_t kMaxRememberedWidths = 100'000;
constexpr std::size_t kMaxRememberedLength = 64;
constexpr std::size_t kMaxFamilies = 64;
constexpr std::size_t kMaxFonts = 500;
constexpr const char* kDefaultFamily = "serif";
// The sizes of the fonts over the limit.
constexpr std::array kCoarseSizes{8, 10, 12, 13, 14, 16, 18, 20, 24, 28, 32, 40, 48, 64, 96, 128, 256, 512, kMaxFontSize};

double pixels(int pangoUnits) {
    return static_cast<double>(pangoUnits) / PANGO_SCALE;
}
int rounded(double value) {
    return static_cast<int>(std::lround(value));
}

std::string unquoted(std::string families) {
    std::erase_if(families, [](char c) { return c == '"' || c == '\''; });
    return families;
}

std::string keyOf(const HtmlFontStyle& style) {
    const int lines = (style.underline ? 1 : 0) | (style.strikeThrough ? 2 : 0) | (style.overline ? 4 : 0);
    return std::to_string(style.size) + "/" + std::to_string(style.weight) + (style.italic ? "i" : "/") + std::to_string(lines) +
           style.families;
}

/// One of few fonts, near what was asked for.
HtmlFontStyle coarse(HtmlFontStyle style) {
    style.families = kDefaultFamily;
    style.size = *std::ranges::lower_bound(kCoarseSizes, style.size);
    style.weight = style.weight > 500 ? 700 : 400;
    return style;
}

}  // namespace

HtmlFont::HtmlFont(PangoContext* context, const HtmlFontStyle& style, std::size_t& memory)
    : m_style(style), m_layout(pango_layout_new(context)), m_memory(memory) {
    const std::unique_ptr<PangoFontDescription, decltype(&pango_font_description_free)> description(pango_font_description_new(),
                                                                                                    &pango_font_description_free);
    pango_font_description_set_family(description.get(), style.families.c_str());
    pango_font_description_set_absolute_size(description.get(), static_cast<double>(m_style.size) * PANGO_SCALE);
    pango_font_description_set_weight(description.get(), static_cast<PangoWeight>(style.weight));
    pango_font_description_set_style(description.get(), style.italic ? PANGO_STYLE_ITALIC : PANGO_STYLE_NORMAL);
    pango_layout_set_font_description(m_layout.get(), description.get());
    pango_layout_set_single_paragraph_mode(m_layout.get(), TRUE);

    const std::unique_ptr<PangoFontMetrics, decltype(&pango_font_metrics_unref)> metrics(
        pango_context_get_metrics(context, description.get(), pango_language_get_default()), &pango_font_metrics_unref);
    m_ascent = rounded(pixels(pango_font_metrics_get_ascent(metrics.get())));
    m_descent = rounded(pixels(pango_font_metrics_get_descent(metrics.get())));
    m_height = m_ascent + m_descent;
    m_xHeight = rounded(m_style.size * 0.5);
    m_underlineOffset = -pixels(pango_font_metrics_get_underline_position(metrics.get()));
    m_lineThickness = std::max(1.0, pixels(pango_font_metrics_get_underline_thickness(metrics.get())));
}

int HtmlFont::textWidth(std::string_view text) {
    std::string key(text);
    if (const auto known = m_widths.find(key); known != m_widths.end()) {
        return known->second;
    }
    int width = 0;
    pango_layout_set_text(m_layout.get(), text.data(), static_cast<int>(text.size()));
    pango_layout_get_size(m_layout.get(), &width, nullptr);
    const int result = rounded(pixels(width));
    if (text.size() <= kMaxRememberedLength && m_memory > 0) {
        --m_memory;
        m_widths.emplace(std::move(key), result);
    }
    return result;
}

void HtmlFont::drawLine(cairo_t* context, double x, double width, double y) const {
    cairo_rectangle(context, x, y, width, m_lineThickness);
    cairo_fill(context);
}

void HtmlFont::draw(cairo_t* context, std::string_view text, double x, double baseline) const {
    pango_layout_set_text(m_layout.get(), text.data(), static_cast<int>(text.size()));
    const double top = baseline - pixels(pango_layout_get_baseline(m_layout.get()));
    cairo_move_to(context, x, top);
    pango_cairo_show_layout(context, m_layout.get());
    if (m_style.underline || m_style.strikeThrough || m_style.overline) {
        int width = 0;
        pango_layout_get_size(m_layout.get(), &width, nullptr);
        const double length = std::round(pixels(width));  // the width that the engine knows, so that the lines of words meet
        if (m_style.underline) {
            drawLine(context, x, length, baseline + m_underlineOffset);
        }
        if (m_style.strikeThrough) {
            drawLine(context, x, length, baseline - m_style.size * 0.3);
        }
        if (m_style.overline) {
            drawLine(context, x, length, baseline - m_ascent);
        }
    }
}

HtmlFonts::HtmlFonts()
    : m_context(pango_font_map_create_context(pango_cairo_font_map_get_default())), m_rememberedWidths(kMaxRememberedWidths) {
    // Widths must not depend on the size of a device pixel: one layout serves all resolutions and the PDF.
    const std::unique_ptr<cairo_font_options_t, decltype(&cairo_font_options_destroy)> options(cairo_font_options_create(),
                                                                                               &cairo_font_options_destroy);
    cairo_font_options_set_hint_metrics(options.get(), CAIRO_HINT_METRICS_OFF);
    cairo_font_options_set_hint_style(options.get(), CAIRO_HINT_STYLE_NONE);
    cairo_font_options_set_antialias(options.get(), CAIRO_ANTIALIAS_GRAY);
    pango_cairo_context_set_font_options(m_context.get(), options.get());
    pango_cairo_context_set_resolution(m_context.get(), 96);
    pango_context_set_round_glyph_positions(m_context.get(), FALSE);
}

HtmlFont* HtmlFonts::create(const HtmlFontStyle& style) {
    HtmlFontStyle affordable = style;
    affordable.size = std::clamp(style.size, 1, kMaxFontSize);
    affordable.weight = std::clamp(style.weight, 100, 900);
    affordable.families = unquoted(style.families);
    if (!m_families.contains(affordable.families)) {
        if (m_families.size() < kMaxFamilies) {
            m_families.insert(affordable.families);
        } else {
            affordable.families = kDefaultFamily;
        }
    }
    if (m_fonts.size() >= kMaxFonts && !m_fonts.contains(keyOf(affordable))) {
        affordable = coarse(affordable);
    }
    std::unique_ptr<HtmlFont>& font = m_fonts[keyOf(affordable)];
    if (!font) {
        font = std::make_unique<HtmlFont>(m_context.get(), affordable, m_rememberedWidths);
    }
    return font.get();
}

}  // namespace ternview
