#include "pstsdk/streams.h"

#include <algorithm>

namespace pstsdk {

ulonglong hnid_stream_device::size() const {
    if (m_is_heap) {
        return m_heap->size(m_hid);
    }
    const data_block* data = m_node->ensure_data_block();
    if (data->get_total_size() > data->get_room() + max_bytes_in_holes) {
        throw unexpected_block("data tree larger than the file");
    }
    return data->get_total_size();
}

std::streamsize hnid_stream_device::read(char* buffer, std::streamsize count) {
    constexpr std::streamsize end_of_stream = -1;
    if (count <= 0) {
        return end_of_stream;
    }
    auto* bytes = reinterpret_cast<byte*>(buffer);
    if (!m_is_heap) {
        const std::size_t copied =
            m_node->ensure_data_block()->read_raw(bytes, static_cast<std::size_t>(count), static_cast<ulong>(m_node_position));
        m_node_position += static_cast<std::int64_t>(copied);
        return copied == 0 ? end_of_stream : static_cast<std::streamsize>(copied);
    }
    count = std::min<std::streamsize>(count, static_cast<std::streamsize>(m_heap->size(m_hid)) - m_heap_position);
    if (count <= 0) {
        return end_of_stream;
    }
    m_heap->read(bytes, static_cast<std::size_t>(count), m_hid, static_cast<ulong>(m_heap_position));
    m_heap_position += count;
    return count;
}

boost::iostreams::stream_offset hnid_stream_device::seek(boost::iostreams::stream_offset offset, std::ios_base::seekdir way) {
    std::int64_t& position = m_is_heap ? m_heap_position : m_node_position;
    const auto end = static_cast<std::int64_t>(size());
    std::int64_t origin = position;
    if (way == std::ios_base::beg) {
        origin = 0;
    } else if (way == std::ios_base::end) {
        origin = end;
    }
    // The origin lies in the value, so that the sum cannot overflow once the offset is cut to what can matter.
    const std::int64_t target = origin + std::clamp<std::int64_t>(offset, -origin, end - origin);
    position = target;
    return target;
}

ulonglong hnid_value::size() const {
    return is_heap_item() ? m_heap->size(m_hnid) : m_heap->get_node().lookup(m_hnid).size();
}

std::vector<byte> hnid_value::read() const {
    if (is_heap_item()) {
        return m_heap->read_item(m_hnid);
    }
    return m_heap->get_node().lookup(m_hnid).ensure_data_block()->read_all();
}

hnid_stream_device hnid_value::open() const {
    if (is_heap_item()) {
        return {m_heap, m_hnid};
    }
    return hnid_stream_device(std::make_shared<node>(m_heap->get_node().lookup(m_hnid)));
}

}  // namespace pstsdk
