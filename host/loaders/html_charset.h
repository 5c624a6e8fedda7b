// From the bytes of an HTML document to UTF-8.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace ternview {

struct DecodedHtml {
    std::string text;     // valid UTF-8 without NULs; invalid input has become U+FFFD
    std::string charset;  // the iconv name of the encoding that the bytes were in
};

/**
 * Decodes an HTML document: a byte-order mark decides, else a declaration in a meta element, else valid UTF-8, else what the
 * bytes look like. A declared UTF-8 that is none counts as no declaration, since whoever forwards a message adds such
 * declarations without looking. The mark "+/v", which undoing the seven-bit encoding of UTF-7 mail leaves behind, is taken out
 * where it can stand: at the very start, or directly behind a header block in front of the body. Two references to a pair of
 * surrogates become one to their character.
 */
DecodedHtml decodeHtml(std::string_view bytes);

/// The text (UTF-8) in another encoding; nothing when it cannot be written in it.
std::optional<std::string> encodeText(std::string_view text, const std::string& charset);

/// The iconv name for a name from the web or from mail, where some names mean the superset that mail programs really write.
std::string webCharset(std::string_view declared);

}  // namespace ternview
