// What a process that reads a stranger's mail may not do.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace ternview {

struct Confinement {
    std::string privateDirectory;  // for temporary files; the program makes and removes it
    pid_t parent;                  // the process ends with it
    /// Besides the private directory, the system's libraries and the program's own. Directories count with all that is in them.
    std::vector<std::filesystem::path> readable = {};
    std::vector<std::filesystem::path> changeable = {};
};

/// Takes a process's freedoms away, right behind the fork: no new privileges, limits on memory and files, no network, no new
/// programs, no standard streams, and, where the kernel has Landlock, no files but those named. It ends with its parent. Where
/// the system gives no means against the network, the program says so once on standard error.
void confine(const Confinement& confinement);

/// Limits the processor time that the process may take from now on; a later call begins anew. The program's own clock comes
/// first; this one is for a process whose program is held up.
void limitProcessorTime(std::chrono::seconds timeLimit);

/// Lowers that limit to what a mail of this size may need: a small one that takes longer was made to. Limits that begin anew end
/// no later, until this one does. Where the program allows more than it does by itself, and where there is no limit, nothing
/// changes.
/// @param bytes of the mail or its document
/// @param pageArea of the pages that are drawn, in units of what they have at the usual resolution
void limitProcessorTimeBySize(std::uint64_t bytes, double pageArea = 1);

/// Limits the memory of the process to what a mail of this size may need; a later call begins anew.
/// @param bytes of the file, the mail or its document
void limitMemoryBySize(std::uint64_t bytes);

}  // namespace ternview
