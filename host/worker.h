// The worker's side: reads a stranger's mail, and sends what comes of it as frames.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "frames.h"
#include "job.h"

namespace ternview {

struct WorkerEnvironment {
    int descriptor;                // where the frames go
    std::string privateDirectory;  // for temporary files; the program makes and removes it
    std::chrono::seconds timeLimit;
    int officeGate;
    int browserGate;
    bool builtInEngineFailed;  // an earlier worker with the same task did not survive it
    pid_t parent;
    std::vector<std::filesystem::path> readable;  // the mail, or its documents
    bool drawsText;                               // fonts are read, too
};

/// What a worker is for. It sends outputs, and its result last.
using WorkerTask = std::function<void(FrameWriter&)>;

/// The task of a single command: does the job and sends its outputs and its result.
void runJob(const Job& job, FrameWriter& out);

/// Lowers what the office and the browser may take for the documents of this process to what a mail of this size explains.
void limitServicesBySize(std::uint64_t bytes);

/// Body of a worker process, right behind the fork: takes the process's freedoms away, does the task, and ends the process.
[[noreturn]] void workerMain(const WorkerTask& task, const WorkerEnvironment& environment);

}  // namespace ternview
