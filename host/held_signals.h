// The signals that end a program, answered in order instead of in the middle of anything.
#pragma once

#include <csignal>

#include "descriptor.h"

namespace ternview {

/// Thrown when a signal asked the program to end; everything is cleaned up on the way, then the signal is to be raised again.
struct Interrupted {
    int signal;
};

/// Holds SIGINT, SIGTERM, SIGHUP and SIGQUIT back for as long as it lives; so do processes that are forked meanwhile. One that is
/// ignored, as nohup and shells do it for programs in the background, stays so: held back it would come all the same.
class HeldSignals {
public:
    HeldSignals();
    ~HeldSignals();
    HeldSignals(const HeldSignals&) = delete;
    HeldSignals& operator=(const HeldSignals&) = delete;

    /// To be watched for reading.
    int descriptor() const { return descriptor_.get(); }
    /// @throws Interrupted when one of them has come
    void check() const;

private:
    sigset_t before_{};
    Descriptor descriptor_;
};

}  // namespace ternview
