// How much processor time this process takes, and its end when that is too much.
#pragma once

#include <chrono>

namespace ternview {

/// Of all threads, since the process began.
std::chrono::nanoseconds usedProcessorTime();

/**
 * Has SIGXCPU sent to the process once it has used that much since it began, in place of what an earlier call said; zero calls it
 * off. The limit that the kernel has for this counts clock ticks, and on a busy machine these can miss a third of what was used.
 * Processes that are forked off have none of it.
 */
void endAtProcessorTime(std::chrono::nanoseconds used);

}  // namespace ternview
