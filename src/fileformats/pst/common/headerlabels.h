// The words in front of header lines, in the user's language.
#pragma once

#include <cstdint>

// Position of a word in its language's row.
inline constexpr std::int32_t kLabelFrom = 0;
inline constexpr std::int32_t kLabelTo = 1;
inline constexpr std::int32_t kLabelBcc = 2;
inline constexpr std::int32_t kLabelCc = 3;
inline constexpr std::int32_t kLabelSent = 4;
inline constexpr std::int32_t kLabelSubject = 5;
inline constexpr std::int32_t kLabelImportance = 6;
inline constexpr std::int32_t kLabelHigh = 7;
inline constexpr std::int32_t kLabelLow = 8;

/// The word, NUL-terminated UTF-8 with its trailing blanks, in the language of TbUiLanguage, or in English when that has no row.
/// "Unknown" for an index outside the rows.
const char* HeaderLabel(std::int32_t index);
