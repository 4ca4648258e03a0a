#include "tools/watch/render.h"

#include "corvalin_lib/json.h"
#include "tests/support/statistic_report_text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>
#include <set>
#include <sstream>
#include <string>

namespace corvalin::watch::test {
namespace {

using corvalin::test::counted_up;
using corvalin::test::COUNTERS_OF_A_REPORT;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr int64_t SECOND_US = 1000000;

class WatchRenderTest : public ::testing::Test {
protected:
    WatchRenderTest() {
        Report report;
        report.port = 5000;
        report.values = counted_up(0);
        report.stamp.time_us = 10 * SECOND_US;
        m_ledger.set_arrival_us(SECOND_US);
        m_ledger.on_report(report);
        report.values = counted_up(100);
        report.stamp.time_us = 15 * SECOND_US;
        m_ledger.on_report(report);
        m_ledger.on_kernel_socket(5000, {3, 768, 1});
        m_ledger.on_event(LogEvent::SEND_FAILED, 13);
        m_ledger.on_event(LogEvent::NO_HOST_ASSIGNED, 0);
    }

    rapidjson::Document json_line() const {
        const std::string line = render_json_line(5000, m_ledger.routers().at(5000), m_ledger.events());
        EXPECT_EQ(line.find('\n'), line.size() - 1);
        rapidjson::Document json;
        json.Parse(line.data(), line.size());
        EXPECT_FALSE(json.HasParseError()) << line;
        return json;
    }

