#include "tools/watch/kernel_socket.h"

#include <charconv>
#include <fstream>
#include <sstream>
#include <vector>

namespace corvalin::watch {

namespace {

constexpr const char* RMEM_DEFAULT_PATH = "/proc/sys/net/core/rmem_default";
constexpr std::string_view ALL_ADDRESSES = "00000000";
// "sl: local remote st tx:rx tr:when retrnsmt uid timeout inode ref pointer drops"
enum Field : std::size_t { LOCAL = 1, QUEUES = 4, INODE = 9, DROPS = 12, FIELD_COUNT };

std::vector<std::string_view> split(std::string_view line) {
    std::vector<std::string_view> fields;
    std::size_t begin = line.find_first_not_of(' ');
    while (begin != std::string_view::npos) {
        const std::size_t end = line.find(' ', begin);
        fields.push_back(line.substr(begin, end - begin));
        begin = end == std::string_view::npos ? end : line.find_first_not_of(' ', end);
    }
    return fields;
}

bool parse(std::string_view text, int base, uint64_t& number) {
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number, base);
    return result.ec == std::errc() && result.ptr == text.data() + text.size();
}

// Behind the colon of "00000000:1388".
bool parse_behind_colon(std::string_view text, uint64_t& number) {
    const std::size_t colon = text.find(':');
    return colon != std::string_view::npos && parse(text.substr(colon + 1), 16, number);
}

} // namespace

std::optional<KernelSocket> find_kernel_socket(std::string_view proc_net_udp, uint16_t port) {
    std::optional<KernelSocket> found;
    while (!proc_net_udp.empty()) {
        const std::size_t end = std::min(proc_net_udp.find('\n'), proc_net_udp.size());
        const std::vector<std::string_view> fields = split(proc_net_udp.substr(0, end));
        proc_net_udp.remove_prefix(std::min(end + 1, proc_net_udp.size()));
        KernelSocket socket;
        uint64_t line_port = 0;
        if (fields.size() < FIELD_COUNT || !parse_behind_colon(fields[LOCAL], line_port) ||
            line_port != port || !parse_behind_colon(fields[QUEUES], socket.queued_bytes) ||
            !parse(fields[INODE], 10, socket.inode) || !parse(fields[DROPS], 10, socket.drops)) {
            continue;
        }
        if (fields[LOCAL].substr(0, ALL_ADDRESSES.size()) == ALL_ADDRESSES) {
            return socket;
        }
        found = socket;
    }
    return found;
}

std::optional<KernelSocket> read_kernel_socket(const std::string& path, uint16_t port) {
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    return find_kernel_socket(text.str(), port);
}

uint64_t default_receive_buffer_bytes() {
    std::ifstream file(RMEM_DEFAULT_PATH);
    uint64_t bytes = 0;
    return file >> bytes ? bytes : 0;
}

} // namespace corvalin::watch
