// net: endpoint records, the functions that read them from text, and the machine's own address and name.
//
// Threads    every function may be called on any thread.
// Ownership  arguments are only read during the call, except those that take the result.
// Errors     nothing here logs or throws on bad text. The list parsers skip what they cannot read; the caller
//            looks at what arrived in the list. No name is ever resolved.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <list>
#include <string>

namespace corvalin::net {

// NOLINTNEXTLINE(readability-identifier-naming): a group of constants is named like a constant
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

/// Appends the endpoints of "host:port, host:port ..." to `addrs`. An item without a port, or with more than
/// one colon, gets port 0. An item whose port is no number is dropped. Port ranges do not work here, though
/// they look as if they did: "host:5000-5002" gives nothing, and "host:5000-0" gives port 0.
void parse_addrs(const std::string& text, std::list<HostAddr>& addrs);

/// Appends the endpoints of "host:port, host:first-last ..." to `hosts`, one for each port of a range,
/// rising. An item without a port is dropped. Ports are read leniently: no number gives 0, one that is too
/// big 65535, and what follows the digits is ignored.
void parse_hosts(const std::string& text, std::list<Host>& hosts);

/// Reads one endpoint into `addr`: a dotted address, a port, ":port" or "address:port". What is missing is
/// 127.0.0.1 or port 0; white space alone is both. The text ends at `end`, or at its terminating zero where
/// `end` is null. Returns false for any other text and for no text; `addr` may then be half written.
bool parse_addr(const char* begin, const char* end, sockaddr_in& addr);

/// The dotted text of the local address that the system would use to reach the IPv4 address `ip_be`, or
/// `fallback` if there is none or it cannot be told. Nothing is sent.
std::string get_host_ip(unsigned int ip_be, std::string fallback);

/// The name of this machine, empty if the system does not tell it.
std::string get_host_name();

} // namespace corvalin::net
