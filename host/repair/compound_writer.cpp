#include "repair/compound_writer.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <stdexcept>
#include <string_view>
#include <vector>

namespace ternview {
namespace {

constexpr std::size_t kSector = 512;
constexpr std::size_t kMiniSector = 64;
constexpr std::size_t kMiniStreamCutoff = 4096;
constexpr std::size_t kTableEntry = 4;
constexpr std::size_t kNameRoom = 64;
constexpr std::size_t kHeaderTableSectors = 109;
constexpr std::size_t kLargestFile = std::size_t{1} << 31;

constexpr std::uint32_t kFree = 0xFFFFFFFF;
constexpr std::uint32_t kEndOfChain = 0xFFFFFFFE;
constexpr std::uint32_t kTableSector = 0xFFFFFFFD;
constexpr std::uint32_t kDifatSector = 0xFFFFFFFC;

enum class EntryType : std::uint8_t { kUnused = 0, kStorage = 1, kStream = 2, kRoot = 5 };
enum class Color : std::uint8_t { kRed = 0, kBlack = 1 };

struct Entry {
    std::string_view name;
    EntryType type = EntryType::kUnused;
    Color color = Color::kBlack;
    std::uint32_t left = kFree;
    std::uint32_t right = kFree;
    std::uint32_t child = kFree;
    std::uint32_t start = 0;
    std::size_t size = 0;
    const std::string* content = nullptr;                // of a stream
    const CompoundContents::Streams* streams = nullptr;  // of a storage
};

using Table = std::vector<std::uint32_t>;

void appendNumber(std::string& out, std::uint64_t value, std::size_t bytes) {
    for (std::size_t at = 0; at < bytes; ++at) {
        out += static_cast<char>(value >> 8 * at);
    }
}

std::size_t unitsFor(std::size_t size, std::size_t unit) {
    return (size + unit - 1) / unit;
}

/// Appends bytes in sectors of their own, and their chain to the table. @return the first sector
std::uint32_t appendChain(std::string& sectors, Table& table, std::string_view bytes, std::size_t sectorSize) {
    const std::size_t count = unitsFor(bytes.size(), sectorSize);
    if (count == 0) {
        return kEndOfChain;
    }
    if (sectors.size() + bytes.size() >= kLargestFile) {
        throw std::length_error("a compound file of this version holds less than 2 GiB");
    }
    const auto first = static_cast<std::uint32_t>(table.size());
    for (std::size_t at = 1; at < count; ++at) {
        table.push_back(first + static_cast<std::uint32_t>(at));
    }
    table.push_back(kEndOfChain);
    sectors += bytes;
    sectors.resize(table.size() * sectorSize, '\0');
    return first;
}

std::string tableBytes(const Table& table) {
    std::string bytes;
    bytes.reserve(table.size() * kTableEntry);
    for (const std::uint32_t entry : table) {
        appendNumber(bytes, entry, kTableEntry);
    }
    const std::size_t perSector = kSector / kTableEntry;
    for (std::size_t at = table.size(); at % perSector != 0; ++at) {
        appendNumber(bytes, kFree, kTableEntry);
    }
    return bytes;
}

char upperCase(char c) {
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

class Directory {
public:
    explicit Directory(const CompoundContents& contents) {
        entries.push_back({.name = "Root Entry", .type = EntryType::kRoot});
        std::vector<Entry> members = streamEntries(contents.streams);
        for (const auto& [name, streams] : contents.storages) {
            members.push_back({.name = name, .type = EntryType::kStorage, .streams = &streams});
        }
        entries[0].child = addMembers(std::move(members));
        for (std::size_t at = 1; at < entries.size(); ++at) {
            if (entries[at].streams != nullptr) {
                const std::uint32_t child = addMembers(streamEntries(*entries[at].streams));
                entries[at].child = child;
            }
        }
    }

    std::string bytes() const {
        std::string result;
        for (const Entry& entry : entries) {
            append(result, entry);
        }
        while (result.size() % kSector != 0) {
            append(result, {});
        }
        return result;
    }

    std::vector<Entry> entries;

private:
    static std::vector<Entry> streamEntries(const CompoundContents::Streams& streams) {
        std::vector<Entry> result;
        for (const auto& [name, content] : streams) {
            result.push_back({.name = name, .type = EntryType::kStream, .size = content.size(), .content = &content});
        }
        return result;
    }

    /// Hangs the members of one storage into a balanced tree, in the order of [MS-CFB] 2.6.4. The deepest level is red, unless
    /// it is full. @return the number of its top
    std::uint32_t addMembers(std::vector<Entry> members) {
        std::sort(members.begin(), members.end(), [](const Entry& one, const Entry& other) {
            return one.name.size() != other.name.size()
                       ? one.name.size() < other.name.size()
                       : std::ranges::lexicographical_compare(one.name, other.name, {}, upperCase, upperCase);
        });
        const auto first = static_cast<std::uint32_t>(entries.size());
        const auto end = first + static_cast<std::uint32_t>(members.size());
        entries.insert(entries.end(), members.begin(), members.end());
        const bool isFull = std::has_single_bit(members.size() + 1);
        return link(first, end, isFull ? 0 : static_cast<int>(std::bit_width(members.size())));
    }

    /// @param levelsToRed levels down to the red one, which counts as 1; at 0 and below there is none
    std::uint32_t link(std::uint32_t begin, std::uint32_t end, int levelsToRed) {
        if (begin == end) {
            return kFree;
        }
        const std::uint32_t middle = begin + (end - begin) / 2;
        entries[middle].color = levelsToRed == 1 ? Color::kRed : Color::kBlack;
        entries[middle].left = link(begin, middle, levelsToRed - 1);
        entries[middle].right = link(middle + 1, end, levelsToRed - 1);
        return middle;
    }

    static void append(std::string& out, const Entry& entry) {
        constexpr std::size_t kClassIdStateAndTimes = 36;
        const std::size_t nameEnd = out.size() + kNameRoom;
        for (const char c : entry.name) {
            appendNumber(out, static_cast<unsigned char>(c), 2);
        }
        out.resize(nameEnd, '\0');
        appendNumber(out, entry.name.empty() ? 0 : 2 * entry.name.size() + 2, 2);
        appendNumber(out, static_cast<std::uint8_t>(entry.type), 1);
        appendNumber(out, static_cast<std::uint8_t>(entry.type == EntryType::kUnused ? Color::kRed : entry.color), 1);
        appendNumber(out, entry.left, 4);
        appendNumber(out, entry.right, 4);
        appendNumber(out, entry.child, 4);
        out.append(kClassIdStateAndTimes, '\0');
        appendNumber(out, entry.start, 4);
        appendNumber(out, entry.size, 8);
    }
};

struct Layout {
    std::uint32_t directory = kEndOfChain;
    std::uint32_t miniTable = kEndOfChain;
    std::size_t miniTableSectors = 0;
    std::uint32_t firstTableSector = 0;
    std::size_t tableSectors = 0;
    std::uint32_t firstDifatSector = kEndOfChain;
    std::size_t difatSectors = 0;
};

/// The table names its own sectors, and those that list what does not fit the header (the DIFAT), so their number is found by
/// trying.
void appendTable(std::string& sectors, Table table, Layout& layout) {
    constexpr std::size_t kPerSector = kSector / kTableEntry;
    const std::size_t used = table.size();
    while (layout.tableSectors * kPerSector < used + layout.tableSectors + layout.difatSectors) {
        ++layout.tableSectors;
        const std::size_t beyondHeader = layout.tableSectors - std::min(layout.tableSectors, kHeaderTableSectors);
        layout.difatSectors = unitsFor(beyondHeader, kPerSector - 1);
    }
    layout.firstTableSector = static_cast<std::uint32_t>(used);
    table.insert(table.end(), layout.tableSectors, kTableSector);
    const auto firstDifat = static_cast<std::uint32_t>(table.size());
    layout.firstDifatSector = layout.difatSectors == 0 ? kEndOfChain : firstDifat;
    table.insert(table.end(), layout.difatSectors, kDifatSector);
    sectors += tableBytes(table);

    std::size_t listed = kHeaderTableSectors;
    for (std::size_t at = 0; at < layout.difatSectors; ++at) {
        for (std::size_t slot = 0; slot + 1 < kPerSector; ++slot, ++listed) {
            appendNumber(sectors, listed < layout.tableSectors ? layout.firstTableSector + listed : kFree, kTableEntry);
        }
        appendNumber(sectors, at + 1 < layout.difatSectors ? firstDifat + at + 1 : kEndOfChain, kTableEntry);
    }
}

std::string headerOf(const Layout& layout) {
    constexpr std::size_t kClassIdEnd = 24;
    std::string header = "\xD0\xCF\x11\xE0\xA1\xB1\x1A\xE1";
    header.resize(kClassIdEnd, '\0');
    for (const std::uint64_t number : {0x3EU, 3U, 0xFFFEU, 9U, 6U}) {  // versions, byte order, sector sizes as powers of two
        appendNumber(header, number, 2);
    }
    appendNumber(header, 0, 6);
    appendNumber(header, 0, 4);  // directory sectors are not counted in this version
    appendNumber(header, layout.tableSectors, 4);
    appendNumber(header, layout.directory, 4);
    appendNumber(header, 0, 4);
    appendNumber(header, kMiniStreamCutoff, 4);
    appendNumber(header, layout.miniTable, 4);
    appendNumber(header, layout.miniTableSectors, 4);
    appendNumber(header, layout.firstDifatSector, 4);
    appendNumber(header, layout.difatSectors, 4);
    for (std::size_t at = 0; at < kHeaderTableSectors; ++at) {
        appendNumber(header, at < layout.tableSectors ? layout.firstTableSector + at : kFree, kTableEntry);
    }
    return header;
}

}  // namespace

std::string writeCompoundFile(const CompoundContents& contents) {
    Directory directory(contents);
    std::string sectors;
    std::string miniStream;
    Table table;
    Table miniTable;
    for (Entry& entry : directory.entries) {
        if (entry.content != nullptr) {
            const bool isMini = entry.size < kMiniStreamCutoff;
            entry.start = isMini ? appendChain(miniStream, miniTable, *entry.content, kMiniSector)
                                 : appendChain(sectors, table, *entry.content, kSector);
        }
    }
    Entry& root = directory.entries.front();
    root.size = miniStream.size();
    root.start = appendChain(sectors, table, miniStream, kSector);

    Layout layout;
    const std::string miniTableSectors = tableBytes(miniTable);
    layout.miniTableSectors = miniTableSectors.size() / kSector;
    layout.miniTable = appendChain(sectors, table, miniTableSectors, kSector);
    layout.directory = appendChain(sectors, table, directory.bytes(), kSector);
    appendTable(sectors, std::move(table), layout);
    return headerOf(layout) + sectors;
}

}  // namespace ternview
