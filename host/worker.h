// The worker's side of a job: reads the stranger's mail, and sends what comes of it as frames.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>

#include "frames.h"
#include "job.h"

namespace ternview {

struct WorkerEnvironment {
    int descriptor;                // where the frames go
    std::string privateDirectory;  // for temporary files; the program makes and removes it
    std::chrono::seconds timeLimit;
    int officeGate;
    pid_t parent;
};

/// Does the job and sends its outputs and its result.
void runJob(const Job& job, FrameWriter& out);

/// Body of a worker process, right behind the fork: takes the process's freedoms away, does the job, and ends the process.
[[noreturn]] void workerMain(const Job& job, const WorkerEnvironment& environment);

}  // namespace ternview
