#include "internal/ternclasses_.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <utility>

#include "ternbase/ternbase.h"

TB_SOURCE(u"include/internal/ternclasses_")

using ternkit::Status;

namespace {

constexpr std::uint32_t kGrowthsBeforeDoubling = 20;

}  // namespace

Status MemoryAccount::update(std::uint64_t newBytes) {
    if (newBytes == accounted) {
        return ternkit::kOk;
    }
    if (newBytes < accounted) {
        if (registered != 0) {
            TbMemQuota(kTbQuotaRelease, accounted - newBytes, 0);
        }
        accounted = newBytes;
        return ternkit::kOk;
    }
    if (registered != 0) {
        const Status status = TbMemQuota(kTbQuotaReserve, newBytes - accounted, 0);
        if (status == ternkit::kOk) {
            accounted = newBytes;
        }
        return status;
    }
    if (newBytes > threshold) {
        const Status status = TbMemQuota(kTbQuotaReserve, newBytes, 0);
        if (status != ternkit::kOk) {
            return status;
        }
        registered = 1;
    }
    accounted = newBytes;
    return ternkit::kOk;
}

template <typename Element>
Element* TernBuffer<Element>::reserve(std::uint64_t needed) {
    if (data != nullptr && capacity >= needed) {
        return data;
    }
    std::uint64_t elements = 0;
    std::uint64_t bytes = 0;
    void* grown = nullptr;
    if (!__builtin_add_overflow(growBy, needed, &elements) &&
        !__builtin_mul_overflow(elements, static_cast<std::uint64_t>(sizeof(Element)), &bytes)) {
        grown = TbMemRealloc(data, bytes, TB_HERE);
    }
    if (grown == nullptr) {
        const Status status = TbMemQuota(kTbQuotaStatus, bytes, 0);
        lastError = status == ternkit::kOk ? ternkit::kNoMemory : status;
        return nullptr;
    }
    data = static_cast<Element*>(grown);
    const Status status = account.update(bytes);
    if (status != ternkit::kOk) {
        lastError = status;
        TbMemFree(data, TB_HERE);
        data = nullptr;
        capacity = 0;
        return nullptr;
    }
    if (zeroFill != 0) {
        std::memset(static_cast<void*>(data + capacity), 0, (elements - capacity) * sizeof(Element));
    }
    capacity = elements;
    if (++growCount > kGrowthsBeforeDoubling) {
        growBy *= 2;
        growCount = 0;
    }
    return data;
}

template <typename Element>
Status TernBuffer<Element>::append(const Element* source, std::uint64_t count) {
    if (count == 0) {
        return ternkit::kOk;
    }
    if (source == nullptr) {
        return ternkit::kNullPointer;
    }
    std::uint64_t needed = 0;
    if (__builtin_add_overflow(size, count, &needed)) {
        lastError = ternkit::kNoMemory;
        return lastError;
    }
    if (reserve(needed) == nullptr) {
        return lastError;
    }
    std::memcpy(data + size, source, count * sizeof(Element));
    size = needed;
    return ternkit::kOk;
}

template <typename Element>
void TernBuffer<Element>::release() {
    TbMemFree(data, TB_HERE);
    account.update(0);
    data = nullptr;
    size = 0;
    capacity = 0;
}

template class TernBuffer<char>;
template class TernBuffer<char16_t>;
template class TernBuffer<char*>;

Status TextBuilder::appendFormatted(const char* format, ...) {
    if (ok == 0 || format == nullptr) {
        return 0;
    }
    ok = 0;
    va_list arguments;
    va_start(arguments, format);
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, arguments);
    va_end(arguments);
    if (length >= 0 && reserve(size + 1 + static_cast<std::uint64_t>(length)) != nullptr) {
        std::vsnprintf(data + size, static_cast<std::size_t>(length) + 1, format, again);
        size += static_cast<std::uint64_t>(length);
        ok = 1;
    }
    va_end(again);
    return static_cast<Status>(ok);
}

