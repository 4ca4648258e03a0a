#include "tests/fuzz/process_edge.h"

#include "corvalin_lib/log.h"
#include "tests/fuzz/fuzz_support.h"
#include "tests/fuzz/log_recorder.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <string>
#include <utility>

namespace corvalin::fuzz {

namespace {

constexpr const char* DELIMITER = " | ";
constexpr std::size_t LEVEL_CHARS = 7;

std::deque<SendResult> sends;

// At a threshold of DEBUG or TRACE a line shows its place, which the model does not know: it is checked for
// its form and taken out.
void remove_place(std::string& line) {
    const std::size_t begin = LEVEL_CHARS + std::strlen(DELIMITER);
    const std::size_t end = line.find(DELIMITER, begin);
    const std::size_t colon = line.find(':', begin);
    require(colon != std::string::npos && end != std::string::npos && colon > begin && colon + 1 < end,
            "a trace line shows its place at this threshold");
    require(std::all_of(line.begin() + static_cast<std::ptrdiff_t>(colon) + 1,
                        line.begin() + static_cast<std::ptrdiff_t>(end),
                        [](char digit) { return digit >= '0' && digit <= '9'; }),
            "the place of a trace line ends in a line number");
    line.erase(begin, end + std::strlen(DELIMITER) - begin);
}

} // namespace

std::deque<SendResult>& scripted_sends() {
    return sends;
}

} // namespace corvalin::fuzz

using namespace corvalin;

extern "C" void __wrap_syslog(int priority, const char* format, ...) {
    fuzz::require(std::strcmp(format, "%s") == 0, "text from outside is no format of syslog");
    va_list arguments;
    va_start(arguments, format);
    std::string line = va_arg(arguments, const char*);
    va_end(arguments);
    if (log::passes(log::Level::DEBUG)) {
        fuzz::remove_place(line);
    }
    fuzz::record_event("syslog " + std::to_string(priority) + " " + line);
}

extern "C" ssize_t __wrap_sendto(int fd, const void* data, size_t size, int flags, const sockaddr* address,
                                 socklen_t address_length) {
    fuzz::require(fd == -1 && flags == 0 && address_length == sizeof(sockaddr_in),
                  "a packet is sent by the forwarding socket, without flags");
    sockaddr_in node{};
    std::memcpy(&node, address, sizeof(node));
    std::array<char, INET_ADDRSTRLEN> host{};
    inet_ntop(AF_INET, &node.sin_addr, host.data(), host.size());
    fuzz::record_event("send " + std::string(host.data()) + ":" + std::to_string(ntohs(node.sin_port)) + " " +
                       std::string(static_cast<const char*>(data), size));
    fuzz::SendResult result = fuzz::SendResult::whole;
    if (!fuzz::sends.empty()) {
        result = fuzz::sends.front();
        fuzz::sends.pop_front();
    }
    switch (result) {
    case fuzz::SendResult::refused:
        errno = ECONNREFUSED;
        return -1;
    case fuzz::SendResult::half:
        return static_cast<ssize_t>(size > 1 ? size / 2 : size);
    case fuzz::SendResult::whole:
        break;
    }
    return static_cast<ssize_t>(size);
}
