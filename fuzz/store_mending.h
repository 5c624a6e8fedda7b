// Where the pages and blocks of a store lie, and how a changed store is made one again whose reader gets past its trailers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace fuzz {

struct StorePage {
    std::size_t address;
    std::uint64_t id;
    std::uint8_t type;
};

struct StoreBlock {
    std::size_t entry;  // offset of its size in the block tree
    std::size_t address;
    std::uint64_t id;
    std::size_t size;      // of its content
    std::size_t capacity;  // of content, for which its place in the file has room
    bool isEncoded;
};

/// What the two trees lead to, as far as it lies in the file and can be followed.
struct StoreMap {
    std::vector<StorePage> pages;
    std::vector<StoreBlock> blocks;
    std::uint8_t encoding = 0;  // bCryptMethod
};

/// @return nothing for what is no store
StoreMap mapStore(std::span<const std::uint8_t> store);

/// Makes the CRCs of the header right, and those of all pages and blocks with their signatures, ids, types and sizes. A sound
/// store stays as it is.
void mendStore(std::span<std::uint8_t> store);
/// The same for the header alone.
void mendStoreHeader(std::span<std::uint8_t> store);

}  // namespace fuzz
