// Files. A handle is the address of an open file's record; reads are positioned, so a seek costs no system call.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <new>

#include "ternbase/private_directory.h"
#include "ternbase/ternbase.h"

TB_SOURCE(u"src/ternbase/files")

namespace {

struct OpenFile {
    ternbase::Descriptor descriptor;
    std::int64_t position = 0;
};

ternkit::FileHandle handOut(ternbase::Descriptor descriptor) {
    std::unique_ptr<OpenFile> file(new (std::nothrow) OpenFile);
    if (file == nullptr) {
        return ternkit::kInvalidHandle;
    }
    file->descriptor = std::move(descriptor);
    TbTrackNew(kTbTrackObject, file.get(), TB_HERE);
    return reinterpret_cast<ternkit::FileHandle>(file.release());
}

OpenFile* fromHandle(ternkit::FileHandle handle) {
    return handle == ternkit::kInvalidHandle ? nullptr : reinterpret_cast<OpenFile*>(handle);
}

void closeHandle(ternkit::FileHandle handle) {
    const std::unique_ptr<OpenFile> file(fromHandle(handle));
    if (file) {
        TbTrackDelete(kTbTrackObject, file.get(), TB_HERE);
    }
}

bool isRegularFile(const ternbase::Descriptor& descriptor, struct stat& status) {
    return descriptor && fstat(descriptor.get(), &status) == 0 && S_ISREG(status.st_mode);
}

/// One transfer as long as the system allows; what a signal interrupted is tried again.
template <typename Transfer>
std::uint64_t transferAll(std::uint64_t count, const Transfer& transfer) {
    std::uint64_t done = 0;
    while (done < count) {
        const ssize_t step = transfer(done);
        if (step < 0 && errno == EINTR) {
            continue;
        }
        if (step <= 0) {
            break;
        }
        done += static_cast<std::uint64_t>(step);
    }
    return done;
}

}  // namespace

ternkit::FileHandle TbFileOpen(const char16_t* path, std::uint32_t /*reserved*/, std::uint32_t /*mode*/) {
    if (path == nullptr) {
        return ternkit::kInvalidHandle;
    }
    const ternbase::NativePath native(path);
    // Non-blocking, or opening a pipe would wait for its writer before its kind can be seen.
    ternbase::Descriptor descriptor(open(native.text(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    struct stat status {};
    return isRegularFile(descriptor, status) ? handOut(std::move(descriptor)) : ternkit::kInvalidHandle;
}

void TbFileClose(ternkit::FileHandle handle) {
    closeHandle(handle);
}

std::uint64_t TbFileRead64(ternkit::FileHandle handle, void* buffer, std::uint64_t count) {
    OpenFile* file = fromHandle(handle);
    if (file == nullptr || buffer == nullptr) {
        return 0;
    }
    const std::uint64_t done = transferAll(count, [&](std::uint64_t at) {
        return pread(file->descriptor.get(), static_cast<char*>(buffer) + at, count - at,
                     file->position + static_cast<std::int64_t>(at));
    });
    file->position += static_cast<std::int64_t>(done);
    return done;
}

std::uint32_t TbFileRead(ternkit::FileHandle handle, void* buffer, std::uint32_t count) {
    return static_cast<std::uint32_t>(TbFileRead64(handle, buffer, count));
}

std::int64_t TbFileSeek(ternkit::FileHandle handle, std::int64_t offset, int origin) {
    OpenFile* file = fromHandle(handle);
    if (file == nullptr) {
        return -1;
    }
    std::int64_t base = 0;
    if (origin == kTbSeekCurrent) {
        base = file->position;
    } else if (origin == kTbSeekEnd) {
        struct stat status {};
        if (fstat(file->descriptor.get(), &status) != 0) {
            return -1;
        }
        base = status.st_size;
    } else if (origin != kTbSeekStart) {
        return -1;
    }
    std::int64_t position = 0;
    if (__builtin_add_overflow(base, offset, &position) || position < 0) {
        return -1;
    }
    file->position = position;
    return position;
}

ternkit::FileHandle TbFileCreate(const char16_t* path, std::uint32_t /*reserved*/) {
    const ternbase::InsidePath place = ternbase::resolveInside(ternbase::nativeFromWide(path));
    if (!place.directory) {
        return ternkit::kInvalidHandle;
    }
    ternbase::Descriptor descriptor(
        openat(place.directory.get(), place.name, O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0600));
    // Truncated only once it is known to be a plain file with no second name outside.
    struct stat status {};
    if (!isRegularFile(descriptor, status) || status.st_nlink != 1 || ftruncate(descriptor.get(), 0) != 0) {
        return ternkit::kInvalidHandle;
    }
    return handOut(std::move(descriptor));
}

std::uint64_t TbFileWrite(ternkit::FileHandle handle, const void* data, std::uint64_t size, std::uint32_t /*reserved*/) {
    OpenFile* file = fromHandle(handle);
    if (file == nullptr || data == nullptr) {
        return 0;
    }
    return transferAll(
        size, [&](std::uint64_t at) { return write(file->descriptor.get(), static_cast<const char*>(data) + at, size - at); });
}

void TbFileCreatedClose(ternkit::FileHandle handle, std::uint32_t /*reserved*/) {
    closeHandle(handle);
}

ternkit::Status TbMapError(ternkit::Status status) {
    return status;
}

void TbFileDelete(const char16_t* path) {
    const ternbase::InsidePath place = ternbase::resolveInside(ternbase::nativeFromWide(path));
    if (place.directory) {
        unlinkat(place.directory.get(), place.name, 0);
    }
}

void TbFileDeleteNarrow(const char* path) {
    if (path == nullptr) {
        return;
    }
    ternbase::NativePath native;
    native.append(path);
    native.separate();
    const ternbase::InsidePath place = ternbase::resolveInside(native);
    if (place.directory) {
        unlinkat(place.directory.get(), place.name, 0);
    }
}
