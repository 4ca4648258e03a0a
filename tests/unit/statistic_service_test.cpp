#include "router/statistic_service.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "corvalin_lib/log.h"
#include "corvalin_lib/thread.h"
#include "tests/support/captured_log.h"
#include "tests/support/private_syslog.h"
#include "tests/support/refused_system_call.h"

namespace {

using namespace corvalin;
using router::StatisticService;
using test::CapturedLog;
using test::ChildReport;
using test::run_with_private_syslog;
using test::succeeded;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

constexpr std::size_t ROW_BYTES = 77; // with the line feed
constexpr int STATISTIC_NOTICE = 133; // LOG_LOCAL0 | LOG_NOTICE

// The reports below were written by hand, so that a wrong frame, label or order cannot be its own proof.

constexpr const char* EMPTY_REPORT =
    "************************* corvalinrouter statistic *************************\n"
    "*                                                                          *\n"
    "* session number.............................: 0                           *\n"
    "* session number (zombie)....................: 0                           *\n"
    "* session audit executions number............: 0                           *\n"
    "*                                                                          *\n"
    "* session allocation errors number...........: 0                           *\n"
    "* session existing index errors number.......: 0                           *\n"
    "* session unknown index errors number........: 0                           *\n"
    "* session sequence break errors number.......: 0                           *\n"
    "* session lost packets number................: 0                           *\n"
    "*                                                                          *\n"
    "**************************** packets statistic *****************************\n"
    "*                                                                          *\n"
    "* packet queue elements number...............: 0                           *\n"
    "* packet queue passed elements number........: 0                           *\n"
    "* packet queue dropped elements number.......: 0                           *\n"
    "* packet queue idle hits number..............: 0                           *\n"
    "*                                                                          *\n"
    "* packet dropped  by min length..............: 0                           *\n"
    "* packet dropped  by max length..............: 0                           *\n"
    "* packet dropped  by failed allocation.......: 0                           *\n"
    "* packet rejected by bad marker..............: 0                           *\n"
    "* packet rejected by version.................: 0                           *\n"
    "* packet rejected by corrupted size..........: 0                           *\n"
    "* packet rejected by unknown type............: 0                           *\n"
    "*                                                                          *\n"
    "* packet 'start' type number.................: 0                           *\n"
    "* packet 'term'  type number.................: 0                           *\n"
    "* packet 'data'  type number.................: 0                           *\n"
    "*                                                                          *\n"
    "****************************************************************************";

/// Of `count_everything`.
constexpr const char* COUNTED_REPORT =
    "********************** corvalinrouter:5000 statistic ***********************\n"
    "*                                                                          *\n"
    "* session number.............................: 12                          *\n"
    "* session number (zombie)....................: 3                           *\n"
    "* session audit executions number............: 44                          *\n"
    "*                                                                          *\n"
    "* session allocation errors number...........: 555                         *\n"
    "* session existing index errors number.......: 6666                        *\n"
    "* session unknown index errors number........: 77777                       *\n"
    "* session sequence break errors number.......: 888888                      *\n"
    "* session lost packets number................: 9999999                     *\n"
    "*                                                                          *\n"
    "**************************** packets statistic *****************************\n"
    "*                                                                          *\n"
    "* packet queue elements number...............: 18446744073709551615        *\n"
    "* packet queue passed elements number........: 10000000000000000019        *\n"
    "* packet queue dropped elements number.......: 1000000000000000018         *\n"
    "* packet queue idle hits number..............: 100000000000000017          *\n"
    "*                                                                          *\n"
    "* packet dropped  by min length..............: 10000000000000016           *\n"
    "* packet dropped  by max length..............: 1000000000000015            *\n"
    "* packet dropped  by failed allocation.......: 100000000000014             *\n"
    "* packet rejected by bad marker..............: 10000000000013              *\n"
    "* packet rejected by version.................: 1000000000012               *\n"
    "* packet rejected by corrupted size..........: 100000000011                *\n"
    "* packet rejected by unknown type............: 10000000010                 *\n"
    "*                                                                          *\n"
    "* packet 'start' type number.................: 1000000009                  *\n"
    "* packet 'term'  type number.................: 100000008                   *\n"
    "* packet 'data'  type number.................: 10000007                    *\n"
    "*                                                                          *\n"
    "****************************************************************************";

void count_everything(StatisticService& service) {
    service.m_has_port = true;
    service.m_port = 5000;
    service.m_session_statistic.session_number.set(12);
    service.m_session_statistic.zombie_number.set(3);
    service.m_session_statistic.audit_executions.set(44);
    service.m_session_statistic.allocation_errors.set(555);
    service.m_session_statistic.existing_index_errors.set(6666);
    service.m_session_statistic.unknown_index_errors.set(77777);
    service.m_session_statistic.sequence_breaks.set(888888);
    service.m_session_statistic.lost_packets.set(9999999);
    service.m_session_statistic.audit_calls.set(123);
    service.m_reader_statistic.elements.set(18446744073709551615u);
    service.m_reader_statistic.passed_elements.set(10000000000000000019u);
    service.m_reader_statistic.dropped_elements.set(1000000000000000018);
    service.m_reader_statistic.idle_hits.set(100000000000000017);
    service.m_reader_statistic.dropped_min_length.set(10000000000000016);
    service.m_reader_statistic.dropped_max_length.set(1000000000000015);
    service.m_reader_statistic.dropped_failed_allocation.set(100000000000014);
    service.m_reader_statistic.rejected_bad_marker.set(10000000000013);
    service.m_reader_statistic.rejected_version.set(1000000000012);
    service.m_reader_statistic.rejected_corrupted_size.set(100000000011);
    service.m_reader_statistic.rejected_unknown_type.set(10000000010);
    service.m_reader_statistic.start_packets.set(1000000009);
    service.m_reader_statistic.term_packets.set(100000008);
    service.m_reader_statistic.data_packets.set(10000007);
    service.m_reader_statistic.empty_hits.set(456);
}

std::string report_of(const StatisticService& service) {
    std::ostringstream stream;
    service.print(stream);
    return stream.str();
}

std::string printed(const std::function<void(std::ostream&)>& print) {
    std::ostringstream stream;
    print(stream);
    return stream.str();
}

// ---- Rows of the frame

TEST(StatisticServiceTest, a_header_centres_its_title_and_gives_an_odd_star_to_the_right) {
    const auto stars = [](std::size_t number) { return std::string(number, '*'); };
    struct Case {
        const char* description;
        std::string title;
        std::string expected;
    };
    const std::array<Case, 8> cases = {{
        {"no title", "", stars(37) + "  " + stars(37)},
        {"one character", "a", stars(36) + " a " + stars(37)},
        {"two characters", "ab", stars(36) + " ab " + stars(36)},
        {"70 characters", std::string(70, 'x'), "** " + std::string(70, 'x') + " **"},
        {"71 characters", std::string(71, 'x'), "* " + std::string(71, 'x') + " **"},
        {"72 characters, the most that fit", std::string(72, 'x'), "* " + std::string(72, 'x') + " *"},
        {"73 characters", std::string(73, 'x'), "* " + std::string(73, 'x')},
        {"200 characters", std::string(200, 'x'), "* " + std::string(200, 'x')},
    }};
    for (const Case& row : cases) {
        SCOPED_TRACE(row.description);
        const std::string text = printed(
            [&row](std::ostream& stream) { StatisticService::print_section_header(stream, row.title); });
        EXPECT_EQ(text, row.expected + "\n");
        if (row.title.size() <= 72) {
            EXPECT_EQ(text.size(), ROW_BYTES);
        }
    }
}

TEST(StatisticServiceTest, a_line_is_filled_with_blanks_up_to_its_right_star) {
    const auto blanks = [](std::size_t number) { return std::string(number, ' '); };
    struct Case {
        const char* description;
        std::string text;
        std::string expected;
    };
    const std::array<Case, 7> cases = {{
        {"no text", "", "*" + blanks(74) + "*"},
        {"one character", "a", "* a" + blanks(72) + "*"},
        {"65 characters", std::string(65, 'x'), "* " + std::string(65, 'x') + blanks(8) + "*"},
        {"71 characters", std::string(71, 'x'), "* " + std::string(71, 'x') + "  *"},
        {"72 characters, the most that fit", std::string(72, 'x'), "* " + std::string(72, 'x') + " *"},
        {"73 characters", std::string(73, 'x'), "* " + std::string(73, 'x')},
        {"200 characters", std::string(200, 'x'), "* " + std::string(200, 'x')},
    }};
    for (const Case& row : cases) {
        SCOPED_TRACE(row.description);
        const std::string text =
            printed([&row](std::ostream& stream) { StatisticService::print_section_line(stream, row.text); });
        EXPECT_EQ(text, row.expected + "\n");
        if (row.text.size() <= 72) {
            EXPECT_EQ(text.size(), ROW_BYTES);
        }
    }
}

TEST(StatisticServiceTest, a_symbol_is_spawned_76_times_without_a_line_feed) {
    for (const char symbol : {'*', '-', ' '}) {
        EXPECT_EQ(printed([symbol](std::ostream& stream) {
                      StatisticService::print_spawned_symbol(stream, symbol);
                  }),
                  std::string(76, symbol));
    }
}

// ---- The report

TEST(StatisticServiceTest, a_new_service_reports_zeros_and_no_port) {
    EXPECT_EQ(report_of(StatisticService()), EMPTY_REPORT);
}

TEST(StatisticServiceTest, a_report_shows_each_counter_in_its_line_up_to_20_digits) {
    StatisticService service;
    count_everything(service);
    EXPECT_EQ(report_of(service), COUNTED_REPORT);
}

TEST(StatisticServiceTest, a_report_forms_no_differences_and_resets_nothing) {
    StatisticService service;
    count_everything(service);
    report_of(service);
    EXPECT_EQ(report_of(service), COUNTED_REPORT);
    EXPECT_EQ(service.m_reader_statistic.data_packets.value(), 10000007u);
}

TEST(StatisticServiceTest, two_counters_are_counted_and_not_printed) {
    StatisticService service;
    service.m_session_statistic.audit_calls.set(987654321);
    service.m_reader_statistic.empty_hits.set(987654321);
    EXPECT_EQ(report_of(service), EMPTY_REPORT);
}

TEST(StatisticServiceTest, the_two_sections_are_parts_of_the_report) {
    StatisticService service;
    count_everything(service);
    const std::string routing = printed([&service](std::ostream& stream) { service.print_routing(stream); });
    const std::string packets =
        printed([&service](std::ostream& stream) { service.print_packet_reader(stream); });
    EXPECT_EQ(routing, std::string(COUNTED_REPORT).substr(2 * ROW_BYTES, 9 * ROW_BYTES));
    EXPECT_EQ(packets, std::string(COUNTED_REPORT).substr(14 * ROW_BYTES, 16 * ROW_BYTES));
}

TEST(StatisticServiceTest, the_banner_shows_the_port_only_if_there_is_one) {
    struct Case {
        const char* description;
        bool has_port;
        uint64_t port;
        const char* expected;
    };
    const std::array<Case, 4> cases = {{
        {"no port", false, 5000,
         "************************* corvalinrouter statistic *************************\n"},
        {"port 0", true, 0, "************************ corvalinrouter:0 statistic ************************\n"},
        {"port 65535", true, 65535,
         "********************** corvalinrouter:65535 statistic **********************\n"},
        {"the greatest number of 64 bits", true, UINT64_MAX,
         "************** corvalinrouter:18446744073709551615 statistic ***************\n"},
    }};
    for (const Case& row : cases) {
        SCOPED_TRACE(row.description);
        StatisticService service;
        service.m_has_port = row.has_port;
        service.m_port = row.port;
        EXPECT_THAT(report_of(service), StartsWith(row.expected));
    }
}

// ---- The object

TEST(StatisticServiceTest, a_new_service_has_its_start_values) {
    const StatisticService service;
    EXPECT_EQ(service.m_port, 0u);
    EXPECT_FALSE(service.m_has_port);
    EXPECT_TRUE(service.m_logging_enabled);
    EXPECT_FALSE(service.m_transfer_enabled);
    EXPECT_EQ(service.m_transfer_host.host, "127.0.0.1");
    EXPECT_EQ(service.m_transfer_host.port, 0u);
    EXPECT_EQ(service.m_transfer_host.addr.sin_family, AF_INET);
    EXPECT_EQ(service.m_transfer_host.addr.sin_port, 0u);
    EXPECT_EQ(ntohl(service.m_transfer_host.addr.sin_addr.s_addr), INADDR_LOOPBACK);
}

/// Ahead of main, as the objects do that take the counters.
const StatisticService* const instance_before_main = &StatisticService::Instance;

TEST(StatisticServiceTest, the_one_service_of_the_process_exists_before_main) {
    EXPECT_EQ(instance_before_main, &StatisticService::Instance);
    EXPECT_NE(instance_before_main, nullptr);
    EXPECT_TRUE(StatisticService::Instance.m_logging_enabled);
}

// ---- The thread

TEST(StatisticServiceTest, run_returns_at_once_with_its_line_if_the_service_was_never_started) {
    const ChildReport child = run_with_private_syslog([] {
        const CapturedLog log;
        StatisticService service;
        service.run();
        EXPECT_THAT(log.records(), ElementsAre("SYSTEM statistic_service: STATISTIC_SERVICE: thread [" +
                                               std::to_string(syscall(SYS_gettid)) + "] started"));
    });
    EXPECT_TRUE(succeeded(child));
    EXPECT_THAT(child.syslog, IsEmpty());
}

TEST(StatisticServiceTest, stop_of_a_service_that_does_not_run_returns_0_without_a_line) {
    const CapturedLog log;
    StatisticService service;
    EXPECT_EQ(service.stop(), 0);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(StatisticServiceTest, stop_of_a_thread_that_could_not_be_made_warns_with_the_error_of_the_join) {
    const CapturedLog log;
    StatisticService service;
    test::with_refused_system_call(SYS_clone3, EAGAIN, [&service] { EXPECT_EQ(service.start(), EAGAIN); });
    const std::string own_id = std::to_string(syscall(SYS_gettid));

    EXPECT_EQ(service.stop(), ESRCH);
    EXPECT_EQ(service.stop(), 0);

    EXPECT_THAT(log.records(), ElementsAre("WARNING statistic_service: STATISTIC_SERVICE: thread [" + own_id +
                                           "] stopped with error (3)"));
}

/// Waits until the thread is in its sleep, behind its report.
void wait_for_sleep(int thread_id) {
    const std::string path = "/proc/self/task/" + std::to_string(thread_id) + "/syscall";
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    for (int number = -1; number != SYS_clock_nanosleep && number != SYS_nanosleep;) {
        ASSERT_LT(std::chrono::steady_clock::now(), deadline);
        std::this_thread::yield();
        std::ifstream(path) >> number;
    }
}

std::atomic<int> signals_received{0};

// The one test that sleeps for real, 5 seconds long.
TEST(StatisticServiceTest, stop_waits_for_the_end_of_a_sleep_that_no_signal_shortens) {
    const ChildReport child = run_with_private_syslog([] {
        struct sigaction action {};
        action.sa_handler = [](int) { signals_received.fetch_add(1, std::memory_order_relaxed); };
        ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
        const CapturedLog log;
        StatisticService service;
        count_everything(service);
        const auto begin = std::chrono::steady_clock::now();
        ASSERT_EQ(service.start(), 0);
        while (log.lines().empty()) {
            std::this_thread::yield();
        }
        const std::string started = log.texts()[0];
        const int thread_id = std::stoi(started.substr(started.find('[') + 1));
        EXPECT_EQ(started, "STATISTIC_SERVICE: thread [" + std::to_string(thread_id) + "] started");
        EXPECT_NE(thread_id, current_thread_id());

        wait_for_sleep(thread_id);

        std::atomic<bool> is_done{false};
        std::thread disturber([&] {
            while (!is_done.load()) {
                syscall(SYS_tgkill, getpid(), thread_id, SIGUSR1);
                std::this_thread::sleep_for(std::chrono::milliseconds(10)); // the pace of the signals
            }
        });
        EXPECT_EQ(service.stop(), 0);
        const auto elapsed = std::chrono::steady_clock::now() - begin;
        is_done.store(true);
        disturber.join();

        EXPECT_GE(elapsed, std::chrono::seconds(5));
        EXPECT_GE(signals_received.load(), 100);
        EXPECT_THAT(log.texts(), ElementsAre(started, "STATISTIC_SERVICE: thread [" +
                                                          std::to_string(current_thread_id()) + "] stopped"));
        EXPECT_EQ(log.lines()[1].level, log::Level::SYSTEM);
    });
    EXPECT_TRUE(succeeded(child));
    // One report, at once, in one piece; none for a signal, and none at the stop.
    ASSERT_EQ(child.syslog.size(), 1u);
    EXPECT_EQ(test::parse_syslog(child.syslog[0]).priority, STATISTIC_NOTICE);
    EXPECT_EQ(test::parse_syslog(child.syslog[0]).text, "SYSTEM  | \n" + std::string(COUNTED_REPORT) + "\n");
}

} // namespace
