// Passes over a finished document.
#pragma once

#include <cstdint>

#include "internal/ternclasses_.h"

/**
 * Overwrites with spaces what mail programs leave in HTML and no reader should see: "<div>&nbsp;value=" markers, and the numeric
 * references to control characters at the head of the text's references. Ends at the first NUL; the length stays.
 */
void CleanDocument(char* bytes, std::uint64_t length);

/// Declares UTF-8 behind the first "<head>" of a text that declares no charset. @return 1, or -1 without memory
ternkit::Status InsertCharsetMeta(ByteBuffer& document);
