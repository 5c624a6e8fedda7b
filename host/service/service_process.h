// A service: a process of its own that lays out documents for the workers of all jobs.
//
// Starting such a process takes long, a document little, and a job's worker process lives for one message only. So the program
// itself owns the service and starts its process at the first need, and workers ask it through a gate that they inherit.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <memory>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "descriptor.h"
#include "private_directory.h"
#include "service/service_messages.h"

namespace ternview {

/// The way to a service, for the process that needs a document laid out.
struct ServiceAccess {
    int gate = -1;                       // stays its owner's
    std::chrono::seconds timeLimit{60};  // for one document
    /// What a document may take goes by its size, and by no more bytes than these: little mails can be made into large documents.
    std::uint64_t countedBytes = std::numeric_limits<std::uint64_t>::max();
};

enum class ServiceFailure {
    kNoWay,       // nobody stands behind the gate
    kEndedEarly,  // the process went away in the middle, or talked nonsense
    kTimeOver,
};

/// Sends a document to a service and waits for what becomes of it.
/// @param label says what is wanted, in the service's own words
/// @param startAllowance time that the process may need for starting, which is no part of the document's own
std::variant<ServiceMessage, ServiceFailure> askService(const ServiceAccess& access, std::string_view label,
                                                        std::string_view document, std::chrono::seconds startAllowance);

/// How the process of a service is started. Its program gets two arguments before all others: the number of its end of the
/// gate, and the longest time for a document in seconds.
struct ServiceCommand {
    std::filesystem::path program;
    std::vector<std::string> arguments;    // behind those
    std::vector<std::string> environment;  // all of it: nothing of the user's surroundings goes along
    int endSignal = SIGKILL;               // ends it with all its children
};

/// A program of ours that people do not call: beside this one in the build and when installed, else where the build installs it.
std::filesystem::path serviceProgram(std::string_view name);

/// Owns the process and whatever it leaves behind. Whoever has it calls `attend` whenever `watched` can be read.
class ServiceProcess {
public:
    /// @param command is asked at each start, with the private directory that the process is to have
    explicit ServiceProcess(ServiceCommand (*command)(const std::string& directory));
    ~ServiceProcess();
    ServiceProcess(const ServiceProcess&) = delete;
    ServiceProcess& operator=(const ServiceProcess&) = delete;

    /// To be called before a worker is forked. Stops the process when an earlier worker has left something in the gate.
    /// @param timeLimit for one document, whatever requests say, of processes that start from now on
    void prepareFor(std::chrono::seconds timeLimit);
    /// For ServiceAccess; processes that are forked inherit it. `prepareFor`, `attend` and `stop` may renew it.
    int gate() const { return askers_.get(); }
    int watched() const;
    /// Buries a process that ended, and starts one when somebody waits for it: for each document once, so that a process that
    /// cannot take any is not started for ever.
    void attend();
    /// Ends the process with whatever it is at, and makes a new gate: whoever still has the old one is cut off. The next need
    /// starts another process.
    void stop();
    /// Of the running process; 0 when there is none.
    pid_t processId() const { return process_; }

private:
    void startForFirst();
    void start();
    void end();
    void renewGate();

    ServiceCommand (*command_)(const std::string& directory);
    Descriptor askers_;
    Descriptor takers_;
    Descriptor processDescriptor_;
    std::chrono::seconds timeLimit_ = ServiceAccess{}.timeLimit;
    ino_t startedFor_ = 0;  // the socket that the newest process was to take first
    pid_t process_ = 0;
    int endSignal_ = SIGKILL;
    std::unique_ptr<PrivateDirectory> directory_;
};

}  // namespace ternview
