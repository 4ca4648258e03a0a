// refused_system_call: makes the kernel refuse one system call, for failures that no argument can provoke.
//
// Threads    the refusal holds for the thread that the helper starts and ends, and for no other.
#pragma once

#include <functional>

namespace corvalin::test {

/// Runs `body` on a thread whose every system call of `number` (SYS_...) fails with `error`, and waits for
/// its end. Throws std::system_error if the kernel does not let itself be told so.
void with_refused_system_call(int number, int error, const std::function<void()>& body);

} // namespace corvalin::test
