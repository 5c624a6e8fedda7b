/**
 * CompoundFileBuilder writes compound files for tests, examples and benchmarks, valid by [MS-CFB]: storages as balanced red-black
 * trees in the format's order, small streams in a mini stream, DIFAT sectors where the header is too small for the FAT.
 *
 *     CompoundFileBuilder file;
 *     file.root().storage("Settings").stream("Colors", "red");
 *     CompoundImage image = file.image();
 *     image.put32(image.entryOf("Settings/Colors") + kEntrySize, 5000);   // the one deviation of a test
 *     const std::string bytes = image.bytes;
 *
 * Names are ASCII. A builder may write any number of times.
 */
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace compound {

inline constexpr std::uint32_t kFree = 0xFFFFFFFF;
inline constexpr std::uint32_t kEndOfChain = 0xFFFFFFFE;
inline constexpr std::uint32_t kFatSector = 0xFFFFFFFD;
inline constexpr std::uint32_t kDifatSector = 0xFFFFFFFC;
inline constexpr std::uint32_t kNoEntry = 0xFFFFFFFF;

// Offsets in the header and in a directory entry.
inline constexpr std::size_t kHeaderSectorShift = 30;
inline constexpr std::size_t kHeaderMiniSectorShift = 32;
inline constexpr std::size_t kHeaderFatSectors = 44;
inline constexpr std::size_t kHeaderFirstDirectorySector = 48;
inline constexpr std::size_t kHeaderCutoff = 56;
inline constexpr std::size_t kHeaderFirstMiniFatSector = 60;
inline constexpr std::size_t kHeaderFirstDifatSector = 68;
inline constexpr std::size_t kHeaderDifatSectors = 72;
inline constexpr std::size_t kHeaderDifat = 76;
inline constexpr std::size_t kEntryNameLength = 64;
inline constexpr std::size_t kEntryType = 66;
inline constexpr std::size_t kEntryLeft = 68;
inline constexpr std::size_t kEntryRight = 72;
inline constexpr std::size_t kEntryChild = 76;
inline constexpr std::size_t kEntryStart = 116;
inline constexpr std::size_t kEntrySize = 120;

class Storage {
public:
    /// The storage of that name inside this one, made when it is not there.
    Storage& storage(const std::string& name);
    /// Sets a stream's bytes.
    void stream(const std::string& name, std::string bytes) { m_streams[name] = std::move(bytes); }

    const std::map<std::string, std::string>& streams() const { return m_streams; }
    const std::map<std::string, std::unique_ptr<Storage>>& storages() const { return m_storages; }

private:
    std::map<std::string, std::string> m_streams;
    std::map<std::string, std::unique_ptr<Storage>> m_storages;
};

enum class SectorSize { Of512, Of4096 };
enum class Arrangement {
    Neighbours,  // the sectors of a chain one behind the other
    Scattered,   // no sector of a chain in front of the next one
};

struct Options {
    SectorSize sectorSize = SectorSize::Of512;
    Arrangement arrangement = Arrangement::Neighbours;
};

/// A written file, with the places where it can be damaged. Paths are names divided by "/"; "" is the root.
struct CompoundImage {
    std::string bytes;
    std::size_t sectorSize = 512;
    std::vector<std::uint32_t> fatSectors;
    std::vector<std::uint32_t> difatSectors;
    std::vector<std::uint32_t> directoryChain;
    std::vector<std::uint32_t> miniFatChain;
    std::vector<std::uint32_t> miniStreamChain;
    std::map<std::string, std::uint32_t> entries;              // entry numbers by path
    std::map<std::string, std::vector<std::uint32_t>> chains;  // of streams, in sectors of their kind

    std::size_t sectorAt(std::uint32_t sector) const { return (std::size_t{sector} + 1) * sectorSize; }
    /// Offset of a directory entry.
    std::size_t entryOf(const std::string& path) const { return entryNumber(entries.at(path)); }
    std::size_t entryNumber(std::uint32_t number) const;
    /// Offset of a sector's entry in the FAT or the mini FAT.
    std::size_t fatEntry(std::uint32_t sector) const;
    std::size_t miniFatEntry(std::uint32_t sector) const;

    std::uint32_t get32(std::size_t offset) const;
    void put32(std::size_t offset, std::uint32_t value);
    void put16(std::size_t offset, std::uint16_t value);
};

class CompoundFileBuilder {
public:
    explicit CompoundFileBuilder(Options options = {}) : m_options(options) {}

    Storage& root() { return m_root; }
    CompoundImage image() const;
    std::string bytes() const { return image().bytes; }

private:
    Options m_options;
    Storage m_root;
};

}  // namespace compound
