// Where the tables, directory entries and streams of a compound file lie, and how a changed file is made one again whose chains
// stay within it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace fuzz {

/// Bytes of the file.
struct Stretch {
    std::size_t address;
    std::size_t size;
};

struct CompoundMap {
    std::uint32_t sectors = 0;            // of the file
    std::uint32_t miniSectors = 0;        // of the mini stream
    std::vector<std::size_t> fatEntries;  // their offsets in the file, by sector
    std::vector<std::size_t> miniFatEntries;
    std::vector<std::size_t> directory;  // likewise
};

/// What the header leads to, as far as it lies in the file. The header must be sound.
CompoundMap mapCompoundFile(std::span<const std::uint8_t> file);

/// Where the sectors lie that a stream's entry in the directory leads to; all of their bytes, whatever size the entry tells.
std::vector<Stretch> stretchesOf(std::span<const std::uint8_t> file, const CompoundMap& map, std::size_t entry);

/// Makes the header sound, and every number that names a sector or an entry one that exists. A sound file stays as it is.
/// @param file has a header's size at least
void mendCompoundFile(std::span<std::uint8_t> file);

}  // namespace fuzz
