// net_fuzz: the parsers of node lists, host lists and single endpoints, on any bytes.
//
// The whole input is the text of all three parsers. Each is compared with a second reading of the same text,
// in endpoint_model. Beyond that: a list is only appended to, every record is complete to the last byte, and
// an entry that is printed and read again is the same entry.
#include "corvalin_lib/net.h"
#include "tests/fuzz/endpoint_model.h"
#include "tests/fuzz/fuzz_support.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace {

using namespace corvalin;
using fuzz::dotted;
using fuzz::Endpoint;
using fuzz::LAST_PORT;
using fuzz::planted;
using fuzz::require;
using fuzz::require_equal;

fuzz::Reach reach({
    "addrs: entry with a port",
    "addrs: entry without a port",
    "addrs: dotted address",
    "addrs: name",
    "addrs: last port",
    "addrs: item dropped",
    "hosts: range",
    "hosts: range up to the last port",
    "hosts: range that falls",
    "hosts: number that does not fit",
    "hosts: no number",
    "hosts: item dropped",
    "addr: refused",
    "addr: white space",
    "addr: dotted address",
    "addr: port",
    "addr: both",
});

// An item of 9 characters names 65536 ports, and a line of them more than the machine has memory for. All
// ports at once are for the corpus; a search would spend its time on building lists.
std::size_t most_entries() {
    return fuzz::is_replay() || planted("range") ? 70'000 : 2'000;
}

void mark(const char* what) {
    reach.mark(what);
}

// Every byte of a ready address, the padding too.
void require_address(const sockaddr_in& address, unsigned port, uint32_t ip) {
    sockaddr_in expected{};
    expected.sin_family = AF_INET;
    expected.sin_port = htons(static_cast<uint16_t>(port));
    expected.sin_addr.s_addr = htonl(ip);
    require(std::memcmp(&expected, &address, sizeof(expected)) == 0,
            "the socket address says what the entry says");
}

const net::HostAddr& sentinel_addr() {
    static const net::HostAddr sentinel = net::make_host_addr("10.9.8.7", 6);
    return sentinel;
}

void check_addrs(const std::string& text) {
    std::list<net::HostAddr> addrs = {sentinel_addr()};
    net::parse_addrs(text, addrs);
    const std::vector<Endpoint> expected = fuzz::expected_addrs(text, mark);
    require_equal("number of node list entries", expected.size() + 1, addrs.size());
    require(addrs.front().host == sentinel_addr().host && addrs.front().port == sentinel_addr().port,
            "a node list is appended to what was there");
    auto entry = std::next(addrs.begin());
    for (const Endpoint& endpoint : expected) {
        const std::optional<uint32_t> ip = dotted(endpoint.host);
        reach.mark(ip ? "addrs: dotted address" : "addrs: name");
        if (endpoint.port == LAST_PORT) {
            reach.mark("addrs: last port");
        }
        require_equal("node host", endpoint.host, entry->host);
        require_equal("node port", endpoint.port, entry->port);
        require_address(entry->addr, endpoint.port, ip.value_or(0));

        std::list<net::HostAddr> again;
        net::parse_addrs(entry->host + ":" + std::to_string(entry->port), again);
        require_equal("entries of a printed node", 1U, again.size());
        require_equal("host of a printed node", entry->host, again.front().host);
        require_equal("port of a printed node", entry->port, again.front().port);
        ++entry;
    }
}

void check_hosts(const std::string& text) {
    const std::optional<std::vector<Endpoint>> expected = fuzz::expected_hosts(text, most_entries(), mark);
    if (!expected) {
        return;
    }
    std::list<net::Host> hosts = {{"sentinel", 6}};
    net::parse_hosts(text, hosts);
    require_equal("number of host list entries", expected->size() + 1, hosts.size());
    require(hosts.front().host == "sentinel" && hosts.front().port == 6,
            "a host list is appended to what was there");
    auto entry = std::next(hosts.begin());
    for (const Endpoint& endpoint : *expected) {
        require_equal("host", endpoint.host, entry->host);
        require_equal("port", endpoint.port, entry->port);
        ++entry;
    }
    if (!expected->empty()) { // one is enough: a range has thousands
        std::list<net::Host> again;
        net::parse_hosts(hosts.back().host + ":" + std::to_string(hosts.back().port), again);
        require_equal("entries of a printed host", 1U, again.size());
        require_equal("host of a printed host", hosts.back().host, again.front().host);
        require_equal("port of a printed host", hosts.back().port, again.front().port);
    }
}

struct Address {
    uint32_t ip;
    unsigned port;
};

std::optional<Address> expected_addr(std::string text) {
    constexpr uint32_t LOOPBACK = 0x7F000001;
    while (!text.empty() && fuzz::is_space(text.front())) {
        text.erase(text.begin());
    }
    if (text.empty()) {
        reach.mark("addr: white space");
        return Address{LOOPBACK, 0};
    }
    const std::size_t colon = text.rfind(':');
    if (colon == std::string::npos) {
        if (const std::optional<uint32_t> ip = dotted(text)) {
            reach.mark("addr: dotted address");
            return Address{*ip, 0};
        }
    }
    const std::string host = colon == std::string::npos ? std::string() : text.substr(0, colon);
    const std::string port_text = colon == std::string::npos ? text : text.substr(colon + 1);
    const std::optional<unsigned> port = port_text.empty() ? std::optional(0U) : fuzz::strict_port(port_text);
    const std::optional<uint32_t> ip = host.empty() ? std::optional(LOOPBACK) : dotted(host);
    if (!port || !ip) {
        reach.mark("addr: refused");
        return std::nullopt;
    }
    reach.mark(host.empty() ? "addr: port" : "addr: both");
    return Address{*ip, *port};
}

void require_addr(const std::optional<Address>& expected, bool accepted, const sockaddr_in& address) {
    require_equal("endpoint accepted", expected.has_value(), accepted);
    if (accepted) {
        require_equal("family of an endpoint", AF_INET, address.sin_family);
        require_equal("port of an endpoint", expected->port, ntohs(address.sin_port));
        require_equal("address of an endpoint", expected->ip, ntohl(address.sin_addr.s_addr));
    }
}

void check_addr(const std::string& text) {
    // A block of exactly this size, so that a read behind the end is seen.
    const auto exact = std::make_unique<char[]>(text.size());
    std::copy(text.begin(), text.end(), exact.get());
    sockaddr_in address{};
    const bool accepted = net::parse_addr(exact.get(), exact.get() + text.size(), address);
    require_addr(expected_addr(text), accepted, address);

    const std::string c_text = fuzz::as_c_text(text);
    sockaddr_in from_c_text{};
    require_addr(expected_addr(c_text), net::parse_addr(text.c_str(), nullptr, from_c_text), from_c_text);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    check_addrs(text);
    check_hosts(text);
    check_addr(text);
    return 0;
}
