#include "compound_file_builder.h"

#include <algorithm>
#include <bit>
#include <cctype>
#include <numeric>

namespace compound {

namespace {

constexpr std::size_t kHeaderSize = 512;
constexpr std::size_t kHeaderDifatEntries = 109;
constexpr std::size_t kMiniSectorSize = 64;
constexpr std::size_t kCutoff = 4096;
constexpr std::size_t kDirectoryEntrySize = 128;
constexpr std::uint8_t kTypeStorage = 1;
constexpr std::uint8_t kTypeStream = 2;
constexpr std::uint8_t kTypeRoot = 5;
constexpr std::uint8_t kRed = 0;
constexpr std::uint8_t kBlack = 1;

void put(std::string& out, std::uint64_t value, std::size_t size) {
    for (std::size_t at = 0; at < size; ++at) {
        out += static_cast<char>(value >> 8 * at);
    }
}

std::size_t roundUp(std::size_t size, std::size_t unit) {
    return (size + unit - 1) / unit * unit;
}

struct Entry {
    std::string path;
    std::string name;
    std::uint8_t type = 0;
    std::uint8_t color = kBlack;
    std::uint32_t left = kNoEntry;
    std::uint32_t right = kNoEntry;
    std::uint32_t child = kNoEntry;
    std::uint32_t start = 0;
    std::uint64_t size = 0;
    const std::string* content = nullptr;
};

std::string upperCase(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return text;
}

/// The order of [MS-CFB] 2.6.4: by length, then in upper case.
bool sortsBefore(const Entry& one, const Entry& other) {
    return one.name.size() != other.name.size() ? one.name.size() < other.name.size()
                                                : upperCase(one.name) < upperCase(other.name);
}

// Numbers all entries, and hangs those of each storage into a tree.
class Directory {
public:
    explicit Directory(const Storage& root) {
        m_entries.push_back({.path = "", .name = "Root Entry", .type = kTypeRoot});
        const std::uint32_t child = addStorage(root, "");
        m_entries[0].child = child;
    }

    std::vector<Entry>& entries() { return m_entries; }

private:
    std::uint32_t addStorage(const Storage& storage, const std::string& prefix) {
        std::vector<Entry> own;
        for (const auto& [name, bytes] : storage.streams()) {
            own.push_back({.path = prefix + name, .name = name, .type = kTypeStream, .size = bytes.size(), .content = &bytes});
        }
        for (const auto& [name, inner] : storage.storages()) {
            own.push_back({.path = prefix + name, .name = name, .type = kTypeStorage});
        }
        std::sort(own.begin(), own.end(), sortsBefore);
        const std::uint32_t first = static_cast<std::uint32_t>(m_entries.size());
        const std::size_t count = own.size();
        m_entries.insert(m_entries.end(), own.begin(), own.end());
        // All entries of the deepest level are red, unless the level is full.
        const int levels = static_cast<int>(std::bit_width(count));
        const int redLevel = std::has_single_bit(count + 1) ? -1 : levels - 1;
        const std::uint32_t top = link(first, first + static_cast<std::uint32_t>(count), 0, redLevel);
        for (std::size_t at = 0; at < count; ++at) {
            const std::size_t index = first + at;
            if (m_entries[index].type == kTypeStorage) {
                const std::string path = m_entries[index].path;
                const std::uint32_t child = addStorage(*storage.storages().at(m_entries[index].name), path + "/");
                m_entries[index].child = child;
            }
        }
        return top;
    }

    std::uint32_t link(std::uint32_t begin, std::uint32_t end, int level, int redLevel) {
        if (begin == end) {
            return kNoEntry;
        }
        const std::uint32_t middle = begin + (end - begin) / 2;
        m_entries[middle].color = level == redLevel ? kRed : kBlack;
        m_entries[middle].left = link(begin, middle, level + 1, redLevel);
        m_entries[middle].right = link(middle + 1, end, level + 1, redLevel);
        return middle;
    }

    std::vector<Entry> m_entries;
};

/// The numbers of a new chain of `count` sectors.
std::vector<std::uint32_t> chainOf(std::uint32_t first, std::size_t count, Arrangement arrangement) {
    std::vector<std::uint32_t> chain(count);
    std::iota(chain.begin(), chain.end(), first);
    if (arrangement == Arrangement::Scattered) {
        std::reverse(chain.begin(), chain.end());
    }
    return chain;
}

void linkChain(std::vector<std::uint32_t>& table, const std::vector<std::uint32_t>& chain) {
    for (std::size_t at = 0; at < chain.size(); ++at) {
        table.resize(std::max<std::size_t>(table.size(), chain[at] + 1U), kFree);
        table[chain[at]] = at + 1 < chain.size() ? chain[at + 1] : kEndOfChain;
    }
}

std::uint32_t startOf(const std::vector<std::uint32_t>& chain) {
    return chain.empty() ? kEndOfChain : chain.front();
}

class Writer {
public:
    Writer(const Storage& root, Options options)
        : m_directory(root), m_options(options), m_sectorSize(options.sectorSize == SectorSize::Of512 ? 512 : 4096) {
        m_image.sectorSize = m_sectorSize;
        m_sectors.assign(m_sectorSize, '\0');  // the header's place
    }

