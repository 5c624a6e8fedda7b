#include "html_fonts.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "utf.h"

namespace ternview {
namespace {

constexpr double kMaxFontSize = 1000;
constexpr std::size_t kMaxRememberedWidths = 100'000;
constexpr std::size_t kMaxRememberedLength = 64;
constexpr std::size_t kMaxFamilies = 64;
constexpr std::size_t kMaxFonts = 500;
constexpr const char* kDefaultFamily = "serif";
// The sizes of the fonts over the limit.
constexpr std::array kCoarseSizes{8.0,  10.0, 12.0, 13.0, 14.0, 16.0,  18.0,  20.0,  24.0,        28.0,
                                  32.0, 40.0, 48.0, 64.0, 96.0, 128.0, 256.0, 512.0, kMaxFontSize};

double pixels(int pangoUnits) {
    return static_cast<double>(pangoUnits) / PANGO_SCALE;
}
int rounded(double value) {
    return static_cast<int>(std::lround(value));
}

/// Families of the usual systems and what stands for them here; the generic ones as the usual mail programs have them.
struct Substitute {
    std::string_view family;
    std::string_view others;
};
constexpr std::string_view kSans = "Arial,sans-serif";
constexpr std::string_view kSerif = "Times New Roman,serif";
constexpr std::string_view kFixed = "monospace";
constexpr auto kSubstitutes = std::to_array<Substitute>({
    {"sans-serif", kSans},
    {"serif", kSerif},
    {"monospace", kFixed},
    {"system-ui", kSans},
    {"arial", kSans},
    {"helvetica", kSans},
    {"helvetica neue", kSans},
    {"geneva", kSans},
    {"tahoma", kSans},
    {"verdana", "DejaVu Sans,sans-serif"},
    {"segoe ui", kSans},
    {"trebuchet ms", kSans},
    {"lucida grande", kSans},
    {"lucida sans unicode", kSans},
    {"century gothic", kSans},
    {"microsoft sans serif", kSans},
    {"ms sans serif", kSans},
    {"aptos", "Carlito,Arial,sans-serif"},
    {"calibri", "Carlito,Arial,sans-serif"},
    {"times new roman", kSerif},
    {"times", kSerif},
    {"georgia", "Gelasio,Times New Roman,serif"},
    {"garamond", kSerif},
    {"palatino linotype", kSerif},
    {"book antiqua", kSerif},
    {"bookman old style", kSerif},
    {"cambria", "Caladea,Times New Roman,serif"},
    {"courier new", "Courier New,monospace"},
    {"courier", "Courier New,monospace"},
    {"consolas", kFixed},
    {"menlo", kFixed},
    {"monaco", kFixed},
    {"lucida console", kFixed},
});

std::string lowered(std::string_view text) {
    std::string result(text);
    std::ranges::transform(result, result.begin(), [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
    return result;
}

/// The family to take of those that are asked for: the first that is installed or has a stand-in, as browsers choose.
std::string chosenFamily(std::string_view families, const std::unordered_set<std::string>& installed) {
    constexpr std::size_t kMaxNames = 16;
    for (std::size_t count = 0; !families.empty() && count < kMaxNames; ++count) {
        const std::size_t end = std::min(families.find(','), families.size());
        std::string name(families.substr(0, end));
        families.remove_prefix(std::min(end + 1, families.size()));
        std::erase_if(name, [](char c) { return c == '"' || c == '\''; });
        name = g_strstrip(name.data());
        const std::string plain = lowered(name);
        const auto substitute = std::ranges::find(kSubstitutes, std::string_view(plain), &Substitute::family);
        const std::string_view others = substitute == kSubstitutes.end() ? kSans : substitute->others;
        const bool generic = plain == "serif" || plain == "sans-serif" || plain == "monospace";
        if (!generic && installed.contains(plain)) {
            return name + "," + std::string(others);
        }
        if (substitute != kSubstitutes.end()) {
            return std::string(others);
        }
    }
    return std::string(kSerif);
}

std::string keyOf(const HtmlFontStyle& style) {
    const int lines = (style.underline ? 1 : 0) | (style.strikeThrough ? 2 : 0) | (style.overline ? 4 : 0);
    return std::to_string(std::lround(style.size * PANGO_SCALE)) + "/" + std::to_string(style.weight) +
           (style.italic ? "i" : "/") + std::to_string(lines) + "/" +
           std::to_string(std::lround(style.letterSpacing * PANGO_SCALE)) + "/" + style.families;
}

/// One of few fonts, near what was asked for.
HtmlFontStyle coarse(HtmlFontStyle style) {
    style.families = kDefaultFamily;
    style.size = *std::ranges::lower_bound(kCoarseSizes, style.size);
    style.weight = style.weight > 500 ? 700 : 400;
    style.letterSpacing = 0;
    return style;
}

}  // namespace

HtmlFont::HtmlFont(PangoContext* context, const HtmlFontStyle& style, std::size_t& memory)
    : m_style(style), m_layout(pango_layout_new(context)), m_memory(memory) {
    const std::unique_ptr<PangoFontDescription, decltype(&pango_font_description_free)> description(pango_font_description_new(),
                                                                                                    &pango_font_description_free);
    pango_font_description_set_family(description.get(), style.families.c_str());
    pango_font_description_set_absolute_size(description.get(), m_style.size * PANGO_SCALE);
    pango_font_description_set_weight(description.get(), static_cast<PangoWeight>(style.weight));
    pango_font_description_set_style(description.get(), style.italic ? PANGO_STYLE_ITALIC : PANGO_STYLE_NORMAL);
    pango_layout_set_font_description(m_layout.get(), description.get());
    pango_layout_set_single_paragraph_mode(m_layout.get(), TRUE);
    const std::unique_ptr<PangoAttrList, decltype(&pango_attr_list_unref)> attributes(pango_attr_list_new(),
                                                                                      &pango_attr_list_unref);
    pango_attr_list_insert(attributes.get(), pango_attr_insert_hyphens_new(FALSE));
    pango_attr_list_insert(attributes.get(), pango_attr_letter_spacing_new(rounded(style.letterSpacing * PANGO_SCALE)));
    pango_layout_set_attributes(m_layout.get(), attributes.get());

    const std::unique_ptr<PangoFontMetrics, decltype(&pango_font_metrics_unref)> metrics(
        pango_context_get_metrics(context, description.get(), pango_language_get_default()), &pango_font_metrics_unref);
    m_ascent = rounded(pixels(pango_font_metrics_get_ascent(metrics.get())));
    m_descent = rounded(pixels(pango_font_metrics_get_descent(metrics.get())));
    // Browsers round the gap between lines by itself.
    const double gap = pixels(pango_font_metrics_get_height(metrics.get()) - pango_font_metrics_get_ascent(metrics.get()) -
                              pango_font_metrics_get_descent(metrics.get()));
    m_height = m_ascent + m_descent + std::max(0, rounded(gap));
    m_xHeight = rounded(m_style.size * 0.5);
    m_underlineOffset = -pixels(pango_font_metrics_get_underline_position(metrics.get()));
    m_lineThickness = std::max(1.0, pixels(pango_font_metrics_get_underline_thickness(metrics.get())));
    pango_layout_set_text(m_layout.get(), " ", 1);
    int space = 0;
    pango_layout_get_size(m_layout.get(), &space, nullptr);
    m_space = pixels(space) + style.letterSpacing;
    if (invisible()) {
        m_ascent = m_descent = m_height = m_xHeight = 0;
    }
}

/// The engine counts in whole pixels. A word gets what the blank behind it is too narrow or too wide, so that lines are as long
/// as they should be.
int HtmlFont::wholeWidth(std::string_view text, double width) const {
    constexpr unsigned char kFirstOfThreeBytes = 0xE2;  // as East Asian characters are, between which there are no blanks
    const bool word =
        text.find_first_not_of(' ') != std::string_view::npos && static_cast<unsigned char>(text.front()) < kFirstOfThreeBytes;
    return rounded(word ? width + m_space - rounded(m_space) : width);
}

void HtmlFont::setText(std::string_view text) const {
    const std::string drawable = drawableUtf8(text);
    pango_layout_set_text(m_layout.get(), drawable.data(), static_cast<int>(drawable.size()));
}

int HtmlFont::textWidth(std::string_view text) {
    if (invisible()) {
        return 0;
    }
    std::string key(text);
    if (const auto known = m_widths.find(key); known != m_widths.end()) {
        return known->second;
    }
    int width = 0;
    setText(text);
    pango_layout_get_size(m_layout.get(), &width, nullptr);
    const int result = wholeWidth(text, pixels(width) + m_style.letterSpacing);  // Pango leaves it out behind the last letter
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
    if (invisible()) {
        return;
    }
    setText(text);
    const double top = baseline - pixels(pango_layout_get_baseline(m_layout.get()));
    cairo_move_to(context, x, top);
    pango_cairo_show_layout(context, m_layout.get());
    if (m_style.underline || m_style.strikeThrough || m_style.overline) {
        int width = 0;
        pango_layout_get_size(m_layout.get(), &width, nullptr);
        // As the engine knows it, so that the lines of words meet.
        const double length = wholeWidth(text, pixels(width) + m_style.letterSpacing);
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

void HtmlFont::drawParagraph(cairo_t* context, std::string_view text, const Column& column) const {
    pango_layout_set_width(m_layout.get(), rounded(column.width * PANGO_SCALE));
    pango_layout_set_wrap(m_layout.get(), PANGO_WRAP_WORD_CHAR);
    setText(text);
    cairo_move_to(context, column.x, column.y);
    pango_cairo_show_layout(context, m_layout.get());
    pango_layout_set_width(m_layout.get(), -1);
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

    PangoFontFamily** families = nullptr;
    int count = 0;
    pango_font_map_list_families(pango_cairo_font_map_get_default(), &families, &count);
    for (int i = 0; i < count; ++i) {
        m_installed.insert(lowered(pango_font_family_get_name(families[i])));
    }
    g_free(families);
}

HtmlFont* HtmlFonts::create(const HtmlFontStyle& style) {
    HtmlFontStyle affordable = style;
    affordable.size = std::clamp(style.size, 1.0, kMaxFontSize);
    affordable.weight = std::clamp(style.weight, 100, 900);
    affordable.families = chosenFamily(style.families, m_installed);
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
