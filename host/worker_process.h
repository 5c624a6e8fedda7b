// The program's side of a worker: starts it, watches over it, and hands on what it sends.
#pragma once

#include <poll.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "frames.h"
#include "held_signals.h"
#include "job.h"
#include "services.h"
#include "worker.h"

namespace ternview {

/// Takes the outputs of a worker as they arrive. What it throws ends the job.
class OutputReceiver {
public:
    virtual ~OutputReceiver() = default;
    /// @param kind of an output
    virtual void begin(FrameKind kind, std::string_view label) = 0;
    virtual void data(std::string_view bytes) = 0;
    virtual void end() = 0;
};

/// Where a worker finds what it needs besides its task.
struct WorkerSurroundings {
    std::string privateDirectory;  // for temporary files; whoever names it removes it
    std::chrono::seconds timeLimit{60};
    std::vector<std::filesystem::path> readable = {};  // the mail, or its documents
    bool drawsText = true;                             // fonts are read, too
};

/**
 * A worker process, for a program that watches several at once. The process does not outlive the object.
 *
 * Time in which the program itself was held up does not count against the worker, if the program tells of it.
 */
class WorkerProcess {
public:
    using Clock = std::chrono::steady_clock;

    /**
     * Starts the process. When the built-in HTML engine is the end of it, or takes half of the time, and there is a browser that
     * could do better, another process is started once.
     *
     * @param services lay documents out; their owner watches them too, and they outlive this
     * @param receiver takes the outputs; outlives this
     * @throws JobError when there can be no further process
     */
    WorkerProcess(WorkerTask task, Services& services, OutputReceiver& receiver, const WorkerSurroundings& surroundings);
    ~WorkerProcess();
    WorkerProcess(const WorkerProcess&) = delete;
    WorkerProcess& operator=(const WorkerProcess&) = delete;

    /// To be watched for reading.
    int descriptor() const;
    /// When `attend` is to be called even though there is nothing to read.
    Clock::time_point deadline() const;
    void postpone(Clock::duration heldUp);

    /**
     * Takes what has arrived.
     *
     * @return the result once there is one; a worker that crashed or is over its time gives a result with that failure
     * @throws JobError with kWorkerProtocol from a worker that talks nonsense, and whatever the receiver throws
     */
    std::optional<JobResult> attend();

private:
    class Connection;

    void start();
    std::optional<JobResult> receive();
    bool isWorthAnother(const JobResult& result) const;
    JobResult finished(JobResult result);

    WorkerTask task_;
    Services& services_;
    OutputReceiver& receiver_;
    WorkerSurroundings surroundings_;
    Clock::time_point deadline_;
    bool isSecond_ = false;
    std::unique_ptr<Connection> connection_;
};

/// Waits until one of the descriptors can be read, or until the time has come; it may return before that.
/// @return for how long the program itself was stopped meanwhile, when it waited for a time
WorkerProcess::Clock::duration waitForAny(std::vector<pollfd>& watched, std::optional<WorkerProcess::Clock::time_point> until);

/**
 * Does a job in a worker process of its own. Whatever becomes of the worker, this returns, and nothing of it stays behind:
 * no process and no temporary file.
 *
 * @param services lay documents out; they outlive the job, for the next one
 * @param timeLimit how long the worker may take; time in which the program itself is stopped, or held up writing, does not count
 * @return the worker's result; a worker that crashed or hung gives a result with that failure
 * @throws JobError, whatever the receiver throws, and Interrupted when a signal asks the program to end
 */
JobResult runInWorker(const Job& job, Services& services, OutputReceiver& receiver, std::chrono::seconds timeLimit);

}  // namespace ternview
