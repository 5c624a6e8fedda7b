// The records of a store as they lie in the file ([MS-PST] 2.2), little-endian and packed, for both layouts: T is ulong in an
// ANSI store (32-bit ids and offsets) and ulonglong in a Unicode store (64-bit). Only database_impl<T> reads them.
#pragma once

#include <cstddef>

#include "pstsdk/types.h"

namespace pstsdk::disk {

#pragma pack(push, 1)

// BREF: an id and the file offset where it lies.
template <typename T>
struct block_reference {
    T bid;
    T ib;
};

// ROOT.
template <typename T>
struct root {
    ulong dwReserved;
    T ibFileEof;
    T ibAMapLast;
    T cbAMapFree;
    T cbPMapFree;
    block_reference<T> BREFNBT;
    block_reference<T> BREFBBT;
    byte fAMapValid;
    byte bReserved;
    ushort wReserved;
};

// HEADER.
template <typename T>
struct header;

template <>
struct header<ulonglong> {
    byte dwMagic[4];
    ulong dwCRCPartial;
    ushort wMagicClient;
    ushort wVer;
    ushort wVerClient;
    byte bPlatformCreate;
    byte bPlatformAccess;
    ulong dwReserved1;
    ulong dwReserved2;
    ulonglong bidUnused;
    ulonglong bidNextP;
    ulong dwUnique;
    byte rgnid[128];
    ulonglong qwUnused;
    disk::root<ulonglong> root;
    ulong dwAlignment;
    byte rgbFM[128];
    byte rgbFP[128];
    byte bSentinel;
    byte bCryptMethod;
    byte rgbReserved[2];
    ulonglong bidNextB;
    ulong dwCRCFull;
    byte rgbReserved2[3];
    byte bReserved;
    byte rgbReserved3[32];
    byte alignment[4];
};

template <>
struct header<ulong> {
    byte dwMagic[4];
    ulong dwCRCPartial;
    ushort wMagicClient;
    ushort wVer;
    ushort wVerClient;
    byte bPlatformCreate;
    byte bPlatformAccess;
    ulong dwReserved1;
    ulong dwReserved2;
    ulong bidNextB;
    ulong bidNextP;
    ulong dwUnique;
    byte rgnid[128];
    disk::root<ulong> root;
    byte rgbFM[128];
    byte rgbFP[128];
    byte bSentinel;
    byte bCryptMethod;
    byte rgbReserved[2];
    ulonglong ullReserved;
    ulong dwReserved;
    byte rgbReserved2[3];
    byte bReserved;
    byte rgbReserved3[32];
};

// PAGETRAILER. The two layouts differ in the order of the id and the CRC, too.
template <typename T>
struct page_trailer;

template <>
struct page_trailer<ulonglong> {
    byte ptype;
    byte ptypeRepeat;
    ushort wSig;
    ulong dwCRC;
    ulonglong bid;
};

template <>
struct page_trailer<ulong> {
    byte ptype;
    byte ptypeRepeat;
    ushort wSig;
    ulong bid;
    ulong dwCRC;
};

// The counters of a BTPAGE, in front of its trailer (and, in Unicode, of four bytes of padding).
struct tree_page_counters {
    byte cEnt;
    byte cEntMax;
    byte cbEnt;
    byte cLevel;
};

// BTENTRY.
template <typename T>
struct child_entry {
    T btkey;
    block_reference<T> bref;
};

// BBTENTRY.
template <typename T>
struct block_entry;

template <>
struct block_entry<ulonglong> {
    block_reference<ulonglong> bref;
    ushort cb;
    ushort cRef;
    ulong dwPadding;
};

template <>
struct block_entry<ulong> {
    block_reference<ulong> bref;
    ushort cb;
    ushort cRef;
};

// NBTENTRY.
template <typename T>
struct node_entry;

template <>
struct node_entry<ulonglong> {
    ulonglong nid;  // the low 32 bits count
    ulonglong bidData;
    ulonglong bidSub;
    ulong nidParent;
    ulong dwPadding;
};

template <>
struct node_entry<ulong> {
    ulong nid;
    ulong bidData;
    ulong bidSub;
    ulong nidParent;
};

// BLOCKTRAILER, at the end of a block's rounded size.
template <typename T>
struct block_trailer;

template <>
struct block_trailer<ulonglong> {
    ushort cb;
    ushort wSig;
    ulong dwCRC;
    ulonglong bid;
};

template <>
struct block_trailer<ulong> {
    ushort cb;
    ushort wSig;
    ulong bid;
    ulong dwCRC;
};

// XBLOCK and XXBLOCK; the ids follow.
struct extended_block_header {
    byte btype;
    byte cLevel;
    ushort cEnt;
    ulong lcbTotal;
};

// SLBLOCK and SIBLOCK; the entries follow.
template <typename T>
struct subnode_block_header;

template <>
struct subnode_block_header<ulonglong> {
    byte btype;
    byte cLevel;
    ushort cEnt;
    ulong dwPadding;
};

template <>
struct subnode_block_header<ulong> {
    byte btype;
    byte cLevel;
    ushort cEnt;
};

// SLENTRY.
template <typename T>
struct subnode_leaf_entry {
    T nid;
    T bidData;
    T bidSub;
};

// SIENTRY.
template <typename T>
struct subnode_child_entry {
    T nid;
    T bid;
};

#pragma pack(pop)

static_assert(sizeof(header<ulonglong>) == 568 && sizeof(header<ulong>) == 512);
static_assert(offsetof(header<ulonglong>, dwCRCPartial) == 4 && offsetof(header<ulong>, dwCRCPartial) == 4);
static_assert(offsetof(header<ulonglong>, wMagicClient) == 8 && offsetof(header<ulong>, wMagicClient) == 8);
static_assert(offsetof(header<ulonglong>, wVer) == 10 && offsetof(header<ulong>, wVer) == 10);
static_assert(offsetof(header<ulonglong>, bidNextP) == 32 && offsetof(header<ulong>, bidNextP) == 28);
static_assert(offsetof(header<ulonglong>, rgnid) == 44 && offsetof(header<ulong>, rgnid) == 36);
static_assert(offsetof(header<ulonglong>, root) == 180 && offsetof(header<ulong>, root) == 164);
static_assert(offsetof(header<ulonglong>, rgbFM) == 256 && offsetof(header<ulong>, rgbFM) == 204);
static_assert(offsetof(header<ulonglong>, rgbFP) == 384 && offsetof(header<ulong>, rgbFP) == 332);
static_assert(offsetof(header<ulonglong>, bSentinel) == 512 && offsetof(header<ulong>, bSentinel) == 460);
static_assert(offsetof(header<ulonglong>, bCryptMethod) == 513 && offsetof(header<ulong>, bCryptMethod) == 461);
static_assert(offsetof(header<ulonglong>, bidNextB) == 516 && offsetof(header<ulong>, bidNextB) == 24);
static_assert(offsetof(header<ulonglong>, dwCRCFull) == 524 && offsetof(header<ulong>, ullReserved) == 464);
static_assert(offsetof(header<ulonglong>, rgbReserved3) == 532 && offsetof(header<ulong>, rgbReserved3) == 480);
static_assert(sizeof(root<ulonglong>) == 72 && sizeof(root<ulong>) == 40);
static_assert(offsetof(root<ulonglong>, ibFileEof) == 4 && offsetof(root<ulong>, ibFileEof) == 4);
static_assert(offsetof(root<ulonglong>, BREFNBT) == 36 && offsetof(root<ulong>, BREFNBT) == 20);
static_assert(offsetof(root<ulonglong>, BREFBBT) == 52 && offsetof(root<ulong>, BREFBBT) == 28);
static_assert(sizeof(page_trailer<ulonglong>) == 16 && sizeof(page_trailer<ulong>) == 12);
static_assert(offsetof(page_trailer<ulonglong>, bid) == 8 && offsetof(page_trailer<ulong>, bid) == 4);
static_assert(sizeof(tree_page_counters) == 4 && offsetof(tree_page_counters, cLevel) == 3);
static_assert(offsetof(child_entry<ulonglong>, bref) == 8 && offsetof(child_entry<ulong>, bref) == 4);
static_assert(offsetof(block_entry<ulonglong>, cb) == 16 && offsetof(block_entry<ulong>, cb) == 8);
static_assert(offsetof(node_entry<ulonglong>, bidData) == 8 && offsetof(node_entry<ulong>, bidData) == 4);
static_assert(offsetof(node_entry<ulonglong>, bidSub) == 16 && offsetof(node_entry<ulong>, bidSub) == 8);
static_assert(offsetof(node_entry<ulonglong>, nidParent) == 24 && offsetof(node_entry<ulong>, nidParent) == 12);
static_assert(sizeof(child_entry<ulonglong>) == 24 && sizeof(child_entry<ulong>) == 12);
static_assert(sizeof(block_entry<ulonglong>) == 24 && sizeof(block_entry<ulong>) == 12);
static_assert(sizeof(node_entry<ulonglong>) == 32 && sizeof(node_entry<ulong>) == 16);
static_assert(sizeof(block_trailer<ulonglong>) == 16 && sizeof(block_trailer<ulong>) == 12);
static_assert(offsetof(block_trailer<ulonglong>, bid) == 8 && offsetof(block_trailer<ulong>, bid) == 4);
static_assert(sizeof(extended_block_header) == 8 && offsetof(extended_block_header, cEnt) == 2);
static_assert(offsetof(extended_block_header, lcbTotal) == 4);
static_assert(offsetof(subnode_block_header<ulonglong>, cEnt) == 2 && offsetof(subnode_block_header<ulong>, cEnt) == 2);
static_assert(offsetof(subnode_leaf_entry<ulonglong>, bidData) == 8 && offsetof(subnode_leaf_entry<ulong>, bidData) == 4);
static_assert(offsetof(subnode_leaf_entry<ulonglong>, bidSub) == 16 && offsetof(subnode_leaf_entry<ulong>, bidSub) == 8);
static_assert(offsetof(subnode_child_entry<ulonglong>, bid) == 8 && offsetof(subnode_child_entry<ulong>, bid) == 4);
static_assert(sizeof(subnode_block_header<ulonglong>) == 8 && sizeof(subnode_block_header<ulong>) == 4);
static_assert(sizeof(subnode_leaf_entry<ulonglong>) == 24 && sizeof(subnode_leaf_entry<ulong>) == 12);
static_assert(sizeof(subnode_child_entry<ulonglong>) == 16 && sizeof(subnode_child_entry<ulong>) == 8);

// Stores with a lower wVer have the ANSI layout, all others the Unicode one.
inline constexpr ushort first_unicode_version = 20;

// The CRCs of the header cover bytes from wMagicClient on.
inline constexpr std::size_t header_crc_start = 8;
inline constexpr std::size_t header_partial_crc_size = 471;
inline constexpr std::size_t header_full_crc_size = 516;

enum class crypt_method : byte { none = 0, permute = 1, cyclic = 2 };

inline constexpr std::size_t page_size = 512;
inline constexpr byte page_type_bbt = 0x80;
inline constexpr byte page_type_nbt = 0x81;

inline constexpr std::size_t max_block_size = 8192;  // on disk, trailer included
inline constexpr std::size_t block_alignment = 64;
inline constexpr byte block_type_extended = 1;
inline constexpr ushort extended_block_level = 1;  // an XBLOCK; every other level counts as an XXBLOCK

/// What differs between the layouts besides the records.
template <typename T>
struct layout {
    static constexpr bool is_unicode = sizeof(T) == sizeof(ulonglong);

