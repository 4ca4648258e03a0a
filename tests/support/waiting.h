// waiting: conditions with a limit, for tests with threads.
//
// Threads    may be called on any thread. The condition is called on the thread that waits.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>

namespace corvalin::test {

constexpr std::chrono::seconds WAIT_LIMIT{30}; // generous: machines are slow, sanitizers slower

/// Waits until `condition` holds. False if it does not within `limit`.
bool wait_until(const std::function<bool()>& condition, std::chrono::milliseconds limit = WAIT_LIMIT);

/// Waits until the kernel has put the thread with this kernel id to sleep in a system call. A thread that has
/// published its id and then does nothing but enter the wait in question is then in that wait.
bool wait_until_asleep(pid_t thread_id, std::chrono::milliseconds limit = WAIT_LIMIT);

} // namespace corvalin::test
