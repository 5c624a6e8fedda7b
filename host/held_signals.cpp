#include "held_signals.h"

#include <sys/signalfd.h>

namespace ternview {

HeldSignals::HeldSignals() {
    sigset_t held;
    sigemptyset(&held);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
        struct sigaction current {};
        if (::sigaction(signal, nullptr, &current) == 0 && current.sa_handler != SIG_IGN) {
            sigaddset(&held, signal);
        }
    }
    sigprocmask(SIG_BLOCK, &held, &before_);
    descriptor_ = Descriptor(::signalfd(-1, &held, SFD_CLOEXEC | SFD_NONBLOCK));
}

HeldSignals::~HeldSignals() {
    sigprocmask(SIG_SETMASK, &before_, nullptr);
}

void HeldSignals::check() const {
    if (signalfd_siginfo caught; ::read(descriptor(), &caught, sizeof(caught)) == sizeof(caught)) {
        throw Interrupted{static_cast<int>(caught.ssi_signo)};
    }
}

}  // namespace ternview
