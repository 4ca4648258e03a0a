#include "tools/tool_support/stop_signal.h"

#include <algorithm>
#include <csignal>
#include <thread>

namespace corvalin::tools {
namespace {

volatile std::sig_atomic_t g_stop = 0;

void on_stop(int) {
    g_stop = 1;
}

} // namespace

void catch_stop_signals() {
    struct sigaction action {};
    action.sa_handler = on_stop;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

bool stop_requested() noexcept {
    return g_stop != 0;
}

bool wait_for_stop(std::chrono::milliseconds limit) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point end = Clock::now() + limit;
    while (!stop_requested() && Clock::now() < end) {
        const Clock::duration interval = std::chrono::milliseconds(STOP_CHECK_INTERVAL_MS);
        std::this_thread::sleep_for(std::min(interval, end - Clock::now()));
    }
    return stop_requested();
}

} // namespace corvalin::tools