    Ledger m_ledger;
    WatchState m_state{2, 3 * SECOND_US};
};

TEST_F(WatchRenderTest, a_line_of_json_has_every_counter_with_its_rate) {
    const rapidjson::Document json = json_line();
    EXPECT_EQ(json["port"].GetUint64(), 5000u);
    EXPECT_EQ(json["time_us"].GetInt64(), 15 * SECOND_US);
    EXPECT_EQ(json["reports"].GetUint64(), 2u);
    EXPECT_EQ(json["restarts"].GetUint64(), 0u);
    EXPECT_EQ(json["interval_s"].GetDouble(), 5.0);
    EXPECT_EQ(json["counters"].MemberCount(), COUNTERS_OF_A_REPORT);
    EXPECT_EQ(json["counters"]["sessions"].GetUint64(), 100u);
    EXPECT_EQ(json["counters"]["data_packets"].GetUint64(), 121u);
    EXPECT_EQ(json["rates"]["data_packets"].GetDouble(), 20.0);
    EXPECT_FALSE(json["rates"].HasMember("sessions")) << "a gauge has no rate";
    EXPECT_FALSE(json["rates"].HasMember("ring_elements"));
    EXPECT_EQ(json["rates"].MemberCount(), COUNTERS_OF_A_REPORT - 2);
    EXPECT_EQ(json["kernel"]["drops"].GetUint64(), 3u);
    EXPECT_EQ(json["kernel"]["queued_bytes"].GetUint64(), 768u);
    EXPECT_EQ(json["failed_sends"].GetUint64(), 1u);
    EXPECT_EQ(json["sessions_without_host"].GetUint64(), 1u);
}

TEST_F(WatchRenderTest, what_is_unknown_is_null_in_json) {
    m_ledger = Ledger();
    Report report;
    report.port = 5000;
    m_ledger.on_report(report);
    const rapidjson::Document json = json_line();
    for (const char* const name : {"time_us", "interval_s", "rates", "kernel"}) {
        EXPECT_TRUE(json[name].IsNull()) << name;
    }
}

TEST_F(WatchRenderTest, the_view_shows_every_counter_and_fits_on_80_columns) {
    const std::string view = render_view(m_ledger, m_state);
    // The name, the total up to column 64, the rate up to column 78.
    const auto row = [](std::string name, const std::string& total, const std::string& rate) {
        name.resize(64 - total.size(), ' ');
        name += total;
        name.resize(rate.empty() ? name.size() : 78 - rate.size(), ' ');
        return name + rate + "\n";
    };
    std::istringstream lines(view);
    for (std::string line; std::getline(lines, line);) {
        EXPECT_LE(line.size(), 80u) << line;
    }
    for (const CounterInfo& counter : COUNTERS) {
        EXPECT_THAT(view, HasSubstr(std::string("  ") + counter.label));
    }
    EXPECT_THAT(view, HasSubstr("corvalinrouter:5000   reports 2   restarts 0   last 2.0 s ago\n"));
    EXPECT_THAT(view, HasSubstr(row("  packet 'data'  type number", "121", "20.0")));
    EXPECT_THAT(view, HasSubstr(row("  session number", "100", "")));
    EXPECT_THAT(view, HasSubstr(row("  datagrams dropped", "3", "")));
    EXPECT_THAT(view, HasSubstr("broken reports 2"));
    EXPECT_THAT(render_view(Ledger(), m_state), HasSubstr("no report yet\n"));
}

// Sample lines of the exposition format: name, labels, number.
TEST_F(WatchRenderTest, metrics_are_well_formed_and_described_and_have_no_series_twice) {
    const std::string text = render_metrics(m_ledger, m_state);
    std::istringstream lines(text);
    std::set<std::string> described;
    std::set<std::string> series;
    std::string name;
    for (std::string line; std::getline(lines, line);) {
        std::smatch match;
        if (std::regex_match(line, match, std::regex("# HELP ([a-z_]+) .+\\."))) {
            EXPECT_TRUE(described.insert(match[1]).second) << "twice: " << line;
            name = match[1];
        } else if (std::regex_match(line, match, std::regex("# TYPE ([a-z_]+) (counter|gauge)"))) {
            EXPECT_EQ(match[1], name);
            EXPECT_EQ(match[2] == "counter", name.size() > 6 && name.substr(name.size() - 6) == "_total")
                << line;
        } else {
            ASSERT_TRUE(std::regex_match(
                line, match,
                std::regex("([a-z_]+)((\\{[a-z]+=\"[a-z0-9_]+\"(,[a-z]+=\"[a-z0-9_]+\")?\\})?) "
                           "[0-9]+(\\.[0-9])?")))
                << line;
            EXPECT_EQ(match[1], name);
            EXPECT_TRUE(series.insert(match[1].str() + match[2].str()).second) << "twice: " << line;
        }
    }
    EXPECT_EQ(text.back(), '\n');
    EXPECT_THAT(text, HasSubstr("corvalin_router_sessions{port=\"5000\"} 100\n"));
    EXPECT_THAT(text, HasSubstr("corvalin_router_packets_total{port=\"5000\",type=\"data\"} 121\n"));
    EXPECT_THAT(text,
                HasSubstr("corvalin_router_rejected_packets_total{port=\"5000\",reason=\"version\"} 116\n"));
    EXPECT_THAT(text, HasSubstr("corvalin_router_kernel_dropped_datagrams_total{port=\"5000\"} 3\n"));
    EXPECT_THAT(text, HasSubstr("corvalin_router_failed_sends_total 1\n"));
    EXPECT_THAT(text, HasSubstr("corvalin_watch_broken_reports_total 2\n"));
    EXPECT_THAT(text, HasSubstr("corvalin_watch_report_age_seconds{port=\"5000\"} 2.0\n"));
}

// One label of a fixed set, and the port: whatever the log holds, calls make no series.
TEST_F(WatchRenderTest, no_label_holds_more_than_a_port_a_reason_a_type_or_whether_there_are_nodes) {
    const std::string text = render_metrics(m_ledger, m_state);
    const std::regex label("([a-z_]+)=\"");
    for (auto match = std::sregex_iterator(text.begin(), text.end(), label); match != std::sregex_iterator();
         ++match) {
        EXPECT_TRUE((std::set<std::string>{"port", "reason", "type", "nodes"}).contains((*match)[1]))
            << (*match)[1];
    }
}

TEST_F(WatchRenderTest, metrics_of_the_past_have_no_age_and_those_unseen_no_series) {
    m_ledger = Ledger();
    EXPECT_THAT(render_metrics(m_ledger, {0, 0}), Not(HasSubstr("port=")));
    m_ledger.on_report(Report{});
    const std::string text = render_metrics(m_ledger, {0, 0});
    EXPECT_THAT(text, Not(HasSubstr("age_seconds")));
    EXPECT_THAT(text, Not(HasSubstr("kernel")));
}

TEST_F(WatchRenderTest, findings_are_shown_as_text_and_as_json) {
    Evidence evidence;
    evidence.kernel_drops = 4;
    const std::vector<Finding> findings = diagnose(evidence);
    const RouterRecord& router = m_ledger.routers().at(5000);
    const std::string text = render_findings(5000, router, findings);
    EXPECT_THAT(text, HasSubstr("corvalinrouter:5000: 2 reports, 0 restarts: 1 findings\n"));
    EXPECT_THAT(text,
                HasSubstr("\nkernel/receive_buffer: 4 datagrams found the receive buffer full\n  cause  "));
    EXPECT_THAT(text, HasSubstr("\n  cure   Raise net.core.rmem_default"));
    EXPECT_THAT(render_findings(5000, router, {}), HasSubstr("nothing was lost"));
    EXPECT_THAT(render_findings(5000, RouterRecord{}, {}), HasSubstr("drops are unknown"));

    rapidjson::Document json;
    const std::string line = render_findings_json(5000, router, findings);
    json.Parse(line.data(), line.size());
    ASSERT_FALSE(json.HasParseError()) << line;
    ASSERT_EQ(json["findings"].Size(), 1u);
    EXPECT_STREQ(json["findings"][0]["layer"].GetString(), "kernel");
    EXPECT_STREQ(json["findings"][0]["name"].GetString(), "receive_buffer");
    EXPECT_EQ(json["findings"][0]["amount"].GetUint64(), 4u);
    EXPECT_TRUE(json["kernel_seen"].GetBool());
}

} // namespace
} // namespace corvalin::watch::test
