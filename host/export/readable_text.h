// What HTML says, as plain text.
#pragma once

#include <string>
#include <string_view>

namespace ternview {

/**
 * The text of a document as a person would type it: blocks on lines of their own and apart where they have margins, items of
 * lists behind "*" or a number, cells of a row apart by tabs, quotations behind "> ", addresses of links in angle brackets behind
 * their text, alternative texts of pictures in square brackets. What the document hides is left out. Cost and size are linear in
 * the document.
 *
 * @param html valid UTF-8
 * @return UTF-8 that ends in a line break
 */
std::string readableText(std::string_view html);

}  // namespace ternview
