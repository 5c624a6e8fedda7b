// Search and text helpers that all readers and composers use.
#pragma once

#include <cstdint>

#include "internal/ternclasses_.h"

/// First occurrence of a NUL-terminated text in [begin, end), without regard to ASCII case; null when there is none or the needle
/// is null.
const char* FindNoCaseInRange(const char* begin, const char* end, const char* needle);
/// The same with explicit lengths; null also for an empty needle.
const char* FindNoCaseCounted(const char* begin, const char* needle, std::uint64_t haystackLength, std::uint64_t needleLength);

/// True when [position, end) begins with a NUL-terminated text, without regard to ASCII case.
bool StartsWithNoCase(const char* position, const char* end, const char* prefix);

/// First occurrence of a byte string in [begin, end), with regard to case; null when there is none or it is empty.
const char* FindBytes(const char* begin, const char* end, const char* needle, std::uint64_t needleLength);
template <std::size_t Size>
const char* FindLiteral(const char* begin, const char* end, const char (&needle)[Size]) {
    return FindBytes(begin, end, needle, Size - 1);
}
/// First or last occurrence of a byte in [begin, end), or null.
const char* FindByte(const char* begin, const char* end, char byte);
const char* FindLastByte(const char* begin, const char* end, char byte);
/// First CR or LF in [begin, end), or `end`.
const char* FindLineEnd(const char* begin, const char* end);

/// Length of a text that ends at its first NUL or behind `size` bytes.
std::uint64_t BoundedLength(const char* text, std::uint64_t size);

/// A new NUL-terminated block that holds [begin, end); empty when memory is short.
ScopedBlock CopyRange(const char* begin, const char* end);
/// A NUL-terminated UTF-8 text as a NUL-terminated wide one; empty when memory is short or the conversion fails.
ScopedBlock WideFromUtf8String(const char* text);
/// A NUL-terminated wide text as a NUL-terminated UTF-8 one; empty when memory is short or the conversion fails.
ScopedBlock Utf8FromWideString(const char16_t* text);
