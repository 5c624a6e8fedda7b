// Worker processes side by side, each with services of its own, one message each.
#pragma once

#include <poll.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <vector>

#include "services.h"
#include "worker_process.h"

namespace ternview {

/// What a message's worker sends is taken by its receiver; whoever starts one gives a token that comes back with the result.
class RenderPool {
public:
    explicit RenderPool(std::size_t slots);
    ~RenderPool();

    bool isFull() const { return busy_ == slots_.size(); }
    bool isIdle() const { return busy_ == 0; }
    std::size_t size() const { return slots_.size(); }

    /// Starts a worker; the pool must not be full.
    /// @param receiver takes its outputs, and lives until the result is there
    /// @throws JobError when there can be no further process
    void start(const WorkerTask& task, std::size_t token, OutputReceiver& receiver, const WorkerSurroundings& surroundings);

    /// Adds what is to be watched for reading.
    void watch(std::vector<pollfd>& watched) const;
    /// When `attend` is to be called at the latest.
    std::optional<WorkerProcess::Clock::time_point> deadline() const;

    struct Finished {
        std::size_t token;
        JobResult result;
    };
    /// Looks after services and workers.
    /// @return what came to an end; a worker that crashed, hung or talked nonsense has a result with that failure
    /// @throws JobError with kOutput from a receiver that cannot write
    std::vector<Finished> attend();
    /// The program was held up for that long, which is no worker's fault.
    void postpone(WorkerProcess::Clock::duration heldUp);

private:
    struct Slot {
        Services services;
        std::unique_ptr<WorkerProcess> worker;  // ends before its services
        std::size_t token = 0;
    };

    std::optional<JobResult> attend(Slot& slot);

    std::vector<std::unique_ptr<Slot>> slots_;
    std::size_t busy_ = 0;
};

}  // namespace ternview
