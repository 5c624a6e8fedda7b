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
    kPage = 1,        // opens a PNG page; the payload is its number and how many are coming: "3/7"
    kPdf = 2,         // opens the PDF
    kDocument = 3,    // opens the document as the filter handed it over
    kTempFile = 4,    // opens a file beside which, or as which, the document travelled; the payload is its name
    kConversion = 5,  // opens the document as another program can open it
    kThumbnail = 6,   // opens a small PNG of the first page
    kData = 7,
    kEnd = 8,
    kBuiltInLayout = 9,  // between outputs: the built-in HTML engine begins, and there is a browser, should it fail
    kResult = 10,        // the payload is what packResult gives

    // Of the process that reads all messages of many files, which sends nothing else.
    kMessage = 64,      // the payload is what packMessage gives
    kMessagePass = 65,  // messages are being passed over; the payload is empty, and it is sent now and then
    kFileEnd = 66,      // the payload is what packFileEnd gives
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
    void send(FrameKind kind, std::string_view payload);

private:
    int descriptor_;
};

/// Program's end: takes bytes as they arrive and gives complete frames.
class FrameParser {
public:
    /// @param first kinds from this one to `last` are taken
    explicit FrameParser(FrameKind first = FrameKind::kPage, FrameKind last = FrameKind::kResult) : first_(first), last_(last) {}

    void feed(std::string_view bytes);
    /// @return the next complete frame, if there is one
    /// @throws std::runtime_error when what arrived is no frame
    std::optional<Frame> next();

private:
    FrameKind first_;
    FrameKind last_;
    std::string pending_;
    std::size_t taken_ = 0;  // bytes at the start of `pending_` that were given out already
};

}  // namespace ternview
