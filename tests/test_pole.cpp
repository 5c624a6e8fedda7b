// Compound files: what opens, what is found and read, and how far damage reaches.
#include <gtest/gtest.h>

#include <cstring>
#include <ostream>
#include <string>
#include <vector>

#include "compound_file_builder.h"
#include "external/pole/pole.h"
#include "filter_host.h"
#include "ternbase/ternbase.h"

using namespace compound;

namespace {

constexpr std::uint32_t kOpenForReading = 256;

/** Bytes of which no two sectors are alike. */
std::string Pattern(std::size_t size, unsigned seed = 0) {
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<char>(i * 7 + i / 61 + seed);
    }
    return bytes;
}

class Opened {
public:
    explicit Opened(const std::string& bytes) {
        WriteWholeFile(m_root.inputPath(), bytes);
        handle = TbFileOpen(Wide(m_root.inputPath()).c_str(), 0, kOpenForReading);
        file = std::make_unique<CompoundFile>(handle);
        file->open();
        EXPECT_EQ(file->opened, file->result == CompoundResult::Ok);
    }
    ~Opened() { TbFileClose(handle); }
    Opened(const Opened&) = delete;
    Opened& operator=(const Opened&) = delete;

    bool has(const std::string& path) { return file->findEntry(path) != nullptr; }

    /** What a stream delivers of the size that its entry claims. */
    std::string read(const std::string& path) {
        const DirectoryEntry* entry = file->findEntry(path);
        if (entry == nullptr) {
            return "none";
        }
        std::string bytes(entry->size, '?');
        const CompoundStream stream(*file, *entry);
        bytes.resize(stream.read(0, bytes.data(), bytes.size()));
        return bytes;
    }

    ternkit::FileHandle handle = ternkit::kInvalidHandle;
    std::unique_ptr<CompoundFile> file;

private:
    TemporaryRoot m_root;
};

CompoundResult ResultOf(const CompoundImage& image) {
    return Opened(image.bytes).file->result;
}

