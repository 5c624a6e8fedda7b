// RTF: the office suite lays it out as a PDF, in a process of its own, and the PDF's pages are drawn here. Drawing them, rather
// than taking the suite's pictures of pages, keeps text as text in PDF output and gives PNG pages at any resolution.

#include <poppler.h>

#include <memory>
#include <string>

#include "laid_out_document.h"
#include "office/office.h"
#include "rtf_guard.h"

namespace ternview {
namespace {

constexpr double kPixelsPerPoint = 96.0 / 72.0;

struct ObjectRelease {
    void operator()(void* object) const { g_object_unref(object); }
};

class PdfDocument final : public LaidOutDocument {
public:
    explicit PdfDocument(const std::string& pdf) {
        GBytes* bytes = g_bytes_new(pdf.data(), pdf.size());
        GError* error = nullptr;
        document_.reset(poppler_document_new_from_bytes(bytes, nullptr, &error));
        g_bytes_unref(bytes);
        g_clear_error(&error);
        if (document_ == nullptr || pageCount() < 1) {
            throw LoadError("the office suite made no pages of its text");
        }
    }

    int pageCount() const override { return poppler_document_get_n_pages(document_.get()); }

    PaperSize paperSize(int index) const override {
        PaperSize size{};
        poppler_page_get_size(page(index).get(), &size.width, &size.height);
        return {size.width * kPixelsPerPoint, size.height * kPixelsPerPoint};
    }

    void drawPage(int index, cairo_t* context) override {
        cairo_save(context);
        cairo_scale(context, kPixelsPerPoint, kPixelsPerPoint);
        const bool onPixels = cairo_surface_get_type(cairo_get_target(context)) == CAIRO_SURFACE_TYPE_IMAGE;
        (onPixels ? poppler_page_render : poppler_page_render_for_printing)(page(index).get(), context);
        cairo_restore(context);
    }

private:
    using Page = std::unique_ptr<PopplerPage, ObjectRelease>;

    Page page(int index) const {
        Page result(poppler_document_get_page(document_.get(), index));
        if (result == nullptr) {
            throw LoadError("the office suite made a page of its text that cannot be drawn");
        }
        return result;
    }

    std::unique_ptr<PopplerDocument, ObjectRelease> document_;
};

/// A picture of no known kind makes the suite refuse the whole document; its text is worth more than its pictures.
std::string pdfOf(std::string_view rtf, const PageSetup& setup) {
    try {
        return convertInOffice(guardRtf(rtf, setup), OfficeTarget::kPdf, usedOffice());
    } catch (const OfficeRefusal&) {
        return convertInOffice(guardRtf(rtf, setup, RtfPictures::kDropped), OfficeTarget::kPdf, usedOffice());
    }
}

}  // namespace

std::unique_ptr<LaidOutDocument> layOutRtf(std::string_view bytes, const PageSetup& setup) {
    if (!bytes.starts_with("{\\rtf")) {
        throw LoadError("its text is damaged: it is no RTF");
    }
    return std::make_unique<PdfDocument>(pdfOf(bytes, setup));
}

}  // namespace ternview
