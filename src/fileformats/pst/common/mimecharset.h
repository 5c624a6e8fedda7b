// Charsets of Internet messages: names, encoded words (RFC 2047), ISO-2022-JP (RFC 1468), and conversion to UTF-8.
#pragma once

#include <cstdint>

#include "internal/ternclasses_.h"

enum class MimeCharsetId : std::uint32_t {
    None = 0,
    Iso2022Jp = 1,
    Latin1 = 2,
    Utf8 = 3,
    UsAscii = 4,
    Windows = 5,
    Gb2312 = 6,
    Unknown = 7
};

struct MimeCharset {
    MimeCharsetId id = MimeCharsetId::None;
    std::uint32_t codePage = 0;  // for MimeCharsetId::Windows
};

/// The charset of a name. ISO-2022-JP, US-ASCII, UTF-8 and windows-N are known by their beginning, the others by the whole name.
MimeCharset ParseCharsetName(const char* start, const char* end);

/// Finds a "charset=" parameter in [start, end). @return 1 when there is one, else 0 with `charset` zero
ternkit::Status ParseCharsetParameter(MimeCharset& charset, const char* start, const char* end);

/**
 * Decodes the encoded words of a header value in place. The first word that is not one of ours ends decoding: the rest of the
 * value stays as it is. White space between two words stays too.
 *
 * @param flag set to 1 for a word in another charset than US-ASCII; may be null
 * @return 1, or the failure of a word's decoding with the value unchanged
 */
ternkit::Status DecodeEncodedWords(OwnedBytes& value, std::uint32_t* flag);

/**
 * Converts the bytes from `offset` to the buffer's end to UTF-8. What the code page cannot convert stays as it is.
 *
 * @return 1; -1 without memory; -1851 when the text cannot become UTF-8
 */
ternkit::Status ConvertRangeToUtf8(OwnedBytes& buffer, std::uint64_t offset, MimeCharset charset);

/// Converts ISO-2022-JP from `offset` on. The size does not count the closing NUL afterwards. @return 1 or -1
ternkit::Status ConvertIso2022JpToUtf8(OwnedBytes& buffer, std::uint64_t offset);

/**
 * Converts a body to UTF-8 and brings its own declaration of the charset in line.
 *
 * @param bytes the body; its size does not count a closing NUL, before and after
 * @param charset its charset; one that is declared as US-ASCII becomes UTF-8
 * @param convertAll 0 converts ISO-2022-JP only
 * @return 1; -814 without data; -1 or -1851 as the conversion fails
 */
ternkit::Status ConvertPartToUtf8(OwnedBytes& bytes, MimeCharset& charset, std::uint32_t convertAll);