    CompoundImage write() {
        writeStreams();
        Entry& root = m_directory.entries().front();
        m_image.miniStreamChain = addChain(m_miniStream);
        root.start = startOf(m_image.miniStreamChain);
        root.size = m_miniStream.size();
        m_image.miniFatChain = addTable(m_miniFat);
        m_image.directoryChain = addChain(directoryBytes());
        writeFat();
        writeHeader();
        m_image.bytes = std::move(m_sectors);
        return std::move(m_image);
    }

private:
    std::size_t entriesPerSector() const { return m_sectorSize / 4; }
    std::uint32_t nextSector() const { return static_cast<std::uint32_t>(m_sectors.size() / m_sectorSize - 1); }

    std::vector<std::uint32_t> addChain(const std::string& bytes) {
        const std::size_t count = roundUp(bytes.size(), m_sectorSize) / m_sectorSize;
        const std::vector<std::uint32_t> chain = chainOf(nextSector(), count, m_options.arrangement);
        m_sectors.resize(m_sectors.size() + count * m_sectorSize, '\0');
        for (std::size_t at = 0; at < count; ++at) {
            const std::string_view part = std::string_view(bytes).substr(at * m_sectorSize, m_sectorSize);
            std::copy(part.begin(), part.end(), m_sectors.begin() + static_cast<std::ptrdiff_t>(m_image.sectorAt(chain[at])));
        }
        linkChain(m_fat, chain);
        return chain;
    }

    std::vector<std::uint32_t> addTable(const std::vector<std::uint32_t>& table) {
        std::string bytes;
        for (const std::uint32_t entry : table) {
            put(bytes, entry, 4);
        }
        while (bytes.size() % m_sectorSize != 0) {
            put(bytes, kFree, 4);
        }
        return addChain(bytes);
    }

    void writeStreams() {
        for (Entry& entry : m_directory.entries()) {
            m_image.entries[entry.path] = static_cast<std::uint32_t>(&entry - m_directory.entries().data());
            if (entry.type != kTypeStream) {
                continue;
            }
            std::vector<std::uint32_t> chain;
            if (entry.size >= kCutoff) {
                chain = addChain(*entry.content);
            } else {
                chain = addMiniChain(*entry.content);
            }
            entry.start = startOf(chain);
            m_image.chains[entry.path] = chain;
        }
    }

    std::vector<std::uint32_t> addMiniChain(const std::string& bytes) {
        const std::size_t count = roundUp(bytes.size(), kMiniSectorSize) / kMiniSectorSize;
        const auto first = static_cast<std::uint32_t>(m_miniStream.size() / kMiniSectorSize);
        const std::vector<std::uint32_t> chain = chainOf(first, count, m_options.arrangement);
        m_miniStream.resize(m_miniStream.size() + count * kMiniSectorSize, '\0');
        for (std::size_t at = 0; at < count; ++at) {
            const std::string_view part = std::string_view(bytes).substr(at * kMiniSectorSize, kMiniSectorSize);
            std::copy(part.begin(), part.end(), m_miniStream.begin() + static_cast<std::ptrdiff_t>(chain[at] * kMiniSectorSize));
        }
        linkChain(m_miniFat, chain);
        return chain;
    }

    std::string directoryBytes() {
        std::string out;
        for (const Entry& entry : m_directory.entries()) {
            putEntry(out, entry, static_cast<std::uint16_t>(2 * (entry.name.size() + 1)));
        }
        while (out.size() % m_sectorSize != 0) {
            putEntry(out, {}, 0);
        }
        return out;
    }

    static void putEntry(std::string& out, const Entry& entry, std::uint16_t nameLength) {
        const std::size_t begin = out.size();
        for (const char c : entry.name) {
            put(out, static_cast<unsigned char>(c), 2);
        }
        out.resize(begin + kEntryNameLength, '\0');
        put(out, nameLength, 2);
        put(out, entry.type, 1);
        put(out, entry.type == 0 ? 0 : entry.color, 1);
        put(out, entry.left, 4);
        put(out, entry.right, 4);
        put(out, entry.child, 4);
        out.resize(begin + kEntryStart, '\0');  // class id, state bits and times
        put(out, entry.start, 4);
        put(out, entry.size, 8);
        static_assert(kEntrySize + 8 == kDirectoryEntrySize);
    }

