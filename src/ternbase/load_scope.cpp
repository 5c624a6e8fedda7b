// How documents travel. The load scope brackets a loader's work for the toolkit's kernel; on this platform there is nothing to
// switch, so its calls only keep their order.

#include "ternbase/ternbase.h"

#include <atomic>

namespace {

std::atomic<std::uint32_t> loadMode{0};

}  // namespace

void TbHostSetLoadMode(std::uint32_t mode) {
    loadMode.store(mode, std::memory_order_relaxed);
}

std::uint32_t TbLoadModeQuery() {
    return loadMode.load(std::memory_order_relaxed);
}

ternkit::Status TbLoadScopePrepare(void* block, std::uint32_t size, std::uint32_t /*kind*/, std::uint32_t /*reserved*/) {
    return block != nullptr && size == kTbLoadScopeSize ? ternkit::kOk : ternkit::kBadArgument;
}

void TbLoadScopeSwitch(void* /*block*/, std::uint32_t /*reserved1*/, std::uint32_t /*reserved2*/) {}
