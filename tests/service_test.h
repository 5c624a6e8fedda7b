// What the tests of the host's services share.
#pragma once

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <string>
#include <thread>

#include "descriptor.h"
#include "loaders/laid_out_document.h"

namespace ternview {

/// Attends to a service as the program does while a job runs.
template <typename Service>
class AttendedService {
public:
    /// @param timeLimit of a document
    explicit AttendedService(std::chrono::seconds timeLimit = std::chrono::seconds(60)) {
        std::signal(SIGPIPE, SIG_IGN);  // as in the program: a service that has ended is a failed write
        service_.prepareFor(timeLimit);
        gate_ = service_.gate();
        thread_ = std::thread([this] { attend(); });
    }
    ~AttendedService() {
        done_ = true;
        thread_.join();
    }
    AttendedService(const AttendedService&) = delete;
    AttendedService& operator=(const AttendedService&) = delete;

    int gate() const { return gate_; }
    pid_t processId() const { return processId_; }

private:
    void attend() {
        while (!done_) {
            pollfd watched{service_.watched(), POLLIN, 0};
            if (::poll(&watched, 1, 20) == 1) {
                service_.attend();
            }
            processId_ = service_.processId();
            gate_ = service_.gate();
        }
        service_.stop();
    }

    Service service_;
    std::atomic<bool> done_ = false;
    std::atomic<pid_t> processId_ = 0;
    std::atomic<int> gate_ = -1;
    std::thread thread_;
};

/// A server on this machine that notices whether anybody ever comes.
class Listener {
public:
    Listener() : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof(address);
        EXPECT_EQ(::bind(socket_.get(), reinterpret_cast<sockaddr*>(&address), size), 0);
        EXPECT_EQ(::listen(socket_.get(), 8), 0);
        EXPECT_EQ(::getsockname(socket_.get(), reinterpret_cast<sockaddr*>(&address), &size), 0);
        address_ = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/p.png";
    }
    const std::string& address() const { return address_; }
    bool wasCalled() const {
        pollfd waiting{socket_.get(), POLLIN, 0};
        return ::poll(&waiting, 1, 0) != 0;
    }

private:
    Descriptor socket_;
    std::string address_;
};

/// Runs the action and gives the sentence of the LoadError that it must throw.
template <typename Action>
std::string loadErrorOf(Action action) {
    try {
        action();
    } catch (const LoadError& error) {
        return error.what();
    }
    ADD_FAILURE() << "no LoadError";
    return "";
}

}  // namespace ternview
