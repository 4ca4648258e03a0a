#include "tools/watch/report_parser.h"

#include "tests/support/statistic_report_text.h"
#include "tools/watch/line_splitter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

namespace corvalin::watch::test {
namespace {

using corvalin::test::counted_up;
using corvalin::test::Numbers;
using corvalin::test::report_rows;
using corvalin::test::report_text;

constexpr int64_t NOW_S = 1795262400; // 2026-11-21T12:00:00Z
constexpr int64_t US = 1000000;
constexpr const char* PREFIX = "2026-11-21T12:00:00.250000+00:00 media corvalin_router: ";

struct Recorder : LogSink {
    void on_report(const Report& report) override { reports.push_back(report); }
    void on_event(LogEvent event, int error) override {
        events.push_back(event);
        errors.push_back(error);
    }
    std::vector<Report> reports;
    std::vector<LogEvent> events;
    std::vector<int> errors;
};

class WatchReportParserTest : public ::testing::Test {
protected:
    void feed(const std::string& text) {
        std::size_t begin = 0;
        while (begin < text.size()) {
            const std::size_t end = std::min(text.find('\n', begin), text.size());
            m_parser.feed_line(std::string_view(text).substr(begin, end - begin), NOW_S);
            begin = end + 1;
        }
    }
    std::vector<uint64_t> ports() const {
        std::vector<uint64_t> ports;
        for (const Report& report : m_recorder.reports) {
            ports.push_back(report.port);
        }
        return ports;
    }
    void expect_one(uint64_t port, const Numbers& numbers) {
        ASSERT_EQ(m_recorder.reports.size(), 1u);
        EXPECT_EQ(m_recorder.reports[0].port, port);
        EXPECT_EQ(m_recorder.reports[0].values, Values(numbers));
        EXPECT_EQ(m_parser.broken_reports(), 0u);
    }

