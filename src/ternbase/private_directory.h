// The private directory that holds all temporary files of this user, and the only place where the module may make or delete any.
#pragma once

#include <string>

namespace ternbase {

/// A descriptor that closes itself.
class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int descriptor) : m_descriptor(descriptor) {}
    Descriptor(Descriptor&& other) noexcept : m_descriptor(other.release()) {}
    Descriptor& operator=(Descriptor&& other) noexcept;
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor();

    explicit operator bool() const { return m_descriptor >= 0; }
    int get() const { return m_descriptor; }
    int release();

private:
    int m_descriptor = -1;
};

struct PrivateDirectory {
    std::string path;  // UTF-8, absolute, without a trailing separator
    Descriptor directory;
};

/// Opens the directory (making it when needed) under $XDG_RUNTIME_DIR, else $TMPDIR, else /tmp. It belongs to this user, has mode
/// 0700 and is no link; where that cannot be had, the descriptor is empty.
PrivateDirectory openPrivateDirectory();

/// A name inside the private directory: the directory that holds it, and its last component.
struct InsidePath {
    Descriptor directory;
    std::string name;
};

/// Finds the place of a path that the module made. The descriptor is empty when the path lies elsewhere, has a ".." component, or
/// goes through a link. The last component is not looked at: the caller opens it without following links.
InsidePath resolveInside(const std::string& path);

/// Native form of a module-made path: UTF-8, with a separator for each backslash.
std::string nativeFromWide(const char16_t* path);

}  // namespace ternbase
