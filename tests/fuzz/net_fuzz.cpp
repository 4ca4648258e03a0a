// net_fuzz: the parsers of node lists, host lists and single endpoints, on any bytes.
//
// The whole input is the text of all three parsers. Each is compared with a second reading of the same text
// that is written here character by character, without the string functions, `strtoul`, streams and
// `inet_pton` that the parsers are made of. Beyond that: a list is only appended to, every record is complete
// to the last byte, and an entry that is printed and read again is the same entry.
//
// An endpoint list has no use for a zero byte. Where one gets in, C functions see the text up to there; the
// second reading says so in one place (`as_c_text`), to keep the oracle exact on such inputs too.
#include "corvalin_lib/net.h"
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

constexpr unsigned LAST_PORT = 65535;

// An item of 9 characters names 65536 ports, and a line of them more than the machine has memory for. All ports
// at once are for the corpus; a search would spend its time on building lists.
std::size_t most_entries() {
    return fuzz::is_replay() || planted("range") ? 70'000 : 2'000;
}

struct Endpoint {
    std::string host;
    unsigned port;
};

bool is_space(char character) { // as the C library has it, with vertical tab and form feed
    return character == ' ' || (character >= '\t' && character <= '\r');
}

bool is_trimmed(char character) { // as the trims have it, without them
    return character == ' ' || character == '\t' || character == '\n' || character == '\r';
}

bool is_digit(char character) {
    return character >= '0' && character <= '9';
}

std::string as_c_text(const std::string& text) {
    return text.substr(0, text.find('\0'));
}

std::string trimmed(std::string text) {
    while (!text.empty() && is_trimmed(text.back())) {
        text.pop_back();
    }
    while (!text.empty() && is_trimmed(text.front())) {
        text.erase(text.begin());
    }
    return text;
}

// Each piece ends at a separator; behind the last separator there is a piece only if there is text.
std::vector<std::string> pieces_of(const std::string& text, char separator) {
    std::vector<std::string> pieces;
    std::string piece;
    for (const char character : text) {
        if (character == separator) {
            pieces.push_back(piece);
            piece.clear();
        } else {
            piece += character;
        }
    }
    if (!piece.empty()) {
        pieces.push_back(piece);
    }
    return pieces;
}

std::vector<std::string> items_of(const std::string& text) {
    std::vector<std::string> items = pieces_of(text, ',');
    std::erase(items, std::string());
    return items;
}

// White space, a sign and digits at the front of a text.
struct Number {
    bool has_digits = false;
    bool is_negative = false;
    bool is_huge = false; // more than 64 bits
    uint64_t value = 0;
    std::size_t length = 0; // of what was read
};

Number number_at_front(const std::string& text) {
    Number number;
    std::size_t position = 0;
    while (position < text.size() && is_space(text[position])) {
        ++position;
    }
    if (position < text.size() && (text[position] == '+' || text[position] == '-')) {
        number.is_negative = text[position] == '-';
        ++position;
    }
    for (; position < text.size() && is_digit(text[position]); ++position) {
        const uint64_t digit = static_cast<uint64_t>(text[position] - '0');
        number.has_digits = true;
        number.is_huge = number.is_huge || number.value > (UINT64_MAX - digit) / 10;
        number.value = number.value * 10 + digit;
    }
    number.length = position;
    return number;
}

// The strict reading, of node lists and single endpoints.
std::optional<unsigned> strict_port(const std::string& bytes) {
    const std::string text = as_c_text(bytes);
    const Number number = number_at_front(text);
    const uint64_t value = number.is_negative ? 0 - number.value : number.value; // a sign wraps
    const bool is_whole = number.has_digits && number.length == text.size();
    if (!is_whole || number.is_huge || value > LAST_PORT) {
        return std::nullopt;
    }
    return static_cast<unsigned>(value);
}

