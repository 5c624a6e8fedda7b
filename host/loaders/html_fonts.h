// Fonts of an HTML document: Pango behind the few things the layout engine asks of a font.
#pragma once

#include <pango/pangocairo.h>

#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

namespace ternview {

struct GObjectDeleter {
    void operator()(gpointer object) const { g_object_unref(object); }
};

struct HtmlFontStyle {
    std::string families;  // as in CSS, with commas
    double size = 16;      // in CSS pixels
    int weight = 400;
    bool italic = false;
    bool underline = false;
    bool strikeThrough = false;
    bool overline = false;
    double letterSpacing = 0;  // in CSS pixels
};

class HtmlFont {
public:
    /// @param memory how many more widths of words the fonts of the document may remember; outlives the font
    HtmlFont(PangoContext* context, const HtmlFontStyle& style, std::size_t& memory);

    /// Text of one pixel is there to be not seen: it has no height, and nothing is drawn of it.
    bool invisible() const { return m_style.size <= 1; }
    /// In CSS pixels. Widths of words are remembered: a mail repeats most of its words, and the engine asks again and again.
    int textWidth(std::string_view text);
    /// Draws text with its baseline starting at a point, with the font's lines through or under it.
    void draw(cairo_t* context, std::string_view text, double x, double baseline) const;

    struct Column {
        double x;
        double y;
        double width;
    };
    /// Draws text in as many lines as it needs, as plain letters.
    void drawParagraph(cairo_t* context, std::string_view text, const Column& column) const;

    int ascent() const { return m_ascent; }
    int descent() const { return m_descent; }
    int height() const { return m_height; }
    int xHeight() const { return m_xHeight; }
    const HtmlFontStyle& style() const { return m_style; }

private:
    /// The width that the engine is told for text of a width.
    int wholeWidth(std::string_view text, double width) const;
    void setText(std::string_view text) const;
    void drawLine(cairo_t* context, double x, double width, double y) const;

    HtmlFontStyle m_style;
    std::unique_ptr<PangoLayout, GObjectDeleter> m_layout;
    std::size_t& m_memory;
    std::unordered_map<std::string, int> m_widths;
    int m_ascent = 0;
    int m_descent = 0;
    int m_height = 0;
    int m_xHeight = 0;
    double m_space = 0;            // the width of a blank
    double m_underlineOffset = 0;  // below the baseline
    double m_lineThickness = 1;
};

class HtmlFonts {
public:
    HtmlFonts();
    /**
     * The font of a style, made once. Each costs a millisecond or two and a search of the installed fonts: a document with more
     * families or styles than any real one gets the default font for the rest of them.
     *
     * @return lives as long as this object
     */
    HtmlFont* create(const HtmlFontStyle& style);

private:
    std::unique_ptr<PangoContext, GObjectDeleter> m_context;
    std::unordered_set<std::string> m_installed;  // names of families, in lower case
    std::size_t m_rememberedWidths;
    std::unordered_set<std::string> m_families;
    std::unordered_map<std::string, std::unique_ptr<HtmlFont>> m_fonts;
};

}  // namespace ternview
