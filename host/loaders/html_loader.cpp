#include "html_bands.h"
#include "html_charset.h"
#include "html_container.h"
#include "html_guard.h"
#include "html_pages.h"
#include "laid_out_document.h"
#include "page_links.h"

#include <cmath>
#include <map>
#include <vector>

namespace ternview {
namespace {

constexpr std::size_t kMaxBytes = std::size_t{512} << 20;
constexpr std::size_t kMaxPages = 2000;
constexpr const char* kMorePagesNotice = "This message has more pages than can be shown.";

class HtmlDocument final : public LaidOutDocument {
public:
    HtmlDocument(DecodedHtml decoded, const std::optional<std::filesystem::path>& directory, const PageSetup& setup)
        : m_setup(setup), m_pictures(directory, decoded.charset) {
        const double width = setup.width - 2 * setup.margin;
        const double height = setup.height - 2 * setup.margin;
        SafeHtml html = guardHtml(decoded.text);
        decoded.text = {};
        m_recorded = recordHtml(html, static_cast<int>(width), static_cast<int>(height), m_fonts, m_pictures);
        fitToWidth(m_recorded.items, std::move(m_recorded.tops), width);
        m_plan = planPages(m_recorded.items, height, kMaxPages);
        m_links = std::move(html.links);
        m_title = std::move(html.title);
    }

    int pageCount() const override { return static_cast<int>(m_plan.pages.size()); }

    PaperSize paperSize(int) const override { return {m_setup.width, m_setup.height}; }

    std::string title() const override { return m_title; }

    void drawPage(int index, cairo_t* context) override {
        const PagePlan::Page& page = m_plan.pages.at(static_cast<std::size_t>(index));
        cairo_save(context);
        cairo_rectangle(context, 0, 0, m_setup.width, m_setup.height);
        cairo_clip(context);
        if (m_recorded.pageColor) {
            const Color& color = *m_recorded.pageColor;
            cairo_set_source_rgba(context, color.red, color.green, color.blue, color.alpha);
            cairo_paint(context);
        }
        cairo_translate(context, m_setup.margin, m_setup.margin);
        cairo_translate(context, 0, -page.top);
        auto own = page.items.begin();
        auto spanning = m_plan.spanning.begin();
        while (own != page.items.end() || spanning != m_plan.spanning.end()) {
            const bool takeOwn = spanning == m_plan.spanning.end() || (own != page.items.end() && *own < *spanning);
            const std::uint32_t number = takeOwn ? *own++ : *spanning++;
            const DisplayItem& item = m_recorded.items[number];
            if (number >= page.firstLayer || item.isText()) {
                drawItem(item, page, context);
            }
        }
        if (carriesLinks(context)) {
            addLinks(page, context);
        }
        cairo_restore(context);
        if (m_plan.shortened && index + 1 == pageCount()) {
            drawNotice(context);
        }
    }

private:
    /// Backgrounds, borders and tall pictures end at the page break; a line of text may stand a little over it.
    void drawItem(const DisplayItem& item, const PagePlan::Page& page, cairo_t* context) const {
        const bool whole = item.solid() && item.box.height <= m_setup.height - 2 * m_setup.margin;
        if (whole) {
            paint(item, context);
            return;
        }
        if (item.box.y >= page.bottom || item.box.bottom() <= page.top) {
            return;
        }
        cairo_save(context);
        cairo_rectangle(context, -m_setup.margin, page.top, m_setup.width, page.bottom - page.top);
        cairo_clip(context);
        paint(item, context);
        cairo_restore(context);
    }

    /// The parts of a link on one page, where neighbours are one area.
    void addLinks(const PagePlan::Page& page, cairo_t* context) const {
        std::map<std::uint32_t, std::vector<LinkArea>> areas;
        for (const std::uint32_t index : page.items) {
            const DisplayItem& item = m_recorded.items[index];
            const Box seen = item.box.intersected(item.clip).intersected({0, page.top, m_setup.width, page.bottom - page.top});
            if (item.link != 0 && !seen.empty()) {
                addArea(areas[item.link], seen);
            }
        }
        for (const auto& [link, parts] : areas) {
            for (const LinkArea& part : parts) {
                addPageLink(context, part, m_links.at(link - 1));
            }
        }
    }

    static void addArea(std::vector<LinkArea>& areas, const Box& box) {
        if (!areas.empty()) {
            LinkArea& last = areas.back();
            const double right = std::max(last.x + last.width, box.right());
            const double bottom = std::max(last.y + last.height, box.bottom());
            const double gap = std::max(last.x, box.x) - std::min(last.x + last.width, box.right());
            const double middle = box.y + box.height / 2;
            if (gap <= box.height && middle > last.y && middle < last.y + last.height) {
                last.x = std::min(last.x, box.x);
                last.y = std::min(last.y, box.y);
                last.width = right - last.x;
                last.height = bottom - last.y;
                return;
            }
        }
        areas.push_back({box.x, box.y, box.width, box.height});
    }

    void drawNotice(cairo_t* context) {
        const HtmlFont* font = m_fonts.create({.families = "sans-serif", .size = 12, .italic = true});
        cairo_set_source_rgb(context, 0, 0, 0);
        font->draw(context, kMorePagesNotice, m_setup.margin, m_setup.height - m_setup.margin / 2);
    }

    PageSetup m_setup;
    HtmlPictures m_pictures;  // before the fonts, which begin threads
    HtmlFonts m_fonts;
    RecordedHtml m_recorded;
    PagePlan m_plan;
    LinkAddresses m_links;
    std::string m_title;
};

}  // namespace

std::unique_ptr<LaidOutDocument> layOutHtml(std::string_view bytes, const std::optional<std::filesystem::path>& directory,
                                            const PageSetup& setup) {
    if (bytes.size() > kMaxBytes) {
        throw LoadError("The message is too large to be shown.");
    }
    return std::make_unique<HtmlDocument>(decodeHtml(bytes), directory, setup);
}

}  // namespace ternview
