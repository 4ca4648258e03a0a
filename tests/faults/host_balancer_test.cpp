#include "router/host_balancer.h"

#include <algorithm>
#include <cerrno>
#include <initializer_list>
#include <list>
#include <mutex>
#include <new>
#include <shared_mutex>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/faults/faults.h"
#include "tests/support/captured_log.h"
#include "tests/support/heap/counted_heap.h"
#include "tests/support/system_error_matcher.h"

namespace {

using namespace corvalin;
using router::HostBalancer;
using test::CapturedLog;
using test::LockScript;
using test::RefusedAllocation;
using test::throws_system_error;
using ::testing::ElementsAre;

/// Names that a string cannot hold within itself, so that the copy of each allocates.
std::list<net::HostAddr> nodes(std::initializer_list<const char*> names) {
    std::list<net::HostAddr> list;
    for (const char* const name : names) {
        list.push_back(net::make_host_addr(std::string(name) + " of the nodes of a list", 9));
    }
    return list;
}

std::vector<std::string> names_in(const HostBalancer& balancer) {
    std::vector<std::string> names;
    for (const net::HostAddr& host : *balancer.m_hosts) {
        names.push_back(host.host.substr(0, 1));
    }
    return names;
}

class HostBalancerFaultTest : public ::testing::Test {
protected:
    HostBalancerFaultTest() {
        m_balancer.update(nodes({"a", "b", "c"}));
        m_balancer.pick();
    }

    HostBalancer m_balancer;
};

TEST_F(HostBalancerFaultTest, an_update_that_the_heap_refuses_throws_and_leaves_the_balancer_as_it_was) {
    const std::list<net::HostAddr> list = nodes({"x", "y"});
    uint64_t granted = 0;
    for (bool is_done = false; !is_done; ++granted) {
        SCOPED_TRACE(granted);
        bool is_refused = false;
        {
            const RefusedAllocation refused(granted);
            try {
                m_balancer.update(list);
            } catch (const std::bad_alloc&) {
                is_refused = true;
            }
            ASSERT_EQ(RefusedAllocation::happened(), is_refused);
        }
        is_done = !is_refused;
        if (is_refused) {
            EXPECT_THAT(names_in(m_balancer), ElementsAre("a", "b", "c"));
            EXPECT_EQ(m_balancer.m_cursor, 1u);
            ASSERT_TRUE(m_balancer.m_lock.try_lock());
            m_balancer.m_lock.unlock();
        }
    }
    EXPECT_GE(granted, 4u); // the vector, its storage and two names were each refused once
    EXPECT_THAT(names_in(m_balancer), ElementsAre("x", "y"));
}

TEST_F(HostBalancerFaultTest, a_pick_asks_for_the_read_lock_again_for_as_long_as_there_are_too_many_readers) {
    const LockScript script({EAGAIN, EAGAIN, EAGAIN, 0});
    const std::optional<net::HostAddr> host = m_balancer.pick();
    ASSERT_TRUE(host);
    EXPECT_EQ(host->host.substr(0, 1), "b");
    EXPECT_EQ(script.text(), "read 11, read 11, read 11, read 0, unlock 0");
}

TEST_F(HostBalancerFaultTest, a_pick_gives_a_deadlock_back_as_a_system_error) {
    const LockScript script({EAGAIN, EDEADLK});
    EXPECT_THAT([&] { m_balancer.pick(); }, throws_system_error(EDEADLK));
    EXPECT_EQ(m_balancer.m_cursor, 1u);
    EXPECT_EQ(script.text(), "read 11, read 35"); // what was not taken is not released
}

TEST_F(HostBalancerFaultTest, an_update_gives_a_deadlock_back_as_a_system_error_and_changes_nothing) {
    const LockScript script({EDEADLK});
    EXPECT_THAT([&] { m_balancer.update(nodes({"x"})); }, throws_system_error(EDEADLK));
    EXPECT_THAT(names_in(m_balancer), ElementsAre("a", "b", "c"));
    EXPECT_EQ(m_balancer.m_cursor, 1u);
    EXPECT_EQ(script.text(), "write 35");
}

TEST_F(HostBalancerFaultTest, an_empty_list_gives_the_read_lock_back) {
    m_balancer.update({});
    const LockScript script;
    EXPECT_FALSE(m_balancer.pick());
    EXPECT_EQ(script.text(), "read 0, unlock 0");
}

TEST_F(HostBalancerFaultTest, an_update_holds_the_write_lock_for_the_swap_only) {
    const std::list<net::HostAddr> list = nodes({"x", "y"});
    const CapturedLog log(log::Level::DEBUG);
    const LockScript script;
    m_balancer.update(list);
    // The mutex is that of the captured log: the line was written ahead of the lock.
    EXPECT_EQ(script.text(), "mutex 0, write 0, unlock 0");
}

} // namespace
