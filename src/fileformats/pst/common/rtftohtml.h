// HTML out of RTF that wraps it ([MS-OXRTFEX]).
//
// No general RTF reader: a forward scan with a fixed list of control words copies the text of the "\*\htmltag" groups and the
// text between them. What it does not know stays in the output. It takes time linear in the text, whatever the text is.
#pragma once

#include <cstdint>

#include "internal/ternclasses_.h"

/// Turns RTF that says "\fromhtml" at its first "\from" into HTML, with the passes below behind it, and leaves other text alone.
/// RTF whose HTML cannot be taken out stays, and the passes run on it.
void ConvertRtfToHtml(OwnedBytes& text);

/**
 * Takes the HTML out of RTF.
 *
 * @param text in: RTF; out: HTML with a closing NUL that the size counts, and no more than that NUL where the RTF holds no
 *        "{\*\htmltag". As it was after a failure.
 * @return 1; -1 without memory; -9 for a font table that breaks off
 */
ternkit::Status ExtractHtmlFromRtf(OwnedBytes& text);

/// Makes "<![if !V]>" of every "<![if ...]>", so that no browser takes it for a comment to be closed.
void RewriteConditionalComments(OwnedBytes& text);

/// Cuts what stands behind the first non-breaking space of a "<div>" that has grown beyond 10,000 bytes. @param size in and out
void TrimPaddedDivs(char* bytes, std::uint64_t& size);