    /// The FAT says of its own sectors, and of those of the DIFAT, what they are; so their number is found by trying.
    void writeFat() {
        const std::uint32_t first = nextSector();
        std::size_t fatCount = 0;
        std::size_t difatCount = 0;
        while (fatCount * entriesPerSector() < first + fatCount + difatCount) {
            ++fatCount;
            const std::size_t beyondHeader = fatCount > kHeaderDifatEntries ? fatCount - kHeaderDifatEntries : 0;
            difatCount = roundUp(beyondHeader, entriesPerSector() - 1) / (entriesPerSector() - 1);
        }
        m_image.fatSectors = chainOf(first, fatCount, Arrangement::Neighbours);
        m_image.difatSectors = chainOf(first + static_cast<std::uint32_t>(fatCount), difatCount, m_options.arrangement);
        m_fat.resize(fatCount * entriesPerSector(), kFree);
        for (const std::uint32_t sector : m_image.fatSectors) {
            m_fat[sector] = kFatSector;
        }
        for (const std::uint32_t sector : m_image.difatSectors) {
            m_fat[sector] = kDifatSector;
        }
        for (const std::uint32_t entry : m_fat) {
            put(m_sectors, entry, 4);
        }
        m_sectors.resize(m_sectors.size() + difatCount * m_sectorSize, '\0');
        std::size_t fatSector = kHeaderDifatEntries;
        for (std::size_t at = 0; at < difatCount; ++at) {
            std::string sector;
            for (std::size_t slot = 0; slot + 1 < entriesPerSector(); ++slot, ++fatSector) {
                put(sector, fatSector < fatCount ? m_image.fatSectors[fatSector] : kFree, 4);
            }
            put(sector, at + 1 < difatCount ? m_image.difatSectors[at + 1] : kEndOfChain, 4);
            std::copy(sector.begin(), sector.end(),
                      m_sectors.begin() + static_cast<std::ptrdiff_t>(m_image.sectorAt(m_image.difatSectors[at])));
        }
    }

    void writeHeader() {
        const bool large = m_options.sectorSize == SectorSize::Of4096;
        std::string header = "\xD0\xCF\x11\xE0\xA1\xB1\x1A\xE1";
        header.resize(24, '\0');  // class id
        put(header, 0x3E, 2);
        put(header, large ? 4 : 3, 2);
        put(header, 0xFFFE, 2);
        put(header, large ? 12 : 9, 2);
        put(header, 6, 2);
        put(header, 0, 6);
        put(header, large ? m_image.directoryChain.size() : 0, 4);
        put(header, m_image.fatSectors.size(), 4);
        put(header, startOf(m_image.directoryChain), 4);
        put(header, 0, 4);
        put(header, kCutoff, 4);
        put(header, startOf(m_image.miniFatChain), 4);
        put(header, m_image.miniFatChain.size(), 4);
        put(header, startOf(m_image.difatSectors), 4);
        put(header, m_image.difatSectors.size(), 4);
        for (std::size_t at = 0; at < kHeaderDifatEntries; ++at) {
            put(header, at < m_image.fatSectors.size() ? m_image.fatSectors[at] : kFree, 4);
        }
        static_assert(kHeaderDifat + 4 * kHeaderDifatEntries == kHeaderSize);
        std::copy(header.begin(), header.end(), m_sectors.begin());
    }

    Directory m_directory;
    Options m_options;
    std::size_t m_sectorSize;
    CompoundImage m_image;
    std::string m_sectors;
    std::vector<std::uint32_t> m_fat;
    std::string m_miniStream;
    std::vector<std::uint32_t> m_miniFat;
};

}  // namespace

Storage& Storage::storage(const std::string& name) {
    std::unique_ptr<Storage>& inner = m_storages[name];
    if (!inner) {
        inner = std::make_unique<Storage>();
    }
    return *inner;
}

std::size_t CompoundImage::entryNumber(std::uint32_t number) const {
    const std::size_t offset = number * kDirectoryEntrySize;
    return sectorAt(directoryChain.at(offset / sectorSize)) + offset % sectorSize;
}

std::size_t CompoundImage::fatEntry(std::uint32_t sector) const {
    const std::size_t offset = 4 * std::size_t{sector};
    return sectorAt(fatSectors.at(offset / sectorSize)) + offset % sectorSize;
}

std::size_t CompoundImage::miniFatEntry(std::uint32_t sector) const {
    const std::size_t offset = 4 * std::size_t{sector};
    return sectorAt(miniFatChain.at(offset / sectorSize)) + offset % sectorSize;
}

std::uint32_t CompoundImage::get32(std::size_t offset) const {
    std::uint32_t value = 0;
    for (std::size_t at = 4; at-- > 0;) {
        value = value << 8 | static_cast<unsigned char>(bytes.at(offset + at));
    }
    return value;
}

void CompoundImage::put32(std::size_t offset, std::uint32_t value) {
    for (std::size_t at = 0; at < 4; ++at) {
        bytes.at(offset + at) = static_cast<char>(value >> 8 * at);
    }
}

void CompoundImage::put16(std::size_t offset, std::uint16_t value) {
    bytes.at(offset) = static_cast<char>(value);
    bytes.at(offset + 1) = static_cast<char>(value >> 8);
}

CompoundImage CompoundFileBuilder::image() const {
    return Writer(m_root, m_options).write();
}

}  // namespace compound
