#include "drawn_pages.h"

#include <cairo-pdf.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

namespace fuzz {
namespace {

struct Release {
    void operator()(cairo_surface_t* surface) const { cairo_surface_destroy(surface); }
    void operator()(cairo_t* context) const { cairo_destroy(context); }
};
using Surface = std::unique_ptr<cairo_surface_t, Release>;

void draw(ternview::LaidOutDocument& document, int page, cairo_surface_t* surface) {
    const std::unique_ptr<cairo_t, Release> context(cairo_create(surface));
    document.drawPage(page, context.get());
    cairo_surface_flush(surface);
    for (const cairo_status_t status : {cairo_status(context.get()), cairo_surface_status(surface)}) {
        if (status != CAIRO_STATUS_SUCCESS) {
            std::fprintf(stderr, "drawing failed: %s\n", cairo_status_to_string(status));
            std::abort();
        }
    }
}

}  // namespace

void drawEnds(ternview::LaidOutDocument& document, std::size_t size) {
    const auto skip = [](void*, const unsigned char*, unsigned) { return CAIRO_STATUS_SUCCESS; };
    const int last = document.pageCount() - 1;
    for (int page = 0; page <= last; page += last > 0 ? last : 1) {
        const ternview::PaperSize paper = document.paperSize(page);
        if (size % 4 != 0) {
            const Surface pixels(
                cairo_image_surface_create(CAIRO_FORMAT_RGB24, static_cast<int>(paper.width), static_cast<int>(paper.height)));
            draw(document, page, pixels.get());
            continue;
        }
        const Surface pdf(cairo_pdf_surface_create_for_stream(skip, nullptr, paper.width, paper.height));
        cairo_pdf_surface_set_metadata(pdf.get(), CAIRO_PDF_METADATA_TITLE, document.title().c_str());
        draw(document, page, pdf.get());
        cairo_surface_finish(pdf.get());
    }
}

}  // namespace fuzz
