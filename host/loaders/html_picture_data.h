// The bytes of an HTML document's pictures: from data: URIs and from the directory of the document, and from nowhere else.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace ternview {

class HtmlPictureData {
public:
    /**
     * @param directory the only directory from which files are read; none to read no files
     * @param charset the encoding of the document, in which file names may have been written into it
     */
    HtmlPictureData(std::optional<std::filesystem::path> directory, std::string charset);

    /// What is found at an address, whatever it is; nothing when it is not ours to load, not there, or too large.
    std::optional<std::string> load(const std::string& address) const;

private:
    std::optional<std::string> readFile(const std::string& address) const;

    std::optional<std::filesystem::path> m_directory;
    std::string m_charset;
};

/// Whether an address carries its picture in itself.
bool isDataUri(std::string_view address);

}  // namespace ternview
