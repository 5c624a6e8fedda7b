// The module's containers: growable arrays with memory accounting, and the owned byte string in which text travels.
#pragma once

#include <cstddef>
#include <cstdint>

#include <ternkit/statuses.h>

// Tells the kernel how much memory a large buffer holds. Buffers up to the threshold are never reported; the growth that passes
// it reserves everything at once and can be refused.
struct MemoryAccount {
    std::uint64_t accounted = 0;
    std::uint64_t threshold = 8'000'000;
    std::uint32_t registered = 0;

    /// Brings the account to `newBytes`. @return 1, or the kernel's refusal with the account as it was
    ternkit::Status update(std::uint64_t newBytes);
};

// A growable array of trivially copyable elements. It never shrinks; a failed growth is kept in `lastError`.
template <typename Element>
class TernBuffer {
public:
    static constexpr std::uint64_t kDefaultGrowBy = sizeof(Element) == sizeof(void*) ? 5 : 1024;

    explicit TernBuffer(std::uint64_t growElements = kDefaultGrowBy)
        : growBy(growElements), zeroFill(sizeof(Element) == sizeof(void*) ? 1 : 0), initialGrowBy(growElements) {}
    TernBuffer(const TernBuffer&) = delete;
    TernBuffer& operator=(const TernBuffer&) = delete;
    ~TernBuffer() { release(); }

    /// Makes room for `needed` elements. @return the storage; null on failure with `lastError` set, after which a refusal by the
    /// account has also freed the storage
    Element* reserve(std::uint64_t needed);
    /// Appends elements. @return 1; -814 for a null source with a count; `lastError` when growth fails
    ternkit::Status append(const Element* source, std::uint64_t count);
    /// Frees the storage and closes the account.
    void release();

    Element* data = nullptr;
    std::uint64_t size = 0;      // elements in use
    std::uint64_t capacity = 0;  // elements allocated
    std::uint64_t growBy;        // spare elements of each growth
    std::uint32_t zeroFill;      // nonzero: new storage is zeroed
    ternkit::Status lastError = ternkit::kNoMemory;
    MemoryAccount account;
    std::uint64_t initialGrowBy;
    std::uint32_t growCount = 0;  // growths since `growBy` was doubled
};

using ByteBuffer = TernBuffer<char>;
using WideBuffer = TernBuffer<char16_t>;
using PointerBuffer = TernBuffer<char*>;

extern template class TernBuffer<char>;
extern template class TernBuffer<char16_t>;
extern template class TernBuffer<char*>;

inline constexpr std::uint64_t kLineGrowBy = 32;  // for the buffers of header lines, names and ids

// A byte buffer for formatted text. Once an append has failed, `ok` is 0 and every further one fails.
class TextBuilder : public ByteBuffer {
public:
    using ByteBuffer::ByteBuffer;

    /// Appends formatted text, with a NUL behind it that `size` does not count. @return 1, or 0 on failure
    ternkit::Status appendFormatted(const char* format, ...) __attribute__((format(printf, 2, 3)));

    std::uint32_t ok = 1;
};

// An owned byte string. `size` may or may not count one trailing NUL, so readers take `textLength()`.
class OwnedBytes {
public:
    OwnedBytes() = default;
    OwnedBytes(OwnedBytes&& other) noexcept;
    OwnedBytes& operator=(OwnedBytes&& other) noexcept;
    OwnedBytes(const OwnedBytes&) = delete;
    OwnedBytes& operator=(const OwnedBytes&) = delete;
    ~OwnedBytes() { clear(); }

    /// `size`, less a trailing NUL.
    std::uint64_t textLength() const;
    void clear();
    /// Appends text behind the text length and keeps one NUL behind it that `size` counts (the source's own, when it has one).
    /// @param length bytes, or -1 for a NUL-terminated source  @return 1 or -1
    ternkit::Status appendText(const char* source, std::int64_t length);
    /// Opens a gap of `count` bytes at `offset` and copies `source` into it unless it is null. @return 1 or -1
    ternkit::Status insert(std::uint64_t offset, const char* source, std::uint64_t count);
    /// Puts `newCount` bytes in the place of `oldCount` at `offset`, which must lie inside. @return 1, or 0 on no memory
    ternkit::Status replaceRange(std::uint64_t offset, std::uint64_t oldCount, const char* source, std::uint64_t newCount);
    /// Grows to `newSize` bytes; the new ones are not touched. @return 1 or -1
    ternkit::Status ensure(std::uint64_t newSize);
    /// Takes a buffer's storage and size; the buffer is empty afterwards and its account closed.
    void take(ByteBuffer& buffer);
    /// Gives the storage and size to an empty buffer.
    void giveTo(ByteBuffer& buffer);

    char* data = nullptr;
    std::uint64_t size = 0;
};

// One block from TbMemAlloc that is freed with its scope.
class ScopedBlock {
public:
    explicit ScopedBlock(void* memory = nullptr) : block(memory) {}
    ScopedBlock(ScopedBlock&& other) noexcept : block(other.block) { other.block = nullptr; }
    ScopedBlock& operator=(ScopedBlock&& other) noexcept;
    ScopedBlock(const ScopedBlock&) = delete;
    ScopedBlock& operator=(const ScopedBlock&) = delete;
    ~ScopedBlock();

    char* bytes() const { return static_cast<char*>(block); }
    char16_t* wide() const { return static_cast<char16_t*>(block); }
    explicit operator bool() const { return block != nullptr; }

    void* block;
};
