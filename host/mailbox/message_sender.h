// What the reader's process keeps from file to file: its way to the program, and the program's wishes.
#pragma once

#include <chrono>
#include <cstdint>
#include <string_view>

#include "frames.h"
#include "mailbox_reader.h"

namespace ternview {

class MessageSender {
public:
    /// @param descriptor where frames go; grants come from there, each a std::uint32_t
    /// @param granted messages that may be sent before the first grant
    /// @param messageDirectories made by a process in front of this one
    MessageSender(int descriptor, const MailboxOptions& options, std::uint32_t granted, std::uint64_t messageDirectories)
        : options_(options),
          out_(descriptor),
          descriptor_(descriptor),
          granted_(granted),
          messageDirectories_(messageDirectories) {}

    const MailboxOptions& options() const { return options_; }

    /// Where the files of the next message's document are to be put.
    std::filesystem::path nextDirectory() const;

    /// A file begins: so do the limits that go by its size.
    void beginFile(std::uint64_t bytes);
    /// A message begins: the time limit begins anew. The limit is moved on once a second at most, and so may be that much late.
    void beginMessage();
    /// Whether a message's document is wanted. The program is told of those that are not, lest its clock takes them for one that
    /// takes long.
    /// @throws std::system_error here and below when the program is gone
    bool isWanted(std::size_t file, std::int32_t number);
    /// Nothing is to be sent yet, but there is progress. It may be called often.
    void tellOfPass();
    /// Sends it once the program wants one more.
    void send(const MessageSummary& message);
    void sendFileEnd(const JobResult& result);

private:
    using Clock = std::chrono::steady_clock;

    void sendFrame(FrameKind kind, std::string_view payload);
    std::uint32_t receiveGrant() const;

    const MailboxOptions& options_;
    FrameWriter out_;
    int descriptor_;
    std::uint32_t granted_;
    std::uint64_t messageDirectories_;
    Clock::time_point lastSent_ = Clock::now();
    Clock::time_point timeLimitedSince_ = Clock::now();
};

}  // namespace ternview
