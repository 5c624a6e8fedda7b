#include "frames.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>

namespace ternview {
namespace {

constexpr std::size_t kHeaderSize = 8;
constexpr std::size_t kDataFrame = std::size_t{1} << 20;

void writeAll(int descriptor, const char* bytes, std::size_t size) {
    while (size > 0) {
        const ssize_t written = ::write(descriptor, bytes, size);
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            throw std::system_error(errno, std::generic_category(), "write");
        }
        bytes += written;
        size -= static_cast<std::size_t>(written);
    }
}

}  // namespace

void FrameWriter::data(std::string_view bytes) {
    while (!bytes.empty()) {
        const std::size_t size = std::min(bytes.size(), kDataFrame);
        send(FrameKind::kData, bytes.substr(0, size));
        bytes.remove_prefix(size);
    }
}

void FrameWriter::send(FrameKind kind, std::string_view payload) {
    if (payload.size() > kLargestFrame) {
        throw std::length_error("a frame is too long");
    }
    // Both ends are one program on one machine: the numbers travel in the machine's own byte order.
    const std::array<std::uint32_t, 2> header{static_cast<std::uint32_t>(kind), static_cast<std::uint32_t>(payload.size())};
    static_assert(sizeof(header) == kHeaderSize);
    std::array<char, kHeaderSize> bytes;
    std::memcpy(bytes.data(), header.data(), kHeaderSize);
    writeAll(descriptor_, bytes.data(), bytes.size());
    writeAll(descriptor_, payload.data(), payload.size());
}

void FrameParser::feed(std::string_view bytes) {
    pending_.erase(0, taken_);
    taken_ = 0;
    pending_.append(bytes);
}

std::optional<Frame> FrameParser::next() {
    if (pending_.size() - taken_ < kHeaderSize) {
        return std::nullopt;
    }
    std::array<std::uint32_t, 2> header;
    std::memcpy(header.data(), pending_.data() + taken_, kHeaderSize);
    const auto [kind, length] = header;
    if (kind < static_cast<std::uint32_t>(FrameKind::kPage) || kind > static_cast<std::uint32_t>(FrameKind::kResult) ||
        length > kLargestFrame) {
        throw std::runtime_error("no frame");
    }
    if (pending_.size() - taken_ - kHeaderSize < length) {
        return std::nullopt;
    }
    Frame frame{static_cast<FrameKind>(kind), pending_.substr(taken_ + kHeaderSize, length)};
    taken_ += kHeaderSize + length;
    return frame;
}

}  // namespace ternview
