// What a process that reads a stranger's mail may not do.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace ternview {

struct Confinement {
    std::string privateDirectory;  // for temporary files; the program makes and removes it
    pid_t parent;                  // the process ends with it
};

/// What the program has open is none of a worker's business: other workers, other services, files in the making. The standard
/// streams stay.
/// @param kept descriptors to keep; -1 is ignored
void closeAllBut(std::vector<int> kept);

/// Takes a process's freedoms away, right behind the fork: no new privileges, limits on memory and files, no standard streams.
/// It ends with its parent.
void confine(const Confinement& confinement);

/// Limits the processor time that the process may take from now on; a later call begins anew. The program's own clock comes
/// first; this one is for a process whose program is held up.
void limitProcessorTime(std::chrono::seconds timeLimit);

}  // namespace ternview
