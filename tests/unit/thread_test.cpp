#include "corvalin_lib/thread.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <thread>
#include <type_traits>
#include <utility>

#include "tests/support/refused_system_call.h"
#include "tests/support/waiting.h"

namespace {

using corvalin::current_thread_id;
using corvalin::Thread;
using corvalin::test::wait_until;

class Body : public Thread {
public:
    explicit Body(std::function<void(Body&)> body) : m_body(std::move(body)) {}
    using Thread::is_running;

    void run() override { m_body(*this); }

private:
    const std::function<void(Body&)> m_body;
};

void work_until_stopped(const Body& thread) {
    while (thread.is_running()) {
        std::this_thread::yield();
    }
}

TEST(ThreadTest, start_runs_the_body_on_a_thread_of_its_own_until_stop) {
    std::atomic<int> id{0};
    std::atomic<bool> ended{false};
    Body thread([&](const Body& self) {
        id = current_thread_id();
        work_until_stopped(self);
        ended = true;
    });
    EXPECT_FALSE(thread.is_running());

    ASSERT_EQ(thread.start(), 0);
    EXPECT_TRUE(thread.is_running());
    ASSERT_TRUE(wait_until([&] { return id != 0; }));
    EXPECT_NE(id, current_thread_id());
    EXPECT_FALSE(ended);

    EXPECT_EQ(thread.stop(), 0);
    EXPECT_TRUE(ended) << "stop has not waited for the end of the thread";
    EXPECT_FALSE(thread.is_running());
}

TEST(ThreadTest, the_body_finds_itself_running_from_its_first_instruction) {
    for (int round = 0; round < 200; ++round) {
        std::atomic<int> seen{-1};
        Body thread([&](const Body& self) { seen = self.is_running() ? 1 : 0; });
        ASSERT_EQ(thread.start(), 0);
        ASSERT_TRUE(wait_until([&] { return seen != -1; }));
        ASSERT_EQ(seen, 1);
        ASSERT_EQ(thread.stop(), 0);
    }
}

TEST(ThreadTest, stop_joins_a_thread_that_has_ended_by_itself) {
    std::atomic<bool> ended{false};
    Body thread([&](const Body&) { ended = true; });
    ASSERT_EQ(thread.start(), 0);
    ASSERT_TRUE(wait_until([&] { return ended.load(); }));
    EXPECT_TRUE(thread.is_running()) << "running is true until stop, whatever the body does";
    EXPECT_EQ(thread.stop(), 0);
}

TEST(ThreadTest, can_be_started_again_after_a_stop) {
    std::atomic<int> runs{0};
    Body thread([&](const Body& self) {
        ++runs;
        work_until_stopped(self);
    });
    for (int run = 1; run <= 3; ++run) {
        ASSERT_EQ(thread.start(), 0);
        ASSERT_TRUE(wait_until([&] { return runs == run; }));
        ASSERT_EQ(thread.stop(), 0);
    }
}

TEST(ThreadTest, stop_without_a_thread_is_an_error_and_joins_nothing) {
    Body thread([](const Body&) {});
    EXPECT_EQ(thread.stop(), ESRCH);
    ASSERT_EQ(thread.start(), 0);
    ASSERT_EQ(thread.stop(), 0);
    EXPECT_EQ(thread.stop(), ESRCH);
}

TEST(ThreadTest, start_tells_why_no_thread_could_be_made_and_stop_joins_nothing) {
    bool ran = false;
    Body thread([&](const Body&) { ran = true; });
    corvalin::test::with_refused_system_call(SYS_clone3, EPERM, [&] {
        EXPECT_EQ(thread.start(), EPERM);
        EXPECT_TRUE(thread.is_running());
        EXPECT_EQ(thread.stop(), ESRCH);
        EXPECT_FALSE(thread.is_running());
    });
    EXPECT_FALSE(ran);
}

TEST(ThreadTest, a_failed_start_behind_a_good_one_does_not_join_the_old_handle_again) {
    Body thread([](const Body& self) { work_until_stopped(self); });
    ASSERT_EQ(thread.start(), 0);
    ASSERT_EQ(thread.stop(), 0);
    corvalin::test::with_refused_system_call(SYS_clone3, EPERM, [&] { EXPECT_EQ(thread.start(), EPERM); });
    EXPECT_EQ(thread.stop(), ESRCH);
}

TEST(ThreadTest, the_id_in_log_lines_is_the_kernels) {
    EXPECT_EQ(current_thread_id(), getpid()) << "the main thread has the id of the process";
    int other = 0;
    int expected = 0;
    std::thread([&] {
        other = current_thread_id();
        expected = static_cast<int>(syscall(SYS_gettid));
    }).join();
    EXPECT_EQ(other, expected);
    EXPECT_NE(other, current_thread_id());
}

TEST(ThreadTest, is_destroyed_through_its_base) {
    EXPECT_TRUE(std::has_virtual_destructor_v<Thread>);
}

} // namespace
