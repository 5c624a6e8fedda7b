// UTF-8 text in an RTF document: hexadecimal escapes under fonts whose code page has the characters, \u escapes for the others.
#pragma once

#include <cstdint>

#include "fileformats/pst/common/rtfcoverage.h"
#include "fileformats/pst/common/rtffonts.h"
#include "internal/ternclasses_.h"

// The working state of one composition: text that will stand in a document, and the document's fonts, to which the text adds what
// it needs. The text is valid only in a document that has `fonts.tableText` for its font table.
struct HeaderComposer {
    RtfFontTable fonts;
    ByteBuffer headerText;
    RtfCoverage coverage;
};

/**
 * Appends a text in the document's default font, which is also the current one behind it. Bytes that are not UTF-8 become U+FFFD.
 *
 * @param length bytes
 * @return 1; -1 without memory or a status of the buffer's account; -13 for a NUL behind the first character outside ASCII
 */
ternkit::Status EscapeRtfText(HeaderComposer& composer, const char* text, std::uint64_t length);
