#include "external/pole/pole.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

#include "ternbase/ternbase.h"

TB_SOURCE(u"src/external/pole/pole")

namespace {

constexpr std::uint64_t kSupportedCutoff = 4096;
constexpr std::uint64_t kSmallestSectorShift = 7;
constexpr std::uint64_t kLargestSectorShift = 30;

// Marks of the table that end a chain whatever the table's size: DIFAT sector, FAT sector, end of chain.
constexpr std::uint64_t kFirstEndMark = 0xFFFFFFFC;
constexpr std::uint64_t kLastEndMark = 0xFFFFFFFE;

constexpr std::uint64_t kInMemory = 0;  // no sector's position: the header lies there
constexpr std::uint64_t kTableBytesAtOnce = 4096;
constexpr int kFreeByte = 0xFF;  // four of them mark a sector as free

constexpr char kFirstPrintable = 32;

// Directories are balanced trees in sound files, and lists in the files of some writers; these steps are for both. What is left
// without them are long lists made to be searched again and again.
constexpr std::uint64_t kSearchStepsPerEntry = 64;
constexpr std::uint64_t kSearchStepsAnyway = 10'000'000;

// In a sound file each byte belongs to one stream at most. The factor leaves room for files that are damaged a little.
constexpr std::uint64_t kReadingsOfEachByte = 8;
constexpr std::uint64_t kUsualMiniSector = 64;
constexpr std::uint64_t kLeastPieces = 1'000'000;

/// The order of a storage's entries: shorter names first. [MS-CFB] compares names of equal length in upper case; the names of
/// items are written in one way only.
int compareNames(std::string_view one, std::string_view other) {
    if (one.size() != other.size()) {
        return one.size() < other.size() ? -1 : 1;
    }
    return std::memcmp(one.data(), other.data(), one.size());
}

// Fills a buffer from stretches of the file, one behind the other; stretches that are neighbours in the file are read at once.
class StretchReader {
public:
    StretchReader(const CompoundFile& file, char* buffer) : m_file(file), m_buffer(buffer) {}

    void add(std::uint64_t position, std::uint64_t count) {
        if (m_count != 0 && position == m_position + m_count) {
            m_count += count;
            return;
        }
        readPending();
        m_position = position;
        m_count = count;
    }

    /// @return the end of the last byte that the file had, as an offset in the buffer
    std::uint64_t finish() {
        readPending();
        return m_delivered;
    }

private:
    void readPending() {
        const std::uint64_t got = m_count != 0 ? m_file.readAt(m_position, m_buffer + m_offset, m_count) : 0;
        if (got < m_count) {
            std::memset(m_buffer + m_offset + got, 0, m_count - got);
        }
        if (got != 0) {
            m_delivered = m_offset + got;
        }
        m_offset += m_count;
        m_count = 0;
    }

    const CompoundFile& m_file;
    char* m_buffer;
    std::uint64_t m_offset = 0;
    std::uint64_t m_position = 0;
    std::uint64_t m_count = 0;
    std::uint64_t m_delivered = 0;
};

}  // namespace

void CompoundHeader::load(const CompoundHeaderRecord& record) {
    signature = record.signature;
    sectorShift = record.sectorShift;
    miniSectorShift = record.miniSectorShift;
    fatSectorCount = record.fatSectorCount;
    firstDirectorySector = record.firstDirectorySector;
    miniStreamCutoff = record.miniStreamCutoff;
    firstMiniFatSector = record.firstMiniFatSector;
    miniFatSectorCount = record.miniFatSectorCount;
    firstDifatSector = record.firstDifatSector;
    difatSectorCount = record.difatSectorCount;
    std::copy(std::begin(record.difat), std::end(record.difat), std::begin(difat));
}

bool CompoundHeader::isUsable() const {
    return miniStreamCutoff == kSupportedCutoff && fatSectorCount != 0 &&
           (fatSectorCount >= kHeaderDifatEntries || difatSectorCount == 0) && miniSectorShift <= sectorShift &&
           sectorShift >= kSmallestSectorShift && sectorShift <= kLargestSectorShift;
}

