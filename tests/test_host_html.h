// What the tests of the host's HTML loader look at: the pixels of pages, and the PDF that a reader gets.
#pragma once

#include <cairo-pdf.h>
#include <cairo.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "loaders/laid_out_document.h"

namespace html_test {

using ternview::LaidOutDocument;
using ternview::layOutHtml;
using ternview::PageSetup;

inline constexpr std::uint32_t kRed = 0xFF0000;
inline constexpr std::uint32_t kGreen = 0x00FF00;

class Folder {
public:
    Folder() {
        std::string name = (std::filesystem::temp_directory_path() / "html-XXXXXX").string();
        m_path = mkdtemp(name.data());
    }
    ~Folder() { std::filesystem::remove_all(m_path); }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;
    const std::filesystem::path& path() const { return m_path; }
    void write(const std::string& name, std::string_view content) const {
        std::ofstream(m_path / name, std::ios::binary).write(content.data(), static_cast<std::streamsize>(content.size()));
    }

private:
    std::filesystem::path m_path;
};

using Surface = std::unique_ptr<cairo_surface_t, decltype(&cairo_surface_destroy)>;
using Context = std::unique_ptr<cairo_t, decltype(&cairo_destroy)>;

/// Paper with its content on whole pixels.
inline constexpr PageSetup kPaper{800, 1100, 50};

/// A PNG of one colour.
inline std::string png(int width, int height, std::uint32_t color) {
    const Surface surface(cairo_image_surface_create(CAIRO_FORMAT_RGB24, width, height), &cairo_surface_destroy);
    const Context context(cairo_create(surface.get()), &cairo_destroy);
    cairo_set_source_rgb(context.get(), (color >> 16) / 255.0, (color >> 8 & 0xFF) / 255.0, (color & 0xFF) / 255.0);
    cairo_paint(context.get());
    std::string result;
    const auto append = [](void* target, const unsigned char* data, unsigned int size) {
        static_cast<std::string*>(target)->append(reinterpret_cast<const char*>(data), size);
        return CAIRO_STATUS_SUCCESS;
    };
    cairo_surface_write_to_png_stream(surface.get(), append, &result);
    return result;
}

inline std::string base64(std::string_view data) {
    constexpr std::string_view kDigits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string result;
    for (std::size_t i = 0; i < data.size(); i += 3) {
        std::uint32_t bits = 0;
        for (std::size_t k = 0; k < 3; ++k) {
            bits = bits << 8 | (i + k < data.size() ? static_cast<unsigned char>(data[i + k]) : 0U);
        }
        for (std::size_t k = 0; k < 4; ++k) {
            result += i + k <= data.size() ? kDigits[bits >> (18 - 6 * k) & 63] : '=';
        }
    }
    return result;
}

/// One page as pixels at one pixel per CSS pixel.
class Pixels {
public:
    Pixels(LaidOutDocument& document, int page, const PageSetup& setup = kPaper)
        : m_surface(cairo_image_surface_create(CAIRO_FORMAT_RGB24, static_cast<int>(setup.width), static_cast<int>(setup.height)),
                    &cairo_surface_destroy) {
        const Context context(cairo_create(m_surface.get()), &cairo_destroy);
        cairo_set_source_rgb(context.get(), 1, 1, 1);
        cairo_paint(context.get());
        document.drawPage(page, context.get());
        cairo_surface_flush(m_surface.get());
    }
    int width() const { return cairo_image_surface_get_width(m_surface.get()); }
    int height() const { return cairo_image_surface_get_height(m_surface.get()); }
    std::uint32_t at(int x, int y) const {
        std::uint32_t value;
        std::memcpy(&value,
                    cairo_image_surface_get_data(m_surface.get()) + y * cairo_image_surface_get_stride(m_surface.get()) + x * 4,
                    4);
        return value & 0xFFFFFF;
    }
    int count(std::uint32_t color) const {
        int result = 0;
        for (int y = 0; y < height(); ++y) {
            for (int x = 0; x < width(); ++x) {
                result += at(x, y) == color ? 1 : 0;
            }
        }
        return result;
    }
    struct Extent {
        int x = -1;
        int y = -1;
        int width = 0;
        int height = 0;
        bool operator==(const Extent&) const = default;
    };
    /// What a colour covers, from the upper left corner of the page's content.
    Extent extent(std::uint32_t color, const PageSetup& setup = kPaper) const {
        int left = width();
        int top = height();
        int right = -1;
        int bottom = -1;
        for (int y = 0; y < height(); ++y) {
            for (int x = 0; x < width(); ++x) {
                if (at(x, y) == color) {
                    left = std::min(left, x);
                    top = std::min(top, y);
                    right = std::max(right, x);
                    bottom = y;
                }
            }
        }
        const int margin = static_cast<int>(setup.margin);
        return right < 0 ? Extent() : Extent{left - margin, top - margin, right - left + 1, bottom - top + 1};
    }
    /// The rightmost column with anything but white.
    int rightmost() const {
        int result = -1;
        for (int y = 0; y < height(); ++y) {
            for (int x = result + 1; x < width(); ++x) {
                result = at(x, y) != 0xFFFFFF ? x : result;
            }
        }
        return result;
    }

private:
    Surface m_surface;
};

inline std::ostream& operator<<(std::ostream& out, const Pixels::Extent& extent) {
    return out << extent.x << "," << extent.y << " " << extent.width << "x" << extent.height;
}

/// What a colour covers on the first page of a document.
inline Pixels::Extent extentOf(std::string_view html, std::uint32_t color = kGreen) {
    const auto document = layOutHtml(html, {}, kPaper);
    return Pixels(*document, 0).extent(color);
}

inline int countOf(std::string_view html, std::uint32_t color, const std::optional<std::filesystem::path>& directory = {}) {
    const auto document = layOutHtml(html, directory, kPaper);
    return Pixels(*document, 0).count(color);
}

/// Writes a document as a PDF whose units are those of its pages.
inline void writePdf(LaidOutDocument& document, const std::string& file, const PageSetup& setup = kPaper) {
    const Surface surface(cairo_pdf_surface_create(file.c_str(), setup.width, setup.height), &cairo_surface_destroy);
    const Context context(cairo_create(surface.get()), &cairo_destroy);
    for (int page = 0; page < document.pageCount(); ++page) {
        document.drawPage(page, context.get());
        cairo_show_page(context.get());
    }
}

/// The text of each page, as a reader of the PDF finds it.
inline std::vector<std::string> textOfPages(std::string_view html, const PageSetup& setup = kPaper) {
    const Folder folder;
    const std::string file = folder.path() / "document.pdf";
    writePdf(*layOutHtml(html, {}, setup), file, setup);
    std::string text;
    const std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(("pdftotext -layout '" + file + "' -").c_str(), "r"), &pclose);
    std::array<char, 4096> room;
    for (std::size_t count = 0; pipe && (count = fread(room.data(), 1, room.size(), pipe.get())) > 0;) {
        text.append(room.data(), count);
    }
    std::vector<std::string> pages;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = std::min(text.find('\f', at), text.size());
        pages.push_back(text.substr(at, end - at));
        at = end + 1;
    }
    return pages;
}

inline std::string textOf(std::string_view html) {
    std::string result;
    for (const std::string& page : textOfPages(html)) {
        result += page;
    }
    return result;
}

inline std::size_t occurrences(std::string_view text, std::string_view wanted) {
    std::size_t result = 0;
    for (std::size_t at = text.find(wanted); at != std::string_view::npos; at = text.find(wanted, at + 1)) {
        ++result;
    }
    return result;
}

inline std::string repeated(std::string_view text, std::size_t count) {
    std::string result;
    for (std::size_t i = 0; i < count; ++i) {
        result += text;
    }
    return result;
}

}  // namespace html_test
