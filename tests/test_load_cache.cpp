// The load cache: the table in a host's slot, and what the exports read from it and leave in it.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <filesystem>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "common/loadcache.h"
#include "filter_host.h"
#include "mime_builder.h"
#include "msg_builder.h"
#include "rtf_compressor.h"
#include "store_shown.h"

using namespace ternkit;
namespace fs = std::filesystem;

namespace {

constexpr std::uint32_t kRecordTag = 7;    // the slots' default
constexpr std::uint32_t kForeignTag = 11;  // of another's data
constexpr std::uint32_t kLoaderTag = 13;

char foreign[64] = "another's data";
char kept[] = "a loader's data";
char later[] = "a loader's later data";

// ------------------------------------------------------------------------------------------------------------------ operations

struct Held {
    const void* data = nullptr;
    std::uint64_t size = 0;
    std::uint32_t tag = 0;

    bool operator==(const Held&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Held& held) {
    return out << '{' << held.data << ", " << held.size << ", " << held.tag << '}';
}

const Held kForeign{foreign, sizeof(foreign), kForeignTag};
const Held kFree{};

/// A slot as a host makes it. It gives back what lies in it.
struct Slot : LoadCacheSlot {
    Slot() : LoadCacheSlot{} { defaultTag = kRecordTag; }
    explicit Slot(const Held& single) : Slot() {
        data = const_cast<void*>(single.data);
        dataSize = single.size;
        dataTag = single.tag;
    }
    Slot(const Slot&) = delete;
    Slot& operator=(const Slot&) = delete;
    ~Slot() { clear(); }

    bool isBlock() const { return data != nullptr && dataTag == kBlockDataTag; }
    MultiLoadBlock* block() const { return static_cast<MultiLoadBlock*>(data); }

    /// What it holds: the entries of its block, or the single datum.
    std::vector<Held> content() const {
        if (!isBlock()) {
            return data == nullptr ? std::vector<Held>{} : std::vector<Held>{{data, dataSize, dataTag}};
        }
        EXPECT_EQ(Value(dataSize), 0U);
        EXPECT_GE(block()->blockSize, 16 + 24 * static_cast<std::uint64_t>(block()->count));
        std::vector<Held> entries;
        std::for_each_n(entriesOf(block()), block()->count, [&](const MultiLoadEntry& entry) {
            EXPECT_EQ(entry.entryFlags, 0U);
            entries.push_back({entry.data, entry.dataSize, entry.dataTag});
        });
        return entries;
    }

