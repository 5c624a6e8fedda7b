#include "pstsdk/heap.h"

#include <array>
#include <cstring>
#include <stdexcept>

#include "pstsdk/streams.h"

namespace pstsdk {

namespace {

constexpr ulong hid_page_shift = 16;
constexpr ulong hid_index_shift = 5;
constexpr ulong hid_index_mask = 0x7FF;

}  // namespace

heap_impl::heap_impl(const node& n) : m_node(n) {
    open(std::nullopt);
}

heap_impl::heap_impl(const node& n, byte client_signature) : m_node(n) {
    open(client_signature);
}

disk::heap_header heap_impl::read_header() const {
    data_block* data = m_node.ensure_data_block();
    data->check_range(0, sizeof(disk::heap_header));
    std::array<byte, sizeof(disk::heap_header)> bytes{};
    data->read_raw(bytes.data(), bytes.size(), 0);
    return byte_view(bytes.data(), bytes.size()).read<disk::heap_header>(0);
}

void heap_impl::open(std::optional<byte> client_signature) const {
    const disk::heap_header header = read_header();
    if (header.bSig != disk::heap_signature) {
        throw sig_mismatch("invalid heap_sig", 0, m_node.get_id(), header.bSig, disk::heap_signature);
    }
    if (client_signature && header.bClientSig != *client_signature) {
        throw sig_mismatch("invalid client_sig", 0, m_node.get_id(), header.bClientSig, *client_signature);
    }
}

heap_id heap_impl::get_root_id() const {
    return read_header().hidUserRoot;
}

heap_impl::item heap_impl::find(heap_id hid) const {
    if (hid == 0) {
        return {};
    }
    std::shared_ptr<external_block> page = m_node.ensure_data_block()->get_page(hid >> hid_page_shift);
    const auto map_offset = page->read<ushort>(0);
    const byte_view content = page->content();
    if (map_offset > content.size()) {
        throw std::length_error("page_map_offset > node size");
    }
    const byte_view map = content.part(map_offset, content.size() - map_offset);
    const std::size_t offsets = sizeof(disk::heap_page_map);
    if (map.size() < offsets) {
        throw std::length_error("page map outside its page");
    }
    const std::size_t count = map.read<disk::heap_page_map>(0).cAlloc;
    if (!map.holds(offsets, (count + 1) * sizeof(ushort))) {
        throw std::length_error("page map outside its page");
    }
    // Items count from 1, so that an index of 0 wraps to the largest one.
    const std::size_t index = ((hid >> hid_index_shift) - 1) & hid_index_mask;
    if (index > count) {
        throw std::length_error("index > num_allocs");
    }
    if (index == count) {
        throw std::length_error("index == num_allocs");
    }
    const std::size_t start = map.read<ushort>(offsets + index * sizeof(ushort));
    const std::size_t end = map.read<ushort>(offsets + (index + 1) * sizeof(ushort));
    if (end < start || end > content.size()) {
        throw std::length_error("item outside its page");
    }
    return {std::move(page), content.part(start, end - start)};
}

std::size_t heap_impl::size(heap_id hid) const {
    return find(hid).bytes.size();
}

std::size_t heap_impl::read(std::vector<byte>& buffer, heap_id hid, ulong offset) const {
    return read(buffer.data(), buffer.size(), hid, offset);
}

std::size_t heap_impl::read(byte* dst, std::size_t count, heap_id hid, ulong offset) const {
    const item found = find(hid);
    if (count > found.bytes.size()) {
        throw std::length_error("buffer.size() > size()");
    }
    if (offset > found.bytes.size()) {
        throw std::length_error("offset > size()");
    }
    if (!found.bytes.holds(offset, count)) {
        throw std::length_error("size + offset > size()");
    }
    if (count > 0) {
        std::memcpy(dst, found.bytes.data() + offset, count);
    }
    return count;
}

std::vector<byte> heap_impl::read_item(heap_id hid) const {
    const item found = find(hid);
    return {found.bytes.data(), found.bytes.data() + found.bytes.size()};
}

hnid_stream_device heap_impl::open_stream(heap_id hid) {
    return {shared_from_this(), hid};
}

}  // namespace pstsdk
