#include "pdf_document.h"

#include <poppler.h>

#include "html_addresses.h"
#include "page_links.h"

namespace ternview {
namespace {

constexpr double kPixelsPerPoint = 96.0 / 72.0;

struct ObjectRelease {
    void operator()(void* object) const { g_object_unref(object); }
};

struct LinkRelease {
    void operator()(GList* links) const { poppler_page_free_link_mapping(links); }
};

class PdfDocument final : public LaidOutDocument {
public:
    PdfDocument(const std::string& pdf, const std::string& maker) : maker_(maker) {
        GBytes* bytes = g_bytes_new(pdf.data(), pdf.size());
        GError* error = nullptr;
        document_.reset(poppler_document_new_from_bytes(bytes, nullptr, &error));
        g_bytes_unref(bytes);
        g_clear_error(&error);
        if (document_ == nullptr || pageCount() < 1) {
            throw LoadError(maker_ + " made no pages of its text");
        }
    }

    int pageCount() const override { return poppler_document_get_n_pages(document_.get()); }

    PaperSize paperSize(int index) const override {
        const PaperSize points = sizeInPoints(page(index).get());
        return {points.width * kPixelsPerPoint, points.height * kPixelsPerPoint};
    }

    void drawPage(int index, cairo_t* context) override {
        const Page drawn = page(index);
        cairo_save(context);
        cairo_scale(context, kPixelsPerPoint, kPixelsPerPoint);
        const cairo_surface_type_t surface = cairo_surface_get_type(cairo_get_target(context));
        (surface == CAIRO_SURFACE_TYPE_IMAGE ? poppler_page_render : poppler_page_render_for_printing)(drawn.get(), context);
        if (carriesLinks(context)) {
            drawLinks(drawn.get(), context);
        }
        cairo_restore(context);
    }

private:
    using Page = std::unique_ptr<PopplerPage, ObjectRelease>;

    static PaperSize sizeInPoints(PopplerPage* page) {
        PaperSize size{};
        poppler_page_get_size(page, &size.width, &size.height);
        return size;
    }

    Page page(int index) const {
        Page result(poppler_document_get_page(document_.get(), index));
        if (result == nullptr) {
            throw LoadError(maker_ + " made a page of its text that cannot be drawn");
        }
        return result;
    }

    /// Drawing a page draws no links: they lie over it.
    static void drawLinks(PopplerPage* page, cairo_t* context) {
        const std::unique_ptr<GList, LinkRelease> links(poppler_page_get_link_mapping(page));
        const double height = sizeInPoints(page).height;
        for (const GList* link = links.get(); link != nullptr; link = link->next) {
            const auto* mapping = static_cast<const PopplerLinkMapping*>(link->data);
            const PopplerRectangle& area = mapping->area;  // from the lower left corner
            if (mapping->action->type == POPPLER_ACTION_URI && mapping->action->uri.uri != nullptr) {
                addPageLink(context, {area.x1, height - area.y2, area.x2 - area.x1, area.y2 - area.y1},
                            linkTarget(mapping->action->uri.uri));
            }
        }
    }

    std::string maker_;
    std::unique_ptr<PopplerDocument, ObjectRelease> document_;
};

}  // namespace

std::unique_ptr<LaidOutDocument> openPdf(const std::string& pdf, const std::string& maker) {
    return std::make_unique<PdfDocument>(pdf, maker);
}

}  // namespace ternview
