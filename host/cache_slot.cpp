#include "cache_slot.h"

#include <algorithm>
#include <utility>

#include <ternkit/ternbase.h>

namespace ternview {

using ternkit::MultiLoadBlock;
using ternkit::MultiLoadEntry;

CacheSlot::CacheSlot(const FilterModule& module, FreeLoaderData freeLoaderData)
    : module_(module), freeLoaderData_(std::move(freeLoaderData)) {
    slot_.defaultTag = kFilterRecordTag;
}

CacheSlot::~CacheSlot() {
    if (slot_.data == nullptr) {
        return;
    }
    if (slot_.dataTag != ternkit::kBlockDataTag) {
        free({slot_.data, slot_.dataSize, slot_.dataTag, 0});
        return;
    }
    auto* const block = static_cast<MultiLoadBlock*>(slot_.data);
    std::for_each_n(entriesOf(block), block->count, [this](const MultiLoadEntry& entry) { free(entry); });
    TbHostFreeBlock(block);
}

void CacheSlot::free(const MultiLoadEntry& entry) const {
    if (entry.data == nullptr) {
        return;
    }
    if (entry.dataTag == kFilterRecordTag) {
        module_.freeData(entry.data);
    } else if (freeLoaderData_) {
        freeLoaderData_(entry.data, entry.dataSize, entry.dataTag);
    }
}

}  // namespace ternview
