// Values by HNID, the 32-bit form in which properties and cells refer to what does not fit into them, and such a value as a
// seekable stream.
#pragma once

#include <boost/iostreams/categories.hpp>
#include <boost/iostreams/positioning.hpp>
#include <boost/iostreams/stream.hpp>
#include <ios>
#include <memory>
#include <vector>

#include "pstsdk/heap.h"
#include "pstsdk/nodes.h"
#include "pstsdk/types.h"

namespace pstsdk {

/// A device of Boost.Iostreams on a heap item or on the data of a subnode. Copies share the heap or node.
class hnid_stream_device {
public:
    using char_type = char;
    struct category : boost::iostreams::input_seekable, boost::iostreams::device_tag {};

    /// A stream on an item; the id 0 is an empty one.
    hnid_stream_device(std::shared_ptr<heap_impl> heap, heap_id hid) : m_hid(hid), m_heap(std::move(heap)), m_is_heap(true) {}
    explicit hnid_stream_device(std::shared_ptr<pstsdk::node> node) : m_node(std::move(node)), m_is_heap(false) {}

    /// Reads up to `count` bytes. @return the bytes read, or -1 at the end
    std::streamsize read(char* buffer, std::streamsize count);
    /// Moves the position, which stays between 0 and the value's size. @return the new position
    boost::iostreams::stream_offset seek(boost::iostreams::stream_offset offset, std::ios_base::seekdir way);

private:
    /// @throws unexpected_block when the node announces more than could be read, as a position at the end is how readers learn
    /// what memory to take
    ulonglong size() const;

    std::int64_t m_heap_position = 0;
    heap_id m_hid = 0;
    std::shared_ptr<heap_impl> m_heap;
    std::int64_t m_node_position = 0;
    std::shared_ptr<pstsdk::node> m_node;
    bool m_is_heap;
};

/// The stream that readers of bodies and attachments use. What the store throws while it is read comes out of the stream's
/// operations as it was thrown; by itself an istream would keep it and look like one that has ended.
class hnid_stream : public boost::iostreams::stream<hnid_stream_device> {
public:
    static constexpr std::streamsize buffer_size = 4096;
    static constexpr std::streamsize putback_size = 4;

    explicit hnid_stream(const hnid_stream_device& device)
        : boost::iostreams::stream<hnid_stream_device>(device, buffer_size, putback_size) {
        exceptions(std::ios_base::badbit);
    }
};

/// A value by its HNID: nothing for 0, a heap item when the five low bits are 0, else the data of a subnode of the heap's node.
class hnid_value {
public:
    hnid_value(std::shared_ptr<heap_impl> heap, ulong hnid) : m_heap(std::move(heap)), m_hnid(hnid) {}

    /// @throws key_not_found<ulong> for a subnode that is not there; so do the others
    ulonglong size() const;
    std::vector<byte> read() const;
    hnid_stream_device open() const;

private:
    bool is_heap_item() const { return (m_hnid & hid_type_mask) == 0; }

    std::shared_ptr<heap_impl> m_heap;
    ulong m_hnid;
};

}  // namespace pstsdk
