// The private directory that holds all temporary files of this user, and the only place where the module may make or delete any.
#pragma once

#include <climits>
#include <cstddef>
#include <string_view>

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

/// A path as the system takes it: UTF-8, NUL-terminated; empty when it would be too long for the system. It needs no memory, so
/// that temporary files can be removed however short that is.
class NativePath {
public:
    NativePath() { m_text[0] = '\0'; }
    /// Of a path that a host names; a backslash is part of a name there. Null gives an empty one.
    explicit NativePath(const char16_t* path);

    /// A path becomes empty, and stays it, with what does not fit.
    void append(std::string_view more);
    /// Puts a separator in the place of each backslash, as in paths that the module makes.
    void separate();

    const char* text() const { return m_text; }
    std::string_view view() const { return {m_text, m_size}; }

private:
    std::size_t m_size = 0;
    bool m_overflow = false;
    char m_text[PATH_MAX];  // only what is used is written
};

struct PrivateDirectory {
    NativePath path;  // absolute, without a trailing separator
    Descriptor directory;
};

/// Opens the directory (making it when needed) under $XDG_RUNTIME_DIR, else $TMPDIR, else /tmp. It belongs to this user, has mode
/// 0700 and is no link; where that cannot be had, the descriptor is empty.
PrivateDirectory openPrivateDirectory();

/// A name inside the private directory: the directory that holds it, and its last component.
struct InsidePath {
    Descriptor directory;
    char name[NAME_MAX + 1] = {};
};

/// Finds the place of a path that the module made. The descriptor is empty when the path lies elsewhere, has a ".." component, or
/// goes through a link. The last component is not looked at: the caller opens it without following links.
InsidePath resolveInside(const NativePath& path);

/// Native form of a module-made path, with a separator for each backslash.
NativePath nativeFromWide(const char16_t* path);

}  // namespace ternbase
