// What a host keeps between calls. It gives every request for one file the same slot: the first fltInfo reads the message and
// leaves its record there, later calls are served from it. What lies in a slot at the end is the host's to give back: records of
// the filter to fltFreeData, the data of its loaders to them, and a block to TbHostFreeBlock, in that order.
#pragma once

#include <cstddef>
#include <cstdint>

namespace ternkit {

inline constexpr std::uint32_t kDefaultDataTag = 0xFFFFFFFF;  // -1, stands for the slot's `defaultTag`
inline constexpr std::uint32_t kBlockDataTag = 0xFFFFFFFE;    // -2, marks a slot whose data is a MultiLoadBlock

inline constexpr std::int32_t kFilterDataEntry = 0;  // entry of the filter's record; a loader's data lies at message index plus 1

#pragma pack(push, 1)

// The host makes it with all bytes zero, but for `defaultTag`, and changes nothing while requests use it. It has more fields
// than these in a host that needs more.
struct LoadCacheSlot {
    std::uint8_t unused0[12];
    void* data;  // null, a record of the filter, a MultiLoadBlock, or a loader's data
    std::uint8_t unused20[4];
    std::uint32_t defaultTag;  // of what is stored with kDefaultDataTag, as the filter's records are
    std::uint8_t unused28[28];
    std::uint64_t dataSize;  // bytes; 0 where not known, and for a block
    std::uint32_t dataTag;
};

#pragma pack(pop)

// A table of `count` entries, which follow the header without a gap.
struct MultiLoadBlock {
    std::uint32_t tag;  // kMultiLoadBlockTag
    std::int32_t count;
    std::uint64_t blockSize;  // bytes, header included; there may be room for more entries
};

struct MultiLoadEntry {
    void* data;  // null when the entry is free
    std::uint64_t dataSize;
    std::uint32_t dataTag;
    std::uint32_t entryFlags;
};

inline constexpr std::uint32_t kMultiLoadBlockTag = 0x544C4D51;  // "QMLT"

inline MultiLoadEntry* entriesOf(MultiLoadBlock* block) {
    return reinterpret_cast<MultiLoadEntry*>(block + 1);
}

inline const MultiLoadEntry* entriesOf(const MultiLoadBlock* block) {
    return reinterpret_cast<const MultiLoadEntry*>(block + 1);
}

static_assert(offsetof(LoadCacheSlot, data) == 12);
static_assert(offsetof(LoadCacheSlot, defaultTag) == 24);
static_assert(offsetof(LoadCacheSlot, dataSize) == 56);
static_assert(offsetof(LoadCacheSlot, dataTag) == 64);

static_assert(sizeof(MultiLoadBlock) == 16);
static_assert(offsetof(MultiLoadBlock, tag) == 0);
static_assert(offsetof(MultiLoadBlock, count) == 4);
static_assert(offsetof(MultiLoadBlock, blockSize) == 8);

static_assert(sizeof(MultiLoadEntry) == 24);
static_assert(offsetof(MultiLoadEntry, data) == 0);
static_assert(offsetof(MultiLoadEntry, dataSize) == 8);
static_assert(offsetof(MultiLoadEntry, dataTag) == 16);
static_assert(offsetof(MultiLoadEntry, entryFlags) == 20);

}  // namespace ternkit
