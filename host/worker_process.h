// The program's side of a job: starts a worker, watches over it, and hands on what it sends.
#pragma once

#include <chrono>
#include <string_view>

#include "frames.h"
#include "job.h"
#include "office/office.h"

namespace ternview {

/// Takes the outputs of a worker as they arrive. What it throws ends the job.
class OutputReceiver {
public:
    virtual ~OutputReceiver() = default;
    /// @param kind kPage, kPdf, kDocument or kTempFile
    virtual void begin(FrameKind kind, std::string_view label) = 0;
    virtual void data(std::string_view bytes) = 0;
    virtual void end() = 0;
};

/// Thrown when a signal asked the program to end; everything is cleaned up on the way, then the signal is to be raised again.
struct Interrupted {
    int signal;
};

/**
 * Does a job in a worker process of its own. Whatever becomes of the worker, this returns, and nothing of it stays behind:
 * no process and no temporary file.
 *
 * @param office lays RTF out; it outlives the job, for the next one
 * @param timeLimit how long the worker may take; time in which the program itself is held up writing does not count
 * @return the worker's result; a worker that crashed, hung or talked nonsense gives a result with that failure
 * @throws JobError, whatever the receiver throws, and Interrupted on SIGINT, SIGTERM or SIGHUP
 */
JobResult runInWorker(const Job& job, Office& office, OutputReceiver& receiver, std::chrono::seconds timeLimit);

}  // namespace ternview
