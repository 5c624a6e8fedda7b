#include "store_mending.h"

#include <cstring>
#include <set>

#include "pstsdk/codec.h"
#include "pstsdk/disk.h"

namespace fuzz {
namespace {

namespace disk = pstsdk::disk;
using pstsdk::ulong;
using pstsdk::ulonglong;
using pstsdk::ushort;

constexpr std::size_t kMostPages = 512;
constexpr std::size_t kMostBlocks = 4096;
constexpr ulonglong kInternalBlock = 2;  // bit of a block's id: it has entries in place of content, and they are not encoded

template <typename Record>
Record recordAt(std::span<const std::uint8_t> bytes, std::size_t offset) {
    Record record{};
    if (offset <= bytes.size() && bytes.size() - offset >= sizeof(record)) {
        std::memcpy(&record, bytes.data() + offset, sizeof(record));
    }
    return record;
}

template <typename Record>
void putRecord(std::span<std::uint8_t> bytes, std::size_t offset, const Record& record) {
    std::memcpy(bytes.data() + offset, &record, sizeof(record));
}

bool holds(std::span<const std::uint8_t> bytes, ulonglong offset, std::size_t size) {
    return offset <= bytes.size() && bytes.size() - offset >= size;
}

bool isAnsi(std::span<const std::uint8_t> store) {
    return recordAt<disk::header<ulong>>(store, 0).wVer < disk::first_unicode_version;
}

template <typename T>
class Walk {
public:
    explicit Walk(std::span<const std::uint8_t> store) : m_store(store) {
        const auto header = recordAt<disk::header<T>>(store, 0);
        m_map.encoding = header.bCryptMethod;
        follow(header.root.BREFBBT, disk::page_type_bbt);
        follow(header.root.BREFNBT, disk::page_type_nbt);
    }

    StoreMap take() { return std::move(m_map); }

private:
    void follow(const disk::block_reference<T>& reference, std::uint8_t type) {
        if (!holds(m_store, reference.ib, disk::page_size) || m_map.pages.size() == kMostPages ||
            !m_seen.insert(reference.ib).second) {
            return;
        }
        const auto address = static_cast<std::size_t>(reference.ib);
        m_map.pages.push_back({address, reference.bid, type});
        const auto counters = recordAt<disk::tree_page_counters>(m_store, address + disk::layout<T>::page_counters_offset);
        const bool isLeaf = counters.cLevel == 0;
        const std::size_t stride = isLeaf ? sizeof(disk::block_entry<T>) : sizeof(disk::child_entry<T>);
        for (std::size_t i = 0; i < counters.cEnt && (i + 1) * stride <= disk::layout<T>::page_counters_offset; ++i) {
            const std::size_t entry = address + i * stride;
            if (!isLeaf) {
                follow(recordAt<disk::child_entry<T>>(m_store, entry).bref, type);
            } else if (type == disk::page_type_bbt) {
                addBlock(entry);
            }
        }
    }

    void addBlock(std::size_t offset) {
        const auto entry = recordAt<disk::block_entry<T>>(m_store, offset);
        const std::size_t size = disk::layout<T>::disk_size(entry.cb);
        if (size <= disk::max_block_size && holds(m_store, entry.bref.ib, size) && m_map.blocks.size() < kMostBlocks) {
            m_map.blocks.push_back({offset + offsetof(disk::block_entry<T>, cb), static_cast<std::size_t>(entry.bref.ib),
                                    entry.bref.bid, entry.cb, size - disk::layout<T>::block_trailer_size,
                                    (entry.bref.bid & kInternalBlock) == 0});
        }
    }

    std::span<const std::uint8_t> m_store;
    StoreMap m_map;
    std::set<ulonglong> m_seen;
};

template <typename T>
void mendPage(std::span<std::uint8_t> store, const StorePage& page) {
    const std::size_t offset = page.address + disk::layout<T>::page_trailer_offset;
    auto trailer = recordAt<disk::page_trailer<T>>(store, offset);
    trailer.ptype = trailer.ptypeRepeat = page.type;
    trailer.wSig = disk::compute_signature(page.id, page.address);
    trailer.bid = static_cast<T>(page.id);
    trailer.dwCRC = disk::compute_crc(store.data() + page.address, disk::layout<T>::page_trailer_offset);
    putRecord(store, offset, trailer);
}

template <typename T>
void mendBlock(std::span<std::uint8_t> store, const StoreBlock& block) {
    disk::block_trailer<T> trailer{};
    trailer.cb = static_cast<ushort>(block.size);
    trailer.wSig = disk::compute_signature(block.id, block.address);
    trailer.bid = static_cast<T>(block.id);
    trailer.dwCRC = disk::compute_crc(store.data() + block.address, block.size);
    putRecord(store, block.address + block.capacity, trailer);
}

template <typename T>
void mendAll(std::span<std::uint8_t> store) {
    const StoreMap map = Walk<T>(store).take();
    for (const StorePage& page : map.pages) {
        mendPage<T>(store, page);
    }
    for (const StoreBlock& block : map.blocks) {
        mendBlock<T>(store, block);
    }
}

}  // namespace

StoreMap mapStore(std::span<const std::uint8_t> store) {
    return isAnsi(store) ? Walk<ulong>(store).take() : Walk<ulonglong>(store).take();
}

void mendStoreHeader(std::span<std::uint8_t> store) {
    using Header = disk::header<ulonglong>;  // the ANSI layout has the first of the two, at the same place
    const std::uint8_t* covered = store.data() + disk::header_crc_start;
    if (store.size() >= sizeof(Header) && !isAnsi(store)) {
        const ulong full = disk::compute_crc(covered, disk::header_full_crc_size);
        putRecord(store, offsetof(Header, dwCRCFull), full);
    }
    if (store.size() >= disk::header_crc_start + disk::header_partial_crc_size) {
        const ulong partial = disk::compute_crc(covered, disk::header_partial_crc_size);
        putRecord(store, offsetof(Header, dwCRCPartial), partial);
    }
}

void mendStore(std::span<std::uint8_t> store) {
    if (isAnsi(store)) {
        mendAll<ulong>(store);
    } else {
        mendAll<ulonglong>(store);
    }
    mendStoreHeader(store);
}

}  // namespace fuzz
