// Temporary names and directories, confined to the private directory.

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "ternbase/last_error.h"
#include "ternbase/private_directory.h"
#include "ternbase/ternbase.h"
#include "ternbase/windows.h"

namespace ternbase {

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept {
    if (this != &other) {
        Descriptor old(m_descriptor);
        m_descriptor = other.release();
    }
    return *this;
}

Descriptor::~Descriptor() {
    if (m_descriptor >= 0) {
        close(m_descriptor);
    }
}

int Descriptor::release() {
    return std::exchange(m_descriptor, -1);
}

namespace {

/// A base whose path could not stand in a module-made path (its backslashes would be taken for separators) is passed over.
bool usableBase(const char* base) {
    return base != nullptr && base[0] == '/' && std::strchr(base, '\\') == nullptr;
}

PrivateDirectory openUnder(std::string base) {
    while (base.size() > 1 && base.back() == '/') {
        base.pop_back();
    }
    PrivateDirectory result;
    result.path = base + "/ternkit-" + std::to_string(geteuid());
    if (mkdir(result.path.c_str(), 0700) != 0 && errno != EEXIST) {
        return result;
    }
    Descriptor directory(open(result.path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat status {};
    if (directory && fstat(directory.get(), &status) == 0 && status.st_uid == geteuid() && (status.st_mode & 07777) == 0700) {
        result.directory = std::move(directory);
    }
    return result;
}

}  // namespace

PrivateDirectory openPrivateDirectory() {
    const char* const bases[] = {std::getenv("XDG_RUNTIME_DIR"), std::getenv("TMPDIR"), "/tmp"};
    for (const char* base : bases) {
        if (usableBase(base)) {
            PrivateDirectory result = openUnder(base);
            if (result.directory) {
                return result;
            }
        }
    }
    return {};
}

InsidePath resolveInside(const std::string& path) {
    PrivateDirectory root = openPrivateDirectory();
    if (!root.directory || path.size() <= root.path.size() + 1 || path.compare(0, root.path.size(), root.path) != 0 ||
        path[root.path.size()] != '/') {
        return {};
    }
    InsidePath result{std::move(root.directory), {}};
    std::size_t position = root.path.size();
    while (position < path.size()) {
        const std::size_t start = path.find_first_not_of('/', position);
        if (start == std::string::npos) {
            break;
        }
        const std::size_t end = std::min(path.find('/', start), path.size());
        if (!result.name.empty()) {
            result.directory =
                Descriptor(openat(result.directory.get(), result.name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        }
        result.name = path.substr(start, end - start);
        if (!result.directory || result.name == "..") {
            return {};
        }
        position = end;
    }
    if (result.name.empty() || result.name == ".") {
        return {};
    }
    return result;
}

std::string nativeFromWide(const char16_t* path) {
    if (path == nullptr) {
        return {};
    }
    const std::size_t units = std::char_traits<char16_t>::length(path);
    std::string native(units * 3, '\0');
    native.resize(TbUtf8FromWide(path, units, native.data(), native.size()));
    std::replace(native.begin(), native.end(), '\\', '/');
    return native;
}

}  // namespace ternbase

namespace {

/// 10 characters of 5 random bits each: unguessable, and the same name on file systems that fold case.
std::string randomName() {
    static constexpr char kAlphabet[] = "abcdefghijklmnopqrstuvwxyz234567";
    unsigned char bytes[10];
    if (getrandom(bytes, sizeof(bytes), 0) != static_cast<ssize_t>(sizeof(bytes))) {
        return {};
    }
    std::string name;
    for (const unsigned char byte : bytes) {
        name += kAlphabet[byte & 31];
    }
    return name;
}

/// Reserves a file of the name; false when something of that name is there or the directory is not ours.
bool reserve(const std::string& path) {
    const ternbase::InsidePath place = ternbase::resolveInside(path);
    if (!place.directory) {
        return false;
    }
    const ternbase::Descriptor file(
        openat(place.directory.get(), place.name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    return static_cast<bool>(file);
}

void append(std::u16string& text, const char16_t* more) {
    if (more != nullptr) {
        text += more;
    }
}

}  // namespace

ternkit::Status TbTempName(const char16_t* directory, char16_t* out, std::uint32_t capacity, std::uint32_t /*unique*/,
                           const char16_t* prefix, const char16_t* extension) {
    if (out == nullptr) {
        return ternkit::kBadArgument;
    }
    std::u16string start;
    if (directory != nullptr) {
        start = directory;
    } else {
        const ternbase::PrivateDirectory root = ternbase::openPrivateDirectory();
        char16_t wide[4096];
        if (!root.directory || root.path.size() >= sizeof(wide) / sizeof(wide[0])) {
            return ternkit::kCannotCreate;
        }
        start.assign(wide, TbWideFromUtf8(root.path.data(), root.path.size(), wide, sizeof(wide) / sizeof(wide[0])));
        start += u'/';
    }
    append(start, prefix);
    for (int attempt = 0; attempt < 100; ++attempt) {
        const std::string random = randomName();
        std::u16string name = start + std::u16string(random.begin(), random.end());
        if (extension != nullptr) {
            name += u'.';
            name += extension;
        }
        if (name.size() >= capacity) {
            return ternkit::kPathTooLong;
        }
        if (random.empty()) {
            break;
        }
        if (reserve(ternbase::nativeFromWide(name.c_str()))) {
            std::copy(name.begin(), name.end(), out);
            out[name.size()] = 0;
            return ternkit::kOk;
        }
    }
    return ternkit::kCannotCreate;
}

int CreateDirectoryW(const char16_t* path, void* /*securityAttributes*/) {
    const ternbase::InsidePath place = ternbase::resolveInside(ternbase::nativeFromWide(path));
    if (place.directory && mkdirat(place.directory.get(), place.name.c_str(), 0700) == 0) {
        return 1;
    }
    constexpr std::uint32_t kErrorAccessDenied = 5;
    TbSetLastError(place.directory && errno == EEXIST ? kErrorAlreadyExists : kErrorAccessDenied);
    return 0;
}

int RemoveDirectoryW(const char16_t* path) {
    const ternbase::InsidePath place = ternbase::resolveInside(ternbase::nativeFromWide(path));
    return place.directory && unlinkat(place.directory.get(), place.name.c_str(), AT_REMOVEDIR) == 0 ? 1 : 0;
}

std::size_t TbHostNativePath(const char16_t* path, char* out, std::size_t capacity) {
    const std::string native = ternbase::nativeFromWide(path);
    if (out == nullptr || native.size() >= capacity) {
        return 0;
    }
    std::memcpy(out, native.c_str(), native.size() + 1);
    return native.size();
}
