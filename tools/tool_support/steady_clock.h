// steady_clock: the clock that paces, times and stamps the packets of the tools.
//
// Threads    any thread.
#pragma once

#include <cerrno>
#include <cstdint>
#include <ctime>

namespace corvalin::tools {

constexpr uint64_t NS_PER_US = 1'000;
constexpr uint64_t NS_PER_MS = 1'000'000;
constexpr uint64_t NS_PER_SECOND = 1'000'000'000;

/// CLOCK_MONOTONIC.
inline uint64_t steady_ns() noexcept {
    timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<uint64_t>(time.tv_sec) * NS_PER_SECOND + static_cast<uint64_t>(time.tv_nsec);
}

/// Sleeps until that time of the clock, or until a signal arrives.
inline void sleep_until_ns(uint64_t time_ns) noexcept {
    const timespec time{static_cast<time_t>(time_ns / NS_PER_SECOND),
                        static_cast<long>(time_ns % NS_PER_SECOND)};
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &time, nullptr);
}

} // namespace corvalin::tools
