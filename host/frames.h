// The protocol between a worker and the program that started it. A worker sends frames, each a kind, a length and a payload.
// An output opens with a frame that says what it is, has its bytes in any number of data frames, and closes with an end frame;
// the result is the last frame of all. Frames are bounded, so that a worker that a mail has taken over cannot exhaust the
// program that reads them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace ternview {

enum class FrameKind : std::uint32_t {
    kPage = 1,      // opens a PNG page; the payload is its number and how many are coming: "3/7"
    kPdf = 2,       // opens the PDF
    kDocument = 3,  // opens the document as the filter handed it over
    kTempFile = 4,  // opens a file beside which, or as which, the document travelled; the payload is its name
    kData = 5,
    kEnd = 6,
    kResult = 7,  // the payload is what packResult gives
};

inline constexpr std::size_t kLargestFrame = std::size_t{16} << 20;

struct Frame {
    FrameKind kind;
    std::string payload;
};

/// Worker's end. Throws std::system_error when nobody reads any more.
class FrameWriter {
public:
    /// @param descriptor stays the caller's
    explicit FrameWriter(int descriptor) : descriptor_(descriptor) {}

    void begin(FrameKind kind, std::string_view label = {}) { send(kind, label); }
    void data(std::string_view bytes);
    void end() { send(FrameKind::kEnd, {}); }
    void result(std::string_view report) { send(FrameKind::kResult, report); }

private:
    void send(FrameKind kind, std::string_view payload);

    int descriptor_;
};

/// Program's end: takes bytes as they arrive and gives complete frames.
class FrameParser {
public:
    void feed(std::string_view bytes);
    /// @return the next complete frame, if there is one
    /// @throws std::runtime_error when what arrived is no frame
    std::optional<Frame> next();

private:
    std::string pending_;
    std::size_t taken_ = 0;  // bytes at the start of `pending_` that were given out already
};

}  // namespace ternview
