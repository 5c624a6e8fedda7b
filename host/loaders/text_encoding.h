// From the bytes of a text document to text that can be laid out.
#pragma once

#include <string>
#include <string_view>

namespace ternview {

/**
 * Decodes a text document and cleans it: what comes out is valid UTF-8 with "\n" as its only line break and the tab as its only
 * other control character. Costs time and memory linear in the document.
 *
 * @param bytes a byte-order mark (UTF-8, UTF-16) decides the encoding; else it is UTF-8 when it is valid; else the charset that
 *        its bytes look like, windows-1252 when they look like none
 */
std::string decodeText(std::string_view bytes);

/// True for seven-bit text with the sequences that switch to Japanese characters (RFC 1468), which is valid UTF-8 otherwise.
bool hasJapaneseEscapes(std::string_view bytes);

}  // namespace ternview
