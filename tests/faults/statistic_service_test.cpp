#include "router/statistic_service.h"

#include <linux/futex.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/syscall.h>

#include <cerrno>
#include <chrono>
#include <deque>
#include <fstream>
#include <functional>
#include <future>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "corvalin_lib/log.h"
#include "corvalin_lib/net_socket.h"
#include "corvalin_lib/thread.h"
#include "tests/faults/faults.h"
#include "tests/support/captured_log.h"
#include "tests/support/local_address.h"
#include "tests/support/private_syslog.h"

namespace {

using namespace corvalin;
using router::StatisticService;
using test::CapturedLog;
using test::ChildReport;
using test::FakeSleep;
using test::run_with_private_syslog;
using test::succeeded;
using ::testing::ElementsAre;
using ::testing::MatchesRegex;

constexpr FakeSleep::Answer DONE = {0, {}};

/// Waits until the thread `thread_id` of this process waits for the end of another thread.
void wait_for_join(int thread_id) {
    const std::string path = "/proc/self/task/" + std::to_string(thread_id) + "/syscall";
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    for (bool is_joining = false; !is_joining;) {
        ASSERT_LT(std::chrono::steady_clock::now(), deadline);
        std::this_thread::yield();
        std::ifstream file(path);
        int number = -1;
        uint64_t address = 0;
        int operation = 0;
        file >> number >> std::hex >> address >> operation;
        // Other waits, such as for a mutex, have the private flag, which the kernel at the end of a thread has not.
        is_joining = number == SYS_futex && (operation & FUTEX_PRIVATE_FLAG) == 0 &&
                     (operation & FUTEX_CMD_MASK) == FUTEX_WAIT_BITSET;
    }
}

/// Stops the service, and ends its sleep when the stop has begun to wait for it: a sleep that ended earlier would begin
/// another period.
void stop(StatisticService& service, FakeSleep& sleep) {
    std::promise<int> stopper_id;
    std::thread stopper([&] {
        stopper_id.set_value(current_thread_id());
        EXPECT_EQ(service.stop(), 0);
    });
    wait_for_join(stopper_id.get_future().get());
    sleep.release();
    stopper.join();
}

/// What a service does while its sleeps are answered as told, and the lines that it logs.
struct ServiceRun {
    ChildReport child;
    std::vector<std::string> syslog_texts;
};

/// Runs a service, in a process of its own, until the answers are used up and it sleeps once more; then stops it.
/// `inspect` looks at the process before it ends.
ServiceRun run_service(const std::deque<FakeSleep::Answer>& answers,
                       const std::function<void(StatisticService&)>& set_up,
                       const std::function<void(const FakeSleep&, const CapturedLog&)>& inspect) {
    ServiceRun run;
    run.child = run_with_private_syslog([&] {
        const CapturedLog log; // at the threshold that the test has set
        StatisticService service;
        set_up(service);
        FakeSleep sleep(answers);
        EXPECT_EQ(service.start(), 0);
        sleep.wait_for_sleeper();
        stop(service, sleep);
        inspect(sleep, log);
    });
    for (const std::string& datagram : run.child.syslog) {
        run.syslog_texts.push_back(test::parse_syslog(datagram).text);
    }
    return run;
}

std::string report_text(const StatisticService& service) {
    std::ostringstream text;
    text << "SYSTEM  | \n";
    service.print(text);
    text << "\n";
    return text.str();
}

void set_nothing(StatisticService& /*service*/) {
}

TEST(StatisticServiceFaultTest, a_report_comes_at_once_and_then_behind_each_sleep_of_5_seconds) {
    const ServiceRun run =
        run_service({DONE, DONE}, set_nothing, [](const FakeSleep& sleep, const CapturedLog&) {
            EXPECT_THAT(sleep.wanted(), ElementsAre("5 0", "5 0", "5 0"));
        });
    EXPECT_TRUE(succeeded(run.child));
    const std::string report = report_text(StatisticService());
    EXPECT_THAT(run.syslog_texts, ElementsAre(report, report, report));
    EXPECT_EQ(test::parse_syslog(run.child.syslog[0]).priority, 133); // LOG_LOCAL0 | LOG_NOTICE
}

TEST(StatisticServiceFaultTest, a_sleep_that_a_signal_interrupts_goes_on_for_what_is_left_without_a_report) {
    const std::deque<FakeSleep::Answer> answers = {
        {EINTR, {3, 250}},
        {EINTR, {0, 7}},
        DONE,            // the first period
        {EINTR, {5, 0}}, // the second one
    };
    const ServiceRun run = run_service(answers, set_nothing, [](const FakeSleep& sleep, const CapturedLog&) {
        EXPECT_THAT(sleep.wanted(), ElementsAre("5 0", "3 250", "0 7", "5 0", "5 0"));
    });
    EXPECT_TRUE(succeeded(run.child));
    EXPECT_EQ(run.syslog_texts.size(), 2u);
}

TEST(StatisticServiceFaultTest, a_sleep_that_fails_otherwise_ends_the_period_at_once) {
    for (const int error : {EINVAL, EFAULT}) {
        SCOPED_TRACE(error);
        const ServiceRun run =
            run_service({{error, {}}, {EINTR, {1, 0}}, {error, {}}}, set_nothing,
                        [](const FakeSleep& sleep, const CapturedLog&) {
                            EXPECT_THAT(sleep.wanted(), ElementsAre("5 0", "5 0", "1 0", "5 0"));
                        });
        EXPECT_TRUE(succeeded(run.child));
        EXPECT_EQ(run.syslog_texts.size(), 3u);
    }
}

TEST(StatisticServiceFaultTest, a_report_bears_the_place_at_debug_and_trace_and_passes_at_any_threshold) {
    struct Case {
        log::Level threshold;
        const char* body_begin; // regular expression
    };
    const std::vector<Case> cases = {
        {log::Level::ERROR, "SYSTEM  \\| "},
        {log::Level::INFO, "SYSTEM  \\| "},
        {log::Level::DEBUG, "SYSTEM  \\| statistic_service:[0-9]+ \\| "},
        {log::Level::TRACE, "SYSTEM  \\| statistic_service:[0-9]+ \\| "},
    };
    for (const Case& row : cases) {
        SCOPED_TRACE(log::level_to_string(row.threshold));
        const CapturedLog threshold(row.threshold);
        const ServiceRun run = run_service({}, set_nothing, [](const FakeSleep&, const CapturedLog& log) {
            // Nothing of it goes through the sink of the moment.
            EXPECT_EQ(log.lines().size(), 2u);
        });
        EXPECT_TRUE(succeeded(run.child));
        ASSERT_EQ(run.syslog_texts.size(), 1u);
        const std::size_t body_size = run.syslog_texts[0].find('\n');
        ASSERT_NE(body_size, std::string::npos);
        EXPECT_THAT(run.syslog_texts[0].substr(0, body_size), MatchesRegex(row.body_begin));
        EXPECT_EQ("SYSTEM  | " + run.syslog_texts[0].substr(body_size), report_text(StatisticService()));
    }
}

TEST(StatisticServiceFaultTest,
     a_service_without_logging_sleeps_on_and_writes_its_start_and_stop_lines_only) {
    const ServiceRun run = run_service(
        {DONE, DONE}, [](StatisticService& service) { service.m_logging_enabled = false; },
        [](const FakeSleep& sleep, const CapturedLog& log) {
            EXPECT_THAT(sleep.wanted(), ElementsAre("5 0", "5 0", "5 0"));
            EXPECT_THAT(log.texts(log::Level::SYSTEM),
                        ElementsAre(MatchesRegex("STATISTIC_SERVICE: thread \\[[0-9]+\\] started"),
                                    MatchesRegex("STATISTIC_SERVICE: thread \\[[0-9]+\\] stopped")));
            EXPECT_EQ(log.lines().size(), 2u);
        });
    EXPECT_TRUE(succeeded(run.child));
    EXPECT_TRUE(run.syslog_texts.empty());
}

TEST(StatisticServiceFaultTest, the_fields_of_a_transfer_change_nothing) {
    net::Socket receiver;
    ASSERT_TRUE(receiver.open(0, INADDR_LOOPBACK));

    const ServiceRun run = run_service(
        {DONE, DONE},
        [&receiver](StatisticService& service) {
            service.m_transfer_enabled = true;
            service.m_transfer_host = net::make_host_addr("127.0.0.1", test::local_port(receiver));
        },
        [](const FakeSleep&, const CapturedLog& log) { EXPECT_EQ(log.lines().size(), 2u); });

    EXPECT_TRUE(succeeded(run.child));
    const std::string report = report_text(StatisticService());
    EXPECT_THAT(run.syslog_texts, ElementsAre(report, report, report));
    char byte = 0;
    EXPECT_EQ(recv(receiver.descriptor(), &byte, 1, MSG_DONTWAIT), -1);
    EXPECT_EQ(errno, EAGAIN);
}

TEST(StatisticServiceFaultTest, no_report_tells_what_was_counted_behind_the_last_period) {
    const ChildReport child = run_with_private_syslog([] {
        StatisticService service;
        FakeSleep sleep({});
        ASSERT_EQ(service.start(), 0);
        sleep.wait_for_sleeper();
        service.m_reader_statistic.data_packets.add(3);
        stop(service, sleep);
    });
    EXPECT_TRUE(succeeded(child));
    ASSERT_EQ(child.syslog.size(), 1u);
    EXPECT_EQ(test::parse_syslog(child.syslog[0]).text, report_text(StatisticService()));
}

TEST(StatisticServiceFaultTest, stop_blocks_until_the_sleep_ends_and_leaves_a_service_that_can_start_again) {
    const CapturedLog log;
    StatisticService service;
    service.m_logging_enabled = false;
    for (std::size_t round = 0; round < 2; ++round) {
        FakeSleep sleep({});
        ASSERT_EQ(service.start(), 0);
        sleep.wait_for_sleeper();

        std::promise<int> stopper_id;
        std::thread stopper([&] {
            stopper_id.set_value(current_thread_id());
            EXPECT_EQ(service.stop(), 0);
        });
        wait_for_join(stopper_id.get_future().get());
        EXPECT_EQ(log.lines().size(), 2 * round + 1); // it is not stopped yet
        sleep.release();
        stopper.join();
        EXPECT_EQ(log.lines().size(), 2 * round + 2);
    }
}

} // namespace
