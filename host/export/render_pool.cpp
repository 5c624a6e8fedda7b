#include "render_pool.h"

#include <algorithm>

namespace ternview {

RenderPool::RenderPool(std::size_t slots) {
    for (std::size_t i = 0; i < slots; ++i) {
        slots_.push_back(std::make_unique<Slot>());
    }
}

RenderPool::~RenderPool() = default;

void RenderPool::start(const WorkerTask& task, std::size_t token, OutputReceiver& receiver,
                       const WorkerSurroundings& surroundings) {
    Slot& free = **std::find_if(slots_.begin(), slots_.end(), [](const auto& slot) { return slot->worker == nullptr; });
    free.worker = std::make_unique<WorkerProcess>(task, free.services, receiver, surroundings);
    free.token = token;
    ++busy_;
}

void RenderPool::watch(std::vector<pollfd>& watched) const {
    for (const auto& slot : slots_) {
        slot->services.watch(watched);
        if (slot->worker) {
            watched.push_back({slot->worker->descriptor(), POLLIN, 0});
        }
    }
}

std::optional<WorkerProcess::Clock::time_point> RenderPool::deadline() const {
    std::optional<WorkerProcess::Clock::time_point> earliest;
    for (const auto& slot : slots_) {
        if (slot->worker && (!earliest || slot->worker->deadline() < *earliest)) {
            earliest = slot->worker->deadline();
        }
    }
    return earliest;
}

std::vector<RenderPool::Finished> RenderPool::attend() {
    std::vector<Finished> finished;
    for (const auto& slot : slots_) {
        slot->services.attend();
        if (!slot->worker) {
            continue;
        }
        if (std::optional<JobResult> result = attend(*slot)) {
            slot->worker.reset();
            --busy_;
            finished.push_back({slot->token, std::move(*result)});
        }
    }
    return finished;
}

std::optional<JobResult> RenderPool::attend(Slot& slot) {
    try {
        return slot.worker->attend();
    } catch (const JobError& error) {
        if (error.failure() == Failure::kOutput) {
            throw;
        }
        JobResult result;
        result.failure = error.failure();
        result.detail = error.what();
        return result;
    }
}

void RenderPool::postpone(WorkerProcess::Clock::duration heldUp) {
    for (const auto& slot : slots_) {
        if (slot->worker) {
            slot->worker->postpone(heldUp);
        }
    }
}

}  // namespace ternview
