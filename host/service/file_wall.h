// A wall around files, by Landlock: what it does not name can no longer be read, written, made or removed.
#pragma once

#include <cstdint>
#include <filesystem>
#include <vector>

#include "descriptor.h"

namespace ternview {

class FileWall {
public:
    /// Nothing is allowed yet, but what libraries read of the system: themselves, fonts, time zones, tables.
    FileWall();

    /// Of a directory, with all that is in it. A path that does not exist has nothing to allow.
    void allowReading(const std::filesystem::path& path);
    void allowChanging(const std::filesystem::path& path);

    /**
     * Raises the wall around this process and those that it forks, for ever. The process must have given up new privileges. This
     * object is to live as long as the process: a file of /proc, and of some networks, is another one as soon as nobody has it
     * open.
     *
     * @return whether all is well: the wall stands, or the kernel knows no such walls
     */
    bool raise();

private:
    void allow(const std::filesystem::path& path, std::uint64_t access);

    const std::uint64_t refused_;  // all that this kernel can refuse, unless it is allowed
    Descriptor rules_;
    std::vector<Descriptor> kept_;
    bool isSound_ = true;
};

}  // namespace ternview
