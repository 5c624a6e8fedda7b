#include "compound_mending.h"

#include <algorithm>
#include <cstring>

#include "external/pole/compounddisk.h"

namespace fuzz {
namespace {

constexpr std::uint32_t kFirstMark = 0xFFFFFFFC;  // from here on a number is no sector
constexpr std::uint32_t kNoEntry = 0xFFFFFFFF;
constexpr std::uint32_t kCutoff = 4096;
constexpr std::uint16_t kLittleEndian = 0xFFFE;
constexpr std::uint16_t kShift = 9;
constexpr std::uint16_t kLargeShift = 12;
constexpr std::uint16_t kMiniShift = 6;

using Bytes = std::span<const std::uint8_t>;
using Header = CompoundHeaderRecord;

template <typename Record>
Record recordAt(Bytes file, std::size_t offset) {
    Record record;
    std::memcpy(&record, file.data() + offset, sizeof(record));
    return record;
}

std::size_t addressOf(const Header& header, std::uint32_t sector) {
    return (std::size_t{sector} + 1) << header.sectorShift;
}

std::uint32_t sectorsOf(Bytes file, const Header& header) {
    return static_cast<std::uint32_t>(std::max<std::size_t>(file.size() >> header.sectorShift, 1) - 1);
}

/// The sectors of a chain, which ends where it leads out of its table or goes on for longer than that.
std::vector<std::uint32_t> chainFrom(Bytes file, const std::vector<std::size_t>& table, std::uint32_t start) {
    std::vector<std::uint32_t> chain;
    for (std::uint32_t sector = start; sector < table.size() && chain.size() < table.size();
         sector = recordAt<std::uint32_t>(file, table[sector])) {
        chain.push_back(sector);
    }
    return chain;
}

/// The places of records in the sectors of a chain.
std::vector<std::size_t> placesIn(const Header& header, const std::vector<std::uint32_t>& chain, std::size_t recordSize) {
    std::vector<std::size_t> places;
    for (const std::uint32_t sector : chain) {
        for (std::size_t at = 0; at + recordSize <= std::size_t{1} << header.sectorShift; at += recordSize) {
            places.push_back(addressOf(header, sector) + at);
        }
    }
    return places;
}

/// Keeps numbers that are below a count, and marks.
void mendNumber(std::uint32_t& number, std::uint32_t count, std::uint32_t firstMark = kFirstMark) {
    if (number >= count && number < firstMark) {
        number = count != 0 ? number % count : kNoEntry;
    }
}

void mendHeader(std::span<std::uint8_t> file) {
    auto header = recordAt<Header>(file, 0);
    header.signature = kCompoundSignature;
    header.byteOrder = kLittleEndian;
    header.sectorShift = header.sectorShift == kLargeShift ? kLargeShift : kShift;
    header.miniSectorShift = kMiniShift;
    header.miniStreamCutoff = kCutoff;
    const std::uint32_t sectors = sectorsOf(file, header);
    header.fatSectorCount = std::clamp(header.fatSectorCount, 1U, static_cast<std::uint32_t>(kHeaderDifatEntries));
    header.difatSectorCount = 0;
    for (std::uint32_t i = 0; i < header.fatSectorCount; ++i) {
        mendNumber(header.difat[i], sectors);
    }
    mendNumber(header.firstDirectorySector, sectors);
    mendNumber(header.firstMiniFatSector, sectors);
    std::memcpy(file.data(), &header, sizeof(header));
}

void mendTable(std::span<std::uint8_t> file, const std::vector<std::size_t>& entries, std::uint32_t sectors) {
    for (const std::size_t place : entries) {
        auto next = recordAt<std::uint32_t>(file, place);
        mendNumber(next, sectors);
        std::memcpy(file.data() + place, &next, sizeof(next));
    }
}

void mendEntry(std::span<std::uint8_t> file, const CompoundMap& map, std::size_t place) {
    const bool isRoot = place == map.directory.front();
    auto entry = recordAt<DirectoryRecord>(file, place);
    const auto count = static_cast<std::uint32_t>(map.directory.size());
    for (std::uint32_t* number : {&entry.leftSibling, &entry.rightSibling, &entry.child}) {
        mendNumber(*number, count, kNoEntry);
    }
    if (entry.objectType > kObjectStream || isRoot) {
        entry.objectType = isRoot ? kObjectRoot : kObjectStream;
    }
    if (entry.streamSize > file.size()) {
        entry.streamSize %= static_cast<std::uint32_t>(file.size());
    }
    entry.streamSizeHigh = 0;
    if (entry.streamSize != 0) {
        mendNumber(entry.startingSector, !isRoot && entry.streamSize < kCutoff ? map.miniSectors : map.sectors);
    }
    std::memcpy(file.data() + place, &entry, sizeof(entry));
}

}  // namespace

CompoundMap mapCompoundFile(Bytes file) {
    CompoundMap map;
    const auto header = recordAt<Header>(file, 0);
    map.sectors = sectorsOf(file, header);
    std::vector<std::uint32_t> fatSectors;
    for (std::uint32_t i = 0; i < std::min<std::uint32_t>(header.fatSectorCount, kHeaderDifatEntries); ++i) {
        if (header.difat[i] < map.sectors) {
            fatSectors.push_back(header.difat[i]);
        }
    }
    map.fatEntries = placesIn(header, fatSectors, sizeof(std::uint32_t));
    map.fatEntries.resize(std::min<std::size_t>(map.fatEntries.size(), map.sectors));
    map.miniFatEntries = placesIn(header, chainFrom(file, map.fatEntries, header.firstMiniFatSector), sizeof(std::uint32_t));
    map.directory = placesIn(header, chainFrom(file, map.fatEntries, header.firstDirectorySector), sizeof(DirectoryRecord));
    if (!map.directory.empty()) {
        const auto root = recordAt<DirectoryRecord>(file, map.directory.front());
        const std::size_t miniStream = chainFrom(file, map.fatEntries, root.startingSector).size() << header.sectorShift;
        map.miniSectors = static_cast<std::uint32_t>(std::min(map.miniFatEntries.size(), miniStream >> kMiniShift));
        map.miniFatEntries.resize(map.miniSectors);
    }
    return map;
}

std::vector<Stretch> stretchesOf(Bytes file, const CompoundMap& map, std::size_t entry) {
    const auto header = recordAt<Header>(file, 0);
    const auto record = recordAt<DirectoryRecord>(file, entry);
    std::vector<Stretch> stretches;
    if (record.streamSize >= kCutoff) {
        for (const std::uint32_t sector : chainFrom(file, map.fatEntries, record.startingSector)) {
            stretches.push_back({addressOf(header, sector), std::size_t{1} << header.sectorShift});
        }
        return stretches;
    }
    const auto root = recordAt<DirectoryRecord>(file, map.directory.front());
    const std::vector<std::uint32_t> miniStream = chainFrom(file, map.fatEntries, root.startingSector);
    for (const std::uint32_t sector : chainFrom(file, map.miniFatEntries, record.startingSector)) {
        const std::size_t offset = std::size_t{sector} << kMiniShift;
        const std::size_t within = offset & ((std::size_t{1} << header.sectorShift) - 1);
        stretches.push_back({addressOf(header, miniStream[offset >> header.sectorShift]) + within, std::size_t{1} << kMiniShift});
    }
    return stretches;
}

void mendCompoundFile(std::span<std::uint8_t> file) {
    mendHeader(file);
    const CompoundMap whole = mapCompoundFile(file);
    mendTable(file, whole.fatEntries, whole.sectors);
    const CompoundMap map = mapCompoundFile(file);
    mendTable(file, map.miniFatEntries, map.miniSectors);
    for (const std::size_t place : map.directory) {
        mendEntry(file, map, place);
    }
}

}  // namespace fuzz
