// The one place where bytes become numbers: a range of bytes that is read through checked offsets only.
#pragma once

#include <bit>
#include <cstddef>
#include <cstring>
#include <type_traits>
#include <vector>

#include "pstsdk/exceptions.h"
#include "pstsdk/types.h"

namespace pstsdk {

static_assert(std::endian::native == std::endian::little, "records are copied as they lie in the file");

/// Bytes owned by somebody else, who must outlive the view.
class byte_view {
public:
    byte_view() = default;
    byte_view(const byte* data, std::size_t size) : m_data(data), m_size(size) {}
    byte_view(const std::vector<byte>& bytes) : m_data(bytes.data()), m_size(bytes.size()) {}

    const byte* data() const { return m_data; }
    std::size_t size() const { return m_size; }

    bool holds(std::size_t offset, std::size_t count) const { return offset <= m_size && m_size - offset >= count; }

    /// A number or packed record at a byte offset. @throws database_corrupt when it does not lie in the bytes
    template <typename Record>
    Record read(std::size_t offset) const {
        static_assert(std::is_trivially_copyable_v<Record>);
        if (!holds(offset, sizeof(Record))) {
            throw database_corrupt("record outside its bytes");
        }
        Record record;
        std::memcpy(&record, m_data + offset, sizeof(Record));
        return record;
    }

    /// @throws database_corrupt when the part does not lie in the bytes
    byte_view part(std::size_t offset, std::size_t count) const {
        if (!holds(offset, count)) {
            throw database_corrupt("record outside its bytes");
        }
        return {m_data + offset, count};
    }

private:
    const byte* m_data = nullptr;
    std::size_t m_size = 0;
};

}  // namespace pstsdk
