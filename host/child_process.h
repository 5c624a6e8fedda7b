// A process that was forked to read a stranger's mail, as its program sees it.
#pragma once

#include <sys/types.h>

#include "job.h"

namespace ternview {

/// It does not outlive this object.
class Child {
public:
    explicit Child(pid_t pid) : pid_(pid) {}
    ~Child();
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    /// Ends it at once; `wait` is still to be called, or the destructor does.
    void kill();

    /// Waits for its end. @return what waitpid tells
    int wait();

private:
    pid_t pid_;
};

/// What a worker that ended without a result died of.
JobResult resultOfDeath(int waitStatus);

}  // namespace ternview
