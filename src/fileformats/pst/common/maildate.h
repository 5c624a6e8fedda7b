// The date of an Internet message as a number.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

/**
 * Reads the value of a Date field (RFC 5322, 3.3), obsolete forms included. Comments, the name of the day, and a missing time or
 * zone (which then counts as UTC) are no obstacle.
 *
 * @return seconds since 1970, UTC; none for a text that is no date
 */
std::optional<std::int64_t> ParseMailDate(std::string_view text);
