// Plain text on pages. Mail text is laid out in a fixed pitch, as its tables, signatures and quotations were written for it.
//
// A document may be one line of many megabytes or a million lines, so nothing is kept but the text itself and where each page
// begins. The text is laid out piece by piece, a piece being one line of the document or a part of a very long one; drawing a
// page lays its few pieces out again. A long line is cut where its last complete line on paper ends, so that the cut cannot be
// seen.

#include <pango/pangocairo.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <string>
#include <vector>

#include "loaders.h"
#include "loaders/html_addresses.h"
#include "loaders/installed_fonts.h"
#include "loaders/laid_out_document.h"
#include "loaders/page_links.h"
#include "loaders/text_encoding.h"
#include "utf.h"

namespace ternview {
namespace {

constexpr char kFont[] = "Monospace 10";
constexpr double kCssResolution = 96;
constexpr std::size_t kPieceCharacters = 4000;
// Breaking a word over several lines costs the square of its length.
constexpr std::size_t kUnbrokenCharacters = 500;
constexpr std::size_t kMostPages = 2000;
constexpr char kRestNotShown[] = "[The text goes on, but no more than 2000 pages of it are shown.]";
// Labels of header lines are padded to at most twelve columns and followed by a tab, or by nothing ("Importance: ").
constexpr int kHeaderTabColumn = 12;
constexpr int kTabColumns = 8;
constexpr int kTabStops = 32;  // behind the last one Pango goes on in the same distance

struct ObjectRelease {
    void operator()(void* object) const { g_object_unref(object); }
};
struct TabsRelease {
    void operator()(PangoTabArray* tabs) const { pango_tab_array_free(tabs); }
};
struct IteratorRelease {
    void operator()(PangoLayoutIter* iterator) const { pango_layout_iter_free(iterator); }
};
struct FontRelease {
    void operator()(PangoFontDescription* font) const { pango_font_description_free(font); }
};
using Tabs = std::unique_ptr<PangoTabArray, TabsRelease>;

/// One line of the document, or a part of a long one. Offsets are bytes of the text.
struct Piece {
    std::size_t begin = 0;
    std::size_t end = 0;
    bool endsLine = true;  // false: the document's line goes on behind `end`
};

struct PageStart {
    std::size_t piece = 0;  // offset at which the page's first piece begins
    int line = 0;           // the page's first line on paper within that piece
};

struct PaperLine {
    PangoLayoutLine* line;
    int x;
    int baseline;
    int height;
};

/// The part of the text that is header lines: from its start to the first empty line, when it starts like one.
std::size_t headerLength(std::string_view text) {
    const std::size_t tab = text.substr(0, 64).find_first_of("\t\n");
    const std::size_t colon = text.substr(0, 64).find(':');
    if (tab == std::string_view::npos || text[tab] != '\t' || colon > tab) {
        return 0;
    }
    return std::min(text.find("\n\n"), text.size());
}

/// An address in the text. Offsets are bytes.
struct TextLink {
    std::size_t begin;
    std::size_t end;
    std::string target;
};

/// The addresses of the web and of mail in a text, without the punctuation that ends a sentence.
std::vector<TextLink> findLinks(std::string_view text) {
    constexpr std::string_view kEnds = " \t\"<>";
    constexpr std::string_view kPunctuation = ".,;:!?'*_)]}";
    std::vector<TextLink> links;
    for (std::size_t colon = text.find(':'); colon != std::string_view::npos; colon = text.find(':', colon + 1)) {
        const std::string_view before = text.substr(0, colon);
        const std::string_view scheme = before.ends_with("https") || before.ends_with("HTTPS")     ? "https"
                                        : before.ends_with("http") || before.ends_with("HTTP")     ? "http"
                                        : before.ends_with("mailto") || before.ends_with("MAILTO") ? "mailto"
                                                                                                   : "";
        const std::string_view behind = text.substr(colon + 1);
        if (scheme.empty() || (scheme != "mailto" && !behind.starts_with("//"))) {
            continue;
        }
        std::size_t end = std::min(text.find_first_of(kEnds, colon), text.size());
        while (end > colon + 1 && kPunctuation.find(text[end - 1]) != std::string_view::npos) {
            --end;
        }
        const std::size_t begin = colon - scheme.size();
        if (std::string target = linkTarget(text.substr(begin, end - begin)); !target.empty()) {
            links.push_back({begin, end, std::move(target)});
            colon = end - 1;
        }
    }
    return links;
}

class TextDocument final : public LaidOutDocument {
public:
    TextDocument(std::string text, const PageSetup& setup)
        : text_(std::move(text)), headerLength_(headerLength(text_)), setup_(setup) {
        context_.reset(pango_font_map_create_context(pango_cairo_font_map_get_default()));
        prepareContext();
        layout_.reset(pango_layout_new(context_.get()));
        prepareLayout();
        findPages();
    }

