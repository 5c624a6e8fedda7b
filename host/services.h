// The services that a program keeps for its workers.
#pragma once

#include <poll.h>

#include <chrono>
#include <vector>

#include "browser/browser.h"
#include "office/office.h"

namespace ternview {

struct Services {
    Office office;    // lays RTF out
    Browser browser;  // lays out HTML that is too much for the built-in engine

    /// Adds what is to be watched for reading.
    void watch(std::vector<pollfd>& watched) const {
        watched.push_back({office.watched(), POLLIN, 0});
        watched.push_back({browser.watched(), POLLIN, 0});
    }
    /// Looks after the processes; to be called when any of them can be read.
    void attend() {
        office.attend();
        browser.attend();
    }
    /// To be called before a worker is forked.
    void prepareFor(std::chrono::seconds timeLimit) {
        office.prepareFor(timeLimit);
        browser.prepareFor(timeLimit);
    }
    void stop() {
        office.stop();
        browser.stop();
    }
};

}  // namespace ternview