const std::string kLarge = Pattern(20'000);
const std::string kSmall = Pattern(300);

/** "large" in the FAT, "small" in the mini stream, and the same two in the storage "inner". */
CompoundFileBuilder FourStreams(Options options = {}) {
    CompoundFileBuilder builder(options);
    for (Storage* storage : {&builder.root(), &builder.root().storage("inner")}) {
        storage->stream("large", kLarge);
        storage->stream("small", kSmall);
    }
    return builder;
}

class CompoundForms : public testing::TestWithParam<Options> {};

INSTANTIATE_TEST_SUITE_P(All, CompoundForms,
                         testing::Values(Options{SectorSize::Of512, Arrangement::Neighbours},
                                         Options{SectorSize::Of512, Arrangement::Scattered},
                                         Options{SectorSize::Of4096, Arrangement::Neighbours},
                                         Options{SectorSize::Of4096, Arrangement::Scattered}));

TEST_P(CompoundForms, StreamsOfEverySize) {
    CompoundFileBuilder builder(GetParam());
    const std::size_t sizes[] = {0, 1, 63, 64, 65, 511, 512, 513, 4095, 4096, 4097, 8191, 8192, 100'000};
    for (const std::size_t size : sizes) {
        builder.root().storage("a").storage("b").stream(std::to_string(size), Pattern(size, static_cast<unsigned>(size)));
    }
    Opened opened(builder.bytes());
    ASSERT_EQ(opened.file->result, CompoundResult::Ok);
    for (const std::size_t size : sizes) {
        EXPECT_EQ(opened.read("a/b/" + std::to_string(size)), Pattern(size, static_cast<unsigned>(size)));
    }
    // Parts of a stream, across the edges of sectors and beyond its end.
    for (const std::string name : {"4095", "100000"}) {
        const DirectoryEntry* entry = opened.file->findEntry("a/b/" + name);
        const CompoundStream stream(*opened.file, *entry);
        const std::string whole = opened.read("a/b/" + name);
        for (const std::size_t from : {std::size_t{0}, std::size_t{63}, std::size_t{500}, std::size_t{4000}, whole.size()}) {
            char part[700];
            const std::uint64_t got = stream.read(from, part, sizeof(part));
            EXPECT_EQ(std::string(part, got), whole.substr(from, sizeof(part))) << name << " " << from;
        }
        char byte = 0;
        EXPECT_EQ(stream.read(whole.size() + 1, &byte, 1), 0U);
        EXPECT_EQ(stream.read(0, nullptr, 1), 0U);
        EXPECT_EQ(stream.read(0, &byte, 0), 0U);
    }
}

TEST_P(CompoundForms, EveryEntryOfALargeStorage) {
    CompoundFileBuilder builder(GetParam());
    for (int i = 0; i < 500; ++i) {
        builder.root().storage("many").stream("name" + std::to_string(i * i), std::to_string(i));
    }
    Opened opened(builder.bytes());
    for (int i = 0; i < 500; ++i) {
        EXPECT_EQ(opened.read("many/name" + std::to_string(i * i)), std::to_string(i));
    }
    EXPECT_FALSE(opened.has("many/name2"));
    EXPECT_FALSE(opened.has("many/name"));
    EXPECT_FALSE(opened.has("name0"));
}

TEST_P(CompoundForms, FatBeyondTheHeader) {
    // With 512-byte sectors the header's part of the FAT reaches 7 MB, and one DIFAT sector 8.3 MB further.
    CompoundFileBuilder builder(GetParam());
    const std::string bytes = Pattern(16'500'000);
    builder.root().stream("attachment", bytes);
    builder.root().stream("behind", kLarge);
    const CompoundImage image = builder.image();
    EXPECT_EQ(image.difatSectors.size(), GetParam().sectorSize == SectorSize::Of512 ? 2U : 0U);
    Opened opened(image.bytes);
    EXPECT_TRUE(opened.read("attachment") == bytes);
    EXPECT_EQ(opened.read("behind"), kLarge);
}

TEST(CompoundPaths, WhatAPathFinds) {
    CompoundFileBuilder builder = FourStreams();
    builder.root().stream("\005SummaryInformation", "summary");
    Opened opened(builder.bytes());
    EXPECT_EQ(opened.read("/inner/small"), kSmall);
    EXPECT_EQ(opened.read("SummaryInformation"), "summary");  // without its control character
    ASSERT_TRUE(opened.has("inner"));
    EXPECT_TRUE(opened.file->findEntry("inner")->isDirectory);
    EXPECT_FALSE(opened.file->findEntry("large")->isDirectory);
    ASSERT_TRUE(opened.has("/"));
    EXPECT_EQ(opened.file->findEntry("/"), opened.file->directory.data());
    for (const char* path : {"", "//", "Inner", "inner/", "inner/Small", "inner/small/x", "large/small", "other"}) {
        EXPECT_FALSE(opened.has(path)) << path;
    }
    const DirectoryEntry* inner = opened.file->findEntry("inner");
    EXPECT_EQ(opened.file->findEntry(inner, "small"), opened.file->findEntry("inner/small"));
    EXPECT_EQ(opened.file->findEntry(nullptr, "small"), nullptr);
}

TEST(CompoundDamage, Header) {
    struct Case {
        const char* damage;
        std::size_t offset;
        std::uint16_t value;
        CompoundResult result;
    };
    const Case cases[] = {
        {"none", kHeaderCutoff, 4096, CompoundResult::Ok},
        {"signature", 0, 0xCFD1, CompoundResult::NotCompound},
        {"cutoff", kHeaderCutoff, 4095, CompoundResult::Damaged},
        {"no FAT sectors", kHeaderFatSectors, 0, CompoundResult::Damaged},
        {"DIFAT sectors with a small FAT", kHeaderDifatSectors, 1, CompoundResult::Damaged},
        {"mini sectors larger than sectors", kHeaderMiniSectorShift, 10, CompoundResult::Damaged},
        {"mini sectors as large as sectors", kHeaderMiniSectorShift, 9, CompoundResult::Ok},
        {"sectors of 64 bytes", kHeaderSectorShift, 6, CompoundResult::Damaged},
        {"sectors of 128 bytes", kHeaderSectorShift, 7, CompoundResult::Ok},
        {"sectors of 1 GiB", kHeaderSectorShift, 30, CompoundResult::Ok},
        {"sectors of 2 GiB", kHeaderSectorShift, 31, CompoundResult::Damaged},
        {"version", 26, 9, CompoundResult::Ok},
        {"byte order", 28, 0, CompoundResult::Ok},
        {"directory outside the file", kHeaderFirstDirectorySector, 0x7000, CompoundResult::Ok},
    };
    for (const Case& c : cases) {
        CompoundImage image = FourStreams().image();
        image.put16(c.offset, c.value);
        EXPECT_EQ(ResultOf(image), c.result) << c.damage;
    }
    CompoundImage image = FourStreams().image();
    image.put32(kHeaderFatSectors, 108);
    image.put32(kHeaderDifatSectors, 1);
    EXPECT_EQ(ResultOf(image), CompoundResult::Damaged);
    image.put32(kHeaderFatSectors, 109);
    EXPECT_EQ(ResultOf(image), CompoundResult::Ok);
    image.bytes.resize(511);
    EXPECT_EQ(ResultOf(image), CompoundResult::Damaged);
    EXPECT_EQ(Opened("").file->result, CompoundResult::Damaged);
    CompoundFile unopened(ternkit::kInvalidHandle);
    unopened.open();
    EXPECT_EQ(unopened.result, CompoundResult::OpenFailed);
}

TEST(CompoundDamage, FatCounts) {
    // More FAT sectors than the header has room for, and no others to look in: the header's are used.
    CompoundImage image = FourStreams().image();
    image.put32(kHeaderFatSectors, 0xFFFFFFFF);
    EXPECT_EQ(Opened(image.bytes).read("inner/large"), kLarge);
    // A DIFAT sector that names itself as the next ends.
    for (const std::uint32_t slot : {0U, 126U}) {
        image = FourStreams().image();
        image.put32(kHeaderFatSectors, 0xFFFFFFFF);
        image.put32(kHeaderDifatSectors, 0xFFFFFFFF);
        image.put32(kHeaderFirstDifatSector, 0);
        image.put32(image.sectorAt(0) + 4 * slot, 0);
        EXPECT_EQ(ResultOf(image), CompoundResult::Ok);
    }
    // A FAT that lies in one sector again and again takes no more memory than the file is large.
    image = FourStreams().image();
    image.put32(kHeaderFatSectors, 109);
    for (std::size_t slot = 0; slot < 109; ++slot) {
        image.put32(kHeaderDifat + 4 * slot, image.fatSectors[0]);
    }
    Opened opened(image.bytes);
    EXPECT_EQ(opened.read("large"), kLarge);
    EXPECT_LE(opened.file->fat.count() * AllocationTable::kEntrySize, image.bytes.size() + image.sectorSize);
}

TEST(CompoundDamage, Chains) {
    const std::size_t sector = 512;
    struct Case {
        const char* damage;
        std::uint32_t value;  // in the FAT, for the third sector of "large"
        std::string delivered;
    };
    const CompoundImage whole = FourStreams().image();
    const std::vector<std::uint32_t> chain = whole.chains.at("large");
    const std::string circle = [&] {
        std::string bytes;
        while (bytes.size() < kLarge.size()) {
            bytes += kLarge.substr(0, 3 * sector);
        }
        return bytes.substr(0, kLarge.size());
    }();
    const Case cases[] = {
        {"ends early", kEndOfChain, kLarge.substr(0, 3 * sector)},
        {"leads to a free sector", kFree, kLarge.substr(0, 3 * sector)},
        {"leads to a mark", kDifatSector, kLarge.substr(0, 3 * sector)},
        {"leads out of the table", 0x10000, kLarge.substr(0, 3 * sector)},
        {"leads to itself", chain[2], kLarge.substr(0, 3 * sector)},
        {"is a circle", chain[0], circle},
    };
    for (const Case& c : cases) {
        CompoundImage image = whole;
        image.put32(image.fatEntry(chain[2]), c.value);
        Opened opened(image.bytes);
        EXPECT_EQ(opened.read("large"), c.delivered) << c.damage;
        EXPECT_EQ(opened.read("inner/large"), kLarge) << c.damage;
    }
    CompoundImage image = whole;
    image.put32(image.miniFatEntry(image.chains.at("small")[1]), kEndOfChain);
    EXPECT_EQ(Opened(image.bytes).read("small"), kSmall.substr(0, 128));
    EXPECT_EQ(Opened(image.bytes).read("inner/small"), kSmall);
}

TEST(CompoundDamage, SizesAndStarts) {
    const CompoundImage whole = FourStreams().image();
    // One byte decides in which table the chain is looked up.
    CompoundImage image = whole;
    image.put32(image.entryOf("large") + kEntrySize, 4095);
    EXPECT_NE(Opened(image.bytes).read("large"), kLarge.substr(0, 4095));
    image.put32(image.entryOf("large") + kEntrySize, 4096);
    EXPECT_EQ(Opened(image.bytes).read("large"), kLarge.substr(0, 4096));
    // A size beyond the chain: what the chain holds, of which the last sector is whole.
    image.put32(image.entryOf("large") + kEntrySize, 25'000);
    EXPECT_EQ(Opened(image.bytes).read("large").substr(0, kLarge.size()), kLarge);
    EXPECT_EQ(Opened(image.bytes).read("large").size(), 20'480U);
    for (const std::uint32_t start : {0x7FFFFFFFU, kEndOfChain, kFree, kFatSector}) {
        image = whole;
        image.put32(image.entryOf("large") + kEntryStart, start);
        image.put32(image.entryOf("small") + kEntryStart, start);
        Opened opened(image.bytes);
        EXPECT_EQ(opened.read("large"), "") << start;
        EXPECT_EQ(opened.read("small"), "") << start;
    }
    // A mini sector behind the mini stream.
    image = whole;
    image.put32(image.fatEntry(image.miniStreamChain[0]), kEndOfChain);
    EXPECT_EQ(Opened(image.bytes).read("small"), kSmall);
    EXPECT_EQ(Opened(image.bytes).read("inner/small"), kSmall.substr(0, 192));
    image = whole;
    image.put32(image.entryOf("") + kEntryStart, kEndOfChain);
    EXPECT_EQ(Opened(image.bytes).read("small"), "");
}

TEST(CompoundDamage, SectorsBehindTheFile) {
    CompoundImage image = FourStreams().image();
    const std::vector<std::uint32_t> chain = image.chains.at("large");
    // The third sector lies in a part of the table that the file does not reach; what stands behind keeps its place.
    const std::uint32_t outside = static_cast<std::uint32_t>(image.bytes.size() / 512) + 10;
    ASSERT_LT(outside, 128U);
    image.put32(image.fatEntry(chain[1]), outside);
    image.put32(image.fatEntry(outside), chain[3]);
    EXPECT_EQ(Opened(image.bytes).read("large"), kLarge.substr(0, 1024) + std::string(512, '\0') + kLarge.substr(1536));
    // At the end of the chain it delivers nothing.
    image.put32(image.fatEntry(outside), kEndOfChain);
    EXPECT_EQ(Opened(image.bytes).read("large"), kLarge.substr(0, 1024));
}

TEST(CompoundDamage, Directory) {
    const CompoundImage whole = FourStreams().image();
    const auto with = [&](const std::string& path, std::size_t field, std::uint32_t value) {
        CompoundImage image = whole;
        image.put32(image.entryOf(path) + field, value);
        return image.bytes;
    };
    // In the storage "inner", "large" is the tree's top or its only child; both orders must survive what the other does not need.
    const std::uint32_t top = whole.get32(whole.entryOf("inner") + kEntryChild);
    const std::string topName = top == whole.entries.at("inner/large") ? "large" : "small";
    const std::string belowName = topName == "large" ? "small" : "large";
    const std::string& topBytes = topName == "large" ? kLarge : kSmall;

    for (const std::uint32_t link : {0U, top, kNoEntry, 0x7FFFU}) {
        // No sibling, a circle, and out of the directory.
        CompoundImage image = whole;
        image.put32(image.entryNumber(top) + kEntryLeft, link);
        image.put32(image.entryNumber(top) + kEntryRight, link);
        Opened opened(image.bytes);
        EXPECT_EQ(opened.read("inner/" + topName), topBytes) << link;
        EXPECT_FALSE(opened.has("inner/" + belowName)) << link;
        EXPECT_EQ(opened.read("large"), kLarge) << link;
    }
    for (const std::uint32_t child : {0U, kNoEntry, whole.entries.at("inner")}) {
        EXPECT_FALSE(Opened(with("inner", kEntryChild, child)).has("inner/small")) << child;
    }
    // An invalid entry ends the search, even if what is looked for lies behind it.
    CompoundImage image = whole;
    image.put16(image.entryNumber(top) + kEntryNameLength, 0);
    EXPECT_FALSE(Opened(image.bytes).has("inner/" + belowName));
    image = whole;
    image.bytes[image.entryNumber(top) + kEntryType] = 3;
    EXPECT_FALSE(Opened(image.bytes).has("inner/" + belowName));
    image = whole;
    image.bytes[image.entryOf("") + kEntryType] = 0;
    EXPECT_FALSE(Opened(image.bytes).has("large"));
    // A name length beyond the field.
    image = whole;
    image.put16(image.entryOf("large") + kEntryNameLength, 0xFFFF);
    EXPECT_EQ(Opened(image.bytes).read("large"), kLarge);
    // Without a directory there is nothing, not even a root.
    image = whole;
    image.put32(kHeaderFirstDirectorySector, kEndOfChain);
    EXPECT_FALSE(Opened(image.bytes).has("/"));
    EXPECT_FALSE(Opened(image.bytes).has("large"));
}

TEST(CompoundDamage, DirectoryInACircleStaysSmall) {
    CompoundImage image = FourStreams().image();
    image.put32(image.fatEntry(image.directoryChain.back()), image.directoryChain.front());
    Opened opened(image.bytes);
    EXPECT_EQ(opened.read("inner/small"), kSmall);
    EXPECT_LE(opened.file->directory.size() * 128, image.bytes.size());
}

TEST(CompoundDamage, ReadingsAreCounted) {
    const CompoundImage image = FourStreams().image();
    Opened opened(image.bytes);
    EXPECT_FALSE(opened.file->claimBytes(image.bytes.size() + 1));
    // A sound file can be read whole, and more than once; not without end.
    EXPECT_TRUE(opened.file->claimBytes(image.bytes.size()));
    EXPECT_TRUE(opened.file->claimBytes(image.bytes.size()));
    int granted = 2;
    while (opened.file->claimBytes(image.bytes.size())) {
        ASSERT_LT(++granted, 100);
    }
    EXPECT_TRUE(opened.file->claimBytes(0));
}

TEST(CompoundDamage, ListsMadeToBeSearchedForEver) {
    // A storage whose entries hang in one long list, as some writers have it: all are found as long as they are some thousands.
    constexpr std::uint32_t kCount = 3000;
    CompoundFileBuilder builder;
    for (std::uint32_t i = 0; i < kCount; ++i) {
        builder.root().stream("n" + std::to_string(10'000 + i), std::to_string(i));
    }
    CompoundImage image = builder.image();
    const std::uint32_t first = image.entries.at("n10000");
    image.put32(image.entryOf("") + kEntryChild, first);
    for (std::uint32_t i = 0; i < kCount; ++i) {
        const std::size_t entry = image.entryNumber(first + i);
        image.put32(entry + kEntryLeft, kNoEntry);
        image.put32(entry + kEntryRight, i + 1 < kCount ? first + i + 1 : kNoEntry);
    }
    Opened opened(image.bytes);
    for (std::uint32_t i = 0; i < kCount; ++i) {
        ASSERT_TRUE(opened.has("n" + std::to_string(10'000 + i))) << i;
    }
    // Searched a hundred thousand times, it would take minutes with a list ten times as long: the searches end.
    bool found = true;
    for (int i = 0; i < 100'000 && found; ++i) {
        found = opened.has("n12999");
    }
    EXPECT_FALSE(found);
}

TEST(CompoundDamage, CutAnywhere) {
    for (const Arrangement arrangement : {Arrangement::Neighbours, Arrangement::Scattered}) {
        const std::string bytes = FourStreams({SectorSize::Of512, arrangement}).bytes();
        for (std::size_t size = 0; size < bytes.size(); size += 193) {
            Opened opened(bytes.substr(0, size));
            EXPECT_EQ(opened.file->result, size < 512 ? CompoundResult::Damaged : CompoundResult::Ok);
            for (const char* path : {"large", "small", "inner/large", "inner/small"}) {
                EXPECT_LE(opened.read(path).size(), kLarge.size());
            }
        }
    }
}

}  // namespace
