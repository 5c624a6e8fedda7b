// What travels between a process that needs a document laid out and a service process that does it.
//
// Every document has a stream socket of its own. The asker makes a pair, sends one end through the service's gate (a socket that
// all askers share, and in which ends queue until a service process takes them), writes one message, and reads one. A message is
// an output in the frames of frames.h: an opening frame that says what it is, data, an end.
//
//   request   kDocument with a label that the service understands: the document
//   answer    kPdf or kDocument: what became of it; or kResult: a sentence on why nothing did
#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>

#include "descriptor.h"
#include "frames.h"

namespace ternview {

/// Ends the process when it is over its time, whatever it is at: an asker that stops in the middle, or goes on byte by byte, must
/// not hold the others up.
class EndInTime {
public:
    explicit EndInTime(std::chrono::seconds limit);
    ~EndInTime();
    EndInTime(const EndInTime&) = delete;
    EndInTime& operator=(const EndInTime&) = delete;
};

inline constexpr std::size_t kLargestServiceMessage = std::size_t{512} << 20;

struct ServiceMessage {
    FrameKind kind;
    std::string label;
    std::string bytes;
};

/// Reads one message. Blocks, for each read as long as the socket's receive timeout says.
/// @return nothing when the other end went away, said nothing for too long, or sent what is no message
std::optional<ServiceMessage> readServiceMessage(int socket);

/// Sends a descriptor through the gate.
bool sendThroughGate(int gate, int descriptor);

/// Takes the next descriptor out of the gate; waits for it.
/// @param flags MSG_PEEK to leave it there, MSG_DONTWAIT
/// @return an empty one when something else came than a stream socket; nothing at all when all senders have gone, or nothing is
/// there and nobody was to wait
std::optional<Descriptor> receiveThroughGate(int gate, int flags = 0);

}  // namespace ternview