void AllocationTable::load(SectorBytes room, const CompoundFile& file, SectorList positions) {
    m_bytes = std::move(room);
    m_file = &file;
    m_pending = std::move(positions);
}

/// Brings a sector of the table into memory, and its neighbours with it.
void AllocationTable::fetch(std::uint64_t sector) const {
    const std::uint64_t position = m_pending[sector];
    if (position == kInMemory) {
        return;
    }
    const std::uint64_t most = std::min(m_pending.size() - sector, std::max(std::uint64_t{1}, kTableBytesAtOnce / blockSize));
    std::uint64_t count = 1;
    while (count < most && m_pending[sector + count] == position + count * blockSize) {
        ++count;
    }
    char* bytes = m_bytes.block.bytes() + sector * blockSize;
    const std::uint64_t got = m_file->readAt(position, bytes, count * blockSize);
    std::memset(bytes + got, kFreeByte, count * blockSize - got);
    std::fill_n(m_pending.begin() + static_cast<std::ptrdiff_t>(sector), count, kInMemory);
}

std::uint64_t AllocationTable::entry(std::uint64_t index) const {
    if (!m_pending.empty()) {
        fetch(index * kEntrySize / blockSize);
    }
    std::uint32_t value = 0;
    std::memcpy(&value, m_bytes.block.bytes() + index * kEntrySize, sizeof(value));
    return value;
}

SectorList AllocationTable::follow(std::uint64_t start, std::uint64_t most) const {
    SectorList chain;
    const std::uint64_t longest = std::min(most, count());
    std::uint64_t sector = start;
    while (chain.size() < longest && sector < count() && !(sector >= kFirstEndMark && sector <= kLastEndMark)) {
        chain.push_back(sector);
        const std::uint64_t next = entry(sector);
        if (next == sector) {
            break;
        }
        sector = next;
    }
    return chain;
}

void DirectoryEntry::load(const DirectoryRecord& record) {
    const std::size_t nameBytes = std::min<std::size_t>(record.nameLength, kDirectoryNameSize);
    nameLength = 0;
    for (std::size_t at = 0; at < nameBytes && record.name[at] != 0; at += 2) {
        name[nameLength++] = static_cast<char>(record.name[at]);
    }
    if (nameLength != 0 && record.name[0] < kFirstPrintable) {
        // Names that belong to the format begin with a control character, which no path has.
        --nameLength;
        std::memmove(name, name + 1, nameLength);
    }
    const std::uint8_t type = record.objectType;
    valid = record.nameLength != 0 && (type == kObjectStorage || type == kObjectStream || type == kObjectRoot);
    isDirectory = type != kObjectStream;
    size = record.streamSize;
    start = record.startingSector;
    prev = record.leftSibling;
    next = record.rightSibling;
    child = record.child;
}

void CompoundFile::open() {
    try {
        result = readStructures();
    } catch (const std::bad_alloc&) {
        result = CompoundResult::Damaged;
    }
    opened = result == CompoundResult::Ok;
}

CompoundResult CompoundFile::readStructures() {
    const std::int64_t end = TbFileSeek(handle, 0, kTbSeekEnd);
    if (end < 0) {
        return CompoundResult::OpenFailed;
    }
    fileSize = static_cast<std::uint64_t>(end);
    CompoundHeaderRecord record;
    if (readAt(0, reinterpret_cast<char*>(&record), sizeof(record)) != sizeof(record)) {
        return CompoundResult::Damaged;
    }
    header.load(record);
    if (header.signature != kCompoundSignature) {
        return CompoundResult::NotCompound;
    }
    if (!header.isUsable()) {
        return CompoundResult::Damaged;
    }
    fat.blockSize = std::uint64_t{1} << header.sectorShift;
    miniFat.blockSize = std::uint64_t{1} << header.miniSectorShift;

    SectorBytes miniFatBytes;
    SectorBytes directoryBytes;
    if (!loadFat() || !readChain(header.firstMiniFatSector, miniFatBytes) ||
        !readChain(header.firstDirectorySector, directoryBytes)) {
        return CompoundResult::Damaged;
    }
    miniFat.load(std::move(miniFatBytes));
    directory.resize(directoryBytes.size / sizeof(DirectoryRecord));
    for (std::size_t index = 0; index < directory.size(); ++index) {
        DirectoryRecord entry;
        std::memcpy(&entry, directoryBytes.block.bytes() + index * sizeof(entry), sizeof(entry));
        directory[index].load(entry);
    }
    if (!directory.empty()) {
        miniStreamSectors = fat.follow(directory[0].start, mostSectors());
    }
    m_searchSteps = kSearchStepsPerEntry * directory.size() + kSearchStepsAnyway;
    m_claimable = kReadingsOfEachByte * fileSize;
    m_claimablePieces = m_claimable / kUsualMiniSector + kLeastPieces;
    return CompoundResult::Ok;
}

