// Arbitrary bytes from a process that a mail has taken over, read by the program that started it: the first byte says which kind
// of process that is. What is printed of a message, and the names of its files, stay harmless whatever it says of itself.

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "export/export_names.h"
#include "frames.h"
#include "json_output.h"
#include "mailbox/list_layout.h"
#include "mailbox/mailbox_frames.h"
#include "messages.h"
#include "output_files.h"
#include "service/service_messages.h"
#include "utf.h"

namespace {

using namespace ternview;

void require(bool condition) {
    if (!condition) {
        std::abort();
    }
}

/// One line of valid UTF-8 without anything that a terminal takes for a command.
void requirePrintable(std::string_view line) {
    require(isValidUtf8(line) && line.ends_with('\n'));
    const auto isControl = [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; };
    require(std::ranges::none_of(line.substr(0, line.size() - 1), isControl));
    require(line.find("\xC2\x9B") == std::string_view::npos);  // begins a command in a single character
}

void useMessage(const MessageSummary& message) {
    requirePrintable(messageLine(message, std::nullopt));
    const std::string narrow = messageLine(message, 80);
    requirePrintable(narrow);
    require(displayWidth(narrow.substr(0, narrow.size() - 1)) <= 80);
    requirePrintable(messageObject(message, message.detail));
    const auto number = static_cast<std::uint32_t>(message.number);
    const std::string stem = messageStem(number, message.sentTime, message.subject);
    require(isMessageStem(stem) && isPlainName(stem));
    require(unpackMessage(packMessage(message)).has_value());
}

void useResult(const JobResult& result) {
    require(isValidUtf8(resultAsJson(result)) && unpackResult(packResult(result)).has_value());
    requirePrintable(failureReason(result) + "\n");
}

void readReader(std::string_view bytes) {
    FrameParser parser(FrameKind::kMessage, FrameKind::kFileEnd);
    parser.feed(bytes.substr(0, bytes.size() / 2));
    bool isFed = false;
    while (true) {
        const std::optional<Frame> frame = parser.next();
        if (!frame) {
            if (std::exchange(isFed, true)) {
                return;
            }
            parser.feed(bytes.substr(bytes.size() / 2));
            continue;
        }
        if (const auto message = unpackMessage(frame->payload); message && frame->kind == FrameKind::kMessage) {
            useMessage(*message);
        }
        if (const auto result = unpackFileEnd(frame->payload)) {
            requirePrintable(fileObject(*result, result->detail));
        }
    }
}

void readService(std::string_view bytes) {
    int ends[2];
    require(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0);
    const ssize_t sent = send(ends[0], bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    close(ends[0]);
    const std::optional<ServiceMessage> message = readServiceMessage(ends[1]);
    close(ends[1]);
    require(!message || message->bytes.size() <= static_cast<std::size_t>(std::max<ssize_t>(sent, 0)));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    const std::string_view bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
    switch (data[0] % 3) {
        case 0:
            try {
                readReader(bytes);
            } catch (const std::runtime_error&) {  // no frame
            }
            break;
        case 1:
            if (const std::optional<JobResult> result = unpackResult(bytes)) {
                useResult(*result);
            }
            break;
        default:
            readService(bytes);
    }
    return 0;
}
