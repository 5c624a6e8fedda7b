// What the filter keeps between the calls for one mail file, so that the file is read once.
#pragma once

#include <cstdint>
#include <functional>

#include <ternkit/load_cache.h>

#include "filter_module.h"

namespace ternview {

/// Tag of the filter's records in a slot. Loaders that keep data take others.
inline constexpr std::uint32_t kFilterRecordTag = 1;

/// Frees what a loader asked to keep. It must not throw.
using FreeLoaderData = std::function<void(void* data, std::uint64_t size, std::uint32_t tag)>;

/// The slot of one file. Whatever lies in it goes with it, the filter's temporary files included.
class CacheSlot {
public:
    /// @param module must outlive the slot
    /// @param freeLoaderData what the loaders keep is given to it; nothing, when they keep nothing
    explicit CacheSlot(const FilterModule& module, FreeLoaderData freeLoaderData = {});
    ~CacheSlot();
    CacheSlot(const CacheSlot&) = delete;
    CacheSlot& operator=(const CacheSlot&) = delete;

    /// What the requests for the file carry.
    ternkit::LoadCacheSlot* record() { return &slot_; }

private:
    void free(const ternkit::MultiLoadEntry& entry) const;

    const FilterModule& module_;
    FreeLoaderData freeLoaderData_;
    ternkit::LoadCacheSlot slot_{};
};

}  // namespace ternview