// The lenient reading, of host lists. A "-" separates the ports of a range and never gets here.
unsigned lenient_port(const std::string& bytes) {
    const Number number = number_at_front(trimmed(bytes));
    if (!number.has_digits) {
        reach.mark("hosts: no number");
        return 0;
    }
    if (number.is_huge || number.value > LAST_PORT) {
        reach.mark("hosts: number that does not fit");
        return LAST_PORT;
    }
    return static_cast<unsigned>(number.value);
}

// Four numbers below 256 without leading zeros, and nothing else. The address is in machine order.
std::optional<uint32_t> dotted(const std::string& bytes) {
    std::string text = as_c_text(bytes) + ".";
    uint32_t address = 0;
    for (int octet = 0; octet < 4; ++octet) {
        const std::size_t dot = text.find('.');
        const std::string digits = text.substr(0, dot);
        const bool is_number = !digits.empty() && std::all_of(digits.begin(), digits.end(), is_digit);
        const bool has_leading_zero = digits.size() > 1 && digits[0] == '0';
        if (dot == std::string::npos || !is_number || has_leading_zero || digits.size() > 3 ||
            std::stoul(digits) > 255) {
            return std::nullopt;
        }
        address = address << 8 | static_cast<uint32_t>(std::stoul(digits));
        text.erase(0, dot + 1);
    }
    return text.empty() ? std::optional(address) : std::nullopt;
}

std::vector<Endpoint> expected_addrs(const std::string& text) {
    std::vector<Endpoint> expected;
    for (const std::string& item : items_of(text)) {
        const std::vector<std::string> pieces = pieces_of(item, ':');
        if (pieces.size() != 2) {
            expected.push_back({trimmed(pieces[0]), 0});
            reach.mark("addrs: entry without a port");
            continue;
        }
        const std::vector<std::string> range = pieces_of(pieces[1], '-');
        const std::optional<unsigned> port = range.empty() ? std::nullopt : strict_port(range[0]);
        // Ranges do not work in node lists, and what comes of one is odd: the upper bound decides alone, and
        // only 0 is none too many.
        const bool is_range_to_zero = range.size() > 1 && strict_port(range[1]) == 0U;
        if (!port || (range.size() > 1 && !is_range_to_zero)) {
            reach.mark("addrs: item dropped");
            continue;
        }
        expected.push_back({trimmed(pieces[0]), is_range_to_zero ? 0 : *port});
        reach.mark("addrs: entry with a port");
    }
    return expected;
}

// Nothing if there would be too many.
std::optional<std::vector<Endpoint>> expected_hosts(const std::string& text) {
    std::vector<Endpoint> expected;
    for (const std::string& item : items_of(text)) {
        const std::vector<std::string> pieces = pieces_of(item, ':');
        const std::vector<std::string> range =
            pieces.size() == 2 ? pieces_of(pieces[1], '-') : std::vector<std::string>();
        if (range.empty()) {
            reach.mark("hosts: item dropped");
            continue;
        }
        const unsigned first = lenient_port(range[0]);
        const unsigned last = range.size() > 1 ? lenient_port(range[1]) : first;
        if (first > last) {
            reach.mark("hosts: range that falls");
            continue;
        }
        if (last > first) {
            reach.mark("hosts: range");
        }
        if (last == LAST_PORT && first < last) {
            reach.mark("hosts: range up to the last port");
        }
        if (expected.size() + (last - first + 1) > most_entries()) {
            return std::nullopt;
        }
        const unsigned end = planted("range") && last > first ? last : last + 1;
        for (unsigned port = first; port < end; ++port) {
            expected.push_back({trimmed(pieces[0]), port});
        }
    }
    return expected;
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
    const std::vector<Endpoint> expected = expected_addrs(text);
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
    const std::optional<std::vector<Endpoint>> expected = expected_hosts(text);
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
    while (!text.empty() && is_space(text.front())) {
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
    const std::optional<unsigned> port = port_text.empty() ? std::optional(0U) : strict_port(port_text);
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

    const std::string c_text = as_c_text(text);
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
