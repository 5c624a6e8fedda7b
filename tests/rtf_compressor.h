// Writes blocks of compressed RTF ([MS-OXRTFCP]), so that tests, benchmarks and seeds have them without a mail client.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace rtf {

inline constexpr std::uint32_t kCompressed = 0x75465A4C;  // "LZFu"
inline constexpr std::uint32_t kStored = 0x414C454D;      // "MELA"

/// CRC of a block's content, bit by bit.
std::uint32_t Crc(std::string_view content);
/// A block with any content under a correct header.
std::string Block(std::uint32_t type, std::uint32_t rawSize, std::string_view content, std::uint32_t crc);
/// A compressed block with tokens of the caller's making and the CRC that fits them.
std::string FromTokens(std::uint32_t rawSize, std::string_view tokens);
/// A text as a compressed block, with references wherever the last 4095 bytes allow one of three bytes or more.
std::string Compressed(std::string_view text);
/// A text as it is, with the CRC 0 that the format demands.
std::string Stored(std::string_view text);

}  // namespace rtf
