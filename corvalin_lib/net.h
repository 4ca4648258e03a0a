// net: endpoint records, and the functions that read them from text.
//
// Threads    every function may be called on any thread.
// Errors     nothing here logs or throws on bad text. The list parsers skip what they cannot read; the caller looks at
//            what arrived in the list.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <list>
#include <string>

namespace corvalin::net {

struct HOST_PORT_SEPARATOR {
    static constexpr char CHAR = ':';
};

/// An endpoint that is ready for `sendto`.
struct HostAddr {
    std::string host;   // as written
    uint16_t port = 0;  // host byte order
    sockaddr_in addr{}; // AF_INET, port_be and address_be; 0.0.0.0 where `host` is no dotted IPv4 address
};

/// An endpoint that another layer resolves.
struct Host {
    std::string host;
    uint16_t port = 0; // host byte order
};

/// Builds the record of `host` and `port`. A host that is no dotted IPv4 address gets the address 0.0.0.0.
HostAddr make_host_addr(const std::string& host, uint16_t port);

} // namespace corvalin::net
