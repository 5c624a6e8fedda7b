// The integer types and ids of a store, and the in-memory records that both file layouts are read into.
#pragma once

#include <cstdint>

namespace pstsdk {

// Exact widths: `ulong` has 32 bits here even where the system's unsigned long is wider.
using byte = std::uint8_t;
using ushort = std::uint16_t;
using ulong = std::uint32_t;
using ulonglong = std::uint64_t;

// Ids have one width in memory for both layouts; an ANSI id is zero-extended when it is read.
using node_id = ulong;
using block_id = ulonglong;
using page_id = ulonglong;
using heap_id = ulong;

inline constexpr ulong node_type_mask = 0x1F;
inline constexpr ulong hid_type_mask = 0x1F;

// Bit 0 of a block id is reserved and takes no part in look-ups; bit 1 marks blocks that hold structure.
inline constexpr block_id block_id_reserved_bit = 1;
inline constexpr block_id block_id_internal_bit = 2;
inline constexpr block_id block_id_step = 4;

constexpr bool is_internal_block(block_id id) {
    return (id & block_id_internal_bit) != 0;
}

struct page_info {
    page_id id;
    ulonglong address;  // file offset
};

struct block_info {
    block_id id;
    ulonglong address;  // file offset
    ushort size;        // bytes of content, without padding and trailer
    ushort ref_count;
};

struct node_info {
    node_id id;
    block_id data_bid;
    block_id subnode_bid;
    node_id parent_id;
};

struct subnode_info {
    node_id id;
    block_id data_bid;
    block_id subnode_bid;
};

}  // namespace pstsdk
