// Reads compound files ([MS-CFB]): a small file system inside a file, in which storages are the directories and streams the
// files.
//
// A file is cut into sectors, and one table, the FAT, holds for each sector the number of the next one of its chain. Streams
// below a cutoff lie in smaller sectors of their own, chained by a mini FAT, which all lie one behind the other in one stream,
// the mini stream. The directory is a chain of entries; the entries of one storage form a binary tree.
//
// The reader is lenient: it tests only what it needs. A file that is damaged behind its header gives short or empty streams and
// entries that are not found, never an error. Whatever a file claims, the tables take no more memory than a small multiple of
// its size, and searching and reading end in a time that its size bounds.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <utility>
#include <vector>

#include <ternkit/records.h>
#include "external/pole/compounddisk.h"
#include "internal/ternclasses_.h"

enum class CompoundResult : std::uint32_t {
    Ok = 0,
    OpenFailed = 1,
    NotCompound = 2,
    Damaged = 3,
};

// What the reader uses of the header, wide enough to count bytes with.
struct CompoundHeader {
    std::uint64_t signature = 0;
    std::uint64_t sectorShift = 0;
    std::uint64_t miniSectorShift = 0;
    std::uint64_t fatSectorCount = 0;
    std::uint64_t firstDirectorySector = 0;
    std::uint64_t miniStreamCutoff = 0;
    std::uint64_t firstMiniFatSector = 0;
    std::uint64_t miniFatSectorCount = 0;
    std::uint64_t firstDifatSector = 0;
    std::uint64_t difatSectorCount = 0;
    std::uint64_t difat[kHeaderDifatEntries] = {};

    void load(const CompoundHeaderRecord& record);
    bool isUsable() const;
};

using SectorList = std::vector<std::uint64_t>;

// Bytes gathered from sectors.
struct SectorBytes {
    ScopedBlock block;
    std::uint64_t size = 0;
};

class CompoundFile;

// The FAT or the mini FAT, held as it lies in the file: 32 bits for each sector. The FAT grows with the attachments of an item,
// and few of its sectors are needed to read what is in front of them; so it is read in parts, as entries are asked for.
class AllocationTable {
public:
    /// Takes a whole table.
    void load(SectorBytes bytes) { m_bytes = std::move(bytes); }
    /// Takes the room for a table and the positions in the file from which its sectors are read.
    void load(SectorBytes room, const CompoundFile& file, SectorList positions);

    std::uint64_t count() const { return m_bytes.size / kEntrySize; }
    /// The sector behind sector `index` in its chain, or a mark. @param index below count()
    std::uint64_t entry(std::uint64_t index) const;
    /// A chain. It ends at any number that is no sector of the table, at a sector that names itself, and, as it may be a circle,
    /// at `most` members.
    SectorList follow(std::uint64_t start, std::uint64_t most) const;

    static constexpr std::uint64_t kEntrySize = 4;

    std::uint64_t blockSize = 0;  // bytes of a sector

private:
    void fetch(std::uint64_t sector) const;

    SectorBytes m_bytes;
    const CompoundFile* m_file = nullptr;
    mutable SectorList m_pending;  // positions of the table's sectors; 0 for one that is in memory
};

struct DirectoryEntry {
    bool valid = false;
    bool isDirectory = false;
    std::uint8_t nameLength = 0;
    char name[kDirectoryNameSize / 2] = {};  // the low bytes of the UTF-16 name
    std::uint64_t size = 0;                  // bytes, as the entry claims
    std::uint64_t start = 0;
    std::uint64_t prev = 0;
    std::uint64_t next = 0;
    std::uint64_t child = 0;

    void load(const DirectoryRecord& record);
    std::string_view text() const { return {name, nameLength}; }
};

using DirectoryTree = std::vector<DirectoryEntry>;

// An open file. It does not own the handle. Used once: open, then look up and read.
class CompoundFile {
public:
    explicit CompoundFile(ternkit::FileHandle fileHandle) : handle(fileHandle) {}
    CompoundFile(const CompoundFile&) = delete;
    CompoundFile& operator=(const CompoundFile&) = delete;

    /// Reads header, tables and directory. The outcome stands in `result`.
    void open();

    /**
     * Finds an entry. Names are compared byte by byte, so one of other case is not found.
     *
     * @param path names divided by "/", from the root on; "/" alone is the root
     * @return null for an empty path and for what is not there
     */
    const DirectoryEntry* findEntry(std::string_view path);
    /// The same from a storage on, which may be null. @param path names divided by "/"
    const DirectoryEntry* findEntry(const DirectoryEntry* storage, std::string_view path);

    /// Takes the size of a stream that is about to be read whole from what the streams of the file can hold together. False for a
    /// stream larger than the file, and when so many streams share their bytes that reading them would have no end.
    bool claimBytes(std::uint64_t size);

    /// Reads bytes at a position; what lies behind the file's end is not delivered. @return bytes delivered
    std::uint64_t readAt(std::uint64_t position, char* buffer, std::uint64_t count) const;

    std::uint64_t sectorPosition(std::uint64_t sector) const { return (sector + 1) << header.sectorShift; }

    ternkit::FileHandle handle;
    CompoundResult result = CompoundResult::OpenFailed;
    bool opened = false;
    std::uint64_t fileSize = 0;  // bytes
    CompoundHeader header;
    DirectoryTree directory;
    AllocationTable fat;
    AllocationTable miniFat;
    SectorList miniStreamSectors;

private:
    CompoundResult readStructures();
    SectorList fatSectors() const;
    /// Most sectors that a chain of this file can have.
    std::uint64_t mostSectors() const { return (fileSize >> header.sectorShift) + 1; }
    bool loadFat();
    bool readSectors(const SectorList& sectors, SectorBytes& bytes) const;
    bool readChain(std::uint64_t start, SectorBytes& bytes) const;
    const DirectoryEntry* entryAt(std::uint64_t index) const;
    const DirectoryEntry* findInStorage(const DirectoryEntry& storage, std::string_view name);

    std::uint64_t m_searchSteps = 0;      // left for all searches together
    std::uint64_t m_claimable = 0;        // bytes left for claimBytes()
    std::uint64_t m_claimablePieces = 0;  // sectors left for it: with tiny ones, each may cost a read of its own
};

// One stream, made for reading it and gone before its file.
class CompoundStream {
public:
    /// Follows the entry's chain. @throws std::bad_alloc
    CompoundStream(const CompoundFile& file, const DirectoryEntry& entry);

    /**
     * Reads bytes of the stream. Bytes that the file does not have, although a sector behind them is there, read as zero.
     *
     * @param from offset in the stream
     * @return bytes delivered: fewer than `length` at the stream's end, and where its chain or the file ends early
     */
    std::uint64_t read(std::uint64_t from, char* buffer, std::uint64_t length) const;

    std::uint64_t position = 0;  // kept by the caller

private:
    const CompoundFile& m_file;
    std::uint64_t m_size;
    bool m_inMiniStream;
    SectorList m_sectors;
};
