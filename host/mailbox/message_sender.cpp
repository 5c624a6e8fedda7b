#include "message_sender.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>

#include "confinement.h"
#include "mailbox_frames.h"
#include "mailbox_worker.h"

namespace ternview {
namespace {

constexpr std::chrono::milliseconds kPassInterval{250};
constexpr std::chrono::seconds kLate{1};

}  // namespace

std::filesystem::path MessageSender::nextDirectory() const {
    return messageDirectory(options_, messageDirectories_);
}

void MessageSender::beginFile(std::uint64_t bytes) {
    limitMemoryBySize(bytes);
    timeLimitedSince_ = Clock::now();
    limitProcessorTime(options_.timeLimit);
    limitProcessorTimeBySize(bytes);
}

void MessageSender::beginMessage() {
    if (const auto now = Clock::now(); now - timeLimitedSince_ >= kLate) {
        timeLimitedSince_ = now;
        limitProcessorTime(options_.timeLimit + kLate);
    }
}

bool MessageSender::isWanted(std::size_t file, std::int32_t number) {
    if (!options_.wanted || options_.wanted(file, number)) {
        return true;
    }
    tellOfPass();
    return false;
}

void MessageSender::tellOfPass() {
    if (Clock::now() - lastSent_ > kPassInterval) {
        sendFrame(FrameKind::kMessagePass, {});
    }
}

void MessageSender::send(const MessageSummary& message) {
    while (granted_ == 0) {
        granted_ = receiveGrant();
    }
    --granted_;
    sendFrame(FrameKind::kMessage, packMessage(message));
    messageDirectories_ += message.files.empty() ? 0 : 1;
}

void MessageSender::sendFileEnd(const JobResult& result) {
    sendFrame(FrameKind::kFileEnd, packFileEnd(result));
}

void MessageSender::sendFrame(FrameKind kind, std::string_view payload) {
    out_.send(kind, payload);
    lastSent_ = Clock::now();
}

std::uint32_t MessageSender::receiveGrant() const {
    std::array<char, sizeof(std::uint32_t)> bytes;
    for (std::size_t have = 0; have < bytes.size();) {
        const ssize_t got = ::read(descriptor_, bytes.data() + have, bytes.size() - have);
        if (got == 0 || (got < 0 && errno != EINTR)) {
            throw std::system_error(got == 0 ? ECONNRESET : errno, std::generic_category(), "read");
        }
        have += got > 0 ? static_cast<std::size_t>(got) : 0;
    }
    std::uint32_t granted;
    std::memcpy(&granted, bytes.data(), sizeof(granted));
    return granted;
}

}  // namespace ternview
