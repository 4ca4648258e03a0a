// wait: how the system tests wait, for a condition and within a limit, never for a time.
#pragma once

#include <chrono>
#include <thread>

namespace corvalin::test {

/// For what is done within milliseconds on an idle machine: generous, since tests run side by side, under
/// sanitizers and on a busy machine, and since a test that passes never waits that long.
constexpr std::chrono::seconds WAIT_LIMIT{30};

/// Looks at `condition` until it holds. False if it did not within `limit`. For what nothing can be waited on
/// in the kernel, such as the state of another process.
template <class Condition>
bool eventually(const Condition& condition, std::chrono::milliseconds limit = WAIT_LIMIT) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1)); // the interval of looking, not the wait
    }
    return true;
}

} // namespace corvalin::test
