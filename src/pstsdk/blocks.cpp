#include "pstsdk/blocks.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "pstsdk/database.h"
#include "pstsdk/disk.h"

namespace pstsdk {

namespace {

// Somebody else holds a block when there is a reference besides that of the caller and that of the running operation.
constexpr long unshared_use_count = 2;

std::size_t clip(std::size_t size, ulonglong offset, ulonglong total_size) {
    return offset >= total_size ? 0 : static_cast<std::size_t>(std::min<ulonglong>(size, total_size - offset));
}

}  // namespace

block::block(const block& other) : m_size(other.m_size), m_id(other.m_id), m_address(other.m_address), m_db(other.m_db) {}

void block::touch() {
    if (!m_modified) {
        m_id = get_db()->alloc_bid(is_internal() ? block_kind::internal : block_kind::external);
        m_modified = true;
        m_address = 0;
        m_size = 0;
    }
}

ulonglong block::load_cost() const {
    const ulonglong units = (m_size + disk::block_alignment - 1) / disk::block_alignment;
    return std::max<ulonglong>(units, 1) * disk::block_alignment;
}

std::vector<byte> data_block::read_all() const {
    constexpr std::size_t first_piece = 1 << 20;
    const auto total = static_cast<std::size_t>(m_total_size);
    std::vector<byte> bytes;
    while (bytes.size() < total) {
        const std::size_t done = bytes.size();
        bytes.resize(std::min(total, std::max(first_piece, 2 * done)));
        read_raw(bytes.data() + done, bytes.size() - done, static_cast<ulong>(done));
    }
    return bytes;
}

void data_block::check_range(ulong offset, std::size_t size) const {
    if (offset >= m_total_size) {
        throw std::out_of_range("offset >= size()");
    }
    if (m_total_size - offset < size) {
        throw std::out_of_range("sizeof(T) + offset >= size()");
    }
}

std::size_t external_block::read_raw(byte* dst, std::size_t size, ulong offset) const {
    size = clip(size, offset, m_total_size);
    if (size > 0) {
        std::memcpy(dst, m_buffer.data() + offset, size);
    }
    return size;
}

std::size_t external_block::write_raw(const byte* src, std::size_t size, ulong offset, std::shared_ptr<data_block>& result) {
    const std::shared_ptr<external_block> self = shared_from_this();
    if (self.use_count() > unshared_use_count) {
        return std::make_shared<external_block>(*this)->write_raw(src, size, offset, result);
    }
    touch();
    size = clip(size, offset, m_total_size);
    if (size > 0) {
        std::memcpy(m_buffer.data() + offset, src, size);
    }
    result = self;
    return size;
}

std::shared_ptr<external_block> external_block::get_page(ulong index) {
    if (index != 0) {
        throw std::out_of_range("index > 0");
    }
    return shared_from_this();
}

std::size_t external_block::resize(std::size_t size, std::shared_ptr<data_block>& result) {
    const std::shared_ptr<external_block> self = shared_from_this();
    if (self.use_count() > unshared_use_count) {
        return std::make_shared<external_block>(*this)->resize(size, result);
    }
    touch();
    // What a block of the file has behind its content is no content of a larger one.
    m_buffer.resize(static_cast<std::size_t>(m_total_size));
    m_total_size = std::min<ulonglong>(size, m_max_size);
    m_buffer.resize(static_cast<std::size_t>(m_total_size));
    if (size > m_max_size) {
        return get_db()->create_extended_block(self)->resize(size, result);
    }
    result = self;
    return size;
}

std::shared_ptr<data_block> extended_block::make_hole(const std::shared_ptr<db_context>& db, const tree_place& place) const {
    if (m_level == disk::extended_block_level) {
        place.take_hole(m_child_max_total_size);
        return db->create_external_block(db, static_cast<std::size_t>(m_child_max_total_size));
    }
    // Its own holes are accounted for when they are made.
    place.take_hole(m_child_max_page_count * (sizeof(block_id) + sizeof(std::shared_ptr<data_block>)));
    return db->create_extended_block(db, static_cast<std::size_t>(m_child_max_total_size));
}

std::shared_ptr<data_block>& extended_block::load_child(ulong index) const {
    if (index >= m_child_blocks.size()) {
        throw std::out_of_range("index >= m_child_blocks.size()");
    }
    std::shared_ptr<data_block>& slot = m_child_blocks[index];
    if (!slot) {
        const std::shared_ptr<db_context> db = get_db();
        const tree_place place = m_place.child();
        std::shared_ptr<data_block> child;
        if (m_block_info[index] != 0) {
            child = db->read_data_block(m_block_info[index]);
            if (!m_taken[index]) {
                place.take(child->load_cost());
                m_taken[index] = true;
            }
        } else {
            child = make_hole(db, place);
        }
        if (auto* extended = dynamic_cast<extended_block*>(child.get())) {
            extended->m_place = place;
        }
        slot = std::move(child);
    }
    return slot;
}

void extended_block::forget_blocks() {
    for (std::size_t index = 0; index < m_child_blocks.size(); ++index) {
        std::shared_ptr<data_block>& slot = m_child_blocks[index];
        // A hole, or a block that was changed, stands in memory only.
        const bool is_on_disk = slot && m_block_info[index] != 0 && slot->get_id() == m_block_info[index];
        if (is_on_disk && !slot->is_internal()) {
            slot.reset();
        } else if (slot) {
            slot->forget_blocks();
        }
    }
}

std::size_t extended_block::read_raw(byte* dst, std::size_t size, ulong offset) const {
    size = clip(size, offset, m_total_size);
    ulonglong position = offset;
    for (std::size_t left = size; left > 0;) {
        const auto index = static_cast<ulong>(position / m_child_max_total_size);
        const auto inner = static_cast<ulong>(position % m_child_max_total_size);
        const std::shared_ptr<data_block>& child = load_child(index);
        // A child that is too short would give its bytes at wrong offsets, or none at all without end.
        const ulonglong wanted = std::min<ulonglong>(left, m_child_max_total_size - inner);
        if (child->get_total_size() < inner + wanted) {
            throw unexpected_block("child block shorter than its place");
        }
        const std::size_t copied = child->read_raw(dst, left, inner);
        dst += copied;
        position += copied;
        left -= copied;
    }
    return size;
}

std::size_t extended_block::write_raw(const byte* src, std::size_t size, ulong offset, std::shared_ptr<data_block>& result) {
    const std::shared_ptr<extended_block> self = shared_from_this();
    if (self.use_count() > unshared_use_count) {
        return std::make_shared<extended_block>(*this)->write_raw(src, size, offset, result);
    }
    touch();
    size = clip(size, offset, m_total_size);
    ulonglong position = offset;
    for (std::size_t left = size; left > 0;) {
        const auto index = static_cast<ulong>(position / m_child_max_total_size);
        const auto inner = static_cast<ulong>(position % m_child_max_total_size);
        std::shared_ptr<data_block>& slot = load_child(index);
        const std::size_t written = slot->write_raw(src, left, inner, slot);
        if (written == 0) {
            throw unexpected_block("child block shorter than its place");
        }
        src += written;
        position += written;
        left -= written;
    }
    result = self;
    return size;
}

ulong extended_block::get_page_count() const {
    const ulonglong per_page = m_child_max_total_size / m_child_max_page_count;
    return static_cast<ulong>((m_total_size + per_page - 1) / per_page);
}

std::shared_ptr<external_block> extended_block::get_page(ulong index) {
    return load_child(index / m_child_max_page_count)->get_page(index % m_child_max_page_count);
}

std::size_t extended_block::resize(std::size_t size, std::shared_ptr<data_block>& result) {
    const std::shared_ptr<extended_block> self = shared_from_this();
    if (self.use_count() > unshared_use_count) {
        return std::make_shared<extended_block>(*this)->resize(size, result);
    }
    const ulonglong max_size = m_max_page_count * m_child_max_total_size;
    if (size > max_size && m_level != disk::extended_block_level) {
        throw can_not_resize("size > max_size");
    }
    const ulonglong own_size = std::min<ulonglong>(size, max_size);
    const ulonglong count = (own_size + m_child_max_total_size - 1) / m_child_max_total_size;
    if (count < 2) {
        std::shared_ptr<data_block>& slot = load_child(0);
        const std::size_t resized = slot->resize(size, slot);
        result = slot;
        return resized;
    }
    touch();
    const std::size_t old_count = m_block_info.size();
    m_block_info.resize(static_cast<std::size_t>(count));
    m_child_blocks.resize(static_cast<std::size_t>(count));
    m_taken.resize(static_cast<std::size_t>(count));
    if (old_count > 0 && old_count < count) {
        std::shared_ptr<data_block>& former_last = load_child(static_cast<ulong>(old_count - 1));
        former_last->resize(static_cast<std::size_t>(m_child_max_total_size), former_last);
    }
    std::shared_ptr<data_block>& last = load_child(static_cast<ulong>(count - 1));
    last->resize(static_cast<std::size_t>(own_size - (count - 1) * m_child_max_total_size), last);
    m_total_size = own_size;
    if (size > max_size) {
        return get_db()->create_extended_block(self)->resize(size, result);
    }
    result = self;
    return size;
}

}  // namespace pstsdk
