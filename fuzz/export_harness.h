// What the targets share that read a whole file through the exports: a file in memory, loaders that touch every byte, and a look
// at what is left over.
#pragma once

#include <cstddef>
#include <cstdint>

namespace fuzz {

struct Request {
    std::int32_t messageNumber = 1;
    std::uint32_t plainTextOnly = 0;
};

/// Calls fltInfo and fltLoad for the bytes as a file, on both routes. Stops the program when the two disagree, or when a
/// temporary file is left over.
void readThroughExports(const std::uint8_t* data, std::size_t size, const Request& request);

}  // namespace fuzz