    void clear() {
        for (const Held& held : content()) {
            if (held.tag == kRecordTag && held.data != nullptr) {
                EXPECT_EQ(fltFreeData(const_cast<void*>(held.data), 0), kOk);
            }
        }
        if (isBlock()) {
            TbHostFreeBlock(data);
        }
        data = nullptr;
    }
};

/// All blocks are refused while this lives.
struct NoMemory {
    ~NoMemory() { TbHostSetBlockLimit(limit); }
    std::uint64_t limit = [] {
        const std::uint64_t before = TbMemBlockLimit();
        TbHostSetBlockLimit(39);  // less than the smallest block of a slot
        return before;
    }();
};

TEST(LoadCache, FindsTheRecord) {
    PstFilterData* found = nullptr;
    EXPECT_EQ(FindFilterData(nullptr, &found), kNullPointer);
    Slot slot;
    EXPECT_EQ(FindFilterData(&slot, &found), kNullPointer);
    PstFilterData* const record = MakeFilterData();
    ASSERT_EQ(StoreInSlot(&slot, 0, record, 0, kDefaultDataTag), kOk);
    EXPECT_EQ(slot.content(), (std::vector<Held>{{record, 0, kRecordTag}})) << "a plain slot";
    EXPECT_EQ(FindFilterData(&slot, nullptr), kNullPointer);
    EXPECT_EQ(FindFilterData(&slot, &found), kOk);
    EXPECT_EQ(found, record);

    ASSERT_EQ(StoreInSlot(&slot, 3, foreign, sizeof(foreign), kForeignTag), kOk);
    std::swap(entriesOf(slot.block())[0], entriesOf(slot.block())[3]);
    found = nullptr;
    EXPECT_EQ(FindFilterData(&slot, &found), kOk) << "in entry 3";
    EXPECT_EQ(found, record);
    slot.dataSize = slot.block()->blockSize;
    EXPECT_EQ(FindFilterData(&slot, &found), kOk) << "of a block whose size is known";
    slot.dataSize = 0;
    slot.dataTag = kForeignTag;
    EXPECT_EQ(FindFilterData(&slot, &found), kBadArgument) << "what another says is his is no block";
    slot.dataTag = kBlockDataTag;

    entriesOf(slot.block())[3].dataSize = 3;
    EXPECT_EQ(FindFilterData(&slot, &found), kBadArgument) << "data of three bytes has no tag";
    entriesOf(slot.block())[3].dataSize = 0;
    fltFreeData(record, 0);
    entriesOf(slot.block())[3] = {};
    EXPECT_EQ(FindFilterData(&slot, &found), kBadArgument) << "a block without a record";
}

TEST(LoadCache, OtherDataIsNoRecord) {
    const auto three = std::make_unique<char[]>(3);  // whoever reads a fourth byte is told so
    std::memcpy(three.get(), "PST", 3);
    char block[] = "QMLTxxxxxxxxxxxxxxx";
    for (const Held& held :
         {kForeign, Held{foreign, 0, kBlockDataTag}, Held{three.get(), 3, kRecordTag + 1},
          Held{block, sizeof(block), kForeignTag}, Held{block, 4, kBlockDataTag}, Held{three.get(), 3, kBlockDataTag}}) {
        Slot slot;
        slot.data = const_cast<void*>(held.data);
        slot.dataSize = held.size;
        slot.dataTag = held.tag;
        PstFilterData* found = nullptr;
        EXPECT_EQ(FindFilterData(&slot, &found), kBadArgument) << held;
        slot.data = nullptr;
    }
}

TEST(LoadCache, BlocksThatAreNotSound) {
    struct {
        const char* what;
        std::uint32_t tag;
        std::int32_t count;
        std::uint64_t blockSize;
        std::uint64_t knownSize;
        bool isValid;
    } const cases[] = {
        {"two entries", kMultiLoadBlockTag, 2, 64, 0, true},      {"of known size", kMultiLoadBlockTag, 2, 64, 64, true},
        {"with room", kMultiLoadBlockTag, 2, 88, 0, true},        {"of another size", kMultiLoadBlockTag, 2, 64, 88, false},
        {"another tag", kMultiLoadBlockTag + 1, 2, 64, 0, false}, {"one entry", kMultiLoadBlockTag, 1, 64, 0, false},
        {"no entry", kMultiLoadBlockTag, 0, 64, 0, false},        {"a negative count", kMultiLoadBlockTag, INT_MIN, 64, 0, false},
        {"too small", kMultiLoadBlockTag, 2, 63, 0, false},       {"much too small", kMultiLoadBlockTag, INT_MAX, 88, 0, false},
    };
    for (const auto& item : cases) {
        std::uint64_t memory[11] = {};
        auto* const block = reinterpret_cast<MultiLoadBlock*>(memory);
        *block = {item.tag, item.count, item.blockSize};
        EXPECT_EQ(ValidateBlock(block, item.knownSize), item.isValid ? block : nullptr) << item.what;
        Slot slot;
        slot.data = block;
        slot.dataSize = item.knownSize;
        slot.dataTag = kBlockDataTag;
        const Status status = item.isValid ? kOk : kBadArgument;
        EXPECT_EQ(EnsureEntries(&slot, 2), status) << item.what;
        EXPECT_EQ(StoreInSlot(&slot, 0, foreign, 0, kForeignTag), status) << item.what;
        EXPECT_EQ(StoreInSlot(&slot, 1, foreign, 0, kForeignTag), status) << item.what;
        EXPECT_EQ(memory[2] != 0, item.isValid) << item.what;
        slot.data = nullptr;
    }
    EXPECT_EQ(ValidateBlock(nullptr, 0), nullptr);
}

TEST(LoadCache, ReadsEntries) {
    Slot slot(kForeign);
    ASSERT_EQ(StoreInSlot(&slot, 2, kept, 5, kLoaderTag), kOk);
    MultiLoadEntry entry{};
    EXPECT_EQ(ReadEntry(nullptr, 0, &entry), kNullPointer);
    EXPECT_EQ(ReadEntry(slot.block(), 0, nullptr), kNullPointer);
    for (const std::int32_t number : {-1, 3, INT_MAX, INT_MIN}) {
        EXPECT_EQ(ReadEntry(slot.block(), number, &entry), kNoSuchEntry) << number;
    }
    EXPECT_EQ(ReadEntry(slot.block(), 2, &entry), kOk);
    EXPECT_EQ((Held{entry.data, entry.dataSize, entry.dataTag}), (Held{kept, 5, kLoaderTag}));
}

TEST(LoadCache, GrowsWithoutLoss) {
    Slot slot(kForeign);
    EXPECT_EQ(EnsureEntries(nullptr, 2), kNullPointer);
    EXPECT_EQ(EnsureEntries(&slot, 1), kOk);
    EXPECT_EQ(slot.content(), std::vector<Held>{kForeign}) << "a single datum is one entry";
    EXPECT_EQ(EnsureEntries(&slot, 4), kOk);
    EXPECT_EQ(slot.block()->blockSize, 112U);
    EXPECT_EQ(slot.content(), std::vector<Held>{kForeign}) << "room is not yet an entry";
    slot.block()->count = 4;
    entriesOf(slot.block())[3] = {kept, 5, kLoaderTag, 0};
    const std::vector<Held> four{kForeign, kFree, kFree, {kept, 5, kLoaderTag}};
    EXPECT_EQ(EnsureEntries(&slot, 1000), kOk);
    EXPECT_EQ(slot.block()->blockSize, 24'016U);
    EXPECT_EQ(slot.content(), four);
    const char* const bytes = static_cast<const char*>(slot.data);
    EXPECT_TRUE(std::all_of(bytes + 112, bytes + 24'016, [](char byte) { return byte == 0; }));
    EXPECT_EQ(EnsureEntries(&slot, 5), kOk);
    EXPECT_EQ(slot.block()->blockSize, 24'016U) << "it does not shrink";
    {
        const NoMemory shortage;
        EXPECT_EQ(EnsureEntries(&slot, 1001), kNoMemory);
    }
    for (const std::int64_t tooMany :
         {std::int64_t{INT_MAX}, std::int64_t{INT_MAX} + 1, std::int64_t{1} << 61, std::int64_t{LLONG_MAX}}) {
        EXPECT_EQ(EnsureEntries(&slot, tooMany), kNoMemory) << tooMany;
    }
    EXPECT_EQ(slot.block()->blockSize, 24'016U);
    EXPECT_EQ(slot.content(), four);
    EXPECT_EQ(EnsureEntries(&slot, LLONG_MIN), kOk);
}

TEST(LoadCache, StoresUnderNumbers) {
    const std::string untouched(foreign, sizeof(foreign));
    const Held loader{kept, 5, kLoaderTag};
    struct Step {
        std::int32_t number;
        Held stored;
    };
    struct {
        const char* what;
        std::vector<Step> steps;
        std::vector<Held> content;
        bool isBlock;
    } const cases[] = {
        {"one datum", {{0, kForeign}}, {kForeign}, false},
        {"the same again", {{0, kForeign}, {0, {foreign, 1, 1}}}, {kForeign}, false},
        {"one behind it", {{0, kForeign}, {2, loader}}, {kForeign, kFree, loader}, true},
        {"no first one", {{1, loader}}, {kFree, loader}, true},
        {"the first one later", {{1, loader}, {0, kForeign}}, {kForeign, loader}, true},
        {"a second first one", {{0, loader}, {0, kForeign}}, {kForeign, loader}, true},
        {"the first one displaced", {{0, loader}, {1, loader}, {0, kForeign}}, {kForeign, loader, loader}, true},
        {"the first one as it is", {{0, kForeign}, {1, loader}, {0, kForeign}}, {kForeign, loader}, true},
        {"another in its place", {{2, kForeign}, {2, loader}, {1, kForeign}}, {kFree, kForeign, loader}, true},
        {"tags", {{0, {kept, 0, kDefaultDataTag}}, {1, {later, 0, kDefaultDataTag}}}, {{kept, 0, 5}, {later, 0, 5}}, true},
    };
    for (const auto& item : cases) {
        Slot slot;
        slot.defaultTag = 5;
        for (const Step& step : item.steps) {
            const Held& stored = step.stored;
            EXPECT_EQ(StoreInSlot(&slot, step.number, const_cast<void*>(stored.data), stored.size, stored.tag), kOk) << item.what;
        }
        EXPECT_EQ(slot.content(), item.content) << item.what;
        EXPECT_EQ(slot.isBlock(), item.isBlock) << item.what;
        EXPECT_EQ(std::string(foreign, sizeof(foreign)), untouched) << item.what;
    }
}

TEST(LoadCache, WhatItCannotStoreChangesNothing) {
    for (const std::int32_t number : {-1, 0, 1, INT_MIN}) {
        EXPECT_EQ(StoreInSlot(nullptr, number, nullptr, 0, 0), kOk);
        EXPECT_EQ(StoreInSlot(nullptr, number, kept, 0, 0), kNullPointer);
    }
    Slot slot(kForeign);
    const auto expectRefusals = [&slot](std::int32_t next) {
        const std::vector<Held> before = slot.content();
        EXPECT_EQ(StoreInSlot(&slot, 0, nullptr, 0, 0), kOk);
        EXPECT_EQ(StoreInSlot(&slot, -1, kept, 0, 0), kNoSuchEntry);
        EXPECT_EQ(StoreInSlot(&slot, INT_MIN, kept, 0, 0), kNoSuchEntry);
        EXPECT_EQ(StoreInSlot(&slot, INT_MAX, kept, 0, 0), kNoMemory);
        EXPECT_EQ(StoreInSlot(&slot, INT_MAX - 1, kept, 0, 0), kNoMemory);
        const NoMemory shortage;
        EXPECT_EQ(StoreInSlot(&slot, 0, kept, 0, 0), kNoMemory) << "what stands there has no other place";
        EXPECT_EQ(StoreInSlot(&slot, next, kept, 0, 0), kNoMemory);
        EXPECT_EQ(slot.content(), before);
    };
    expectRefusals(1);
    ASSERT_EQ(StoreInSlot(&slot, 1, later, 0, kLoaderTag), kOk);
    expectRefusals(2);
}

// --------------------------------------------------------------------------------------------------------------------- exports

/// A host that keeps what the filter leaves until it goes.
class CachingHost : public FilterHost {
public:
    explicit CachingHost(const std::string& message, Route route = Route::Memory) : FilterHost(message, route) {
        infoRequest.cacheSlot = loadRequest.cacheSlot = &slot;
    }
    ~CachingHost() { slot.clear(); }

    /// fltInfo for one message. @return its status
    Status infoOf(std::int32_t number) {
        infoRequest.messageNumber = number;
        return info();
    }

    PstFilterData* record() const {
        PstFilterData* found = nullptr;
        FindFilterData(&slot, &found);
        return found;
    }

    /// What the last loader was told of data that was kept.
    Held told() const {
        const HostLoadOptions& given = delivery.options;
        return (given.flags & 4) != 0 ? Held{given.filterData, given.filterDataSize, given.filterDataTag} : Held{};
    }

    Slot slot;
};

const std::string kPicture(60, '\x5A');

std::string InternetMessage() {
    return mime::Multipart("related", {mime::Html("<body><img src=\"cid:one@x\">"), mime::Picture("a.png", kPicture, "one@x")})
        .addressed()
        .bytes();
}

std::string Item() {
    msg::MsgBuilder item;
    item.binary(msg::kRtfCompressed, rtf::Stored("<html><img src=\"a.png\"></html>"));
    item.attach({.name = "a.png", .data = kPicture});
    return item.bytes();
}

/// Three messages, the second one with a picture.
std::string Store() {
    store_shown::TestStore store;
    builder::Folder& inbox = store.addFolder("Inbox");
    inbox.addMessage({.htmlBody = "<html>first</html>"});
    inbox.addMessage({.htmlBody = "<html><img src=\"cid:a.png\"></html>"})
        .attach({.name = "a.png", .longName = "a.png", .data = builder::Bytes(60, 0x5A)});
    inbox.addMessage({.htmlBody = "<html>third</html>"});
    return store.finished();
}

TEST(CachedCalls, TheFileIsReadOnce) {
    struct {
        const char* what;
        std::string file;
        std::int32_t number;
    } const cases[] = {{"Internet message", InternetMessage(), 1}, {"item", Item(), 1}, {"store", Store(), 2}};
    for (const auto& item : cases) {
        for (const Route route : kBothRoutes) {
            SCOPED_TRACE(item.what);
            CachingHost host(item.file, route);
            ASSERT_EQ(host.infoOf(item.number), kOk);
            EXPECT_EQ(host.delivery.numbers, (std::vector<std::uint32_t>{2316, 3}));
            EXPECT_EQ(host.told(), kFree);
            EXPECT_EQ(host.slot.content(), (std::vector<Held>{{host.record(), 0, kRecordTag}}));
            const Delivery described = host.delivery;
            EXPECT_EQ(described.files.size(), route == Route::Memory ? 0U : 1U);
            fs::remove(host.root.inputPath());
            for (const std::int32_t number : {item.number, 1, 77, -1}) {
                host.loadRequest.messageNumber = number;
                ASSERT_EQ(host.load(), kOk) << number;
                EXPECT_EQ(host.delivery.loader, route == Route::Memory ? "loadFromMemory" : "loadFromFile");
                EXPECT_EQ(Value(host.delivery.info.format), kFormatHtml);
                EXPECT_EQ(host.delivery.document, described.document);
                EXPECT_EQ(host.delivery.documentPath, described.documentPath);
                EXPECT_EQ(host.delivery.files, described.files);
                EXPECT_EQ(host.told(), kFree);
            }
            fltFreeData(host.record(), 1);
            EXPECT_EQ(host.root.leftovers().empty(), route == Route::Memory) << "temporary files live as long as the record";
            host.slot.clear();
            EXPECT_EQ(host.root.leftovers(), std::vector<std::string>());
        }
    }
}

TEST(CachedCalls, LaterInfoDescribesTheFirstMessage) {
    CachingHost host(Store());
    ASSERT_EQ(host.infoOf(2), kOk);
    const PstFilterData* const record = host.record();
    host.answer.totalPages = 99;
    for (const std::int32_t number : {1, 3, 77, 0, INT_MIN}) {
        host.fileInfo = {};
        ASSERT_EQ(host.infoOf(number), kOk);
        EXPECT_EQ(host.delivery.loader, "");
        EXPECT_EQ(host.record(), record);
        EXPECT_EQ(Value(host.infoRequest.messageNumber), number == INT_MIN ? INT_MAX : number - 1) << "not clamped";
        EXPECT_EQ(Value(host.fileInfo.format), kFormatPst);
        EXPECT_EQ(Value(host.fileInfo.totalPages), 3U);
        EXPECT_EQ(Value(host.fileInfo.pageNumber), 2);
        EXPECT_EQ(Value(host.fileInfo.messageCount), 3U);
        EXPECT_EQ(Value(host.fileInfo.width), 816U);
        EXPECT_EQ(Value(host.fileInfo.yResolution), 120U);
        EXPECT_EQ(std::memcmp(host.fileInfo.pageValue, "pagevalu", 8), 0);
    }
}

TEST(CachedCalls, ResolutionsScaleWhatWasScaled) {
    CachingHost host(InternetMessage());
    host.answer.width = 817;
    host.infoRequest.requestedXResolution = 50;
    ASSERT_EQ(host.infoOf(1), kOk);
    EXPECT_EQ(Value(host.fileInfo.width), 426U);
    struct {
        std::uint32_t requested;
        std::uint32_t width;
        std::uint32_t resolution;  // the caller's, which was 11
    } const steps[] = {{96, 818, 11}, {0, 818, 96}, {96, 818, 96}, {192, 1636, 11}};
    for (const auto& step : steps) {
        host.fileInfo.xResolution = 11;
        host.infoRequest.requestedXResolution = step.requested;
        ASSERT_EQ(host.infoOf(1), kOk);
        EXPECT_EQ(Value(host.fileInfo.width), step.width) << step.requested;
        EXPECT_EQ(Value(host.fileInfo.xResolution), step.resolution) << step.requested;
        EXPECT_EQ(Value(host.fileInfo.height), 1056U);
    }
}

TEST(CachedCalls, AnotherKindOfSource) {
    CachingHost first(Item());
    ASSERT_EQ(first.infoOf(1), kOk);
    const std::string document = first.delivery.document;
    struct {
        std::string file;
        Status status;
    } const cases[] = {{InternetMessage(), kUnusable}, {Store(), kUnusable}, {Item(), kOk}, {"too short", kShortRead}};
    for (const auto& item : cases) {
        FilterHost host(item.file);
        host.infoRequest.cacheSlot = host.loadRequest.cacheSlot = &first.slot;
        EXPECT_EQ(host.info(), item.status);
        EXPECT_EQ(host.load(), kOk) << "which does not look at the file";
        EXPECT_EQ(host.delivery.document, document);
    }
    first.record()->sourceKind = SourceKind::Unknown;
    EXPECT_EQ(first.infoOf(1), kUnusable);
}

TEST(CachedCalls, NothingStaysOfAFailure) {
    CachingHost refused("Hello World!", Route::TemporaryFiles);
    EXPECT_EQ(refused.infoOf(1), kUnusable);
    EXPECT_EQ(Value(refused.slot.data), nullptr);
    CachingHost host(InternetMessage(), Route::TemporaryFiles);
    host.answer.status = -5;
    host.answer.meanwhile = [](HostFileInfo& info) { info.loaderData = kept; };
    EXPECT_EQ(host.infoOf(1), kLoaderFailed);
    EXPECT_EQ(Value(host.slot.data), nullptr);
    EXPECT_EQ(host.root.leftovers(), std::vector<std::string>());
    EXPECT_EQ(host.load(), -5);
    EXPECT_EQ(Value(host.slot.data), nullptr) << "fltLoad leaves nothing";
}

TEST(CachedCalls, TheStatusOfAttachmentsStays) {
    msg::MsgBuilder item;
    item.binary(msg::kRtfCompressed, rtf::Stored("<html><img src=\"a.png\"></html>")).attach({.name = "a.png", .data = "x"});
    CachingHost host(item.bytes());  // too short for a data URI
    ASSERT_EQ(host.infoOf(1), kOk);
    for (int call = 0; call < 2; ++call) {
        host.loadRequest.resultStatus = kOk;
        EXPECT_EQ(host.load(), kOk);
        EXPECT_EQ(Value(host.loadRequest.resultStatus), 0);
    }
}

// ----------------------------------------------------------------------------------------------------------- data of others

TEST(LoaderData, IsKeptBehindTheRecordAndGivenBack) {
    struct {
        std::int32_t number;
        std::vector<Held> behind;
    } const cases[] = {{1, {{kept, 5, kLoaderTag}}},
                       {2, {kFree, {kept, 5, kLoaderTag}}},
                       {99, {kFree, kFree, {kept, 5, kLoaderTag}}}};  // the store has three
    for (const auto& item : cases) {
        CachingHost host(Store());
        host.answer.meanwhile = [](HostFileInfo& info) {
            info.loaderData = kept;
            info.loaderDataSize = 5;
            info.loaderDataTag = kLoaderTag;
        };
        host.options.flags = 2;
        ASSERT_EQ(host.infoOf(item.number), kOk);
        std::vector<Held> expected{{host.record(), 0, kRecordTag}};
        expected.insert(expected.end(), item.behind.begin(), item.behind.end());
        EXPECT_EQ(host.slot.content(), expected);
        ASSERT_EQ(host.load(), kOk);
        EXPECT_EQ(host.told(), item.behind[0]) << "a cached message is loaded as the first one";
        EXPECT_EQ(Value(host.delivery.options.flags), 2U + 4U);
        EXPECT_EQ(Value(host.options.flags), 2U);
        ASSERT_EQ(host.infoOf(1), kOk);
        EXPECT_EQ(host.slot.content(), expected);
    }
}

TEST(LoaderData, UnderTheRecordsNumber) {
    CachingHost host(InternetMessage());
    host.answer.meanwhile = [](HostFileInfo& info) { info.loaderData = kept; };
    ASSERT_EQ(host.infoOf(0), kOk);
    EXPECT_EQ(host.slot.content(), (std::vector<Held>{{host.record(), 0, kRecordTag}, {kept, 0, 0}}));
    ASSERT_EQ(host.load(), kOk);
    EXPECT_EQ(host.told(), (Held{kept, 0, 0}));

    CachingHost without(InternetMessage());
    without.answer.meanwhile = host.answer.meanwhile;
    ASSERT_EQ(without.infoOf(-4), kOk);
    EXPECT_EQ(without.slot.content(), (std::vector<Held>{{without.record(), 0, kRecordTag}})) << "a number without an entry";
}

TEST(ForeignData, MakesRoomForTheRecord) {
    const Held loader{kept, 5, kLoaderTag};
    struct {
        const char* what;
        bool isKept;          // by the loader
        std::int32_t number;  // of the message
        Held told;
        std::vector<Held> behind;
    } const cases[] = {
        {"a message", false, 1, {}, {kForeign}},
        {"a message and a loader", true, 2, {}, {kFree, loader, kForeign}},
        {"message 0", false, 0, kForeign, {kForeign}},
        {"message 0 and a loader", true, 0, kForeign, {kForeign, loader}},
    };
    for (const auto& item : cases) {
        SCOPED_TRACE(item.what);
        CachingHost host(InternetMessage());
        StoreInSlot(&host.slot, 0, foreign, sizeof(foreign), kForeignTag);
        host.loadRequest.messageNumber = item.number;
        ASSERT_EQ(host.load(), kOk);
        EXPECT_EQ(host.told(), item.told);
        if (item.isKept) {
            host.answer.meanwhile = [](HostFileInfo& info) {
                info.loaderData = kept;
                info.loaderDataSize = 5;
                info.loaderDataTag = kLoaderTag;
            };
        }
        ASSERT_EQ(host.infoOf(item.number), kOk);
        EXPECT_EQ(host.told(), item.told);
        std::vector<Held> expected{{host.record(), 0, kRecordTag}};
        expected.insert(expected.end(), item.behind.begin(), item.behind.end());
        EXPECT_EQ(host.slot.content(), expected);
    }
}

TEST(ForeignData, ThatTheRecordCannotJoin) {
    CachingHost host(InternetMessage(), Route::TemporaryFiles);
    StoreInSlot(&host.slot, 0, foreign, sizeof(foreign), kForeignTag);
    std::unique_ptr<NoMemory> shortage;
    host.answer.meanwhile = [&shortage](HostFileInfo& info) {
        info.loaderData = kept;
        shortage = std::make_unique<NoMemory>();
    };
    const Status status = host.infoOf(1);
    shortage.reset();
    EXPECT_EQ(status, kOk);
    EXPECT_EQ(Value(host.fileInfo.width), 816U);
    EXPECT_EQ(host.slot.content(), std::vector<Held>{kForeign});
    EXPECT_EQ(host.root.leftovers(), std::vector<std::string>()) << "the record dies with the call";

    MultiLoadBlock unsound{kMultiLoadBlockTag, 1, 64};
    host.slot.data = &unsound;
    host.slot.dataSize = 0;
    host.slot.dataTag = kBlockDataTag;
    host.answer.meanwhile = {};
    EXPECT_EQ(host.infoOf(1), kOk);
    EXPECT_EQ(host.told(), kFree);
    EXPECT_EQ(unsound.count, 1);
    EXPECT_EQ(host.load(), kOk);
    EXPECT_EQ(host.told(), kFree);
    host.slot.data = nullptr;
}

}  // namespace