    int pageCount() const override { return static_cast<int>(pages_.size()); }

    PaperSize paperSize(int) const override { return {setup_.width, setup_.height}; }

    void drawPage(int index, cairo_t* context) override {
        const auto page = static_cast<std::size_t>(index);
        const bool isLast = page + 1 == pages_.size();
        const PageStart stop = isLast ? end_ : pages_[page + 1];
        cairo_set_source_rgb(context, 0, 0, 0);
        int top = 0;
        Piece piece = layOutPiece(pages_[page].piece);
        int firstLine = pages_[page].line;
        while (piece.begin <= stop.piece) {
            const std::vector<TextLink> links =
                carriesLinks(context) ? findLinks(pango_layout_get_text(layout_.get())) : std::vector<TextLink>();
            int number = 0;
            for (const PaperLine& line : paperLines(piece)) {
                const bool isBeyond = piece.begin == stop.piece && number >= stop.line;
                if (number++ < firstLine || isBeyond) {
                    continue;
                }
                drawLine(context, line, top);
                addLinks(context, line, top, links);
                top += line.height;
            }
            firstLine = 0;
            if (piece.begin == stop.piece || isEndOfText(piece)) {
                break;
            }
            piece = layOutPiece(nextBegin(piece));
        }
        if (isLast && truncated_) {
            drawNote(context);
        }
    }

private:
    void prepareContext() {
        pango_cairo_context_set_resolution(context_.get(), kCssResolution);
        // The same line breaks on every output: nothing may be fitted to the pixels of one of them.
        cairo_font_options_t* options = cairo_font_options_create();
        cairo_font_options_set_hint_metrics(options, CAIRO_HINT_METRICS_OFF);
        cairo_font_options_set_hint_style(options, CAIRO_HINT_STYLE_NONE);
        cairo_font_options_set_antialias(options, CAIRO_ANTIALIAS_GRAY);
        pango_cairo_context_set_font_options(context_.get(), options);
        cairo_font_options_destroy(options);
        pango_context_set_round_glyph_positions(context_.get(), FALSE);
    }

    void prepareLayout() {
        const std::unique_ptr<PangoFontDescription, FontRelease> font(pango_font_description_from_string(kFont));
        pango_layout_set_font_description(layout_.get(), font.get());
        pango_layout_set_width(layout_.get(), toPango(setup_.width - 2 * setup_.margin));
        pango_layout_set_wrap(layout_.get(), PANGO_WRAP_WORD_CHAR);
        pango_layout_set_text(layout_.get(), "0", 1);
        PangoRectangle digit;
        pango_layout_get_extents(layout_.get(), nullptr, &digit);
        columnWidth_ = digit.width;
        lineHeight_ = digit.height;
        bodyTabs_ = makeTabs(kTabColumns);
        headerTabs_ = makeTabs(kHeaderTabColumn);
    }

    Tabs makeTabs(int firstColumn) const {
        Tabs tabs(pango_tab_array_new(kTabStops, FALSE));
        for (int i = 0; i < kTabStops; ++i) {
            pango_tab_array_set_tab(tabs.get(), i, PANGO_TAB_LEFT, columnWidth_ * (firstColumn + i * kTabColumns));
        }
        return tabs;
    }

    static int toPango(double cssPixels) { return static_cast<int>(std::lround(cssPixels * PANGO_SCALE)); }

    bool isEndOfText(const Piece& piece) const { return nextBegin(piece) >= text_.size(); }

    static std::size_t nextBegin(const Piece& piece) { return piece.endsLine ? piece.end + 1 : piece.end; }

    /// Lays the piece out that begins at the offset; `layout_` holds it afterwards.
    Piece layOutPiece(std::size_t begin) {
        std::size_t end = begin;
        std::size_t characters = 0;
        std::size_t unbroken = 0;
        while (end < text_.size() && text_[end] != '\n' && characters < kPieceCharacters && unbroken < kUnbrokenCharacters) {
            unbroken = text_[end] == ' ' || text_[end] == '\t' ? 0 : unbroken + 1;
            end += readUtf8(std::string_view(text_).substr(end, 4)).size;
            ++characters;
        }
        Piece piece{begin, end, end >= text_.size() || text_[end] == '\n'};
        pango_layout_set_tabs(layout_.get(), begin < headerLength_ ? headerTabs_.get() : bodyTabs_.get());
        pango_layout_set_text(layout_.get(), text_.data() + begin, static_cast<int>(end - begin));
        const int lines = pango_layout_get_line_count(layout_.get());
        if (!piece.endsLine && lines > 1) {
            // The last line on paper may not be full: it opens the next piece.
            const PangoLayoutLine* last = pango_layout_get_line_readonly(layout_.get(), lines - 1);
            piece.end = begin + static_cast<std::size_t>(last->start_index);
        }
        return piece;
    }

