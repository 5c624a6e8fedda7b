// The pictures of an HTML document: from data: URIs and from the directory of the document, and from nowhere else.
#pragma once

#include "html_picture_data.h"

#include <cairo.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

namespace ternview {

using CairoSurface = std::unique_ptr<cairo_surface_t, decltype(&cairo_surface_destroy)>;

struct Picture {
    CairoSurface surface;
    double width = 0;  // in CSS pixels
    double height = 0;
};

class HtmlPictures {
public:
    /**
     * To be made before Pango is used.
     *
     * @param directory the only directory from which files are read; none to read no files
     * @param charset the encoding of the document, in which file names may have been written into it
     */
    HtmlPictures(std::optional<std::filesystem::path> directory, std::string charset);

    /// The picture at an address, decoded once; null when it is not ours to load, not there, no picture, or too large.
    const Picture* load(const std::string& address);

private:
    HtmlPictureData m_data;
    std::unordered_map<std::string, std::optional<Picture>> m_pictures;
    std::size_t m_decodedBytes = 0;
    std::chrono::milliseconds m_vectorTime{4000};  // that drawing all vector pictures may still take
};

}  // namespace ternview