/// The sectors of the FAT: the first 109 stand in the header, more of them in the sectors of the DIFAT, each of which ends in the
/// number of the next. Without such sectors there are no more than the 109.
SectorList CompoundFile::fatSectors() const {
    SectorList sectors(header.difat, header.difat + std::min<std::uint64_t>(kHeaderDifatEntries, header.fatSectorCount));
    if (header.fatSectorCount <= kHeaderDifatEntries || header.difatSectorCount == 0) {
        return sectors;
    }
    const std::uint64_t difatSectors = std::min(header.difatSectorCount, mostSectors());
    std::uint64_t difatSector = header.firstDifatSector;
    for (std::uint64_t index = 0; index < difatSectors && !sectors.empty(); ++index) {
        if (index != 0) {
            difatSector = sectors.back();
            sectors.pop_back();
        }
        SectorBytes bytes;
        if (!readSectors({difatSector}, bytes) || bytes.size == 0) {
            break;
        }
        const std::uint64_t room = header.fatSectorCount - sectors.size();
        const std::uint64_t values = std::min(bytes.size / AllocationTable::kEntrySize, room);
        AllocationTable difat;
        difat.load(std::move(bytes));
        for (std::uint64_t slot = 0; slot < values; ++slot) {
            sectors.push_back(difat.entry(slot));
        }
    }
    return sectors;
}

/// Prepares the FAT. Sectors that lie behind the file's end hold none of it, and beyond as many sectors as the file has the list
/// names sectors twice. @return false without memory
bool CompoundFile::loadFat() {
    SectorList positions;
    for (const std::uint64_t sector : fatSectors()) {
        if (sectorPosition(sector) < fileSize && positions.size() < mostSectors()) {
            positions.push_back(sectorPosition(sector));
        }
    }
    SectorBytes room;
    room.size = positions.size() * fat.blockSize;
    room.block = ScopedBlock(TbMemAlloc(room.size, 1, TB_HERE));
    if (!room.block) {
        return false;
    }
    fat.load(std::move(room), *this, std::move(positions));
    return true;
}

/// Reads sectors one behind the other, without a gap for what lies behind the file's end. No more than the file's size is read:
/// beyond that the list names sectors twice. @return false without memory
bool CompoundFile::readSectors(const SectorList& sectors, SectorBytes& bytes) const {
    const auto countAt = [this](std::uint64_t position) {
        return position < fileSize ? std::min(fat.blockSize, fileSize - position) : 0;
    };
    std::uint64_t size = 0;
    for (const std::uint64_t sector : sectors) {
        size += countAt(sectorPosition(sector));
    }
    size = std::min(size, fileSize);
    bytes.block = ScopedBlock(TbMemAlloc(size, 1, TB_HERE));
    if (!bytes.block) {
        return false;
    }
    StretchReader reader(*this, bytes.block.bytes());
    std::uint64_t left = size;
    for (const std::uint64_t sector : sectors) {
        const std::uint64_t position = sectorPosition(sector);
        const std::uint64_t count = std::min(countAt(position), left);
        if (count != 0) {
            reader.add(position, count);
            left -= count;
        }
    }
    reader.finish();
    bytes.size = size;
    return true;
}

bool CompoundFile::readChain(std::uint64_t start, SectorBytes& bytes) const {
    return readSectors(fat.follow(start, mostSectors()), bytes);
}

