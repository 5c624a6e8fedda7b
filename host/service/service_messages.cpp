#include "service_messages.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace ternview {
namespace {

/// Puts frames together to one message.
class Assembler {
public:
    /// @return whether the message is complete
    /// @throws std::runtime_error when the frame has no place here
    bool add(Frame frame) {
        if (!isOpen_) {
            if (frame.kind == FrameKind::kData || frame.kind == FrameKind::kEnd) {
                throw std::runtime_error("no message");
            }
            isOpen_ = true;
            message.kind = frame.kind;
            message.label = std::move(frame.payload);
            return message.kind == FrameKind::kResult;
        }
        if (frame.kind == FrameKind::kEnd) {
            return true;
        }
        if (frame.kind != FrameKind::kData || frame.payload.size() > kLargestServiceMessage - message.bytes.size()) {
            throw std::runtime_error("no message");
        }
        message.bytes += frame.payload;
        return false;
    }

    ServiceMessage message{};

private:
    bool isOpen_ = false;
};

/// The room that one descriptor takes beside a message.
union Ancillary {
    cmsghdr header;
    std::array<char, CMSG_SPACE(sizeof(int))> bytes;
};

msghdr gateMessage(iovec& content, Ancillary& ancillary) {
    std::memset(&ancillary, 0, sizeof(ancillary));
    msghdr message{};
    message.msg_iov = &content;
    message.msg_iovlen = 1;
    message.msg_control = ancillary.bytes.data();
    message.msg_controllen = CMSG_LEN(sizeof(int));  // in what alignment adds a second descriptor would arrive
    return message;
}

bool isStreamSocket(int descriptor) {
    int type = 0;
    socklen_t size = sizeof(type);
    return ::getsockopt(descriptor, SOL_SOCKET, SO_TYPE, &type, &size) == 0 && type == SOCK_STREAM;
}

}  // namespace

EndInTime::EndInTime(std::chrono::seconds limit) {
    std::signal(SIGALRM, SIG_DFL);  // whatever libraries have set
    ::alarm(static_cast<unsigned>(limit.count()));
}

EndInTime::~EndInTime() {
    ::alarm(0);
}

std::optional<ServiceMessage> readServiceMessage(int socket) {
    FrameParser parser;
    Assembler assembler;
    std::array<char, 65536> chunk;
    try {
        while (true) {
            const ssize_t got = ::read(socket, chunk.data(), chunk.size());
            if (got < 0 && errno == EINTR) {
                continue;
            }
            if (got <= 0) {
                return std::nullopt;
            }
            parser.feed({chunk.data(), static_cast<std::size_t>(got)});
            while (std::optional<Frame> frame = parser.next()) {
                if (assembler.add(std::move(*frame))) {
                    return std::move(assembler.message);
                }
            }
        }
    } catch (const std::runtime_error&) {
        return std::nullopt;
    }
}

bool sendThroughGate(int gate, int descriptor) {
    char mark = 0;
    iovec content{&mark, 1};
    Ancillary ancillary;
    const msghdr message = gateMessage(content, ancillary);
    cmsghdr* header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof(int));
    std::memcpy(CMSG_DATA(header), &descriptor, sizeof(int));
    return ::sendmsg(gate, &message, MSG_NOSIGNAL) == 1;
}

std::optional<Descriptor> receiveThroughGate(int gate, int flags) {
    char mark = 0;
    iovec content{&mark, 1};
    Ancillary ancillary;
    msghdr message = gateMessage(content, ancillary);
    const bool waits = (flags & MSG_DONTWAIT) == 0;
    ssize_t got;
    do {
        // Waited for apart from taking it: a process that is killed while it waits in recvmsg can still take what comes before
        // it is gone, and that document would be lost with it.
        pollfd watched{gate, POLLIN, 0};
        if (waits) {
            ::poll(&watched, 1, -1);
        }
        got = ::recvmsg(gate, &message, MSG_CMSG_CLOEXEC | MSG_DONTWAIT | flags);
    } while (got < 0 && (errno == EINTR || (waits && errno == EAGAIN)));
    if (got <= 0) {
        return std::nullopt;
    }
    const cmsghdr* header = CMSG_FIRSTHDR(&message);
    if (header == nullptr || header->cmsg_type != SCM_RIGHTS || header->cmsg_len != CMSG_LEN(sizeof(int))) {
        return Descriptor();
    }
    int number;
    std::memcpy(&number, CMSG_DATA(header), sizeof(int));
    Descriptor descriptor(number);
    return isStreamSocket(number) ? std::move(descriptor) : Descriptor();
}

}  // namespace ternview
