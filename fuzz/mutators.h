// Mutators that know the form of a file: they change what lies inside its pages, blocks, sectors and streams, and mend what would
// keep a reader from looking there. Each is to be called from LLVMFuzzerCustomMutator, with its arguments.
#pragma once

#include <cstddef>
#include <cstdint>

namespace fuzz {

std::size_t mutateStore(std::uint8_t* data, std::size_t size, std::size_t maxSize, unsigned seed);
std::size_t mutateCompoundFile(std::uint8_t* data, std::size_t size, std::size_t maxSize, unsigned seed);

}  // namespace fuzz
