#include "frames.h"

#include <sys/uio.h>

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

void writeAll(int descriptor, std::array<iovec, 2> parts) {
    std::size_t part = 0;
    while (part < parts.size()) {
        const ssize_t written = ::writev(descriptor, &parts[part], static_cast<int>(parts.size() - part));
        if (written < 0 && errno != EINTR) {
            throw std::system_error(errno, std::generic_category(), "write");
        }
        std::size_t left = written > 0 ? static_cast<std::size_t>(written) : 0;
        while (part < parts.size() && left >= parts[part].iov_len) {
            left -= parts[part++].iov_len;
        }
        if (part < parts.size()) {
            parts[part].iov_base = static_cast<char*>(parts[part].iov_base) + left;
            parts[part].iov_len -= left;
        }
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
    std::array<std::uint32_t, 2> header{static_cast<std::uint32_t>(kind), static_cast<std::uint32_t>(payload.size())};
    static_assert(sizeof(header) == kHeaderSize);
    writeAll(descriptor_, {iovec{header.data(), kHeaderSize}, iovec{const_cast<char*>(payload.data()), payload.size()}});
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
    if (kind < static_cast<std::uint32_t>(first_) || kind > static_cast<std::uint32_t>(last_) || length > kLargestFrame) {
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