    /// The lines on paper of the piece that `layout_` holds.
    std::vector<PaperLine> paperLines(const Piece& piece) {
        std::vector<PaperLine> lines;
        const std::unique_ptr<PangoLayoutIter, IteratorRelease> iterator(pango_layout_get_iter(layout_.get()));
        do {
            PangoLayoutLine* line = pango_layout_iter_get_line_readonly(iterator.get());
            if (!lines.empty() && piece.begin + static_cast<std::size_t>(line->start_index) >= piece.end) {
                break;
            }
            PangoRectangle extents;
            pango_layout_iter_get_line_extents(iterator.get(), nullptr, &extents);
            lines.push_back({line, extents.x, pango_layout_iter_get_baseline(iterator.get()) - extents.y, extents.height});
        } while (pango_layout_iter_next_line(iterator.get()));
        return lines;
    }

    void findPages() {
        const int pageHeight = toPango(setup_.height - 2 * setup_.margin);
        pages_.push_back({0, 0});
        int used = 0;
        Piece piece = layOutPiece(0);
        while (true) {
            int number = 0;
            for (const PaperLine& line : paperLines(piece)) {
                const bool isLastPage = pages_.size() == kMostPages;
                if (used > 0 && used + line.height > pageHeight - (isLastPage ? lineHeight_ : 0)) {
                    end_ = {piece.begin, number};
                    if (isLastPage) {
                        truncated_ = true;
                        return;
                    }
                    pages_.push_back(end_);
                    used = 0;
                }
                used += line.height;
                ++number;
            }
            end_ = {piece.begin, number};
            if (isEndOfText(piece)) {
                return;
            }
            piece = layOutPiece(nextBegin(piece));
        }
    }

    void drawLine(cairo_t* context, const PaperLine& line, int top) const {
        cairo_move_to(context, setup_.margin + pango_units_to_double(line.x),
                      setup_.margin + pango_units_to_double(top + line.baseline));
        pango_cairo_show_layout_line(context, line.line);
    }

    /// The parts of links that stand in a line.
    void addLinks(cairo_t* context, const PaperLine& line, int top, const std::vector<TextLink>& links) const {
        const auto begin = static_cast<std::size_t>(line.line->start_index);
        const std::size_t end = begin + static_cast<std::size_t>(line.line->length);
        for (const TextLink& link : links) {
            if (link.begin >= end || link.end <= begin) {
                continue;
            }
            int from = 0;
            int to = 0;
            pango_layout_line_index_to_x(line.line, static_cast<int>(std::max(link.begin, begin)), FALSE, &from);
            pango_layout_line_index_to_x(line.line, static_cast<int>(std::min(link.end, end)), FALSE, &to);
            const double left = setup_.margin + pango_units_to_double(line.x + std::min(from, to));
            addPageLink(context,
                        {left, setup_.margin + pango_units_to_double(top), pango_units_to_double(std::abs(to - from)),
                         pango_units_to_double(line.height)},
                        link.target);
        }
    }

    void drawNote(cairo_t* context) {
        pango_layout_set_text(layout_.get(), kRestNotShown, -1);
        const int bottom = toPango(setup_.height - 2 * setup_.margin);
        drawLine(context, paperLines({0, sizeof(kRestNotShown), true}).front(), bottom - lineHeight_);
    }

    std::string text_;
    std::size_t headerLength_;
    PageSetup setup_;
    std::unique_ptr<PangoContext, ObjectRelease> context_;
    std::unique_ptr<PangoLayout, ObjectRelease> layout_;
    Tabs headerTabs_;
    Tabs bodyTabs_;
    int columnWidth_ = 0;
    int lineHeight_ = 0;
    std::vector<PageStart> pages_;
    PageStart end_;  // behind the last line that is shown
    bool truncated_ = false;
};

}  // namespace

std::unique_ptr<LaidOutDocument> layOutText(std::string_view bytes, const PageSetup& setup) {
    requireFonts();
    return std::make_unique<TextDocument>(decodeText(bytes), setup);
}

}  // namespace ternview
