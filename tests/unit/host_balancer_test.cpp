#include "router/host_balancer.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <initializer_list>
#include <list>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/captured_log.h"
#include "tests/support/system_error_matcher.h"

namespace {

using namespace corvalin;
using router::HostBalancer;
using test::CapturedLog;
using test::throws_system_error;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr const char* NONE = "none";

/// Nodes "a:1", "b:2" and so on: the names tell the place in the list.
std::list<net::HostAddr> nodes(std::initializer_list<const char*> names) {
    std::list<net::HostAddr> list;
    uint16_t port = 0;
    for (const char* const name : names) {
        list.push_back(net::make_host_addr(name, ++port));
    }
    return list;
}

std::string name_of(const std::optional<net::HostAddr>& host) {
    return host ? host->host : NONE;
}

class HostBalancerTest : public ::testing::Test {
protected:
    std::string pick() { return name_of(m_balancer.pick()); }
    std::vector<std::string> picks(std::size_t number) {
        std::vector<std::string> names(number);
        std::generate(names.begin(), names.end(), [this] { return pick(); });
        return names;
    }

    HostBalancer m_balancer;
};

// ---- Picking

TEST_F(HostBalancerTest, a_new_balancer_has_an_empty_list_and_its_cursor_at_0) {
    ASSERT_NE(m_balancer.m_hosts, nullptr);
    EXPECT_THAT(*m_balancer.m_hosts, IsEmpty());
    EXPECT_EQ(m_balancer.m_cursor, 0u);
    EXPECT_EQ(pick(), NONE);
    EXPECT_EQ(m_balancer.m_cursor, 0u);
}

TEST_F(HostBalancerTest, picks_go_round_the_list_in_its_order) {
    m_balancer.update(nodes({"a", "b", "c"}));

    EXPECT_THAT(picks(7), ElementsAre("a", "b", "c", "a", "b", "c", "a"));
}

TEST_F(HostBalancerTest, the_cursor_wraps_at_the_next_pick_and_not_at_the_increment) {
    m_balancer.update(nodes({"a", "b"}));
    picks(2);
    EXPECT_EQ(m_balancer.m_cursor, 2u);
    EXPECT_EQ(pick(), "a");
    EXPECT_EQ(m_balancer.m_cursor, 1u);
}

TEST_F(HostBalancerTest, a_pick_copies_the_name_the_port_and_the_socket_address) {
    m_balancer.update({net::make_host_addr("127.1.2.3", 40001)});

    const std::optional<net::HostAddr> host = m_balancer.pick();
    m_balancer.update({}); // frees the list that was picked from

    ASSERT_TRUE(host);
    EXPECT_EQ(host->host, "127.1.2.3");
    EXPECT_EQ(host->port, 40001u);
    EXPECT_EQ(host->addr.sin_family, AF_INET);
    EXPECT_EQ(ntohs(host->addr.sin_port), 40001u);
    EXPECT_EQ(ntohl(host->addr.sin_addr.s_addr), 0x7f010203u);
}

TEST_F(HostBalancerTest, a_node_that_is_listed_twice_gets_twice_the_share) {
    m_balancer.update(nodes({"a", "a", "b"}));

    EXPECT_THAT(picks(6), ElementsAre("a", "a", "b", "a", "a", "b"));
}

TEST_F(HostBalancerTest, a_node_whose_address_could_not_be_read_is_used_like_any_other) {
    m_balancer.update({net::make_host_addr("node.invalid", 5000), net::make_host_addr("127.0.0.1", 5001)});

    const std::optional<net::HostAddr> host = m_balancer.pick();

    ASSERT_TRUE(host);
    EXPECT_EQ(host->host, "node.invalid");
    EXPECT_EQ(host->port, 5000u);
    EXPECT_EQ(host->addr.sin_addr.s_addr, 0u);
    EXPECT_THAT(picks(2), ElementsAre("127.0.0.1", "node.invalid"));
}

// ---- Replacing the list

TEST_F(HostBalancerTest, an_update_leaves_the_cursor_and_the_next_pick_goes_on_from_it) {
    struct Case {
        const char* description;
        uint64_t cursor;
        std::list<net::HostAddr> list;
        std::vector<std::string> expected_picks;
        uint64_t expected_cursor; // behind them
    };
    const std::vector<Case> cases = {
        {"grown, cursor at the old size", 2, nodes({"a", "b", "c"}), {"c", "a"}, 1},
        {"grown, cursor within the old list", 1, nodes({"a", "b", "c"}), {"b", "c", "a"}, 1},
        {"shrunk, cursor below the new size", 1, nodes({"a", "b"}), {"b", "a"}, 1},
        {"shrunk, cursor at the new size", 2, nodes({"a", "b"}), {"a", "b"}, 2},
        {"shrunk, cursor above the new size", 3, nodes({"a", "b"}), {"a", "b"}, 2},
        {"shrunk to one node", 3, nodes({"a"}), {"a", "a"}, 1},
        {"of the same length", 2, nodes({"a", "b", "c"}), {"c", "a"}, 1},
        {"emptied", 2, {}, {NONE, NONE}, 2},
        {"cursor at the greatest number", UINT64_MAX, nodes({"a", "b"}), {"a", "b"}, 2},
    };
    for (const Case& row : cases) {
        SCOPED_TRACE(row.description);
        HostBalancer balancer;
        balancer.m_cursor = row.cursor;

        balancer.update(row.list);
        EXPECT_EQ(balancer.m_cursor, row.cursor);

        std::vector<std::string> names;
        for (std::size_t count = 0; count < row.expected_picks.size(); ++count) {
            names.push_back(name_of(balancer.pick()));
        }
        EXPECT_EQ(names, row.expected_picks);
        EXPECT_EQ(balancer.m_cursor, row.expected_cursor);
    }
}

TEST_F(HostBalancerTest, an_empty_list_stops_the_picks_until_a_new_list_goes_on_where_they_stopped) {
    m_balancer.update(nodes({"a", "b", "c"}));
    picks(1);

    m_balancer.update({});
    EXPECT_THAT(picks(3), ElementsAre(NONE, NONE, NONE));

    m_balancer.update(nodes({"a", "b", "c"}));
    EXPECT_THAT(picks(2), ElementsAre("b", "c"));
}

TEST_F(HostBalancerTest, the_same_list_again_changes_nothing_but_for_the_log_line) {
    const CapturedLog log(log::Level::DEBUG);
    m_balancer.update(nodes({"a", "b", "c"}));
    picks(2);

    m_balancer.update(nodes({"a", "b", "c"}));

    EXPECT_EQ(m_balancer.m_cursor, 2u);
    EXPECT_THAT(picks(3), ElementsAre("c", "a", "b"));
    EXPECT_EQ(log.count(log::Level::DEBUG, "HOST_BALANCER: received nodes: a:1 b:2 c:3"), 2u);
}

TEST_F(HostBalancerTest, the_list_takes_no_more_room_than_it_needs) {
    for (const std::size_t size : {0u, 1u, 3u, 100u}) {
        m_balancer.update(std::list<net::HostAddr>(size));
        EXPECT_EQ(m_balancer.m_hosts->size(), size);
        EXPECT_EQ(m_balancer.m_hosts->capacity(), size);
    }
}

// ---- The log line

TEST_F(HostBalancerTest, an_update_lists_its_nodes_at_debug_and_trace_only) {
    struct Case {
        log::Level threshold;
        bool is_logged;
    };
    const std::array<Case, 5> cases = {{
        {log::Level::ERROR, false},
        {log::Level::WARNING, false},
        {log::Level::INFO, false},
        {log::Level::DEBUG, true},
        {log::Level::TRACE, true},
    }};
    for (const Case& row : cases) {
        SCOPED_TRACE(log::level_to_string(row.threshold));
        const CapturedLog log(row.threshold);

        m_balancer.update({net::make_host_addr("10.0.0.1", 0), net::make_host_addr("node", 65535)});

        if (!row.is_logged) {
            EXPECT_THAT(log.lines(), IsEmpty());
            continue;
        }
        EXPECT_THAT(log.records(), ElementsAre("DEBUG host_balancer: HOST_BALANCER: received nodes: "
                                               "10.0.0.1:0 node:65535"));
    }
}

TEST_F(HostBalancerTest, the_line_of_an_empty_list_ends_at_the_colon) {
    const CapturedLog log(log::Level::DEBUG);
    m_balancer.update({});
    EXPECT_THAT(log.texts(log::Level::DEBUG), ElementsAre("HOST_BALANCER: received nodes:"));
}

// ---- The lock

TEST_F(HostBalancerTest, a_pick_that_goes_on_holds_up_the_swap_but_not_the_copying_and_logging) {
    const CapturedLog log(log::Level::DEBUG);
    m_balancer.update(nodes({"a"}));
    const std::vector<net::HostAddr>* const old_list = m_balancer.m_hosts.get();

    std::shared_lock<std::shared_mutex> reading(m_balancer.m_lock);
    std::thread writer([this] { m_balancer.update(nodes({"b"})); });
    const bool logged = log.wait_for("HOST_BALANCER: received nodes: b:1");
    const bool is_old_list = m_balancer.m_hosts.get() == old_list && old_list->front().host == "a";
    reading.unlock();
    writer.join();

    EXPECT_TRUE(logged);
    EXPECT_TRUE(is_old_list);
    EXPECT_EQ(pick(), "b");
}

TEST_F(HostBalancerTest, an_update_by_the_thread_that_holds_the_lock_throws_and_changes_nothing) {
    m_balancer.update(nodes({"a", "b"}));
    pick();
    {
        const std::unique_lock<std::shared_mutex> held(m_balancer.m_lock);
        EXPECT_THAT([&] { m_balancer.update(nodes({"c"})); }, throws_system_error(EDEADLK));
    }
    EXPECT_EQ(m_balancer.m_cursor, 1u);
    EXPECT_THAT(picks(2), ElementsAre("b", "a"));
}

TEST_F(HostBalancerTest, a_pick_by_the_thread_that_holds_the_lock_throws_and_moves_nothing) {
    m_balancer.update(nodes({"a", "b"}));
    pick();
    {
        const std::unique_lock<std::shared_mutex> held(m_balancer.m_lock);
        EXPECT_THAT([&] { m_balancer.pick(); }, throws_system_error(EDEADLK));
    }
    EXPECT_EQ(m_balancer.m_cursor, 1u);
    EXPECT_THAT(picks(2), ElementsAre("b", "a"));
}

constexpr uint32_t LEAST_LISTS = 5000;
constexpr uint32_t LEAST_CHANGES_SEEN = 20;

/// A list whose nodes all tell its number and their index, in the name, the port and the address.
std::list<net::HostAddr> numbered_list(uint32_t number) {
    std::list<net::HostAddr> list;
    for (uint32_t index = 0; index < number % 7; ++index) { // the empty list too
        net::HostAddr host;
        // Too long for the room within a string, so that a freed list would be seen.
        host.host = std::to_string(number) + " " + std::to_string(index) + " of a list of nodes";
        host.port = static_cast<uint16_t>(number * 8 + index);
        host.addr.sin_addr.s_addr = number * 8 + index;
        list.push_back(host);
    }
    return list;
}

// Since a node tells the number of its list, and thereby the list's length, each pick has to be exactly the
// one that the round robin gives for that list.
TEST_F(HostBalancerTest, each_pick_beside_updates_lies_in_one_list_and_follows_the_rotation) {
    std::atomic<bool> has_seen_enough{false};
    std::atomic<uint32_t> final_list{0};
    std::thread writer([&] {
        uint32_t number = 0;
        while (++number <= LEAST_LISTS || number % 7 == 0 ||
               !has_seen_enough.load(std::memory_order_relaxed)) {
            m_balancer.update(numbered_list(number));
        }
        m_balancer.update(numbered_list(number)); // not empty
        final_list.store(number, std::memory_order_release);
    });

    uint64_t cursor = 0;
    uint32_t last_number = 0;
    uint32_t changes_seen = 0;
    std::string fault;
    uint32_t is_final = 0;
    while (fault.empty() && is_final == 0) {
        is_final = final_list.load(std::memory_order_acquire); // and one round more
        const std::optional<net::HostAddr> host = m_balancer.pick();
        if (!host) {
            continue;
        }
        std::istringstream name(host->host);
        uint32_t number = 0;
        uint32_t index = 0;
        std::string rest;
        name >> number >> index;
        std::getline(name, rest);
        const uint64_t expected_index = cursor < number % 7 ? cursor : 0;
        cursor = expected_index + 1;
        if (rest != " of a list of nodes" || index != expected_index ||
            host->port != static_cast<uint16_t>(number * 8 + index) ||
            host->addr.sin_addr.s_addr != number * 8 + index || number < last_number) {
            fault = host->host + ", expected index " + std::to_string(expected_index) +
                    ", list before: " + std::to_string(last_number);
        }
        changes_seen += number != last_number ? 1 : 0;
        has_seen_enough.store(changes_seen >= LEAST_CHANGES_SEEN || !fault.empty(),
                              std::memory_order_relaxed);
        last_number = number;
    }
    writer.join();

    EXPECT_EQ(fault, "");
    EXPECT_EQ(last_number, final_list.load());
    EXPECT_EQ(m_balancer.m_cursor, cursor);
}

} // namespace
