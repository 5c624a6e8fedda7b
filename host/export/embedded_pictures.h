// The pictures of an HTML document as data: URIs that can stand in a page of its own.
#pragma once

#include <cstddef>
#include <string>
#include <unordered_map>
#include <utility>

#include "loaders/html_picture_data.h"

namespace ternview {

class EmbeddedPictures {
public:
    explicit EmbeddedPictures(HtmlPictureData data) : m_data(std::move(data)) {}

    /**
     * The picture at an address as "data:image/png;base64,..." with nothing behind the comma but base64; empty when it is not
     * ours to load, not there, none of the kinds that every browser shows (PNG, JPEG, GIF, WebP, BMP), or when there are too
     * many. A picture that comes from a file and is used often stands in the page as often, within limits.
     */
    std::string uri(const std::string& address);

private:
    enum class FileState { kShown, kRefused };
    /// @return empty when there is no room for it
    std::string take(const std::string& address, bool isRepeated);

    HtmlPictureData m_data;
    std::unordered_map<std::string, FileState> m_files;  // by address; one that was refused is not read again
    std::size_t m_bytes = 0;
    std::size_t m_repeatedBytes = 0;
};

}  // namespace ternview
