#include "child_process.h"

#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>

namespace ternview {

Child::~Child() {
    if (pid_ > 0) {
        kill();
        wait();
    }
}

void Child::kill() {
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
    }
}

int Child::wait() {
    int status = 0;
    while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
    return status;
}

JobResult resultOfDeath(int waitStatus) {
    JobResult result;
    result.failure = Failure::kCrash;
    if (WIFSIGNALED(waitStatus)) {
        const int signal = WTERMSIG(waitStatus);
        result.failure = signal == SIGXCPU ? Failure::kTimeLimit : Failure::kCrash;
        result.detail = sigabbrev_np(signal) != nullptr ? std::string("SIG") + sigabbrev_np(signal) : std::to_string(signal);
    } else {
        result.detail = "exit code " + std::to_string(WEXITSTATUS(waitStatus));
    }
    return result;
}

}  // namespace ternview
