// Stores that several workloads share; each is written at the first use.
#pragma once

#include <cstdint>

#include "bench_support.h"

namespace bench {

inline constexpr std::int32_t kMixedMessages = 10'000;

/// Every second message has an RTF body of 8 KB, the others HTML of 30 KB with two pictures.
const File& mixedStore();

/// Messages with 600 bytes of plain text.
/// @param messages how many; the store is kept by that number
const File& smallStore(std::int32_t messages);

}  // namespace bench