    Recorder m_recorder;
    ReportParser m_parser{m_recorder};
};

std::string lines_of(uint64_t port, const Numbers& numbers) {
    return std::string(PREFIX) + "SYSTEM  | " + report_text(port, numbers, "\n") + "\n";
}

std::string one_line(uint64_t port, const Numbers& numbers, const std::string& separator) {
    return std::string(PREFIX) + "SYSTEM  | " + report_text(port, numbers, separator) + "\n";
}

std::string json_string(const std::string& text) {
    std::string json;
    for (const char character : text) {
        json += character == '\n' ? "\\n" : std::string(1, character);
    }
    return "\"" + json + "\"";
}

TEST_F(WatchReportParserTest, counters_are_told_apart_by_their_rows) {
    feed(lines_of(5000, counted_up()));
    ASSERT_EQ(m_recorder.reports.size(), 1u);
    const Values& values = m_recorder.reports[0].values;
    const std::pair<CounterId, uint64_t> wanted[] = {{SESSIONS, 1},
                                                     {ZOMBIES, 2},
                                                     {AUDIT_EXECUTIONS, 3},
                                                     {SESSION_ALLOCATION_ERRORS, 4},
                                                     {EXISTING_INDEX_ERRORS, 5},
                                                     {UNKNOWN_INDEX_ERRORS, 6},
                                                     {SEQUENCE_BREAKS, 7},
                                                     {LOST_PACKETS, 8},
                                                     {RING_ELEMENTS, 9},
                                                     {RING_PASSED, 10},
                                                     {RING_DROPPED, 11},
                                                     {IDLE_HITS, 12},
                                                     {DROPPED_MIN_LENGTH, 13},
                                                     {DROPPED_MAX_LENGTH, 14},
                                                     {DROPPED_FAILED_ALLOCATION, 15},
                                                     {REJECTED_BAD_MARKER, 16},
                                                     {REJECTED_VERSION, 17},
                                                     {REJECTED_CORRUPTED_SIZE, 18},
                                                     {REJECTED_UNKNOWN_TYPE, 19},
                                                     {START_PACKETS, 20},
                                                     {TERM_PACKETS, 21},
                                                     {DATA_PACKETS, 22}};
    for (const auto& [counter, value] : wanted) {
        EXPECT_EQ(values[counter], value) << COUNTERS[counter].label;
    }
}

TEST_F(WatchReportParserTest, every_shape_of_a_report_is_read) {
    const Numbers numbers = counted_up(1000);
    const std::string body = "SYSTEM  | ";
    const std::string place = "SYSTEM  | statistic_service:76 | ";
    const std::string rows = report_text(5000, numbers, "\n");
    std::string indented;
    std::string prefixed;
    for (const std::string& row : report_rows("corvalinrouter:5000 statistic", numbers)) {
        indented += "\n                              " + row;
        prefixed += "\nNov 21 12:00:00 media corvalin_router: " + row;
    }
    const struct {
        const char* description;
        std::string text;
    } cases[] = {
        {"real line feeds", PREFIX + body + rows + "\n"},
        {"real line feeds, with the place of the trace level", PREFIX + place + rows + "\n"},
        {"real line feeds, the short time and a process id",
         "Nov 21 12:00:00 media corvalinrouter[77]: " + body + rows + "\n"},
        {"real line feeds and carriage returns", PREFIX + body + report_text(5000, numbers, "\r\n") + "\r\n"},
        {"real line feeds, indented as journalctl does", PREFIX + body + indented + "\n"},
        {"each row with the log daemon's prefix", prefixed},
        {"the rows alone", rows},
        {"escaped", PREFIX + body + report_text(5000, numbers, "#012") + "\n"},
        {"escaped, with a last one", PREFIX + body + report_text(5000, numbers, "#012") + "#012\n"},
        {"escaped, with the place", PREFIX + place + report_text(5000, numbers, "#012") + "\n"},
        {"escaped, without any prefix", body + report_text(5000, numbers, "#012")},
        {"plain, with blanks", PREFIX + body + report_text(5000, numbers, " ") + "\n"},
        {"plain, with the first blank trimmed off",
         PREFIX + body + report_text(5000, numbers, " ").substr(1) + "\n"},
        {"plain, with nothing", PREFIX + body + report_text(5000, numbers, "") + "\n"},
        {"plain, with letters", PREFIX + body + report_text(5000, numbers, "\\n") + "\n"},
        {"the journal's JSON",
         "{\"__REALTIME_TIMESTAMP\":\"1795262400250000\",\"SYSLOG_FACILITY\":\"16\",\"_PID\":"
         "\"77\",\"MESSAGE\":" +
             json_string(body + rows) + "}\n"},
        {"the journal's JSON, escaped on its way",
         "{\"SYSLOG_FACILITY\":\"16\",\"MESSAGE\":" + json_string(body + report_text(5000, numbers, "#012")) +
             "}\n"},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.description);
        m_recorder.reports.clear();
        feed(row.text);
        expect_one(5000, numbers);
    }
}

TEST_F(WatchReportParserTest, a_datagram_of_a_syslog_socket_is_read) {
    const Numbers numbers = counted_up(7);
    m_parser.feed_datagram("<133>Nov 21 12:00:00 corvalinrouter[77]: SYSTEM  | " +
                               report_text(5000, numbers, "\n") + "\n",
                           NOW_S);
    expect_one(5000, numbers);
    EXPECT_EQ(m_recorder.reports[0].stamp.pid, 77);
}

TEST_F(WatchReportParserTest, the_time_and_the_process_come_from_the_line) {
    const Numbers numbers = counted_up();
    feed(lines_of(1, numbers));
    feed("2026-11-21T14:00:00.5+02:00 media corvalinrouter[12]: SYSTEM  | " +
         report_text(2, numbers, "#012") + "\n");
    feed("{\"__REALTIME_TIMESTAMP\":\"1795262401000000\",\"SYSLOG_FACILITY\":\"16\",\"_PID\":\"77\","
         "\"MESSAGE\":" +
         json_string("SYSTEM  | " + report_text(3, numbers, "\n")) + "}\n");
    feed(report_text(4, numbers, "\n"));
    ASSERT_EQ(ports(), (std::vector<uint64_t>{1, 2, 3, 4}));
    EXPECT_EQ(m_recorder.reports[0].stamp.time_us, NOW_S * US + 250000);
    EXPECT_EQ(m_recorder.reports[0].stamp.pid, 0);
    EXPECT_EQ(m_recorder.reports[1].stamp.time_us, NOW_S * US + 500000);
    EXPECT_EQ(m_recorder.reports[1].stamp.pid, 12);
    EXPECT_EQ(m_recorder.reports[2].stamp.time_us, (NOW_S + 1) * US);
    EXPECT_EQ(m_recorder.reports[2].stamp.pid, 77);
    EXPECT_EQ(m_recorder.reports[3].stamp.time_us, 0) << "not the time of another report";
}

TEST_F(WatchReportParserTest, a_short_time_takes_the_year_in_which_it_is_not_in_the_future) {
    const auto time_of = [](const char* text, int64_t now_s) {
        return parse_prefix(std::string(text) + " media router: ", now_s).time_us / US;
    };
    setenv("TZ", "UTC", 1);
    tzset();
    EXPECT_EQ(time_of("Nov 21 11:59:00", NOW_S), NOW_S - 60);
    EXPECT_EQ(time_of("Nov  1 00:00:00", NOW_S), NOW_S - (20 * 24 + 12) * 3600);
    EXPECT_EQ(time_of("Dec 31 23:59:59", 1798761600), 1798761599) << "2027-01-01T00:00:00Z";
    EXPECT_EQ(time_of("Nov 31x12:00:00", NOW_S), 0);
    EXPECT_EQ(time_of("Xyz 21 12:00:00", NOW_S), 0);
}

TEST_F(WatchReportParserTest, numbers_reach_to_the_last_of_64_bits_and_not_beyond) {
    Numbers numbers = counted_up();
    numbers[DATA_PACKETS] = std::numeric_limits<uint64_t>::max();
    feed(lines_of(5000, numbers));
    expect_one(5000, numbers);
    std::string text = lines_of(5000, numbers);
    text.replace(text.find("18446744073709551615"), 20, "18446744073709551616");
    feed(text);
    EXPECT_EQ(m_recorder.reports.size(), 1u);
    EXPECT_EQ(m_parser.broken_reports(), 1u);
}

TEST_F(WatchReportParserTest, a_report_cut_anywhere_gives_no_numbers_and_spoils_none) {
    const std::string shapes[] = {lines_of(5000, counted_up(90)), one_line(5000, counted_up(90), "#012"),
                                  one_line(5000, counted_up(90), " ")};
    for (const std::string& whole : shapes) {
        const std::size_t begin = whole.find("SYSTEM");
        const std::size_t last_character = whole.size() - 2; // the line feed behind it is none of the report
        for (std::size_t length = begin; length <= last_character; ++length) {
            Recorder recorder;
            ReportParser parser(recorder);
            const std::string text = whole.substr(0, length) + "\n" + lines_of(6000, counted_up(200));
            std::size_t from = 0;
            while (from < text.size()) {
                const std::size_t end = text.find('\n', from);
                parser.feed_line(std::string_view(text).substr(from, end - from), NOW_S);
                from = end + 1;
            }
            ASSERT_EQ(recorder.reports.size(), 1u) << "cut behind " << length << " characters";
            ASSERT_EQ(recorder.reports[0].port, 6000u);
            ASSERT_EQ(recorder.reports[0].values, Values(counted_up(200)));
        }
    }
}

TEST_F(WatchReportParserTest, a_report_without_its_beginning_gives_no_numbers) {
    const std::string text = report_text(5000, counted_up(), "\n").substr(1);
    feed(text.substr(text.find('\n') + 1) + "\n");
    EXPECT_TRUE(m_recorder.reports.empty());
}

TEST_F(WatchReportParserTest, a_report_that_lacks_any_one_row_is_broken) {
    const std::vector<std::string> rows = report_rows("corvalinrouter:5000 statistic", counted_up());
    for (std::size_t missing = 1; missing + 1 < rows.size(); ++missing) {
        std::string text;
        for (std::size_t row = 0; row < rows.size(); ++row) {
            text += row == missing ? "" : rows[row] + "\n";
        }
        feed(text);
        EXPECT_TRUE(m_recorder.reports.empty()) << rows[missing];
        EXPECT_EQ(m_parser.broken_reports(), missing);
    }
}

TEST_F(WatchReportParserTest, lines_of_others_between_the_rows_do_no_harm) {
    const Numbers numbers = counted_up();
    std::string text = std::string(PREFIX) + "SYSTEM  | \n";
    for (const std::string& row : report_rows("corvalinrouter:5000 statistic", numbers)) {
        text += row + "\nNov 21 12:00:00 media sshd[1]: session opened\n" + PREFIX +
                "SYSTEM  | TERM  | mt: 1, uuid: 0, seq: 2\n\n";
    }
    feed(text);
    expect_one(5000, numbers);
}

TEST_F(WatchReportParserTest, two_reports_whose_rows_are_mixed_give_no_number_of_either) {
    const std::vector<std::string> left = report_rows("corvalinrouter:5000 statistic", counted_up(1));
    const std::vector<std::string> right = report_rows("corvalinrouter:6000 statistic", counted_up(100));
    for (std::size_t shift = 1; shift + 1 < left.size(); ++shift) {
        m_recorder.reports.clear();
        std::string text;
        for (std::size_t row = 0; row < left.size() + shift; ++row) {
            text += row < left.size() ? left[row] + "\n" : "";
            text += row >= shift ? right[row - shift] + "\n" : "";
        }
        feed(text);
        EXPECT_TRUE(m_recorder.reports.empty()) << "shifted by " << shift << " rows";
    }
    m_recorder.reports.clear();
    feed(lines_of(7000, counted_up()));
    EXPECT_EQ(ports(), std::vector<uint64_t>{7000});
}

TEST_F(WatchReportParserTest, a_report_whose_end_never_comes_is_given_up) {
    const std::vector<std::string> rows = report_rows("corvalinrouter:5000 statistic", counted_up());
    for (std::size_t row = 0; row < 10; ++row) {
        feed(rows[row] + "\n");
    }
    for (int line = 0; line <= 1000; ++line) {
        feed("something else\n");
    }
    EXPECT_EQ(m_parser.broken_reports(), 1u);
    for (std::size_t row = 10; row < rows.size(); ++row) {
        feed(rows[row] + "\n");
    }
    EXPECT_TRUE(m_recorder.reports.empty());
}

TEST_F(WatchReportParserTest, the_end_of_the_log_breaks_a_report_that_has_begun) {
    feed(report_rows("corvalinrouter:5000 statistic", counted_up())[0] + "\n");
    m_parser.finish();
    EXPECT_EQ(m_parser.broken_reports(), 1u);
    m_parser.finish();
    EXPECT_EQ(m_parser.broken_reports(), 1u);
}

TEST_F(WatchReportParserTest, a_banner_says_the_port_or_none) {
    const struct {
        const char* description;
        const char* title;
        bool is_report;
        uint64_t port;
    } cases[] = {
        {"no port", "corvalinrouter statistic", true, 0},
        {"port 0", "corvalinrouter:0 statistic", true, 0},
        {"the last port", "corvalinrouter:65535 statistic", true, 65535},
        {"one above it", "corvalinrouter:65536 statistic", false, 0},
        {"no number", "corvalinrouter:50x0 statistic", false, 0},
        {"an empty number", "corvalinrouter: statistic", false, 0},
        {"another service", "corvalinrouters statistic", false, 0},
        {"another word", "corvalinrouter:5000 statistics", false, 0},
    };
    for (const auto& row : cases) {
        m_recorder.reports.clear();
        for (const std::string& line : report_rows(row.title, counted_up())) {
            feed(line + "\n");
        }
        ASSERT_EQ(m_recorder.reports.size(), row.is_report ? 1u : 0u) << row.description;
        if (row.is_report) {
            EXPECT_EQ(m_recorder.reports[0].port, row.port) << row.description;
        }
    }
}

// A sender chooses the call id, line feeds and all.
TEST_F(WatchReportParserTest, a_call_id_cannot_pass_for_a_report_where_the_record_is_whole) {
    const std::string forged = "x\nSYSTEM  | " + report_text(5000, counted_up(), "\n") + "\n";
    std::string escaped;
    for (const char character : forged) {
        escaped += character == '\n' ? "#012" : std::string(1, character);
    }
    const std::string start =
        "SYSTEM  | START | mt: 1, v: 0, f: w-, uuid: 0, ts: 1, seq: 1, leg: inbound, call id: ";
    feed(PREFIX + start + escaped + ", id: 1\n");
    feed("{\"SYSLOG_FACILITY\":\"17\",\"MESSAGE\":" + json_string(start + forged + ", id: 1") + "}\n");
    m_parser.feed_datagram("<141>Nov 21 12:00:00 corvalin_router: " + start + forged + ", id: 1\n", NOW_S);
    EXPECT_TRUE(m_recorder.reports.empty());
    EXPECT_EQ(m_recorder.events, std::vector<LogEvent>(3, LogEvent::START_WITH_NODES));
}

TEST_F(WatchReportParserTest, a_record_of_another_facility_is_no_report) {
    const std::string text = "SYSTEM  | " + report_text(5000, counted_up(), "\n");
    m_parser.feed_datagram("<141>Nov 21 12:00:00 corvalin_router: " + text, NOW_S);
    feed("{\"SYSLOG_FACILITY\":\"1\",\"MESSAGE\":" + json_string(text) + "}\n");
    feed("{\"MESSAGE\":" + json_string(text) + "}\n");
    EXPECT_TRUE(m_recorder.reports.empty());
}

TEST_F(WatchReportParserTest, json_of_a_wrong_shape_is_passed_over) {
    const std::string message = json_string("SYSTEM  | " + report_text(5000, counted_up(), "\n"));
    for (const std::string& line : {
             std::string("{"),
             std::string("{}"),
             std::string("{\"MESSAGE\":null}"),
             std::string("{\"MESSAGE\":[83,89]}"),
             std::string("{\"MESSAGE\":{\"a\":1}}"),
             "{\"SYSLOG_FACILITY\":16,\"MESSAGE\":" + message + "}",
             "{\"SYSLOG_FACILITY\":\"sixteen\",\"MESSAGE\":" + message + "}",
             "{\"SYSLOG_FACILITY\":[\"16\"],\"MESSAGE\":" + message + "}",
             "{\"SYSLOG_FACILITY\":\"16\",\"MESSAGE\":" + message,
             std::string(100000, '{'),
             "{\"a\":" + std::string(100000, '['),
         }) {
        feed(line + "\n");
    }
    EXPECT_TRUE(m_recorder.reports.empty());
    feed("{\"SYSLOG_FACILITY\":\"16\",\"__REALTIME_TIMESTAMP\":5,\"_PID\":null,\"MESSAGE\":" + message +
         "}\n");
    ASSERT_EQ(m_recorder.reports.size(), 1u);
    EXPECT_EQ(m_recorder.reports[0].stamp.time_us, 0);
}

TEST_F(WatchReportParserTest, lines_that_tell_of_packets_are_counted_in_every_form) {
    const std::string failed =
        "ERROR   | SOCKET[7]: failed to send a data (56: 140), error (13): Permission denied";
    const struct {
        const char* description;
        std::string line;
        LogEvent event;
        int error;
    } cases[] = {
        {"a failed send in syslog", "Nov 21 12:00:00 media corvalinrouter[77]: " + failed,
         LogEvent::SEND_FAILED, 13},
        {"a failed send on standard error", "2026.11.21 12:00:00.000001 | " + failed, LogEvent::SEND_FAILED,
         13},
        {"a failed send with its place",
         "ERROR   | net_socket:120 | SOCKET[7]: failed to send a data (56: 140), error (101): Network is "
         "unreachable",
         LogEvent::SEND_FAILED, 101},
        {"a failed send without a number", "ERROR   | SOCKET[7]: failed to send a data (56: 140)",
         LogEvent::SEND_FAILED, 0},
        {"another error of the socket", "ERROR   | SOCKET[7]: failed to bind a socket, error (98): in use",
         LogEvent::NONE, 0},
        {"hosts", "SYSTEM  | ROUTING_MANAGER: 0-0: assigned hosts: 127.0.0.1:1 127.0.0.1:2",
         LogEvent::HOSTS_ASSIGNED, 0},
        {"no host", "SYSTEM  | ROUTING_MANAGER: 0-0: assigned hosts: -", LogEvent::NO_HOST_ASSIGNED, 0},
        {"a start that asks for nodes", "SYSTEM  | START | mt: 1, v: 0, f: -a, uuid: 0",
         LogEvent::START_WITH_NODES, 0},
        {"a start that asks for none", "SYSTEM  | START | mt: 1, v: 0, f: --, uuid: 0",
         LogEvent::START_WITHOUT_NODES, 0},
        {"a level that is none", "FATAL   | SOCKET[7]: failed to send a data (56: 140)", LogEvent::NONE, 0},
        {"no level", "SOCKET[7]: failed to send a data (56: 140), error (13): x", LogEvent::NONE, 0},
        {"the words within another text",
         "WARNING | SESSION: ERROR   | SOCKET[7]: failed to send a data (5: 1)", LogEvent::NONE, 0},
    };
    for (const auto& row : cases) {
        m_recorder.events.clear();
        m_recorder.errors.clear();
        feed(row.line + "\n");
        const std::vector<LogEvent> wanted =
            row.event == LogEvent::NONE ? std::vector<LogEvent>{} : std::vector<LogEvent>{row.event};
        EXPECT_EQ(m_recorder.events, wanted) << row.description;
        if (!wanted.empty()) {
            EXPECT_EQ(m_recorder.errors[0], row.error) << row.description;
        }
    }
}

TEST_F(WatchReportParserTest, noise_of_all_kinds_gives_nothing_and_no_crash) {
    const unsigned int seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const std::string whole =
        lines_of(5000, counted_up(1000000)) + one_line(5000, counted_up(1000000), "#012") +
        "{\"SYSLOG_FACILITY\":\"16\",\"MESSAGE\":" +
        json_string("SYSTEM  | " + report_text(5000, counted_up(1000000), "\n")) + "}\n";
    for (int round = 0; round < 2000; ++round) {
        std::string text = whole;
        for (int change = 0; change < 3; ++change) {
            const std::size_t at = random() % text.size();
            switch (random() % 3) {
            case 0:
                text[at] = static_cast<char>(random());
                break;
            case 1:
                text.erase(at, random() % 100);
                break;
            default:
                text.insert(at, text.substr(random() % text.size(), random() % 100));
                break;
            }
        }
        m_recorder.reports.clear();
        feed(text);
        m_parser.finish();
        EXPECT_LE(m_recorder.reports.size(), 3u);
    }
}

TEST(WatchLineSplitterTest, lines_come_whole_however_they_are_read) {
    const std::string text = "one\n\nthree\nlast";
    for (std::size_t piece = 1; piece <= text.size(); ++piece) {
        LineSplitter splitter;
        std::vector<std::string> lines;
        const auto take = [&lines](std::string_view line) { lines.emplace_back(line); };
        for (std::size_t begin = 0; begin < text.size(); begin += piece) {
            const std::size_t bytes = std::min(piece, text.size() - begin);
            std::memcpy(splitter.room(), text.data() + begin, bytes);
            splitter.commit(bytes, take);
        }
        splitter.finish(take);
        EXPECT_EQ(lines, (std::vector<std::string>{"one", "", "three", "last"})) << "pieces of " << piece;
    }
}

TEST(WatchLineSplitterTest, a_line_without_end_is_cut_and_the_next_one_is_whole) {
    LineSplitter splitter;
    std::vector<std::size_t> lengths;
    const auto take = [&lengths](std::string_view line) { lengths.push_back(line.size()); };
    std::size_t left = 5 * LineSplitter::BUFFER_BYTES;
    while (left > 0) {
        ASSERT_GT(splitter.room_bytes(), 0u);
        const std::size_t bytes = std::min(left, splitter.room_bytes());
        std::memset(splitter.room(), 'x', bytes);
        splitter.commit(bytes, take);
        left -= bytes;
    }
    std::memcpy(splitter.room(), "\nshort\n", 7);
    splitter.commit(7, take);
    EXPECT_EQ(lengths, (std::vector<std::size_t>{LineSplitter::MAX_LINE_BYTES, 5}));
    EXPECT_EQ(splitter.cut_lines(), 1u);
}

} // namespace
} // namespace corvalin::watch::test
