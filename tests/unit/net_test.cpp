#include "corvalin_lib/net.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <ostream>
#include <string>
#include <vector>

#include "tests/support/refused_system_call.h"

namespace {

using namespace corvalin;
using ::testing::IsEmpty;
using ::testing::SizeIs;

/// What a record says, for comparison.
struct Endpoint {
    std::string host;
    int port;

    friend bool operator==(const Endpoint&, const Endpoint&) = default;
    friend std::ostream& operator<<(std::ostream& stream, const Endpoint& endpoint) {
        return stream << "{'" << endpoint.host << "', " << endpoint.port << "}";
    }
};
using Endpoints = std::vector<Endpoint>;

template <class Record>
Endpoints endpoints(const std::list<Record>& records) {
    Endpoints result;
    for (const Record& record : records) {
        result.push_back({record.host, record.port});
    }
    return result;
}

Endpoints parsed_addrs(const char* text) {
    std::list<net::HostAddr> addrs;
    net::parse_addrs(text, addrs);
    return endpoints(addrs);
}

Endpoints parsed_hosts(const char* text) {
    std::list<net::Host> hosts;
    net::parse_hosts(text, hosts);
    return endpoints(hosts);
}

std::string dotted(const sockaddr_in& addr) {
    std::array<char, INET_ADDRSTRLEN> text{};
    return inet_ntop(AF_INET, &addr.sin_addr, text.data(), text.size());
}

constexpr unsigned int ip_be(unsigned char a, unsigned char b, unsigned char c, unsigned char d) {
    return static_cast<unsigned int>(a) | static_cast<unsigned int>(b) << 8 |
           static_cast<unsigned int>(c) << 16 | static_cast<unsigned int>(d) << 24;
}

TEST(NetTest, make_host_addr_fills_every_byte_of_the_socket_address) {
    const net::HostAddr record = net::make_host_addr("10.1.2.3", 0x1389);
    EXPECT_EQ(record.host, "10.1.2.3");
    EXPECT_EQ(record.port, 0x1389);

    std::array<unsigned char, sizeof(sockaddr_in)> bytes{};
    std::memcpy(bytes.data(), &record.addr, bytes.size());
    const std::array<unsigned char, sizeof(sockaddr_in)> expected = {AF_INET, 0, 0x13, 0x89, 10, 1, 2, 3};
    EXPECT_EQ(bytes, expected);
}

TEST(NetTest, make_host_addr_keeps_the_address_zero_of_a_host_that_is_no_dotted_address) {
    for (const char* host : {"node-a", "", "10.0.0", "10.0.0.256", "10.0.0.1 ", "::1"}) {
        const net::HostAddr record = net::make_host_addr(host, 5000);
        EXPECT_EQ(record.host, host);
        EXPECT_EQ(record.addr.sin_family, AF_INET) << host;
        EXPECT_EQ(ntohs(record.addr.sin_port), 5000) << host;
        EXPECT_EQ(record.addr.sin_addr.s_addr, 0u) << host;
    }
}

struct ListCase {
    const char* description;
    const char* text;
    Endpoints expected;
};

const ListCase ADDRS_CASES[] = {
    {"two items, the blank is trimmed from the host",
     "10.0.0.1:5000, 10.0.0.2:5001",
     {{"10.0.0.1", 5000}, {"10.0.0.2", 5001}}},
    {"white space on both sides of the host", "\t10.0.0.1 \r\n:5000", {{"10.0.0.1", 5000}}},
    {"a blank behind the port fails the conversion", "10.0.0.1:5000 ,10.0.0.2:5001", {{"10.0.0.2", 5001}}},
    {"a blank ahead of the port is skipped by the conversion", "10.0.0.1: 5000", {{"10.0.0.1", 5000}}},
    {"no port", "10.0.0.1", {{"10.0.0.1", 0}}},
    {"an empty port", "10.0.0.1:", {{"10.0.0.1", 0}}},
    {"two colons lose what is behind the first", "a:5000:6000", {{"a", 0}}},
    {"no host", ":5000", {{"", 5000}}},
    {"a colon only", ":", {{"", 0}}},
    {"a blank item is an item", "10.0.0.1:5000, ", {{"10.0.0.1", 5000}, {"", 0}}},
    {"a name", "node-a:5000", {{"node-a", 5000}}},
    {"an empty text", "", {}},
    {"empty items", ",,,", {}},
    {"empty items between others", ",a:1,,b:2,", {{"a", 1}, {"b", 2}}},
    {"a port that is no number", "10.0.0.1:x", {}},
    {"a port with a letter behind", "10.0.0.1:80x", {}},
    {"a bad item does not touch the others", "a:1,b:x,c:3", {{"a", 1}, {"c", 3}}},
    {"a range", "10.0.0.1:5000-5002", {}},
    {"a range of one port", "10.0.0.1:5000-5000", {}},
    {"a range up to port 1", "10.0.0.1:0-1", {}},
    {"a range down to port 0", "10.0.0.1:5000-0", {{"10.0.0.1", 0}}},
    {"a range down to port 0 with more behind", "10.0.0.1:5000-0-7", {{"10.0.0.1", 0}}},
    {"a range whose upper port is no number", "10.0.0.1:5000-x", {}},
    {"a range whose upper port is empty", "10.0.0.1:5000--", {}},
    {"a range whose upper port is too big", "10.0.0.1:5000-65536", {}},
    {"a range whose lower port is no number", "10.0.0.1:x-0", {}},
    {"a range without an upper port", "10.0.0.1:5000-", {{"10.0.0.1", 5000}}},
    {"a range without a lower port", "10.0.0.1:-5000", {}},
    {"port 0", "10.0.0.1:0", {{"10.0.0.1", 0}}},
    {"below the last port", "10.0.0.1:65534", {{"10.0.0.1", 65534}}},
    {"the last port", "10.0.0.1:65535", {{"10.0.0.1", 65535}}},
    {"above the last port", "10.0.0.1:65536", {}},
    {"a negative port is a range without a lower port", "10.0.0.1:-1", {}},
};

TEST(NetTest, parse_addrs_reads_a_list_of_endpoints) {
    for (const ListCase& row : ADDRS_CASES) {
        EXPECT_EQ(parsed_addrs(row.text), row.expected) << row.description;
    }
}

TEST(NetTest, parse_addrs_ends_behind_port_65535) {
    EXPECT_EQ(parsed_addrs("a:65535,b:65535"), (Endpoints{{"a", 65535}, {"b", 65535}}));
    EXPECT_THAT(parsed_addrs("a:0-65535"), IsEmpty());
}

TEST(NetTest, parse_addrs_drops_an_item_with_an_empty_port_between_two_colons) {
    EXPECT_EQ(parsed_addrs("a:1,host::,b:2"), (Endpoints{{"a", 1}, {"b", 2}}));
    EXPECT_THAT(parsed_addrs("::"), IsEmpty());
}

TEST(NetTest, parse_addrs_fills_the_socket_address) {
    std::list<net::HostAddr> addrs;
    net::parse_addrs("10.1.2.3:5001,node-a:5000", addrs);
    ASSERT_THAT(addrs, SizeIs(2));
    EXPECT_EQ(addrs.front().addr.sin_family, AF_INET);
    EXPECT_EQ(dotted(addrs.front().addr), "10.1.2.3");
    EXPECT_EQ(ntohs(addrs.front().addr.sin_port), 5001);
    EXPECT_EQ(addrs.back().addr.sin_family, AF_INET);
    EXPECT_EQ(dotted(addrs.back().addr), "0.0.0.0");
    EXPECT_EQ(ntohs(addrs.back().addr.sin_port), 5000);
}

TEST(NetTest, parse_addrs_appends_and_leaves_the_list_unchanged_where_there_is_no_item) {
    std::list<net::HostAddr> addrs = {net::make_host_addr("127.0.0.1", 1)};
    net::parse_addrs("10.0.0.1:2", addrs);
    const Endpoints expected = {{"127.0.0.1", 1}, {"10.0.0.1", 2}};
    EXPECT_EQ(endpoints(addrs), expected);
    net::parse_addrs(",,,", addrs);
    EXPECT_EQ(endpoints(addrs), expected);
}

const ListCase HOSTS_CASES[] = {
    {"a range", "collector:9000-9002", {{"collector", 9000}, {"collector", 9001}, {"collector", 9002}}},
    {"a range of one port", "collector:9000-9000", {{"collector", 9000}}},
    {"a range that falls", "collector:9002-9000", {}},
    {"a range that falls by one", "collector:9001-9000", {}},
    {"a range in a range is ignored", "collector:9000-9001-9005", {{"collector", 9000}, {"collector", 9001}}},
    {"a range without an upper port", "collector:9000-", {{"collector", 9000}}},
    {"a range with an empty upper port", "collector:9000--", {}},
    {"a range without a lower port starts at 0",
     "collector:-2",
     {{"collector", 0}, {"collector", 1}, {"collector", 2}}},
    {"no port", "collector", {}},
    {"an empty port", "collector:", {}},
    {"two colons", "collector:9000:9001", {}},
    {"two items", "a:1,b:2", {{"a", 1}, {"b", 2}}},
    {"a bad item does not touch the others", "a:1,b,c:3", {{"a", 1}, {"c", 3}}},
    {"empty items", ",,,", {}},
    {"an empty text", "", {}},
    {"white space round the host", "\t a \r\n:1", {{"a", 1}}},
    {"white space round the port", "a: 1 ,b:\t2\n", {{"a", 1}, {"b", 2}}},
    {"white space round the ports of a range", "a: 1 - 2 ", {{"a", 1}, {"a", 2}}},
    {"no host", ":5", {{"", 5}}},
    {"a port that is no number", "host:abc", {{"host", 0}}},
    {"digits with others behind", "host:80x", {{"host", 80}}},
    {"a blank ends the digits", "host:80 81", {{"host", 80}}},
    {"a hexadecimal number ends behind its zero", "host:0x50", {{"host", 0}}},
    {"leading zeros are no octal number", "host:0080", {{"host", 80}}},
    {"below the last port", "host:65534", {{"host", 65534}}},
    {"the last port", "host:65535", {{"host", 65535}}},
    {"a number that does not fit", "host:65536", {{"host", 65535}}},
    {"a number that fits into no integer", "host:99999999999999999999", {{"host", 65535}}},
    {"an upper port that is no number", "host:0-x", {{"host", 0}}},
};

TEST(NetTest, parse_hosts_reads_a_list_of_endpoints_with_ranges) {
    for (const ListCase& row : HOSTS_CASES) {
        EXPECT_EQ(parsed_hosts(row.text), row.expected) << row.description;
    }
}

TEST(NetTest, parse_hosts_ends_behind_port_65535) {
    EXPECT_EQ(parsed_hosts("a:65534-65535,b:1"), (Endpoints{{"a", 65534}, {"a", 65535}, {"b", 1}}));
    EXPECT_EQ(parsed_hosts("a:65534-70000"), (Endpoints{{"a", 65534}, {"a", 65535}}));

    const Endpoints all = parsed_hosts("a:0-65535");
    ASSERT_THAT(all, SizeIs(65536));
    for (int port = 0; port <= 65535; ++port) {
        ASSERT_EQ(all[static_cast<std::size_t>(port)].port, port);
    }
}

TEST(NetTest, parse_hosts_drops_an_item_with_an_empty_port_between_two_colons) {
    EXPECT_EQ(parsed_hosts("a:1,host::,b:2"), (Endpoints{{"a", 1}, {"b", 2}}));
    EXPECT_THAT(parsed_hosts("::"), IsEmpty());
}

TEST(NetTest, parse_hosts_appends) {
    std::list<net::Host> hosts = {{"first", 1}};
    net::parse_hosts("second:2", hosts);
    EXPECT_EQ(endpoints(hosts), (Endpoints{{"first", 1}, {"second", 2}}));
}

struct AddrCase {
    const char* description;
    const char* text;
    const char* ip; // null: refused
    uint16_t port;
};

constexpr AddrCase ADDR_CASES[] = {
    {"an empty text", "", "127.0.0.1", 0},
    {"white space", "   ", "127.0.0.1", 0},
    {"all white space, also what the trims keep", " \t\n\v\f\r", "127.0.0.1", 0},
    {"a port", "5000", "127.0.0.1", 5000},
    {"a colon and a port", ":5000", "127.0.0.1", 5000},
    {"a colon", ":", "127.0.0.1", 0},
    {"an address", "10.0.0.1", "10.0.0.1", 0},
    {"an address and a colon", "10.0.0.1:", "10.0.0.1", 0},
    {"an address and a port", "10.0.0.1:5000", "10.0.0.1", 5000},
    {"white space ahead of an address", " \f10.0.0.1:5000", "10.0.0.1", 5000},
    {"white space ahead of a colon", "  :5000", "127.0.0.1", 5000},
    {"white space ahead of the port", "10.0.0.1: 5000", "10.0.0.1", 5000},
    {"white space behind the port", "10.0.0.1:5000 ", nullptr, 0},
    {"white space behind the address", "10.0.0.1 ", nullptr, 0},
    {"white space behind the address ahead of a port", "10.0.0.1 :5000", nullptr, 0},
    {"the last port", "10.0.0.1:65535", "10.0.0.1", 65535},
    {"above the last port", "10.0.0.1:65536", nullptr, 0},
    {"far above the last port", "10.0.0.1:99999", nullptr, 0},
    {"above the last port alone", "65536", nullptr, 0},
    {"a port that is no number", "10.0.0.1:x", nullptr, 0},
    {"a name", "node-a", nullptr, 0},
    {"a name and a port", "node-a:5000", nullptr, 0},
    {"a name and a colon", "node-a:", nullptr, 0},
    {"the last colon counts", "10.0.0.1:1:2", nullptr, 0},
    {"two colons", "::", nullptr, 0},
    {"an address of three numbers", "10.0.0", nullptr, 0},
    {"an address of too big numbers", "10.0.0.256:5000", nullptr, 0},
};

TEST(NetTest, parse_addr_reads_one_endpoint) {
    for (const AddrCase& row : ADDR_CASES) {
        sockaddr_in addr{};
        addr.sin_port = htons(4711);
        addr.sin_addr.s_addr = ip_be(9, 9, 9, 9);
        ASSERT_EQ(net::parse_addr(row.text, nullptr, addr), row.ip != nullptr) << row.description;
        if (row.ip != nullptr) {
            EXPECT_EQ(addr.sin_family, AF_INET) << row.description;
            EXPECT_EQ(dotted(addr), row.ip) << row.description;
            EXPECT_EQ(ntohs(addr.sin_port), row.port) << row.description;
        }
    }
}

TEST(NetTest, parse_addr_stops_at_the_end_it_is_given) {
    const std::string text = "10.0.0.1:50009";
    sockaddr_in addr{};
    ASSERT_TRUE(net::parse_addr(text.data(), text.data() + text.size() - 1, addr));
    EXPECT_EQ(dotted(addr), "10.0.0.1");
    EXPECT_EQ(ntohs(addr.sin_port), 5000);

    ASSERT_TRUE(net::parse_addr(text.data(), text.data() + 8, addr));
    EXPECT_EQ(dotted(addr), "10.0.0.1");
    EXPECT_EQ(ntohs(addr.sin_port), 0);

    const std::string blanks = "   ";
    ASSERT_TRUE(net::parse_addr(blanks.data(), blanks.data() + 2, addr));
    EXPECT_EQ(dotted(addr), "127.0.0.1");

    ASSERT_TRUE(net::parse_addr(text.data(), text.data(), addr));
    EXPECT_EQ(dotted(addr), "127.0.0.1");
    EXPECT_EQ(ntohs(addr.sin_port), 0);
}

TEST(NetTest, parse_addr_reads_no_byte_behind_the_end_it_is_given) {
    // A buffer of its own size and without a terminating zero, so that the address sanitizer sees a read
    // behind it.
    for (const std::string& text : {std::string("10.0.0.1:5000"), std::string("5000"), std::string("   ")}) {
        const std::vector<char> bytes(text.begin(), text.end());
        sockaddr_in addr{};
        EXPECT_TRUE(net::parse_addr(bytes.data(), bytes.data() + bytes.size(), addr)) << text;
    }
}

TEST(NetTest, parse_addr_refuses_no_text) {
    sockaddr_in addr{};
    EXPECT_FALSE(net::parse_addr(nullptr, nullptr, addr));
}

/// The number that the next descriptor of this process would get.
int lowest_free_fd() {
    const int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    close(fd);
    return fd;
}

TEST(NetTest, get_host_ip_tells_the_local_address_that_faces_the_target) {
    EXPECT_EQ(net::get_host_ip(ip_be(127, 0, 0, 1), "x"), "127.0.0.1");
    // The loopback network routes every address of its own from 127.0.0.1: the answer is the source, not the
    // target.
    EXPECT_EQ(net::get_host_ip(ip_be(127, 9, 9, 9), "x"), "127.0.0.1");
}

TEST(NetTest, get_host_ip_keeps_no_descriptor) {
    const int before = lowest_free_fd();
    ASSERT_EQ(net::get_host_ip(ip_be(127, 0, 0, 1), "x"), "127.0.0.1");
    EXPECT_EQ(lowest_free_fd(), before);

    std::string answer;
    test::with_refused_system_call(SYS_connect, ENETUNREACH,
                                   [&] { answer = net::get_host_ip(ip_be(127, 0, 0, 1), "x"); });
    ASSERT_EQ(answer, "x");
    EXPECT_EQ(lowest_free_fd(), before);
}

TEST(NetTest, get_host_ip_of_zero_and_of_broadcast_gives_the_fallback_and_opens_no_socket) {
    // On this thread a call of socket fails, and so leaves its mark in errno: the loopback target shows that
    // it does.
    test::with_refused_system_call(SYS_socket, EXFULL, [] {
        errno = 0;
        EXPECT_EQ(net::get_host_ip(0, "x"), "x");
        EXPECT_EQ(errno, 0);

        EXPECT_EQ(net::get_host_ip(0xFFFFFFFF, "x"), "x");
        EXPECT_EQ(errno, 0);

        EXPECT_EQ(net::get_host_ip(ip_be(127, 0, 0, 1), "x"), "x");
        EXPECT_EQ(errno, EXFULL);
    });
}

TEST(NetTest, get_host_ip_gives_the_fallback_where_a_system_call_fails) {
    for (const int number : {SYS_socket, SYS_connect, SYS_getsockname}) {
        std::string answer;
        std::string empty_answer = "untouched";
        test::with_refused_system_call(number, ENETUNREACH, [&] {
            answer = net::get_host_ip(ip_be(127, 0, 0, 1), "10.9.8.7");
            empty_answer = net::get_host_ip(ip_be(127, 0, 0, 1), "");
        });
        EXPECT_EQ(answer, "10.9.8.7") << "system call " << number;
        EXPECT_EQ(empty_answer, "") << "system call " << number;
    }
}

TEST(NetTest, get_host_name_tells_the_name_of_the_machine) {
    std::array<char, 65> name{};
    ASSERT_EQ(gethostname(name.data(), name.size()), 0);
    EXPECT_EQ(net::get_host_name(), name.data());
}

TEST(NetTest, get_host_name_is_empty_where_the_system_does_not_tell_it) {
    std::string name = "untouched";
    test::with_refused_system_call(SYS_uname, EFAULT, [&] { name = net::get_host_name(); });
    EXPECT_EQ(name, "");
}

} // namespace
