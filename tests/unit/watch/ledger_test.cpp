#include "tools/watch/ledger.h"

#include <gtest/gtest.h>

#include <string>

namespace corvalin::watch::test {
namespace {

constexpr int64_t SECOND_US = 1000000;
constexpr int64_t START_US = 1795262400 * SECOND_US;

Report report_of(uint64_t data_packets, int64_t time_us = 0, int64_t pid = 0) {
    Report report;
    report.port = 5000;
    report.values[DATA_PACKETS] = data_packets;
    report.stamp.time_us = time_us;
    report.stamp.pid = pid;
    return report;
}

class WatchLedgerTest : public ::testing::Test {
protected:
    const RouterRecord& router(uint64_t port = 5000) const { return m_ledger.routers().at(port); }
    double rate() const { return router().rates[DATA_PACKETS]; }
    uint64_t growth() const { return router().counts[DATA_PACKETS].growth(); }
    uint64_t total() const { return router().counts[DATA_PACKETS].total(); }

    Ledger m_ledger;
};

TEST_F(WatchLedgerTest, rates_follow_from_the_times_in_the_log) {
    m_ledger.set_arrival_us(1); // all read at once
    m_ledger.on_report(report_of(1000, START_US));
    EXPECT_FALSE(router().interval_s.has_value());
    m_ledger.on_report(report_of(1500, START_US + 5 * SECOND_US));
    EXPECT_EQ(router().interval_s, 5.0);
    EXPECT_DOUBLE_EQ(rate(), 100);
    m_ledger.on_report(report_of(1500, START_US + 15 * SECOND_US));
    EXPECT_EQ(router().interval_s, 10.0);
    EXPECT_DOUBLE_EQ(rate(), 0);
}

TEST_F(WatchLedgerTest, rates_follow_from_the_arrival_where_the_log_tells_no_time) {
    m_ledger.set_arrival_us(7 * SECOND_US);
    m_ledger.on_report(report_of(1000));
    m_ledger.set_arrival_us(12 * SECOND_US);
    m_ledger.on_report(report_of(1500));
    EXPECT_DOUBLE_EQ(rate(), 100);
}

TEST_F(WatchLedgerTest, without_any_time_there_is_no_rate) {
    m_ledger.on_report(report_of(1000));
    m_ledger.on_report(report_of(1500));
    EXPECT_FALSE(router().interval_s.has_value());
    EXPECT_EQ(growth(), 500u);
}

TEST_F(WatchLedgerTest, reports_that_arrive_together_have_no_rate) {
    const struct {
        const char* description;
        int64_t distance_us;
        bool has_rate;
    } cases[] = {
        {"below", 499999, false}, {"at", 500000, true}, {"above", 500001, true}, {"back", -SECOND_US, false}};
    for (const auto& row : cases) {
        Ledger ledger;
        ledger.on_report(report_of(1, START_US));
        ledger.on_report(report_of(2, START_US + row.distance_us));
        EXPECT_EQ(ledger.routers().at(5000).interval_s.has_value(), row.has_rate) << row.description;
    }
}

TEST_F(WatchLedgerTest, a_counter_that_went_back_is_a_restart) {
    m_ledger.on_report(report_of(1000, START_US));
    m_ledger.on_report(report_of(1200, START_US + 5 * SECOND_US));
    m_ledger.on_report(report_of(30, START_US + 10 * SECOND_US));
    EXPECT_EQ(router().restarts, 1u);
    EXPECT_FALSE(router().interval_s.has_value()) << "what the old process counted last is unknown";
    EXPECT_EQ(growth(), 230u);
    EXPECT_EQ(total(), 1230u);
    m_ledger.on_report(report_of(80, START_US + 15 * SECOND_US));
    EXPECT_EQ(router().restarts, 1u);
    EXPECT_DOUBLE_EQ(rate(), 10);
    EXPECT_EQ(growth(), 280u);
}

TEST_F(WatchLedgerTest, another_process_is_a_restart_though_its_counters_are_higher) {
    m_ledger.on_report(report_of(1000, START_US, 77));
    m_ledger.on_report(report_of(1500, START_US + 5 * SECOND_US, 78));
    EXPECT_EQ(router().restarts, 1u);
    EXPECT_EQ(growth(), 1500u);
    EXPECT_FALSE(router().interval_s.has_value());
}

TEST_F(WatchLedgerTest, a_gauge_that_falls_is_no_restart) {
    Report report = report_of(1000, START_US);
    report.values[SESSIONS] = 50;
    report.values[RING_ELEMENTS] = 50;
    m_ledger.on_report(report);
    report = report_of(1000, START_US + 5 * SECOND_US);
    report.values[SESSIONS] = 0;
    report.values[RING_ELEMENTS] = 0;
    m_ledger.on_report(report);
    EXPECT_EQ(router().restarts, 0u);
    EXPECT_EQ(router().counts[SESSIONS].last(), 0u);
}

TEST_F(WatchLedgerTest, routers_are_told_apart_by_their_port) {
    m_ledger.on_report(report_of(1000));
    Report other = report_of(1);
    other.port = 6000;
    m_ledger.on_report(other);
    EXPECT_EQ(router(5000).restarts, 0u);
    EXPECT_EQ(router(6000).last.values[DATA_PACKETS], 1u);
    EXPECT_EQ(m_ledger.latest_port(), 6000u);

    Ledger only(6000);
    only.on_report(report_of(1000));
    only.on_report(other);
    EXPECT_EQ(only.routers().size(), 1u);
    EXPECT_EQ(only.reports(), 1u);
}

TEST_F(WatchLedgerTest, no_log_makes_it_follow_routers_without_end) {
    for (uint64_t port = 0; port <= 65535; ++port) {
        Report report;
        report.port = port;
        m_ledger.on_report(report);
    }
    EXPECT_EQ(m_ledger.routers().size(), Ledger::MAX_ROUTERS);
}

TEST_F(WatchLedgerTest, drops_of_the_kernel_begin_anew_with_the_socket) {
    m_ledger.on_kernel_socket(5000, {100, 0, 1});
    EXPECT_TRUE(m_ledger.routers().empty()) << "a socket alone is no router";
    m_ledger.on_report(report_of(1));
    m_ledger.on_kernel_socket(5000, {100, 0, 1});
    EXPECT_EQ(router().kernel_drops.growth(), 100u) << "of a single look, all of it";
    m_ledger.on_kernel_socket(5000, {107, 0, 1});
    EXPECT_EQ(router().kernel_drops.growth(), 7u);
    m_ledger.on_kernel_socket(5000, {200, 0, 2});
    EXPECT_EQ(router().kernel_drops.growth(), 207u);
    EXPECT_EQ(router().kernel_drops.total(), 307u);
}

TEST(WatchKernelSocketTest, the_line_of_the_port_is_found_and_read) {
    const std::string text = "   sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   "
                             "uid  timeout inode ref pointer drops             \n"
                             "  511: 0100007F:1388 00000000:0000 07 00000000:00000010 00:00000000 00000000   "
                             "105        0 20 2 0000000000000000 3         \n"
                             "  512: 00000000:1388 00000000:0000 07 00000000:00034E00 00:00000000 00000000   "
                             "105        0 21 2 0000000000000000 4294967295\n"
                             "  513: 00000000:1389 00000000:0000 07 00000000:00000000 00:00000000 00000000   "
                             "105        0 22 2 0000000000000000 0\n"
                             "  514: 0100007F:138A 00000000:0000 07 00000000:00000001 00:00000000 00000000   "
                             "105        0 23 2 0000000000000000 9";
    const auto all_addresses = find_kernel_socket(text, 5000);
    ASSERT_TRUE(all_addresses.has_value());
    EXPECT_EQ(all_addresses->drops, 4294967295u);
    EXPECT_EQ(all_addresses->queued_bytes, 0x34E00u);
    EXPECT_EQ(all_addresses->inode, 21u);
    const auto one_address = find_kernel_socket(text, 5002);
    ASSERT_TRUE(one_address.has_value()) << "the last line has no line feed";
    EXPECT_EQ(one_address->drops, 9u);
    EXPECT_FALSE(find_kernel_socket(text, 5003).has_value());
    EXPECT_FALSE(find_kernel_socket("", 5000).has_value());
    EXPECT_FALSE(find_kernel_socket(text.substr(0, text.find("20 2")), 5000).has_value())
        << "cut in the line";
    EXPECT_FALSE(read_kernel_socket("/nowhere", 5000).has_value());
}

} // namespace
} // namespace corvalin::watch::test
