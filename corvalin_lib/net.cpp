#include "corvalin_lib/net.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cctype>
#include <cstring>
#include <sstream>
#include <utility>
#include <vector>

#include "corvalin_lib/utils_str.h"

namespace corvalin::net {

namespace str = utils::str;

namespace {

constexpr char ITEM_SEPARATOR = ',';
constexpr char RANGE_SEPARATOR = '-';
constexpr uint16_t DISCARD_PORT = 9;              // any port does: connect only looks for a route
constexpr unsigned int BROADCAST_IP = 0xFFFFFFFF; // the same in both byte orders
constexpr std::size_t HOST_NAME_BYTES = 65;       // the longest name of Linux and its zero

using Pieces = std::vector<std::string>;

std::string trim(const std::string& text) {
    return str::trim_right(str::trim_left(text));
}

Pieces split(const std::string& text, char delimiter, bool keep_empty) {
    Pieces pieces;
    str::split(text, delimiter, pieces, keep_empty);
    return pieces;
}

bool parse_port(const char* text, uint16_t& port) {
    return str::try_parse_value<unsigned short, 10, void>(text, port).is_ok();
}

/// Reads a port as a stream does, which is the contract of `parse_hosts`. White space on both sides is no
/// matter.
uint16_t extract_port(const std::string& text) {
    uint16_t port = 0; // an empty text leaves it alone
    std::istringstream stream(text);
    stream >> port;
    return port;
}

void parse_addrs_item(const std::string& item, std::list<HostAddr>& addrs) {
    const Pieces pieces = split(item, HOST_PORT_SEPARATOR::CHAR, true);
    const std::string host = trim(pieces[0]);
    if (pieces.size() != 2) {
        addrs.push_back(make_host_addr(host, 0));
        return;
    }
    const Pieces range = split(pieces[1], RANGE_SEPARATOR, true);
    if (range.empty()) { // "host::"
        return;
    }
    // The upper port of a range goes into `first` as well, on purpose: ranges do not work in node lists.
    uint16_t first = 0;
    uint16_t last = 0;
    if (!parse_port(range[0].c_str(), first)) {
        return;
    }
    if (range.size() == 1) {
        last = first;
    } else if (!parse_port(range[1].c_str(), first)) {
        return;
    }
    for (uint32_t port = first; port <= last; ++port) { // wider than a port, which would wrap behind 65535
        addrs.push_back(make_host_addr(host, static_cast<uint16_t>(port)));
    }
}

void parse_hosts_item(const std::string& item, std::list<Host>& hosts) {
    const Pieces pieces = split(item, HOST_PORT_SEPARATOR::CHAR, true);
    if (pieces.size() != 2) {
        return;
    }
    const Pieces range = split(pieces[1], RANGE_SEPARATOR, true);
    if (range.empty()) { // "host::"
        return;
    }
    const std::string host = trim(pieces[0]);
    const uint16_t first = extract_port(range[0]);
    const uint16_t last = range.size() == 1 ? first : extract_port(range[1]);
    for (uint32_t port = first; port <= last; ++port) { // wider than a port, which would wrap behind 65535
        hosts.push_back(Host{host, static_cast<uint16_t>(port)});
    }
}

/// The local address of a socket that is connected to `ip_be`, empty on any failure.
std::string local_ip(int socket_fd, unsigned int ip_be) {
    sockaddr_in remote{};
    remote.sin_family = AF_INET;
    remote.sin_port = htons(DISCARD_PORT);
    remote.sin_addr.s_addr = ip_be;
    if (connect(socket_fd, reinterpret_cast<const sockaddr*>(&remote), sizeof(remote)) != 0) {
        return {};
    }
    std::string text;
    sockaddr_in local{};
    socklen_t length = sizeof(local);
    if (getsockname(socket_fd, reinterpret_cast<sockaddr*>(&local), &length) == 0) {
        text = inet_ntoa(local.sin_addr); // a buffer that the next call overwrites
    }
    shutdown(socket_fd, SHUT_RDWR);
    return text;
}

} // namespace

HostAddr make_host_addr(const std::string& host, uint16_t port) {
    HostAddr record;
    record.host = host;
    record.port = port;
    record.addr.sin_family = AF_INET;
    record.addr.sin_port = htons(port);
    inet_pton(AF_INET, host.c_str(), &record.addr.sin_addr); // writes nothing on failure: 0.0.0.0 stays
    return record;
}

void parse_addrs(const std::string& text, std::list<HostAddr>& addrs) {
    for (const std::string& item : split(text, ITEM_SEPARATOR, false)) {
        parse_addrs_item(item, addrs);
    }
}

void parse_hosts(const std::string& text, std::list<Host>& hosts) {
    for (const std::string& item : split(text, ITEM_SEPARATOR, false)) {
        parse_hosts_item(item, hosts);
    }
}

bool parse_addr(const char* begin, const char* end, sockaddr_in& addr) {
    if (begin == nullptr) {
        return false;
    }
    if (end == nullptr) {
        end = begin + std::strlen(begin);
    }
    while (begin != end && std::isspace(static_cast<unsigned char>(*begin)) != 0) {
        ++begin;
    }
    addr.sin_family = AF_INET;
    const std::string text(begin, end);
    if (text.empty()) {
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        addr.sin_port = 0;
        return true;
    }

    std::string host;
    std::string port_text = text;
    const std::size_t separator = text.rfind(HOST_PORT_SEPARATOR::CHAR);
    if (separator != std::string::npos) {
        host = text.substr(0, separator);
        port_text = text.substr(separator + 1);
    } else if (inet_pton(AF_INET, text.c_str(), &addr.sin_addr) == 1) {
        addr.sin_port = 0;
        return true;
    }
    if (host.empty()) {
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    }

    uint16_t port = 0;
    if (!port_text.empty() && !parse_port(port_text.c_str(), port)) {
        return false;
    }
    addr.sin_port = htons(port);
    return host.empty() || inet_pton(AF_INET, host.c_str(), &addr.sin_addr) == 1;
}

std::string get_host_ip(unsigned int ip_be, std::string fallback) {
    if (ip_be == 0 || ip_be == BROADCAST_IP) {
        return fallback;
    }
    const int socket_fd = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    if (socket_fd < 0) {
        return fallback;
    }
    std::string text = local_ip(socket_fd, ip_be);
    close(socket_fd);
    return text.empty() ? fallback : text;
}

std::string get_host_name() {
    std::array<char, HOST_NAME_BYTES> name{};
    return gethostname(name.data(), name.size()) == 0 ? std::string(name.data()) : std::string();
}

} // namespace corvalin::net