    static constexpr std::size_t page_trailer_offset = page_size - sizeof(page_trailer<T>);
    static constexpr std::size_t page_counters_offset = page_trailer_offset - (is_unicode ? 8 : 4);
    static constexpr std::size_t block_trailer_size = sizeof(block_trailer<T>);
    static constexpr std::size_t max_external_size = max_block_size - block_trailer_size;
    // Children of an extended block, by which an offset is turned into a child. An ANSI block has room for 2043 ids, but its
    // trees are filled to 1019.
    static constexpr ulong extended_child_count = is_unicode ? 1021 : 1019;
    static constexpr ulonglong max_extended_size = max_external_size * extended_child_count;

    /// Bytes of a block on disk, for `size` bytes of content.
    static constexpr std::size_t disk_size(std::size_t size) {
        return (size + block_trailer_size + block_alignment - 1) / block_alignment * block_alignment;
    }
};

static_assert(layout<ulonglong>::page_trailer_offset == 496 && layout<ulong>::page_trailer_offset == 500);
static_assert(layout<ulonglong>::page_counters_offset == 488 && layout<ulong>::page_counters_offset == 496);
static_assert(layout<ulonglong>::max_external_size == 8176 && layout<ulong>::max_external_size == 8180);
static_assert(layout<ulonglong>::max_extended_size == 8347696 && layout<ulong>::max_extended_size == 8335420);

}  // namespace pstsdk::disk
