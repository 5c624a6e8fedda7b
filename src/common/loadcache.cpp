#include "common/loadcache.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "ternbase/ternbase.h"

using ternkit::entriesOf;
using ternkit::LoadCacheSlot;
using ternkit::MultiLoadBlock;
using ternkit::MultiLoadEntry;
using ternkit::Status;

TB_SOURCE(u"src/common/loadcache")

namespace {

/// @param size bytes of the data, or 0 where not known
bool beginsWith(const void* data, std::uint64_t size, std::uint32_t tag) {
    return data != nullptr && (size == 0 || size >= sizeof(tag)) && std::memcmp(data, &tag, sizeof(tag)) == 0;
}

constexpr std::uint64_t blockSizeFor(std::int64_t entries) {
    return sizeof(MultiLoadBlock) + static_cast<std::uint64_t>(entries) * sizeof(MultiLoadEntry);
}

/// The block of a slot, or null when it holds none or an invalid one.
MultiLoadBlock* blockOf(const LoadCacheSlot& slot) {
    return slot.dataTag == ternkit::kBlockDataTag ? ValidateBlock(slot.data, slot.dataSize) : nullptr;
}

/// Counts what a slot holds. @return 1, or -13 when its block is invalid
Status countEntries(const LoadCacheSlot& slot, std::int64_t& count) {
    count = slot.data == nullptr ? 0 : 1;
    if (slot.data != nullptr && slot.dataTag == ternkit::kBlockDataTag) {
        const MultiLoadBlock* block = blockOf(slot);
        if (block == nullptr) {
            return ternkit::kBadArgument;
        }
        count = block->count;
    }
    return ternkit::kOk;
}

/// Makes room in a block. @return the block, which may lie elsewhere now; null on no memory with the old one still valid
MultiLoadBlock* growBlock(MultiLoadBlock* block, std::uint64_t size) {
    if (block->blockSize >= size) {
        return block;
    }
    auto* const grown = static_cast<MultiLoadBlock*>(TbMemRealloc(block, size, TB_HERE));
    if (grown != nullptr) {
        std::memset(reinterpret_cast<char*>(grown) + grown->blockSize, 0, size - grown->blockSize);
        grown->blockSize = size;
    }
    return grown;
}

/// Makes a block, whose first entry is the slot's single datum if there is one. @return null on no memory
MultiLoadBlock* makeBlock(const LoadCacheSlot& slot, std::uint64_t size) {
    auto* const block = static_cast<MultiLoadBlock*>(TbMemAllocZero(1, size, TB_HERE));
    if (block != nullptr) {
        block->tag = ternkit::kMultiLoadBlockTag;
        block->blockSize = size;
        if (slot.data != nullptr) {
            *entriesOf(block) = {slot.data, slot.dataSize, slot.dataTag, 0};
            block->count = 1;
        }
    }
    return block;
}

/// Stores an entry under number 0 of a slot that holds something else.
Status storeFirst(LoadCacheSlot& slot, const MultiLoadEntry& entry) {
    std::int64_t count = 0;
    Status status = countEntries(slot, count);
    if (status != ternkit::kOk) {
        return status;
    }
    const void* displaced = slot.data;
    if (const MultiLoadBlock* present = blockOf(slot); present != nullptr) {
        displaced = entriesOf(present)->data;
    }
    if (displaced != nullptr && displaced != entry.data) {
        status = EnsureEntries(&slot, count + 1);
        if (status != ternkit::kOk) {
            return status;
        }
        auto* const block = static_cast<MultiLoadBlock*>(slot.data);
        entriesOf(block)[count] = entriesOf(block)[0];
        block->count = static_cast<std::int32_t>(count + 1);
    }
    *entriesOf(static_cast<MultiLoadBlock*>(slot.data)) = entry;
    return ternkit::kOk;
}

}  // namespace

