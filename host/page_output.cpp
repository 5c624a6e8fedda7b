#include "page_output.h"

#include <cairo-pdf.h>
#include <cairo.h>

#include <algorithm>
#include <cmath>
#include <exception>
#include <memory>
#include <numeric>
#include <string>
#include <vector>

#include "loaders.h"

namespace ternview {
namespace {

constexpr double kPointsPerPixel = 72.0 / 96.0;

struct SurfaceRelease {
    void operator()(cairo_surface_t* surface) const { cairo_surface_destroy(surface); }
};
struct ContextRelease {
    void operator()(cairo_t* context) const { cairo_destroy(context); }
};
using Surface = std::unique_ptr<cairo_surface_t, SurfaceRelease>;
using Context = std::unique_ptr<cairo_t, ContextRelease>;

/// 1-based numbers of the pages that are wanted and exist.
std::vector<int> wantedPages(const LaidOutDocument& document, const Job& job) {
    std::vector<int> pages(static_cast<std::size_t>(document.pageCount()));
    std::iota(pages.begin(), pages.end(), 1);
    std::erase_if(pages, [&job](int page) { return !job.pages.contains(page); });
    if (pages.empty()) {
        const int count = document.pageCount();
        throw JobError(Failure::kNoSuchPage, std::to_string(count) + (count == 1 ? " page" : " pages"));
    }
    return pages;
}

void check(cairo_status_t status) {
    if (status == CAIRO_STATUS_NO_MEMORY) {
        throw std::bad_alloc();
    }
    if (status != CAIRO_STATUS_SUCCESS) {
        throw LoadError(std::string("its pages cannot be drawn: ") + cairo_status_to_string(status));
    }
}

/// Where cairo's C callbacks write to; an exception waits here until cairo has returned. Of links and fonts cairo writes a few
/// bytes at a time, which are gathered: each frame costs this process and the program several calls of the system.
struct Stream {
    FrameWriter& out;
    std::string gathered{};
    std::exception_ptr failure = nullptr;

    static cairo_status_t write(void* closure, const unsigned char* bytes, unsigned int size) {
        constexpr std::size_t kEnough = std::size_t{1} << 16;
        auto* stream = static_cast<Stream*>(closure);
        try {
            stream->gathered.append(reinterpret_cast<const char*>(bytes), size);
            if (stream->gathered.size() >= kEnough) {
                stream->send();
            }
            return CAIRO_STATUS_SUCCESS;
        } catch (...) {
            stream->failure = std::current_exception();
            return CAIRO_STATUS_WRITE_ERROR;
        }
    }

    void send() {
        out.data(gathered);
        gathered.clear();
    }

    void check(cairo_status_t status) const {
        if (failure) {
            std::rethrow_exception(failure);
        }
        ternview::check(status);
    }
};

struct PixelSize {
    int width;
    int height;
};
struct Scale {
    double x;
    double y;
};

/// @param page 1-based
Surface drawnPage(LaidOutDocument& document, int page, PixelSize size, Scale scale) {
    Surface surface(cairo_image_surface_create(CAIRO_FORMAT_RGB24, size.width, size.height));
    check(cairo_surface_status(surface.get()));
    const Context context(cairo_create(surface.get()));
    cairo_set_source_rgb(context.get(), 1, 1, 1);
    cairo_paint(context.get());
    cairo_set_source_rgb(context.get(), 0, 0, 0);
    cairo_scale(context.get(), scale.x, scale.y);
    document.drawPage(page - 1, context.get());
    check(cairo_status(context.get()));
    return surface;
}

void sendPng(const Surface& surface, FrameKind kind, const std::string& label, FrameWriter& out) {
    out.begin(kind, label);
    Stream stream{out};
    stream.check(cairo_surface_write_to_png_stream(surface.get(), Stream::write, &stream));
    stream.send();
    out.end();
}

}  // namespace

void writePngPages(LaidOutDocument& document, const Job& job, FrameWriter& out) {
    const std::vector<int> pages = wantedPages(document, job);
    for (const int page : pages) {
        const PaperSize paper = document.paperSize(page - 1);
        const PageGeometry geometry = pageGeometry(paper, job.resolution);
        const PixelSize size{static_cast<int>(geometry.width), static_cast<int>(geometry.height)};
        const Surface surface = drawnPage(document, page, size, {size.width / paper.width, size.height / paper.height});
        sendPng(surface, FrameKind::kPage, std::to_string(page) + "/" + std::to_string(pages.size()), out);
    }
}

void writeThumbnail(LaidOutDocument& document, FrameWriter& out) {
    const PaperSize paper = document.paperSize(0);
    const double scale = kThumbnailWidth / paper.width;
    const PixelSize size{kThumbnailWidth, std::clamp(static_cast<int>(paper.height * scale), 1, kThumbnailHeight)};
    sendPng(drawnPage(document, 1, size, {scale, scale}), FrameKind::kThumbnail, {}, out);
}

void writeThumbnail(LaidOutDocument& document, int longerSide, FrameWriter& out) {
    const PaperSize paper = document.paperSize(0);
    const double scale = longerSide / std::max(paper.width, paper.height);
    const auto pixels = [scale](double side) { return std::max(static_cast<int>(std::lround(side * scale)), 1); };
    const PixelSize size{pixels(paper.width), pixels(paper.height)};
    sendPng(drawnPage(document, 1, size, {scale, scale}), FrameKind::kThumbnail, {}, out);
}

void writePdf(LaidOutDocument& document, const Job& job, FrameWriter& out) {
    const std::vector<int> pages = wantedPages(document, job);
    out.begin(FrameKind::kPdf);
    Stream stream{out};
    const PaperSize first = document.paperSize(pages.front() - 1);
    const Surface surface(cairo_pdf_surface_create_for_stream(Stream::write, &stream, first.width * kPointsPerPixel,
                                                              first.height * kPointsPerPixel));
    cairo_pdf_surface_set_metadata(surface.get(), CAIRO_PDF_METADATA_CREATOR, "ternview");
    if (const std::string title = document.title(); !title.empty()) {
        cairo_pdf_surface_set_metadata(surface.get(), CAIRO_PDF_METADATA_TITLE, title.c_str());
    }
    const Context context(cairo_create(surface.get()));
    cairo_scale(context.get(), kPointsPerPixel, kPointsPerPixel);
    for (const int page : pages) {
        const PaperSize paper = document.paperSize(page - 1);
        cairo_pdf_surface_set_size(surface.get(), paper.width * kPointsPerPixel, paper.height * kPointsPerPixel);
        cairo_save(context.get());
        document.drawPage(page - 1, context.get());
        cairo_restore(context.get());
        cairo_show_page(context.get());
        stream.check(cairo_status(context.get()));
    }
    cairo_surface_finish(surface.get());
    stream.check(cairo_surface_status(surface.get()));
    stream.send();
    out.end();
}

}  // namespace ternview