OwnedBytes::OwnedBytes(OwnedBytes&& other) noexcept
    : data(std::exchange(other.data, nullptr)), size(std::exchange(other.size, 0)) {}

OwnedBytes& OwnedBytes::operator=(OwnedBytes&& other) noexcept {
    if (this != &other) {
        clear();
        data = std::exchange(other.data, nullptr);
        size = std::exchange(other.size, 0);
    }
    return *this;
}

std::uint64_t OwnedBytes::textLength() const {
    return size != 0 && data != nullptr && data[size - 1] == '\0' ? size - 1 : size;
}

void OwnedBytes::clear() {
    TbMemFree(data, TB_HERE);
    data = nullptr;
    size = 0;
}

Status OwnedBytes::appendText(const char* source, std::int64_t length) {
    if (length < 0) {
        length = static_cast<std::int64_t>(std::strlen(source));
    }
    const std::uint64_t count = static_cast<std::uint64_t>(length);
    const std::uint64_t text = textLength();
    void* grown = TbMemRealloc(data, text + count + 1, TB_HERE);
    if (grown == nullptr) {
        return ternkit::kNoMemory;
    }
    data = static_cast<char*>(grown);
    if (count != 0) {
        std::memcpy(data + text, source, count);
    }
    size = text + count;
    if (size == 0 || data[size - 1] != '\0') {
        data[size++] = '\0';
    }
    return ternkit::kOk;
}

Status OwnedBytes::insert(std::uint64_t offset, const char* source, std::uint64_t count) {
    const std::uint64_t oldSize = size;
    std::uint64_t newSize = 0;
    if (__builtin_add_overflow(std::max(offset, oldSize), count, &newSize) || ensure(newSize) != ternkit::kOk) {
        return ternkit::kNoMemory;
    }
    if (offset < oldSize) {
        std::memmove(data + offset + count, data + offset, oldSize - offset);
    }
    if (source != nullptr) {
        std::memcpy(data + offset, source, count);
    }
    return ternkit::kOk;
}

Status OwnedBytes::replaceRange(std::uint64_t offset, std::uint64_t oldCount, const char* source, std::uint64_t newCount) {
    const std::uint64_t oldSize = size;
    const std::uint64_t tail = oldSize - offset - oldCount;
    if (newCount > oldCount && ensure(oldSize + (newCount - oldCount)) != ternkit::kOk) {
        return 0;
    }
    if (tail != 0) {
        std::memmove(data + offset + newCount, data + offset + oldCount, tail);
    }
    if (newCount != 0) {
        std::memcpy(data + offset, source, newCount);
    }
    size = oldSize - oldCount + newCount;
    return ternkit::kOk;
}

Status OwnedBytes::ensure(std::uint64_t newSize) {
    if (newSize <= size && data != nullptr) {
        return ternkit::kOk;
    }
    void* grown = TbMemRealloc(data, newSize, TB_HERE);
    if (grown == nullptr) {
        return ternkit::kNoMemory;
    }
    data = static_cast<char*>(grown);
    size = newSize;
    return ternkit::kOk;
}

void OwnedBytes::take(ByteBuffer& buffer) {
    clear();
    buffer.account.update(0);
    data = std::exchange(buffer.data, nullptr);
    size = std::exchange(buffer.size, 0);
    buffer.capacity = 0;
}

void OwnedBytes::giveTo(ByteBuffer& buffer) {
    buffer.release();
    buffer.data = std::exchange(data, nullptr);
    buffer.size = std::exchange(size, 0);
    buffer.capacity = buffer.size;
}

ScopedBlock& ScopedBlock::operator=(ScopedBlock&& other) noexcept {
    if (this != &other) {
        TbMemFree(block, TB_HERE);
        block = std::exchange(other.block, nullptr);
    }
    return *this;
}

ScopedBlock::~ScopedBlock() {
    TbMemFree(block, TB_HERE);
}
