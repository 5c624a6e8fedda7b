// File descriptors that close themselves, and the end of all others.
#pragma once

#include <unistd.h>

#include <utility>
#include <vector>

namespace ternview {

class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int value) : value_(value) {}
    ~Descriptor() { close(); }
    Descriptor(Descriptor&& other) noexcept : value_(std::exchange(other.value_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        if (this != &other) {
            close();
            value_ = std::exchange(other.value_, -1);
        }
        return *this;
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int get() const { return value_; }
    void close() {
        if (value_ >= 0) {
            ::close(std::exchange(value_, -1));
        }
    }

private:
    int value_ = -1;
};

/// What the program has open is none of a worker's business: other workers, other services, files in the making. The standard
/// streams stay.
/// @param kept descriptors to keep; -1 is ignored
void closeAllBut(std::vector<int> kept);

}  // namespace ternview
