#include "processor_time.h"

#include <unistd.h>

#include <csignal>
#include <ctime>
#include <optional>

namespace ternview {
namespace {

struct Timer {
    timer_t id;
    pid_t owner;
};

std::optional<Timer> makeTimer() {
    sigevent event{};
    event.sigev_notify = SIGEV_SIGNAL;
    event.sigev_signo = SIGXCPU;
    timer_t id{};
    return ::timer_create(CLOCK_PROCESS_CPUTIME_ID, &event, &id) == 0 ? std::optional(Timer{id, ::getpid()}) : std::nullopt;
}

}  // namespace

std::chrono::nanoseconds usedProcessorTime() {
    timespec used{};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return std::chrono::seconds(used.tv_sec) + std::chrono::nanoseconds(used.tv_nsec);
}

void endAtProcessorTime(std::chrono::nanoseconds used) {
    static std::optional<Timer> timer;
    if (!timer || timer->owner != ::getpid()) {
        timer = makeTimer();
    }
    if (timer) {
        const auto seconds = std::chrono::floor<std::chrono::seconds>(used);
        itimerspec end{};
        end.it_value.tv_sec = seconds.count();
        end.it_value.tv_nsec = (used - seconds).count();
        ::timer_settime(timer->id, TIMER_ABSTIME, &end, nullptr);
    }
}

}  // namespace ternview
