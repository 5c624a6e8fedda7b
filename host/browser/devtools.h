// A browser's DevTools protocol over its debugging pipe: JSON messages, each ended by a NUL.
#pragma once

#include <chrono>
#include <functional>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

#include "descriptor.h"

namespace ternview {

/// The browser did not do what it was asked for.
class BrowserFailure : public std::runtime_error {
public:
    enum class Kind {
        kRefused,      // it said no, and goes on
        kTimeOver,     // it is still at it
        kGone,         // it ended, or its page did, or it talks nonsense
        kOutOfMemory,  // it takes more than it may
    };

    BrowserFailure(Kind kind, const std::string& reason) : std::runtime_error(reason), kind_(kind) {}
    Kind kind() const { return kind_; }

private:
    Kind kind_;
};

class DevTools {
public:
    using Clock = std::chrono::steady_clock;
    using Json = nlohmann::json;

    /**
     * @param toBrowser where the browser reads its commands
     * @param fromBrowser where it writes its answers
     * @param watch is called now and then while the browser is at work; what it throws ends the call
     */
    DevTools(Descriptor toBrowser, Descriptor fromBrowser, std::function<void()> watch);

    /// Until when the calls from now on must have been answered.
    void setDeadline(Clock::time_point deadline) { deadline_ = deadline; }

    /**
     * Sends a command and waits for its result. Whatever a page requests meanwhile fails.
     *
     * @param session of the page that the command is for; empty for the browser itself
     * @throws BrowserFailure
     */
    Json call(const std::string& method, const Json& parameters = Json::object(), const std::string& session = {});

    /// To be watched for reading while there is nothing to do.
    int descriptor() const { return fromBrowser_.get(); }
    /// Takes what the browser says without being asked.
    /// @return whether it is still there
    bool drain();

private:
    void send(const Json& message);
    Json receive();
    /// Reads and writes what can be without waiting, after waiting for one of both.
    void exchange();
    bool readSome();
    void writeSome();
    void handleEvent(const Json& event);

    Descriptor toBrowser_;
    Descriptor fromBrowser_;
    std::function<void()> watch_;
    Clock::time_point deadline_ = Clock::time_point::max();
    std::string outgoing_;
    std::size_t sent_ = 0;  // bytes at the start of `outgoing_` that went out already
    std::string incoming_;
    std::size_t searched_ = 0;  // bytes at the start of `incoming_` that have no NUL
    int lastId_ = 0;
};

}  // namespace ternview
