#include "tools/tool_support/stop_signal.h"

#include <csignal>

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

} // namespace corvalin::tools
