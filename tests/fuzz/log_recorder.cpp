#include "tests/fuzz/log_recorder.h"

#include "corvalin_lib/log.h"
#include "tests/fuzz/fuzz_support.h"

#include <algorithm>
#include <utility>

namespace corvalin::fuzz {

namespace {

Events recorded;

// The address of the buffer in "failed to send a data (48: 94020...)" is not foreseeable.
void remove_address(std::string& text) {
    if (!text.starts_with("SOCKET[")) {
        return;
    }
    const std::size_t begin = text.find(": ", text.find('(')) + 2;
    const std::size_t end = text.find(')', begin);
    require(begin < end && end != std::string::npos &&
                std::all_of(text.begin() + static_cast<std::ptrdiff_t>(begin),
                            text.begin() + static_cast<std::ptrdiff_t>(end),
                            [](char digit) { return digit >= '0' && digit <= '9'; }),
            "a failed send shows the address of its data");
    text.replace(begin, end - begin, "<address>");
}

void record_log(void* /*context*/, const char* /*file*/, int /*line*/, const log::Message& message) {
    std::string text = message.text();
    remove_address(text);
    record_event("log " + std::to_string(static_cast<int>(message.level())) + " " + text);
}

} // namespace

void install_log_recorder() {
    log::Logger::m_instance.m_write = &record_log;
}

void record_event(std::string event) {
    recorded.push_back(std::move(event));
}

Events take_recorded_events() {
    return std::exchange(recorded, {});
}

void require_same_events(const Events& expected, const Events& actual) {
    const auto [one, other] = std::mismatch(expected.begin(), expected.end(), actual.begin(), actual.end());
    require_equal("what leaves the code under test", one == expected.end() ? "nothing more" : *one,
                  other == actual.end() ? "nothing more" : *other);
}

} // namespace corvalin::fuzz
