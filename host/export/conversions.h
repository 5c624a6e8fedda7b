// A handed document as a file that other programs open: one page for a browser, or one plain text.
#pragma once

#include <string>
#include <string_view>

#include "loaders.h"

namespace ternview {

/// The document as one self-contained page in UTF-8 that a browser can open with nothing to fear: it runs nothing and asks for
/// nothing, and its pictures stand in it. Cost and size are linear in the document, up to a bound on the size of pictures.
/// @param document of any format; for HTML that came as a temporary file, pictures are looked for in that file's directory
/// @param title of the page, UTF-8
/// @throws as the document's loader does
std::string safeHtmlPage(const HandedDocument& document, std::string_view title);

/// The document as readable text in UTF-8 with LF line ends; it ends in a line break.
/// @throws as the document's loader does
std::string plainText(const HandedDocument& document);

}  // namespace ternview
