// Transfer decoding (RFC 2045, section 6).
#pragma once

#include <cstdint>

#include "fileformats/pst/common/mimemessage.h"

/// An unpadded tail makes up to this many bytes more than the text it comes from is long.
inline constexpr std::uint64_t kBase64Slack = 2;

/**
 * Decodes base64. Bytes outside the alphabet are passed over; "=" ends a group but not the data; a tail without padding gives all
 * three bytes of its group.
 *
 * @param targetLength in: capacity of `target`, at least `sourceLength`, and kBase64Slack more for the whole of an unpadded tail;
 *        out: bytes written
 * @return 1; -13 for a missing pointer or too small a target; -1 for an empty source
 */
ternkit::Status DecodeBase64(const char* source, std::uint64_t sourceLength, char* target, std::uint64_t& targetLength);

/**
 * Takes two bytes behind a "=" as hexadecimal digits, as quoted-printable text and encoded words do. A byte that is no digit
 * counts with its own value.
 *
 * @return true with the byte they make; false when both are above 15, so that they stand for themselves
 */
bool DecodeHexPair(char first, char second, char& decoded);

/**
 * Decodes a content.
 *
 * @param decoded receives the content; its size does not count the NUL that stands behind it
 * @return 1; -1 without memory, and for base64 without content
 */
ternkit::Status DecodeContent(const char* begin, const char* end, TransferEncoding encoding, OwnedBytes& decoded);
