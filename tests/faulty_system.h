// A system that fails when a test wants it. The linker leads the calls of the kernel's sources, which are part of the test
// program, through here (--wrap), and so it does with every allocation; the libraries' own calls go their usual way.
#pragma once

#include <cstdint>
#include <functional>

namespace faulty {

/// Directory: opening one, or asking for its state.
enum class Call { Read, Status, Open, Directory, Make, Write, Truncate, Random, Memory };
inline constexpr int kCalls = 9;

/// What happens at one call.
struct Fault {
    Call call = Call::Read;
    std::uint64_t number = 0;  // the how manieth of these calls, from 1 on; 0: none
    bool lasts = false;        // all calls behind it fail too
    /// Happens instead of a failure, before the call goes its way.
    std::function<void()> meanwhile = {};
    /// Bytes that a read or a write still moves; those behind it, if the fault lasts, move nothing.
    std::uint64_t moved = 0;
    bool isEnd = false;  // a read tells the end of the file instead of an error
};

/// Counts and strikes while it lives, but for the time that a Pause lives.
class Trial {
public:
    explicit Trial(Fault fault);
    ~Trial();
    Trial(const Trial&) = delete;
    Trial& operator=(const Trial&) = delete;

    bool hasStruck() const;
    std::uint64_t count(Call call) const;
    /// Blocks that were allocated during the trial and not released in it.
    std::int64_t blocks() const;
};

/// What the test does itself in the middle of a trial.
class Pause {
public:
    Pause();
    ~Pause();
    Pause(const Pause&) = delete;
    Pause& operator=(const Pause&) = delete;

private:
    bool m_before;
};

}  // namespace faulty
