// The heap-on-node ([MS-PST] 2.3.1): small items in the data pages of a node, addressed by 32-bit heap ids.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <vector>

#include "pstsdk/nodes.h"
#include "pstsdk/types.h"

namespace pstsdk {

template <typename K, typename V>
class bth_node;
class hnid_stream_device;

namespace disk {

#pragma pack(push, 1)

// HNHDR, at the start of the first page. Every further page starts with an ibHnpm of its own.
struct heap_header {
    ushort ibHnpm;
    byte bSig;
    byte bClientSig;
    heap_id hidUserRoot;
    ulong rgbFillLevel;
};

// HNPAGEMAP; cAlloc + 1 offsets follow, of which each is the end of the item before.
struct heap_page_map {
    ushort cAlloc;
    ushort cFree;
};

#pragma pack(pop)

static_assert(sizeof(heap_header) == 12 && sizeof(heap_page_map) == 4);
static_assert(offsetof(heap_header, hidUserRoot) == 4);

inline constexpr byte heap_signature = 0xEC;
inline constexpr byte heap_client_properties = 0xBC;
inline constexpr byte heap_client_table = 0x7C;

}  // namespace disk

/// An open heap. Streams, BTH nodes, bags and tables share it; it has no state but its node.
class heap_impl : public std::enable_shared_from_this<heap_impl> {
public:
    /// Opens the node as a heap of any client. @throws std::out_of_range for a node that is too small, sig_mismatch
    explicit heap_impl(const node& n);
    /// The same for a heap of one client. @throws sig_mismatch for another one, too
    heap_impl(const node& n, byte client_signature);

    const node& get_node() const { return m_node; }
    node& get_node() { return m_node; }
    heap_id get_root_id() const;

    /// Bytes of an item; 0 for the id 0. @throws std::length_error when the page map does not give it
    std::size_t size(heap_id hid) const;
    /// Fills the buffer from an item at an offset. @return the bytes read
    /// @throws std::length_error unless the item holds all of them
    std::size_t read(std::vector<byte>& buffer, heap_id hid, ulong offset) const;
    std::size_t read(byte* dst, std::size_t count, heap_id hid, ulong offset) const;
    /// A whole item.
    std::vector<byte> read_item(heap_id hid) const;

    /// A stream on an item. @throws std::bad_weak_ptr when no std::shared_ptr owns the heap
    hnid_stream_device open_stream(heap_id hid);
    /// The root of the BTH whose header is an item; the caller owns it. Defined in bth.h.
    template <typename K, typename V>
    std::unique_ptr<bth_node<K, V>> open_bth(heap_id hid);

private:
    // An item in its page, which is held as long as its bytes are in use.
    struct item {
        std::shared_ptr<external_block> page;
        byte_view bytes;
    };

    void open(std::optional<byte> client_signature) const;
    disk::heap_header read_header() const;
    item find(heap_id hid) const;

    node m_node;
};

}  // namespace pstsdk
