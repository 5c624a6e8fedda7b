#include "faulty_system.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <new>
#include <utility>

namespace faulty {
namespace {

Fault fault;
bool isActive = false;
bool struck = false;
std::array<std::uint64_t, kCalls> counts{};
std::int64_t balance = 0;

/// Counts the call. @return whether it is to fail
bool fails(Call call) {
    if (!isActive) {
        return false;
    }
    const std::uint64_t number = ++counts[static_cast<std::size_t>(call)];
    if (fault.call != call || fault.number == 0 || number < fault.number || (number > fault.number && !fault.lasts)) {
        return false;
    }
    const bool isFirst = !std::exchange(struck, true);
    if (fault.meanwhile) {
        if (isFirst) {
            const Pause pause;
            fault.meanwhile();
        }
        return false;
    }
    return true;
}

/// What a failing transfer gives.
template <typename Transfer>
ssize_t transferred(std::size_t size, int error, const Transfer& transfer) {
    if (const std::size_t moved = std::min(static_cast<std::size_t>(std::exchange(fault.moved, 0)), size / 2); moved != 0) {
        return transfer(moved);
    }
    errno = error;
    return fault.isEnd ? 0 : -1;
}

int failed(int error) {
    errno = error;
    return -1;
}

template <typename Block>
Block* counted(Block* block, int change) {
    if (isActive && block != nullptr) {
        balance += change;
    }
    return block;
}

}  // namespace

Trial::Trial(Fault wanted) {
    fault = std::move(wanted);
    struck = false;
    counts = {};
    balance = 0;
    isActive = true;
}

Trial::~Trial() {
    isActive = false;
}

bool Trial::hasStruck() const {
    return struck;
}

std::uint64_t Trial::count(Call call) const {
    return counts[static_cast<std::size_t>(call)];
}

std::int64_t Trial::blocks() const {
    return balance;
}

Pause::Pause() : m_before(std::exchange(isActive, false)) {}

Pause::~Pause() {
    isActive = m_before;
}

}  // namespace faulty

using namespace faulty;

// NOLINTBEGIN(bugprone-reserved-identifier, cert-dcl37-c, cert-dcl51-cpp): the linker chooses these names
extern "C" {

ssize_t __real_pread(int descriptor, void* buffer, std::size_t size, off_t offset);
ssize_t __real_write(int descriptor, const void* data, std::size_t size);
int __real_open(const char* path, int flags, ...);
int __real_openat(int directory, const char* path, int flags, ...);
int __real_fstat(int descriptor, struct stat* status);
int __real_ftruncate(int descriptor, off_t size);
int __real_mkdir(const char* path, mode_t mode);
int __real_mkdirat(int directory, const char* path, mode_t mode);
ssize_t __real_getrandom(void* buffer, std::size_t size, unsigned flags);
void* __real_malloc(std::size_t size);
void* __real_calloc(std::size_t count, std::size_t size);
void* __real_realloc(void* block, std::size_t size);
void __real_free(void* block);

ssize_t __wrap_pread(int descriptor, void* buffer, std::size_t size, off_t offset) {
    const auto read = [&](std::size_t count) { return __real_pread(descriptor, buffer, count, offset); };
    return fails(Call::Read) ? transferred(size, EIO, read) : read(size);
}

ssize_t __wrap_write(int descriptor, const void* data, std::size_t size) {
    const auto write = [&](std::size_t count) { return __real_write(descriptor, data, count); };
    return fails(Call::Write) ? transferred(size, ENOSPC, write) : write(size);
}

int __wrap_open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return fails((flags & O_DIRECTORY) != 0 ? Call::Directory : Call::Open) ? failed(EMFILE) : __real_open(path, flags, mode);
}

int __wrap_openat(int directory, const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return fails((flags & O_DIRECTORY) != 0 ? Call::Directory : Call::Open) ? failed((flags & O_CREAT) != 0 ? ENOSPC : EMFILE)
                                                                            : __real_openat(directory, path, flags, mode);
}

int __wrap_fstat(int descriptor, struct stat* status) {
    const int result = __real_fstat(descriptor, status);
    return fails(result == 0 && S_ISDIR(status->st_mode) ? Call::Directory : Call::Status) ? failed(EIO) : result;
}

int __wrap_ftruncate(int descriptor, off_t size) {
    return fails(Call::Truncate) ? failed(EIO) : __real_ftruncate(descriptor, size);
}

int __wrap_mkdir(const char* path, mode_t mode) {
    return fails(Call::Make) ? failed(ENOSPC) : __real_mkdir(path, mode);
}

int __wrap_mkdirat(int directory, const char* path, mode_t mode) {
    return fails(Call::Make) ? failed(ENOSPC) : __real_mkdirat(directory, path, mode);
}

ssize_t __wrap_getrandom(void* buffer, std::size_t size, unsigned flags) {
    return fails(Call::Random) ? failed(EINTR) : __real_getrandom(buffer, size, flags);
}

void* __wrap_malloc(std::size_t size) {
    return fails(Call::Memory) ? nullptr : counted(__real_malloc(size), 1);
}

void* __wrap_calloc(std::size_t count, std::size_t size) {
    return fails(Call::Memory) ? nullptr : counted(__real_calloc(count, size), 1);
}

void* __wrap_realloc(void* block, std::size_t size) {
    if (fails(Call::Memory)) {
        return nullptr;
    }
    void* grown = __real_realloc(block, size);
    return block == nullptr ? counted(grown, 1) : grown;
}

void __wrap_free(void* block) {
    __real_free(counted(block, -1));
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier, cert-dcl37-c, cert-dcl51-cpp)

// All forms: a sanitizer has its own of each, and wants them to match.
void* operator new(std::size_t size, const std::nothrow_t& /*unused*/) noexcept {
    return fails(Call::Memory) ? nullptr : counted(__real_malloc(size != 0 ? size : 1), 1);
}

void* operator new(std::size_t size) {
    void* block = operator new(size, std::nothrow);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return block;
}

void* operator new[](std::size_t size, const std::nothrow_t& /*unused*/) noexcept {
    return operator new(size, std::nothrow);
}

void* operator new[](std::size_t size) {
    return operator new(size);
}

void operator delete(void* block) noexcept {
    __real_free(counted(block, -1));
}

void operator delete(void* block, std::size_t /*size*/) noexcept {
    operator delete(block);
}

void operator delete[](void* block) noexcept {
    operator delete(block);
}

void operator delete[](void* block, std::size_t /*size*/) noexcept {
    operator delete(block);
}
