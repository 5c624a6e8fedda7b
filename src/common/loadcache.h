// The filter's record and the data of loaders in a host's slot.
#pragma once

#include <ternkit/load_cache.h>
#include <ternkit/statuses.h>
#include "common/filterdata.h"

/// Looks for the filter's record in a slot.
/// @return 1 with the record in `out`; -814 for a missing argument or an empty slot; -13 when the slot holds none
ternkit::Status FindFilterData(const ternkit::LoadCacheSlot* slot, PstFilterData** out);

/// Looks for what the loader of a call asked to keep.
/// @param number message index plus 1  @return whether `out` was filled
bool FindLoaderData(const ternkit::LoadCacheSlot* slot, std::int32_t number, ternkit::MultiLoadEntry* out);

/// Tells whether data is a block with at least two entries that lie in it. @param size bytes, or 0 where not known
/// @return the block or null
ternkit::MultiLoadBlock* ValidateBlock(void* data, std::uint64_t size);

/// Copies an entry of a valid block. @return 1; -814 for a missing argument; -1860 when there is no entry of this number
ternkit::Status ReadEntry(const ternkit::MultiLoadBlock* block, std::int32_t number, ternkit::MultiLoadEntry* out);

/// Sees to a block with room for `needed` entries, unless the slot holds that many; a single datum becomes entry 0.
/// @return 1; -814 for a null slot; -13 when its block is invalid; -1 on no memory with the slot as it was
ternkit::Status EnsureEntries(ternkit::LoadCacheSlot* slot, std::int64_t needed);

/// Stores data under a number; in an empty slot number 0 is the slot itself. What stands under 0 already moves to a new entry at
/// the end of the table, and what stands under another number gives way.
/// @return 1, also for null data; -814 for a null slot; -1860 for a negative number; or the status of EnsureEntries
ternkit::Status StoreInSlot(ternkit::LoadCacheSlot* slot, std::int32_t number, void* data, std::uint64_t size, std::uint32_t tag);
