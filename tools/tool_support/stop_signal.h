// stop_signal: SIGINT and SIGTERM as a request to finish, for tools that report at their end.
//
// A signal may arrive just before a wait and then does not interrupt it, so every wait of a tool is limited to
// STOP_CHECK_INTERVAL_MS.
//
// Threads    catch_stop_signals: main thread, before others start. stop_requested, wait_for_stop: any thread.
#pragma once

#include <chrono>

namespace corvalin::tools {

constexpr int STOP_CHECK_INTERVAL_MS = 100;

/// From here on the signals do not end the process, but interrupt system calls.
void catch_stop_signals();
/// True once such a signal has arrived.
bool stop_requested() noexcept;
/// Waits until one arrives, but not longer than `limit`. True if one has.
bool wait_for_stop(std::chrono::milliseconds limit);

} // namespace corvalin::tools
