// The records of a compound file as they lie on disk ([MS-CFB] 2.2 and 2.6). Numbers are little-endian.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

static_assert(std::endian::native == std::endian::little, "records are copied as they lie in the file");

inline constexpr std::size_t kHeaderDifatEntries = 109;
inline constexpr std::size_t kDirectoryNameSize = 64;

struct CompoundHeaderRecord {
    std::uint64_t signature;
    std::uint8_t classId[16];
    std::uint16_t minorVersion;
    std::uint16_t majorVersion;
    std::uint16_t byteOrder;
    std::uint16_t sectorShift;
    std::uint16_t miniSectorShift;
    std::uint8_t reserved[6];
    std::uint32_t directorySectorCount;
    std::uint32_t fatSectorCount;
    std::uint32_t firstDirectorySector;
    std::uint32_t transactionSignature;
    std::uint32_t miniStreamCutoff;
    std::uint32_t firstMiniFatSector;
    std::uint32_t miniFatSectorCount;
    std::uint32_t firstDifatSector;
    std::uint32_t difatSectorCount;
    std::uint32_t difat[kHeaderDifatEntries];
};
static_assert(sizeof(CompoundHeaderRecord) == 512 && offsetof(CompoundHeaderRecord, sectorShift) == 30 &&
              offsetof(CompoundHeaderRecord, fatSectorCount) == 44 && offsetof(CompoundHeaderRecord, miniStreamCutoff) == 56 &&
              offsetof(CompoundHeaderRecord, difat) == 76);

struct DirectoryRecord {
    std::uint8_t name[kDirectoryNameSize];  // UTF-16
    std::uint16_t nameLength;               // bytes
    std::uint8_t objectType;
    std::uint8_t color;
    std::uint32_t leftSibling;
    std::uint32_t rightSibling;
    std::uint32_t child;
    std::uint8_t classId[16];
    std::uint32_t stateBits;
    std::uint8_t times[16];
    std::uint32_t startingSector;
    std::uint32_t streamSize;
    std::uint32_t streamSizeHigh;
};
static_assert(sizeof(DirectoryRecord) == 128 && offsetof(DirectoryRecord, objectType) == 66 &&
              offsetof(DirectoryRecord, leftSibling) == 68 && offsetof(DirectoryRecord, startingSector) == 116 &&
              offsetof(DirectoryRecord, streamSize) == 120);

inline constexpr std::uint64_t kCompoundSignature = 0xE11AB1A1E011CFD0;
inline constexpr std::uint8_t kObjectStorage = 1;
inline constexpr std::uint8_t kObjectStream = 2;
inline constexpr std::uint8_t kObjectRoot = 5;
