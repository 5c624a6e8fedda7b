// Files that hold many Internet messages one behind the other, as mail programs on this platform keep them (RFC 4155).
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace ternview {

class Mbox {
public:
    /**
     * Looks through a file for messages. The cost is one pass over it and a few bytes for each message.
     *
     * @param descriptor of a regular file, open for reading; stays the caller's and must outlive the object
     * @param progress called again and again while it is looked through
     * @return nothing when the file does not begin as such files do
     */
    static std::optional<Mbox> open(int descriptor, const std::function<void()>& progress = {});

    /// At least 1.
    std::size_t count() const { return begins_.size(); }

    /**
     * One message as it would stand in a file of its own: without its separator line, with CR LF line ends, and with the marks
     * taken off that kept its lines from looking like separators.
     *
     * @param index 0-based, below `count`
     * @throws JobError when the file cannot be read any more, or the message is larger than a message may be
     */
    std::string message(std::size_t index) const;

private:
    Mbox(int descriptor, std::vector<std::uint64_t> begins, std::uint64_t end)
        : descriptor_(descriptor), begins_(std::move(begins)), end_(end) {}

    int descriptor_;
    std::vector<std::uint64_t> begins_;  // of separator lines
    std::uint64_t end_;
};

}  // namespace ternview
