#include "html_pictures.h"

#include "html_vector.h"

#include <gdk-pixbuf/gdk-pixbuf.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <vector>

namespace ternview {
namespace {

constexpr double kMaxPixels = 40e6;                               // of one picture
constexpr std::size_t kMaxDecodedBytes = std::size_t{200} << 20;  // of all pictures, at four bytes a pixel

struct ObjectDeleter {
    void operator()(gpointer object) const { g_object_unref(object); }
};
using Pixbuf = std::unique_ptr<GdkPixbuf, ObjectDeleter>;
using PixbufLoader = std::unique_ptr<GdkPixbufLoader, ObjectDeleter>;

/// Whether a bitmap tells that its pixels or its header end behind its own end. Its decoder would make room for all of that.
bool isBitmapWithoutPixels(std::string_view data) {
    constexpr std::size_t kPixelsField = 10;  // behind it stands the header's size
    std::array<std::uint32_t, 2> sizes{};
    std::memcpy(sizes.data(), data.data() + std::min(kPixelsField, data.size()),
                std::min(sizeof(sizes), data.size() - std::min(kPixelsField, data.size())));
    return std::max(sizes[0], sizes[1]) > data.size();
}

/// The gdk-pixbuf name of a picture's format, by its first bytes; null for none that we show.
const char* rasterFormat(std::string_view data) {
    using namespace std::string_view_literals;
    struct Signature {
        std::string_view start;
        const char* format;
    };
    static constexpr Signature kSignatures[] = {
        {"\x89PNG\r\n\x1A\n"sv, "png"},
        {"\xFF\xD8\xFF"sv, "jpeg"},
        {"GIF8"sv, "gif"},
        {"BM"sv, "bmp"},
        {"II*\0"sv, "tiff"},
        {"MM\0*"sv, "tiff"},
        {"\0\0\1\0"sv, "ico"},
    };
    for (const Signature& signature : kSignatures) {
        if (data.starts_with(signature.start)) {
            return data.starts_with("BM") && isBitmapWithoutPixels(data) ? nullptr : signature.format;
        }
    }
    return data.starts_with("RIFF") && data.size() >= 12 && data.substr(8).starts_with("WEBP") ? "webp" : nullptr;
}

bool looksLikeVector(std::string_view data) {
    const std::string_view head = data.substr(0, 4096);
    const std::size_t start = head.find('<');
    return start != std::string_view::npos && start <= 64 && head.find("<svg") != std::string_view::npos;
}

struct SizeLimit {
    double maxPixels;
    bool exceeded = false;
};

void checkSize(GdkPixbufLoader* loader, int width, int height, gpointer data) {
    auto* limit = static_cast<SizeLimit*>(data);
    if (width <= 0 || height <= 0 || static_cast<double>(width) * height > limit->maxPixels) {
        limit->exceeded = true;
        gdk_pixbuf_loader_set_size(loader, 0, 0);  // loaders take this as the order not to decode
    }
}

/// @param turned set when the picture's metadata asked for turning it
Pixbuf decodeRaster(std::string_view data, const char* format, double maxPixels, bool& turned) {
    constexpr std::size_t kPiece = 16384;
    const PixbufLoader loader(gdk_pixbuf_loader_new_with_type(format, nullptr));
    if (!loader) {
        return nullptr;
    }
    SizeLimit limit{maxPixels};
    g_signal_connect(loader.get(), "size-prepared", G_CALLBACK(checkSize), &limit);
    bool good = true;
    for (std::size_t at = 0; at < data.size() && good && !limit.exceeded; at += kPiece) {
        const std::string_view piece = data.substr(at, kPiece);
        good =
            gdk_pixbuf_loader_write(loader.get(), reinterpret_cast<const guchar*>(piece.data()), piece.size(), nullptr) != FALSE;
    }
    gdk_pixbuf_loader_close(loader.get(), nullptr);  // a picture that was cut off still shows what there is of it
    GdkPixbuf* pixbuf = limit.exceeded ? nullptr : gdk_pixbuf_loader_get_pixbuf(loader.get());
    turned = pixbuf != nullptr && gdk_pixbuf_get_option(pixbuf, "orientation") != nullptr;
    return Pixbuf(pixbuf == nullptr ? nullptr : gdk_pixbuf_apply_embedded_orientation(pixbuf));
}

CairoSurface surfaceOf(const GdkPixbuf* pixbuf) {
    const int width = gdk_pixbuf_get_width(pixbuf);
    const int height = gdk_pixbuf_get_height(pixbuf);
    const auto channels = static_cast<std::size_t>(gdk_pixbuf_get_n_channels(pixbuf));
    const bool alpha = gdk_pixbuf_get_has_alpha(pixbuf) != FALSE;
    CairoSurface surface(cairo_image_surface_create(alpha ? CAIRO_FORMAT_ARGB32 : CAIRO_FORMAT_RGB24, width, height),
                         &cairo_surface_destroy);
    if (cairo_surface_status(surface.get()) != CAIRO_STATUS_SUCCESS) {
        return surface;
    }
    cairo_surface_flush(surface.get());
    const guint8* pixels = gdk_pixbuf_read_pixels(pixbuf);
    unsigned char* target = cairo_image_surface_get_data(surface.get());
    for (int y = 0; y < height; ++y) {
        const guint8* source = pixels + static_cast<std::size_t>(y) * static_cast<std::size_t>(gdk_pixbuf_get_rowstride(pixbuf));
        unsigned char* row =
            target + static_cast<std::size_t>(y) * static_cast<std::size_t>(cairo_image_surface_get_stride(surface.get()));
        for (int x = 0; x < width; ++x, source += channels) {
            const std::uint32_t a = alpha ? source[3] : 255;
            const auto premultiplied = [a](std::uint32_t c) { return (c * a + 127) / 255; };
            const std::uint32_t value =
                a << 24 | premultiplied(source[0]) << 16 | premultiplied(source[1]) << 8 | premultiplied(source[2]);
            std::memcpy(row + static_cast<std::size_t>(x) * 4, &value, 4);
        }
    }
    cairo_surface_mark_dirty(surface.get());
    return surface;
}

/// A photograph up to its last scan that is worth reading. Each is a pass over all pixels, however few bytes it takes.
std::string_view withFewScans(std::string_view jpeg) {
    constexpr std::size_t kMost = 30;
    constexpr std::string_view kStartOfScan = "\xFF\xDA";
    std::size_t at = jpeg.find(kStartOfScan);
    for (std::size_t count = 0; count < kMost && at != std::string_view::npos; ++count) {
        at = jpeg.find(kStartOfScan, at + kStartOfScan.size());
    }
    return jpeg.substr(0, at);
}

/// Lets the PDF output take a photograph over as it is.
void attachJpeg(cairo_surface_t* surface, std::string_view data) {
    auto copy = std::make_unique<std::string>(data);
    const auto* bytes = reinterpret_cast<const unsigned char*>(copy->data());
    const auto release = [](void* text) { const std::unique_ptr<std::string> owner(static_cast<std::string*>(text)); };
    if (cairo_surface_set_mime_data(surface, CAIRO_MIME_TYPE_JPEG, bytes, copy->size(), release, copy.get()) ==
        CAIRO_STATUS_SUCCESS) {
        static_cast<void>(copy.release());
    }
}

std::optional<Picture> rasterPicture(std::string_view data, const char* format, double maxPixels) {
    bool turned = false;
    const bool jpeg = std::string_view(format) == "jpeg";
    data = jpeg ? withFewScans(data) : data;
    const Pixbuf pixbuf = decodeRaster(data, format, maxPixels, turned);
    if (!pixbuf) {
        return std::nullopt;
    }
    const int width = gdk_pixbuf_get_width(pixbuf.get());
    const int height = gdk_pixbuf_get_height(pixbuf.get());
    Picture picture{surfaceOf(pixbuf.get()), static_cast<double>(width), static_cast<double>(height)};
    if (jpeg && !turned) {
        attachJpeg(picture.surface.get(), data);
    }
    return picture;
}

}  // namespace

HtmlPictures::HtmlPictures(std::optional<std::filesystem::path> directory, std::string charset)
    : m_data(std::move(directory), std::move(charset)) {
    prepareVectorPictures();
}

const Picture* HtmlPictures::load(const std::string& address) {
    const auto known = m_pictures.find(address);
    if (known != m_pictures.end()) {
        return known->second ? &*known->second : nullptr;
    }
    std::optional<Picture>& picture = m_pictures[address];
    const std::optional<std::string> data = m_data.load(address);
    if (!data) {
        return nullptr;
    }
    const double maxPixels = std::min(kMaxPixels, static_cast<double>(kMaxDecodedBytes - m_decodedBytes) / 4);
    if (const char* format = rasterFormat(*data)) {
        picture = rasterPicture(*data, format, maxPixels);
    } else if (looksLikeVector(*data)) {
        picture = vectorPicture(*data, maxPixels, m_vectorTime);
    }
    if (picture && cairo_surface_status(picture->surface.get()) != CAIRO_STATUS_SUCCESS) {
        picture.reset();
    }
    if (!picture) {
        return nullptr;
    }
    m_decodedBytes += static_cast<std::size_t>(cairo_image_surface_get_width(picture->surface.get())) *
                      static_cast<std::size_t>(cairo_image_surface_get_height(picture->surface.get())) * 4;
    m_decodedBytes = std::min(m_decodedBytes, kMaxDecodedBytes);
    return &*picture;
}

}  // namespace ternview
