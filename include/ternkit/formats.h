// Format ids of the toolkit that a mail filter and its host exchange.
#pragma once

#include <cstdint>

namespace ternkit {

// Source formats: what the file is.
inline constexpr std::uint32_t kFormatPst = 385;  // Personal Folders store, [MS-PST]
inline constexpr std::uint32_t kFormatMsg = 386;  // Outlook item, [MS-OXMSG]
inline constexpr std::uint32_t kFormatEml = 387;  // Internet message, RFC 5322

// Document formats: what the filter hands to the host's loaders.
inline constexpr std::uint32_t kFormatHtml = 369;
inline constexpr std::uint32_t kFormatRtf = 226;
inline constexpr std::uint32_t kFormatText = 316;

}  // namespace ternkit
