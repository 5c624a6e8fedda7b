// Strangers' HTML as a page for a browser.
//
// The page is written anew from what is understood of the source, so that nothing reaches a browser but well nested elements and
// attributes of short lists, declarations of browser_css.h, text, and links that lead to the web or to a mail program when a
// person follows them. A policy in the page forbids browsers the rest once more.
#pragma once

#include <string>
#include <string_view>

#include "export/embedded_pictures.h"

namespace ternview {

/**
 * @param html valid UTF-8
 * @param title of the page, UTF-8
 */
std::string browserPage(std::string_view html, EmbeddedPictures pictures, std::string_view title);

/// The same for plain text, in which addresses of the web become links.
/// @param text UTF-8 with LF line ends
std::string browserPageOfText(std::string_view text, std::string_view title);

/// The address of a link as it may stand in a page or text; empty when it leads to anything but the web, a mail program, or a
/// place in the document itself ("#...").
/// @param address with references replaced
std::string pageLinkTarget(std::string_view address);

}  // namespace ternview