Status FindFilterData(const LoadCacheSlot* slot, PstFilterData** out) {
    if (slot == nullptr || slot->data == nullptr || out == nullptr) {
        return ternkit::kNullPointer;
    }
    if (beginsWith(slot->data, slot->dataSize, kFilterDataTag)) {
        *out = static_cast<PstFilterData*>(slot->data);
        return ternkit::kOk;
    }
    const MultiLoadBlock* block = blockOf(*slot);
    if (block == nullptr) {
        return ternkit::kBadArgument;
    }
    const MultiLoadEntry* const end = entriesOf(block) + block->count;
    const MultiLoadEntry* const found = std::find_if(entriesOf(block), end, [](const MultiLoadEntry& entry) {
        return beginsWith(entry.data, entry.dataSize, kFilterDataTag);
    });
    if (found == end) {
        return ternkit::kBadArgument;
    }
    *out = static_cast<PstFilterData*>(found->data);
    return ternkit::kOk;
}

bool FindLoaderData(const LoadCacheSlot* slot, std::int32_t number, MultiLoadEntry* out) {
    if (slot == nullptr || slot->data == nullptr || number < 0) {
        return false;
    }
    if (slot->dataTag == ternkit::kBlockDataTag && beginsWith(slot->data, slot->dataSize, ternkit::kMultiLoadBlockTag)) {
        return ReadEntry(blockOf(*slot), number, out) == ternkit::kOk;
    }
    if (number != ternkit::kFilterDataEntry) {
        return false;
    }
    *out = {slot->data, slot->dataSize, slot->dataTag, 0};
    return true;
}

MultiLoadBlock* ValidateBlock(void* data, std::uint64_t size) {
    if (!beginsWith(data, size, ternkit::kMultiLoadBlockTag) || (size != 0 && size < sizeof(MultiLoadBlock))) {
        return nullptr;
    }
    auto* const block = static_cast<MultiLoadBlock*>(data);
    const bool isValid =
        block->count >= 2 && block->blockSize >= blockSizeFor(block->count) && (size == 0 || size == block->blockSize);
    return isValid ? block : nullptr;
}

Status ReadEntry(const MultiLoadBlock* block, std::int32_t number, MultiLoadEntry* out) {
    if (block == nullptr || out == nullptr) {
        return ternkit::kNullPointer;
    }
    if (number < 0 || number >= block->count) {
        return ternkit::kNoSuchEntry;
    }
    *out = entriesOf(block)[number];
    return ternkit::kOk;
}

Status EnsureEntries(LoadCacheSlot* slot, std::int64_t needed) {
    if (slot == nullptr) {
        return ternkit::kNullPointer;
    }
    std::int64_t present = 0;
    const Status status = countEntries(*slot, present);
    if (status != ternkit::kOk || present >= needed) {
        return status;
    }
    if (needed > std::numeric_limits<std::int32_t>::max()) {  // more than a block can count
        return ternkit::kNoMemory;
    }
    MultiLoadBlock* const held = blockOf(*slot);
    MultiLoadBlock* const block =
        held != nullptr ? growBlock(held, blockSizeFor(needed)) : makeBlock(*slot, blockSizeFor(needed));
    if (block == nullptr) {
        return ternkit::kNoMemory;
    }
    slot->data = block;
    slot->dataSize = 0;
    slot->dataTag = ternkit::kBlockDataTag;
    return ternkit::kOk;
}

Status StoreInSlot(LoadCacheSlot* slot, std::int32_t number, void* data, std::uint64_t size, std::uint32_t tag) {
    if (data == nullptr) {
        return ternkit::kOk;
    }
    if (slot == nullptr) {
        return ternkit::kNullPointer;
    }
    if (number < 0) {
        return ternkit::kNoSuchEntry;
    }
    const MultiLoadEntry entry{data, size, tag == ternkit::kDefaultDataTag ? slot->defaultTag : tag, 0};
    if (number == 0 && slot->data == nullptr) {
        slot->data = entry.data;
        slot->dataSize = entry.dataSize;
        slot->dataTag = entry.dataTag;
        return ternkit::kOk;
    }
    if (number == 0) {
        return slot->data == data ? ternkit::kOk : storeFirst(*slot, entry);
    }
    const Status status = EnsureEntries(slot, std::int64_t{number} + 1);
    if (status != ternkit::kOk) {
        return status;
    }
    auto* const block = static_cast<MultiLoadBlock*>(slot->data);
    entriesOf(block)[number] = entry;
    block->count = std::max(block->count, number + 1);
    return ternkit::kOk;
}
