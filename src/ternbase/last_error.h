// The thread's last error, shared by the source files that stand in for Windows calls.
#pragma once

#include <cstdint>

inline constexpr std::uint32_t kErrorNotEnoughMemory = 8;
inline constexpr std::uint32_t kErrorInvalidParameter = 87;
inline constexpr std::uint32_t kErrorInsufficientBuffer = 122;
inline constexpr std::uint32_t kErrorInvalidFlags = 1004;

/** Sets what GetLastError answers on this thread. */
void TbSetLastError(std::uint32_t code);