std::uint64_t CompoundFile::readAt(std::uint64_t position, char* buffer, std::uint64_t count) const {
    if (position >= fileSize || TbFileSeek(handle, static_cast<std::int64_t>(position), kTbSeekStart) < 0) {
        return 0;
    }
    return TbFileRead64(handle, buffer, std::min(count, fileSize - position));
}

const DirectoryEntry* CompoundFile::entryAt(std::uint64_t index) const {
    return index < directory.size() && directory[index].valid ? &directory[index] : nullptr;
}

const DirectoryEntry* CompoundFile::findInStorage(const DirectoryEntry& storage, std::string_view name) {
    std::uint64_t index = storage.child;
    // A search that takes more steps than there are entries goes round in a circle.
    for (std::size_t step = 0; step < directory.size() && m_searchSteps != 0; ++step, --m_searchSteps) {
        const DirectoryEntry* entry = entryAt(index);
        if (entry == nullptr) {
            return nullptr;
        }
        const int order = compareNames(entry->text(), name);
        if (order == 0) {
            return index != 0 ? entry : nullptr;
        }
        index = order < 0 ? entry->next : entry->prev;
        if (index == 0) {
            return nullptr;  // some writers have 0 for no sibling
        }
    }
    return nullptr;
}

const DirectoryEntry* CompoundFile::findEntry(const DirectoryEntry* storage, std::string_view path) {
    const DirectoryEntry* entry = storage != nullptr && storage->valid ? storage : nullptr;
    while (entry != nullptr) {
        const std::size_t separator = path.find('/');
        entry = findInStorage(*entry, path.substr(0, separator));
        if (separator == std::string_view::npos) {
            return entry;
        }
        path.remove_prefix(separator + 1);
    }
    return nullptr;
}

const DirectoryEntry* CompoundFile::findEntry(std::string_view path) {
    if (path.empty() || directory.empty()) {
        return nullptr;
    }
    if (path == "/") {
        return &directory[0];
    }
    if (path.front() == '/') {
        path.remove_prefix(1);
    }
    return findEntry(&directory[0], path);
}

bool CompoundFile::claimBytes(std::uint64_t size) {
    const std::uint64_t pieces = (size >> (size < header.miniStreamCutoff ? header.miniSectorShift : header.sectorShift)) + 1;
    if (size > fileSize || size > m_claimable || pieces > m_claimablePieces) {
        return false;
    }
    m_claimable -= size;
    m_claimablePieces -= pieces;
    return true;
}

CompoundStream::CompoundStream(const CompoundFile& file, const DirectoryEntry& entry)
    : m_file(file), m_size(entry.size), m_inMiniStream(entry.size < file.header.miniStreamCutoff) {
    const AllocationTable& table = m_inMiniStream ? file.miniFat : file.fat;
    m_sectors = table.follow(entry.start, (m_size + table.blockSize - 1) / table.blockSize);
}

std::uint64_t CompoundStream::read(std::uint64_t from, char* buffer, std::uint64_t length) const {
    if (buffer == nullptr || from >= m_size) {
        return 0;
    }
    const std::uint64_t blockSize = m_inMiniStream ? m_file.miniFat.blockSize : m_file.fat.blockSize;
    const std::uint64_t sectorSize = m_file.fat.blockSize;
    std::uint64_t left = std::min(length, m_size - from);
    std::uint64_t offset = from % blockSize;
    StretchReader reader(m_file, buffer);
    for (std::uint64_t index = from / blockSize; left != 0 && index < m_sectors.size(); ++index, offset = 0) {
        std::uint64_t place = 0;  // of the sector, in the file
        if (m_inMiniStream) {
            const std::uint64_t inMiniStream = m_sectors[index] * blockSize;
            if (inMiniStream / sectorSize >= m_file.miniStreamSectors.size()) {
                break;
            }
            place = m_file.sectorPosition(m_file.miniStreamSectors[inMiniStream / sectorSize]) + inMiniStream % sectorSize;
        } else {
            place = m_file.sectorPosition(m_sectors[index]);
        }
        const std::uint64_t count = std::min(blockSize - offset, left);
        reader.add(place + offset, count);
        left -= count;
    }
    return reader.finish();
}
