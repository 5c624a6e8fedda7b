// Temporary names and directories, confined to the private directory.

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string>
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

NativePath::NativePath(const char16_t* path) : NativePath() {
    if (path != nullptr) {
        const std::size_t units = std::char_traits<char16_t>::length(path);
        m_size = TbUtf8FromWide(path, units, m_text, sizeof(m_text) - 1);
        m_overflow = m_size == 0;
        m_text[m_size] = '\0';
    }
}

void NativePath::append(std::string_view more) {
    m_overflow = m_overflow || more.size() >= sizeof(m_text) - m_size;
    if (!m_overflow) {
        std::copy(more.begin(), more.end(), m_text + m_size);
    }
    m_size = m_overflow ? 0 : m_size + more.size();
    m_text[m_size] = '\0';
}

void NativePath::separate() {
    std::replace(m_text, m_text + m_size, '\\', '/');
}

namespace {

/// A base whose path could not stand in a module-made path (its backslashes would be taken for separators) is passed over.
bool usableBase(const char* base) {
    return base != nullptr && base[0] == '/' && std::strchr(base, '\\') == nullptr;
}

PrivateDirectory openUnder(std::string_view base) {
    while (base.size() > 1 && base.back() == '/') {
        base.remove_suffix(1);
    }
    char user[16];
    const auto [end, error] = std::to_chars(std::begin(user), std::end(user), geteuid());
    PrivateDirectory result;
    result.path.append(base);
    result.path.append("/ternkit-");
    result.path.append({user, static_cast<std::size_t>(end - user)});
    const auto openIt = [&result] {
        return Descriptor(open(result.path.text(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    };
    // One that is there is not made again: removing what lies in it must not depend on room on the disk.
    Descriptor directory = openIt();
    if (!directory && errno == ENOENT && (mkdir(result.path.text(), 0700) == 0 || errno == EEXIST)) {
        directory = openIt();
    }
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

InsidePath resolveInside(const NativePath& nativePath) {
    PrivateDirectory root = openPrivateDirectory();
    const std::string_view path = nativePath.view();
    const std::string_view inside = root.path.view();
    if (!root.directory || path.size() <= inside.size() + 1 || !path.starts_with(inside) || path[inside.size()] != '/') {
        return {};
    }
    InsidePath result{std::move(root.directory), {}};
    std::size_t position = inside.size();
    while (position < path.size()) {
        const std::size_t start = path.find_first_not_of('/', position);
        if (start == std::string_view::npos) {
            break;
        }
        const std::size_t end = std::min(path.find('/', start), path.size());
        if (result.name[0] != '\0') {
            result.directory =
                Descriptor(openat(result.directory.get(), result.name, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        }
        const std::string_view name = path.substr(start, end - start);
        if (!result.directory || name == ".." || name.size() >= sizeof(result.name)) {
            return {};
        }
        *std::copy(name.begin(), name.end(), result.name) = '\0';
        position = end;
    }
    const std::string_view name = result.name;
    return name.empty() || name == "." ? InsidePath() : std::move(result);
}

NativePath nativeFromWide(const char16_t* path) {
    NativePath native(path);
    native.separate();
    return native;
}

}  // namespace ternbase

namespace {

constexpr std::size_t kRandomCharacters = 10;

/// Characters of 5 random bits each: unguessable, and the same name on file systems that fold case.
bool randomName(char16_t (&name)[kRandomCharacters]) {
    static constexpr char16_t kAlphabet[] = u"abcdefghijklmnopqrstuvwxyz234567";
    unsigned char bytes[kRandomCharacters];
    if (getrandom(bytes, sizeof(bytes), 0) != static_cast<ssize_t>(sizeof(bytes))) {
        return false;
    }
    std::transform(std::begin(bytes), std::end(bytes), name, [](unsigned char byte) { return kAlphabet[byte & 31]; });
    return true;
}

/// Reserves a file of the name; false when something of that name is there or the directory is not ours.
bool reserve(const char16_t* path) {
    const ternbase::InsidePath place = ternbase::resolveInside(ternbase::nativeFromWide(path));
    if (!place.directory) {
        return false;
    }
    const ternbase::Descriptor file(
        openat(place.directory.get(), place.name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    return static_cast<bool>(file);
}

/// A path in the making.
class WidePath {
public:
    void append(std::u16string_view more) {
        m_overflow = m_overflow || more.size() >= std::size(m_text) - m_size;
        if (!m_overflow) {
            m_size = static_cast<std::size_t>(std::copy(more.begin(), more.end(), m_text + m_size) - m_text);
            m_text[m_size] = 0;
        }
    }
    void append(const char16_t* more) {
        if (more != nullptr) {
            append(std::u16string_view(more));
        }
    }
    void cut(std::size_t size) { m_text[m_size = size] = 0; }

    std::size_t size() const { return m_size; }
    const char16_t* text() const { return m_text; }
    bool fits(std::uint32_t capacity) const { return !m_overflow && m_size < capacity; }

private:
    std::size_t m_size = 0;
    bool m_overflow = false;
    char16_t m_text[PATH_MAX];
};

/// @return false when there is no such directory
bool appendPrivateDirectory(WidePath& path) {
    const ternbase::PrivateDirectory root = ternbase::openPrivateDirectory();
    const std::string_view native = root.path.view();
    char16_t wide[PATH_MAX];
    if (!root.directory) {
        return false;
    }
    path.append(std::u16string_view(wide, TbWideFromUtf8(native.data(), native.size(), wide, std::size(wide))));
    path.append(u"/");
    return true;
}

}  // namespace

ternkit::Status TbTempName(const char16_t* directory, char16_t* out, std::uint32_t capacity, std::uint32_t /*unique*/,
                           const char16_t* prefix, const char16_t* extension) {
    if (out == nullptr) {
        return ternkit::kBadArgument;
    }
    WidePath path;
    if (directory != nullptr) {
        path.append(directory);
    } else if (!appendPrivateDirectory(path)) {
        return ternkit::kCannotCreate;
    }
    path.append(prefix);
    const std::size_t start = path.size();
    for (int attempt = 0; attempt < 100; ++attempt) {
        char16_t random[kRandomCharacters];
        if (!randomName(random)) {
            break;
        }
        path.cut(start);
        path.append(std::u16string_view(random, kRandomCharacters));
        if (extension != nullptr) {
            path.append(u".");
            path.append(extension);
        }
        if (!path.fits(capacity)) {
            return ternkit::kPathTooLong;
        }
        if (reserve(path.text())) {
            *std::copy_n(path.text(), path.size(), out) = 0;
            return ternkit::kOk;
        }
    }
    return ternkit::kCannotCreate;
}

int CreateDirectoryW(const char16_t* path, void* /*securityAttributes*/) {
    const ternbase::InsidePath place = ternbase::resolveInside(ternbase::nativeFromWide(path));
    if (place.directory && mkdirat(place.directory.get(), place.name, 0700) == 0) {
        return 1;
    }
    constexpr std::uint32_t kErrorAccessDenied = 5;
    TbSetLastError(place.directory && errno == EEXIST ? kErrorAlreadyExists : kErrorAccessDenied);
    return 0;
}

int RemoveDirectoryW(const char16_t* path) {
    const ternbase::InsidePath place = ternbase::resolveInside(ternbase::nativeFromWide(path));
    return place.directory && unlinkat(place.directory.get(), place.name, AT_REMOVEDIR) == 0 ? 1 : 0;
}

std::size_t TbHostNativePath(const char16_t* path, char* out, std::size_t capacity) {
    const ternbase::NativePath native = ternbase::nativeFromWide(path);
    const std::string_view text = native.view();
    if (out == nullptr || text.size() >= capacity) {
        return 0;
    }
    *std::copy(text.begin(), text.end(), out) = '\0';
    return text.size();
}
