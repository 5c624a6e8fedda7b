// Statuses that the filter's exports return. 1 is success and 2 a qualified success; everything below 1 is a failure.
#pragma once

#include <cstdint>

namespace ternkit {

using Status = std::int32_t;

inline constexpr Status kOk = 1;
inline constexpr Status kAbsent = 2;     // nothing there, and that is no failure
inline constexpr Status kNoMemory = -1;  // no memory, or a composer failed
inline constexpr Status kSeekFailed = -4;
inline constexpr Status kShortWrite = -5;
inline constexpr Status kShortRead = -7;
inline constexpr Status kUnusable = -9;  // the content is not usable, or there is nothing to show
inline constexpr Status kCannotOpen = -10;
inline constexpr Status kBadArgument = -13;  // bad argument, buffer too small, or nothing found
inline constexpr Status kMsgCannotOpen = -14;
inline constexpr Status kEmptyInput = -74;
inline constexpr Status kPathTooLong = -290;
inline constexpr Status kNullPointer = -814;
inline constexpr Status kWideConversionFailed = -1488;
inline constexpr Status kCannotCreate = -1490;
inline constexpr Status kUtf8ConversionFailed = -1851;
inline constexpr Status kNoSuchEntry = -1860;   // no entry of that number in a slot's block
inline constexpr Status kLoaderFailed = -1863;  // a host loader failed; its own status is in `loaderStatus`

}  // namespace ternkit
