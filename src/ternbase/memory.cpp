// Memory blocks, object tracking and the accounting of large buffers.
//
// The tracking build (TERN_TRACK_MEMORY) keeps a record of every block and object with its call site. It stops the program, with
// a line on standard error, at a double free, a foreign block or an object that dies without its record, and reports what is left
// at the end.

#include "ternbase/ternbase.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

#if defined(TERN_TRACK_MEMORY)
#include <cstdio>
#include <mutex>
#include <string>
#include <unordered_map>
#endif

TB_SOURCE(u"src/ternbase/memory")

namespace {

constexpr std::uint64_t kDefaultBlockLimit = 512ULL * 1024 * 1024;

std::atomic<std::uint64_t> blockLimit{kDefaultBlockLimit};
std::atomic<std::uint64_t> quotaLimit{0};
std::atomic<std::uint64_t> quotaUsed{0};

bool fitsLimit(std::uint64_t count, std::uint64_t size, std::uint64_t& bytes) {
    return !__builtin_mul_overflow(count, size, &bytes) && bytes <= blockLimit.load(std::memory_order_relaxed);
}

#if defined(TERN_TRACK_MEMORY)

constexpr int kBlockKind = 0;

class Tracker {
public:
    void add(std::uintptr_t address, int kind, int line, const char16_t* file) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_records[address] = Record{kind, line, file};
    }

    void remove(std::uintptr_t address, int kind, int line, const char16_t* file) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        const auto found = m_records.find(address);
        if (found == m_records.end() || found->second.kind != kind) {
            std::fprintf(stderr, "ternbase: %s:%d releases what was not recorded or released before\n", narrow(file).c_str(),
                         line);
            std::abort();
        }
        m_records.erase(found);
    }

    ~Tracker() {
        for (const auto& [address, record] : m_records) {
            std::fprintf(stderr, "ternbase: left over from %s:%d (kind %d)\n", narrow(record.file).c_str(), record.line,
                         record.kind);
        }
        if (!m_records.empty()) {
            std::fflush(stderr);
            std::_Exit(70);  // the exit code has to tell, and the ordinary way out is already under way
        }
    }

private:
    struct Record {
        int kind;
        int line;
        const char16_t* file;
    };

    static std::string narrow(const char16_t* text) {
        std::string result;
        for (; text != nullptr && *text != 0; ++text) {
            result += static_cast<char>(*text);
        }
        return result;
    }

    std::mutex m_mutex;
    std::unordered_map<std::uintptr_t, Record> m_records;
};

Tracker& tracker() {
    static Tracker instance;
    return instance;
}

void trackBlock(void* block, int line, const char16_t* file) {
    if (block != nullptr) {
        tracker().add(reinterpret_cast<std::uintptr_t>(block), kBlockKind, line, file);
    }
}

void untrackBlock(void* block, int line, const char16_t* file) {
    if (block != nullptr) {
        tracker().remove(reinterpret_cast<std::uintptr_t>(block), kBlockKind, line, file);
    }
}

#else

void trackBlock(void* /*block*/, int /*line*/, const char16_t* /*file*/) {}

void untrackBlock(void* /*block*/, int /*line*/, const char16_t* /*file*/) {}

#endif

}  // namespace

void TbHostSetBlockLimit(std::uint64_t bytes) {
    blockLimit.store(bytes, std::memory_order_relaxed);
}

std::uint64_t TbMemBlockLimit() {
    return blockLimit.load(std::memory_order_relaxed);
}

void TbHostSetMemoryQuota(std::uint64_t bytes) {
    quotaLimit.store(bytes, std::memory_order_relaxed);
}

void* TbMemAlloc(std::uint64_t count, std::uint64_t size, int line, const char16_t* file) {
    std::uint64_t bytes = 0;
    if (!fitsLimit(count, size, bytes)) {
        return nullptr;
    }
    void* block = std::malloc(bytes != 0 ? bytes : 1);
    trackBlock(block, line, file);
    return block;
}

void* TbMemAllocZero(std::uint64_t count, std::uint64_t size, int line, const char16_t* file) {
    std::uint64_t bytes = 0;
    if (!fitsLimit(count, size, bytes)) {
        return nullptr;
    }
    void* block = std::calloc(bytes != 0 ? bytes : 1, 1);
    trackBlock(block, line, file);
    return block;
}

void* TbMemRealloc(void* block, std::uint64_t size, int line, const char16_t* file) {
    std::uint64_t bytes = 0;
    if (!fitsLimit(1, size, bytes)) {
        return nullptr;
    }
    // The record of the old block goes first: once realloc has released the address, another thread may be given it.
    untrackBlock(block, line, file);
    void* grown = std::realloc(block, bytes != 0 ? bytes : 1);
    trackBlock(grown != nullptr ? grown : block, line, file);
    return grown;
}

void TbMemFree(void* block, int line, const char16_t* file) {
    untrackBlock(block, line, file);
    std::free(block);
}

void TbHostFreeBlock(void* block) {
    TbMemFree(block, TB_HERE);
}

void TbTrackNew([[maybe_unused]] int kind, [[maybe_unused]] const void* object, [[maybe_unused]] int line,
                [[maybe_unused]] const char16_t* file) {
#if defined(TERN_TRACK_MEMORY)
    tracker().add(reinterpret_cast<std::uintptr_t>(object), kind, line, file);
#endif
}

void TbTrackDelete([[maybe_unused]] int kind, [[maybe_unused]] const void* object, [[maybe_unused]] int line,
                   [[maybe_unused]] const char16_t* file) {
#if defined(TERN_TRACK_MEMORY)
    tracker().remove(reinterpret_cast<std::uintptr_t>(object), kind, line, file);
#endif
}

ternkit::Status TbMemQuota(int operation, std::uint64_t bytes, int /*reserved*/) {
    switch (operation) {
        case kTbQuotaReserve: {
            const std::uint64_t limit = quotaLimit.load(std::memory_order_relaxed);
            std::uint64_t used = quotaUsed.load(std::memory_order_relaxed);
            std::uint64_t wanted = 0;
            do {
                if (__builtin_add_overflow(used, bytes, &wanted) || (limit != 0 && wanted > limit)) {
                    return ternkit::kNoMemory;
                }
            } while (!quotaUsed.compare_exchange_weak(used, wanted));
            return ternkit::kOk;
        }
        case kTbQuotaRelease:
            quotaUsed.fetch_sub(bytes);
            return ternkit::kOk;
        case kTbQuotaStatus:
            return ternkit::kNoMemory;
        default:
            return ternkit::kBadArgument;
    }
}
