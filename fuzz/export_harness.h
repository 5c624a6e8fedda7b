// What the targets share that read a whole file through the exports: a file in memory, loaders that touch every byte, and a look
// at what is left over.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include <ternkit/statuses.h>

namespace fuzz {

/// Puts the bytes into a file in memory, in the place of what it held, and gives temporary files a directory of their own.
/// @return its path; the program stops when there is no memory for it
std::u16string fileOf(const std::uint8_t* data, std::size_t size);

/// Stops the program when a temporary file is left over. Looks once in many calls.
void expectNothingLeft();

struct Request {
    std::int32_t messageNumber = 1;
    std::uint32_t plainTextOnly = 0;
};

/// Calls the exports for the bytes as a file: by name on the route through memory; with a slot that keeps the message between
/// calls, and into the other kind of target, on the one through temporary files. RTF goes through the host's guard. Stops the
/// program when the two calls on a route disagree, or when a temporary file is left over.
/// @return the status on the route through memory
ternkit::Status readThroughExports(const std::uint8_t* data, std::size_t size, const Request& request);

}  // namespace fuzz
