#include "tests/support/waiting.h"

#include <fstream>
#include <string>
#include <thread>

namespace corvalin::test {

namespace {

char state_of(pid_t thread_id) {
    std::ifstream file("/proc/self/task/" + std::to_string(thread_id) + "/stat");
    std::string line;
    std::getline(file, line);
    // "<id> (<name>) <state> ...": the name may hold anything, so the last bracket counts.
    const std::size_t bracket = line.rfind(')');
    return bracket == std::string::npos || bracket + 2 >= line.size() ? '?' : line[bracket + 2];
}

} // namespace

bool wait_until(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

bool wait_until_asleep(pid_t thread_id, std::chrono::milliseconds limit) {
    return wait_until([thread_id] { return state_of(thread_id) == 'S'; }, limit);
}

} // namespace corvalin::test
