// What the targets share that read a whole file through the exports: a file in memory, loaders that touch every byte, and a look
// at what is left over.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

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

/// Calls fltInfo and fltLoad for the bytes as a file, on both routes. Stops the program when the two disagree, or when a
/// temporary file is left over.
void readThroughExports(const std::uint8_t* data, std::size_t size, const Request& request);

}  // namespace fuzz
