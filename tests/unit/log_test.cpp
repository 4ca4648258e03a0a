#include "corvalin_lib/log.h"

#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <iomanip>
#include <iostream>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/captured_log.h"
#include "tests/support/private_syslog.h"

namespace {

using namespace corvalin;
using log::Level;
using test::ChildReport;
using test::run_with_private_syslog;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::SizeIs;

constexpr std::array<Level, 6> LEVELS = {Level::SYSTEM, Level::ERROR, Level::WARNING,
                                         Level::INFO,   Level::DEBUG, Level::TRACE};

/// What the record held before main, and that a statement was harmless there.
struct RecordBeforeMain {
    RecordBeforeMain() {
        log::write("before_main", 1, log::SystemMessage() << "TEST: before main");
        survived = true;
    }
    void* context = log::Logger::m_instance.m_context;
    log::LoggerImpl::Close close = log::Logger::m_instance.m_close;
    log::LoggerImpl::Write write = log::Logger::m_instance.m_write;
    Level level = log::Logger::m_instance.m_level;
    bool survived = false;
};
const RecordBeforeMain record_before_main;

std::string body_of(const log::Message& message, Level threshold, const char* file = "some_module",
                    int line = 1) {
    std::ostringstream stream;
    log::format_message(stream, file, line, threshold, message);
    return stream.str();
}

/// Installs a sink and a threshold in the record; the child process takes them with it to its end.
void install(log::LoggerImpl::Write write, Level threshold) {
    log::Logger::m_instance.m_write = write;
    log::Logger::m_instance.m_level = threshold;
}

void write_one_line_of_each_level() {
    for (const Level level : LEVELS) {
        log::write("some_module", 1, log::Message(level) << "TEST: " << log::level_to_string(level));
    }
}

constexpr const char* TIME_PATTERN = "[0-9]{4}\\.[0-9]{2}\\.[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{6}";

constexpr std::size_t TIME_SIZE = 26;

/// Checks the form of the time at the begin of a line and returns what follows it and its delimiter.
std::string without_time(const std::string& line) {
    EXPECT_THAT(line.substr(0, TIME_SIZE), MatchesRegex(TIME_PATTERN)) << line;
    EXPECT_EQ(line.substr(std::min(line.size(), TIME_SIZE), 3), " | ") << line;
    return line.substr(std::min(line.size(), TIME_SIZE + 3));
}

std::vector<std::string> without_times(const std::vector<std::string>& lines) {
    std::vector<std::string> rest;
    std::transform(lines.begin(), lines.end(), std::back_inserter(rest), without_time);
    return rest;
}

std::vector<std::string> texts_of(const ChildReport& report) {
    std::vector<std::string> texts;
    for (const std::string& datagram : report.syslog) {
        texts.push_back(test::parse_syslog(datagram).text);
    }
    return texts;
}

std::vector<int> priorities_of(const ChildReport& report) {
    std::vector<int> priorities;
    for (const std::string& datagram : report.syslog) {
        priorities.push_back(test::parse_syslog(datagram).priority);
    }
    return priorities;
}

// ---- Levels

TEST(LogTest, each_level_has_its_value_name_padding_and_severity) {
    struct Case {
        Level level;
        int value;
        const char* name;
        const char* spaces;
        int severity;
    };
    const std::array<Case, 6> cases = {{
        {Level::SYSTEM, 0, "SYSTEM", " ", 5},
        {Level::ERROR, 1, "ERROR", "  ", 3},
        {Level::WARNING, 2, "WARNING", "", 4},
        {Level::INFO, 3, "INFO", "   ", 6},
        {Level::DEBUG, 4, "DEBUG", "  ", 7},
        {Level::TRACE, 5, "TRACE", "  ", 7},
    }};
    for (const Case& row : cases) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(static_cast<int>(row.level), row.value);
        EXPECT_STREQ(log::level_to_string(row.level), row.name);
        EXPECT_STREQ(log::level_to_spaces(row.level), row.spaces);
        EXPECT_EQ(log::level_to_syslevel(row.level), row.severity);
    }
}

TEST(LogTest, facilities_are_those_of_syslog) {
    EXPECT_EQ(static_cast<int>(log::LocalLevel::local_level_default), 8);
    EXPECT_EQ(static_cast<int>(log::LocalLevel::local_level_statistic), 128);
    EXPECT_EQ(static_cast<int>(log::LocalLevel::local_level_packet), 136);
    EXPECT_EQ(static_cast<int>(log::LocalLevel::local_level_media), 184);
}

TEST(LogTest, constants_have_their_texts) {
    EXPECT_EQ(log::message_delimiter, " | ");
    EXPECT_EQ(log::default_directory, "/var/log/tolvaine/corvalin");
}

TEST(LogTest, try_parse_level_takes_each_name_exactly) {
    const std::array<std::pair<const char*, Level>, 6> cases = {{
        {"SYSTEM", Level::SYSTEM},
        {"ERROR", Level::ERROR},
        {"WARNING", Level::WARNING},
        {"INFO", Level::INFO},
        {"DEBUG", Level::DEBUG},
        {"TRACE", Level::TRACE},
    }};
    for (const auto& [text, expected] : cases) {
        SCOPED_TRACE(text);
        Level level = expected == Level::SYSTEM ? Level::TRACE : Level::SYSTEM;
        EXPECT_TRUE(log::try_parse_level(text, level));
        EXPECT_EQ(level, expected);
    }
}

TEST(LogTest, try_parse_level_rejects_any_other_text_and_leaves_the_level_alone) {
    for (const std::string& text :
         {std::string("Trace"), std::string("trace"), std::string("TRACE "), std::string(" TRACE"),
          std::string(), std::string("TRAC"), std::string("TRACES"), std::string("info"), std::string("3"),
          std::string("ERR"), std::string("WARN"), std::string("INFO\0", 5), std::string("INFO\n")}) {
        SCOPED_TRACE(testing::PrintToString(text));
        Level level = Level::WARNING;
        EXPECT_FALSE(log::try_parse_level(text, level));
        EXPECT_EQ(level, Level::WARNING);
    }
}

TEST(LogTest, passes_compares_with_the_threshold_and_never_stops_a_system_message) {
    for (const Level threshold : LEVELS) {
        const test::CapturedLog captured(threshold);
        EXPECT_TRUE(log::passes(Level::SYSTEM));
        for (const Level level : LEVELS) {
            EXPECT_EQ(log::passes(level), static_cast<int>(level) <= static_cast<int>(threshold))
                << log::level_to_string(level) << " at " << log::level_to_string(threshold);
        }
    }
}

// ---- Messages

TEST(LogTest, each_message_class_passes_its_level_on) {
    EXPECT_EQ(log::SystemMessage().level(), Level::SYSTEM);
    EXPECT_EQ(log::ErrorMessage().level(), Level::ERROR);
    EXPECT_EQ(log::WarningMessage().level(), Level::WARNING);
    EXPECT_EQ(log::InfoMessage().level(), Level::INFO);
    EXPECT_EQ(log::DebugMessage().level(), Level::DEBUG);
    EXPECT_EQ(log::TraceMessage().level(), Level::TRACE);
}

TEST(LogTest, a_message_takes_whatever_a_stream_takes) {
    log::InfoMessage message;
    message << "text " << std::string("string ") << -5 << ' ' << 18446744073709551615ull << ' ' << true << ' '
            << 1.5 << ' ' << std::hex << std::setw(4) << std::setfill('0') << 255 << std::dec << std::ends
            << 'x' << std::endl;
    EXPECT_EQ(message.text(), std::string("text string -5 18446744073709551615 1 1.5 00ff\0x\n", 49));
}

TEST(LogTest, the_stream_of_a_message_is_open_for_writing_by_others) {
    log::InfoMessage message;
    message << "id [";
    message.stream() << 7;
    message << "]";
    EXPECT_EQ(message.text(), "id [7]");
}

TEST(LogTest, a_message_that_is_never_written_leaves_no_trace) {
    const test::CapturedLog captured(Level::TRACE);
    { log::SystemMessage() << "TEST: built and dropped"; }
    EXPECT_THAT(captured.lines(), IsEmpty());
}

TEST(LogTest, a_statement_hands_context_source_line_and_message_to_the_sink_once) {
    struct Seen {
        int calls = 0;
        std::string file;
        int line = 0;
        const log::Message* message = nullptr;
    };
    const test::CapturedLog restores_the_record;
    Seen seen;
    log::Logger::m_instance.m_context = &seen;
    log::Logger::m_instance.m_write = [](void* context, const char* file, int line,
                                         const log::Message& message) {
        Seen& record = *static_cast<Seen*>(context);
        ++record.calls;
        record.file = file;
        record.line = line;
        record.message = &message;
    };
    const log::InfoMessage message;
    log::write("app_service", 183, message);
    EXPECT_EQ(seen.calls, 1);
    EXPECT_EQ(seen.file, "app_service");
    EXPECT_EQ(seen.line, 183);
    EXPECT_EQ(seen.message, &message);
}

// ---- The record

TEST(LogTest, the_record_is_valid_before_main_and_discards_messages_without_failure) {
    EXPECT_TRUE(record_before_main.survived);
    EXPECT_EQ(record_before_main.context, nullptr);
    EXPECT_EQ(record_before_main.close, nullptr);
    EXPECT_EQ(record_before_main.write, &log::LoggerImpl::dummy_write);
    EXPECT_EQ(record_before_main.level, Level::INFO);
}

int closed_times = 0;

TEST(LogTest, destroying_a_record_closes_its_sink_with_the_context) {
    closed_times = 0;
    {
        log::LoggerImpl record;
        record.m_context = &closed_times;
        record.m_close = [](void* context) { ++*static_cast<int*>(context); };
        EXPECT_EQ(closed_times, 0);
    }
    EXPECT_EQ(closed_times, 1);
}

TEST(LogTest, destroying_a_record_without_a_close_function_does_nothing) {
    closed_times = 0;
    {
        log::LoggerImpl record;
        record.m_context = &closed_times;
    }
    EXPECT_EQ(closed_times, 0);
}

TEST(LogTest, a_sink_that_is_open_at_process_exit_is_closed_then) {
    const ChildReport report = run_with_private_syslog([] {
        log::Logger::m_instance.m_close = [](void* context) {
            std::cerr << "closed " << (context == &closed_times) << "\n" << std::flush;
        };
        log::Logger::m_instance.m_context = &closed_times;
    });
    EXPECT_TRUE(test::succeeded(report));
    std::string all;
    for (const std::string& piece : report.standard_error) {
        all += piece;
    }
    EXPECT_EQ(all, "closed 1\n");
}

TEST(LogTest, threads_may_log_while_the_process_exits) {
    const ChildReport report = run_with_private_syslog([] {
        install(&log::Stdlog::write, Level::INFO);
        log::Logger::m_instance.m_close = &log::Syslog::close;
        static std::atomic<bool> started{false};
        std::thread([] {
            for (;;) {
                log::write("some_module", 1, log::SystemMessage() << "TEST: still here");
                log::Syslog::write("some_module", 1, log::LocalLevel::local_level_packet,
                                   log::SystemMessage() << "TEST: still here");
                started.store(true, std::memory_order_release);
            }
        }).detach();
        while (!started.load(std::memory_order_acquire)) {
            std::this_thread::yield();
        }
    });
    EXPECT_TRUE(test::succeeded(report));
    EXPECT_FALSE(report.standard_error.empty());
    EXPECT_FALSE(report.syslog.empty());
}

// ---- The text of a line

TEST(LogTest, format_message_puts_the_delimiter_at_the_same_column_for_all_levels) {
    for (const Level level : LEVELS) {
        const std::string line = body_of(log::Message(level) << "x", Level::INFO);
        EXPECT_EQ(line.find(" | "), 7u) << line;
        EXPECT_EQ(line.substr(7), " | x");
    }
    EXPECT_EQ(body_of(log::WarningMessage() << "x", Level::INFO), "WARNING | x");
    EXPECT_EQ(body_of(log::SystemMessage() << "x", Level::INFO), "SYSTEM  | x");
}

TEST(LogTest, format_message_shows_the_place_by_the_threshold_and_not_by_the_level_of_the_message) {
    for (const Level threshold : LEVELS) {
        const bool place = threshold == Level::DEBUG || threshold == Level::TRACE;
        for (const Level level : LEVELS) {
            const std::string expected = std::string(log::level_to_string(level)) +
                                         log::level_to_spaces(level) +
                                         (place ? " | some_module:51 | TEST: x" : " | TEST: x");
            EXPECT_EQ(body_of(log::Message(level) << "TEST: x", threshold, "some_module", 51), expected)
                << "at " << log::level_to_string(threshold);
        }
    }
}

TEST(LogTest, format_message_gives_the_lines_that_operators_know) {
    log::InfoMessage message;
    message << "CONFIGURATION: file is not specified, default values are used";
    const auto line = [&message](Level threshold) {
        return body_of(message, threshold, "conf_configuration", 51);
    };
    EXPECT_EQ(line(Level::INFO), "INFO    | CONFIGURATION: file is not specified, default values are used");
    EXPECT_EQ(
        line(Level::TRACE),
        "INFO    | conf_configuration:51 | CONFIGURATION: file is not specified, default values are used");
}

TEST(LogTest, format_message_returns_the_stream_and_writes_no_line_end) {
    std::ostringstream stream;
    EXPECT_EQ(&log::format_message(stream, "f", 1, Level::INFO, log::InfoMessage() << "x"), &stream);
    EXPECT_EQ(stream.str(), "INFO    | x");
}

/// Microseconds since the epoch of a text of format_time, read as UTC.
int64_t read_time_us(const std::string& text) {
    tm utc{};
    int microseconds = 0;
    char excess = 0;
    const int fields =
        std::sscanf(text.c_str(), "%4d.%2d.%2d %2d:%2d:%2d.%6d%c", &utc.tm_year, &utc.tm_mon, &utc.tm_mday,
                    &utc.tm_hour, &utc.tm_min, &utc.tm_sec, &microseconds, &excess);
    EXPECT_EQ(fields, 7) << text;
    utc.tm_year -= 1900;
    utc.tm_mon -= 1;
    return static_cast<int64_t>(timegm(&utc)) * 1000000 + microseconds;
}

int64_t now_us() {
    timeval now{};
    gettimeofday(&now, nullptr);
    return static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_usec;
}

TEST(LogTest, format_time_is_the_time_of_the_call_in_the_local_zone) {
    struct Case {
        const char* zone;
        int64_t east_us;
    };
    const ChildReport report = run_with_private_syslog([] {
        for (const Case row : {Case{"UTC0", 0}, Case{"EAST-3", INT64_C(3) * 3600 * 1000000},
                               Case{"WEST9:30", INT64_C(-34200) * 1000000}}) {
            SCOPED_TRACE(row.zone);
            setenv("TZ", row.zone, 1);
            tzset(); // the process may have read its zone already
            const int64_t before_us = now_us();
            const std::string text = log::format_time();
            const int64_t after_us = now_us();
            EXPECT_THAT(text, MatchesRegex(TIME_PATTERN));
            EXPECT_GE(read_time_us(text) - row.east_us, before_us) << text;
            EXPECT_LE(read_time_us(text) - row.east_us, after_us) << text;
        }
    });
    EXPECT_TRUE(test::succeeded(report));
}

/// Sleeps until the system's clock begins a new second.
void wait_for_next_second() {
    timespec until{};
    clock_gettime(CLOCK_REALTIME, &until);
    until.tv_sec += 1;
    until.tv_nsec = 0;
    while (clock_nanosleep(CLOCK_REALTIME, TIMER_ABSTIME, &until, nullptr) == EINTR) {
    }
}

TEST(LogTest, format_time_pads_the_microseconds_to_six_digits) {
    // In the first tenth of a second the digits begin with 0. A busy machine may wake us later than that.
    bool was_padded = false;
    for (int attempt = 0; attempt < 30 && !was_padded; ++attempt) {
        wait_for_next_second();
        const int64_t before_us = now_us();
        const std::string text = log::format_time();
        const int64_t after_us = now_us();
        ASSERT_THAT(text, MatchesRegex(TIME_PATTERN));
        const int64_t fraction_us = std::stoll(text.substr(20));
        if (before_us / 1000000 == after_us / 1000000) {
            EXPECT_GE(fraction_us, before_us % 1000000);
            EXPECT_LE(fraction_us, after_us % 1000000);
        }
        was_padded = text[20] == '0';
    }
    EXPECT_TRUE(was_padded);
}

// ---- Sinks

TEST(LogTest, the_do_nothing_sink_writes_nowhere) {
    const ChildReport report = run_with_private_syslog([] {
        install(&log::LoggerImpl::dummy_write, Level::TRACE);
        write_one_line_of_each_level();
    });
    EXPECT_TRUE(test::succeeded(report));
    EXPECT_THAT(report.standard_error, IsEmpty());
    EXPECT_THAT(report.syslog, IsEmpty());
}

TEST(LogTest, the_stream_sink_writes_time_body_and_line_feed_to_standard_error) {
    const ChildReport report = run_with_private_syslog([] {
        install(&log::Stdlog::write, Level::INFO);
        log::write("conf_configuration", 51,
                   log::InfoMessage() << "CONFIGURATION: file is not specified, default values are used");
    });
    EXPECT_TRUE(test::succeeded(report));
    EXPECT_THAT(report.syslog, IsEmpty());
    EXPECT_THAT(without_times(report.standard_error),
                ElementsAre("INFO    | CONFIGURATION: file is not specified, default values are used\n"));
}

TEST(LogTest, the_stream_sink_shows_the_place_at_debug) {
    const ChildReport report = run_with_private_syslog([] {
        install(&log::Stdlog::write, Level::DEBUG);
        log::write("app_service", 183, log::SystemMessage() << "SERVICE: exec path: /usr/bin/app");
    });
    EXPECT_TRUE(test::succeeded(report));
    EXPECT_THAT(without_times(report.standard_error),
                ElementsAre("SYSTEM  | app_service:183 | SERVICE: exec path: /usr/bin/app\n"));
}

TEST(LogTest, both_sinks_drop_what_is_above_the_threshold) {
    struct Case {
        Level threshold;
        std::size_t lines;
    };
    for (const Case row : {Case{Level::SYSTEM, 1}, Case{Level::ERROR, 2}, Case{Level::WARNING, 3},
                           Case{Level::INFO, 4}, Case{Level::DEBUG, 5}, Case{Level::TRACE, 6}}) {
        SCOPED_TRACE(log::level_to_string(row.threshold));
        const ChildReport report = run_with_private_syslog([&row] {
            install(&log::Stdlog::write, row.threshold);
            write_one_line_of_each_level();
            install(&log::Syslog::write, row.threshold);
            write_one_line_of_each_level();
        });
        EXPECT_TRUE(test::succeeded(report));
        std::vector<std::string> expected;
        for (std::size_t index = 0; index < row.lines; ++index) {
            const Level level = LEVELS.at(index);
            expected.push_back(std::string(log::level_to_string(level)) + log::level_to_spaces(level) +
                               (row.threshold >= Level::DEBUG ? " | some_module:1" : "") +
                               " | TEST: " + log::level_to_string(level) + "\n");
        }
        EXPECT_EQ(without_times(report.standard_error), expected);
        EXPECT_EQ(texts_of(report), expected);
    }
}

TEST(LogTest, a_debug_message_at_info_leaves_no_line_in_either_sink) {
    const ChildReport report = run_with_private_syslog([] {
        install(&log::Stdlog::write, Level::INFO);
        log::write("some_module", 1, log::DebugMessage() << "TEST: debug");
        install(&log::Syslog::write, Level::INFO);
        log::write("some_module", 1, log::DebugMessage() << "TEST: debug");
        log::Syslog::write("some_module", 1, log::LocalLevel::local_level_packet,
                           log::DebugMessage() << "TEST: debug");
    });
    EXPECT_TRUE(test::succeeded(report));
    EXPECT_THAT(report.standard_error, IsEmpty());
    EXPECT_THAT(report.syslog, IsEmpty());
}

TEST(LogTest, at_error_system_and_error_messages_are_written_and_a_warning_is_not) {
    const ChildReport report = run_with_private_syslog([] {
        install(&log::Stdlog::write, Level::ERROR);
        log::write("some_module", 1, log::SystemMessage() << "TEST: system");
        log::write("some_module", 1, log::WarningMessage() << "TEST: warning");
        log::write("some_module", 1, log::ErrorMessage() << "TEST: error");
    });
    EXPECT_TRUE(test::succeeded(report));
    EXPECT_THAT(without_times(report.standard_error),
                ElementsAre("SYSTEM  | TEST: system\n", "ERROR   | TEST: error\n"));
}

constexpr int THREADS = 4;
constexpr int LINES = 100;

TEST(LogTest, lines_of_several_threads_reach_the_stream_whole) {
    const ChildReport report = run_with_private_syslog([] {
        install(&log::Stdlog::write, Level::DEBUG);
        std::vector<std::thread> threads;
        threads.reserve(THREADS);
        for (int thread = 0; thread < THREADS; ++thread) {
            threads.emplace_back([thread] {
                for (int line = 0; line < LINES; ++line) {
                    log::write("some_module", line, log::InfoMessage() << "TEST: thread " << thread);
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    });
    EXPECT_TRUE(test::succeeded(report));
    // Each entry is one write: a line that went out in pieces would show as several.
    std::vector<std::string> lines = without_times(report.standard_error);
    std::vector<std::string> expected;
    for (int thread = 0; thread < THREADS; ++thread) {
        for (int line = 0; line < LINES; ++line) {
            expected.push_back("INFO    | some_module:" + std::to_string(line) + " | TEST: thread " +
                               std::to_string(thread) + "\n");
        }
    }
    std::sort(lines.begin(), lines.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(lines, expected);
}

TEST(LogTest, a_failed_stream_loses_its_line_silently) {
    const ChildReport report = run_with_private_syslog([] {
        install(&log::Stdlog::write, Level::INFO);
        std::clog.setstate(std::ios_base::badbit);
        log::write("some_module", 1, log::SystemMessage() << "TEST: lost");
        std::clog.clear();
        log::write("some_module", 2, log::SystemMessage() << "TEST: written");
    });
    EXPECT_TRUE(test::succeeded(report));
    EXPECT_THAT(without_times(report.standard_error), ElementsAre("SYSTEM  | TEST: written\n"));
}

TEST(LogTest, syslog_gets_level_and_text_without_time_and_with_a_line_feed) {
    const ChildReport report = run_with_private_syslog([] {
        install(&log::Syslog::write, Level::INFO);
        log::write("app_service", 183, log::SystemMessage() << "SERVICE: exec path: /usr/bin/app");
    });
    EXPECT_TRUE(test::succeeded(report));
    EXPECT_THAT(report.standard_error, IsEmpty());
    ASSERT_THAT(report.syslog, SizeIs(1));
    EXPECT_THAT(report.syslog[0],
                MatchesRegex("<13>[A-Z][a-z]{2} [ 0-9][0-9] [0-9]{2}:[0-9]{2}:[0-9]{2} [^:]+: "
                             "SYSTEM  \\| SERVICE: exec path: /usr/bin/app\n"));
}

TEST(LogTest, syslog_lines_of_the_logger_have_the_user_facility_and_the_severity_of_their_level) {
    const ChildReport report = run_with_private_syslog([] {
        // The facility that the process opened syslog with must not count.
        openlog("corvalinrouter", 0, LOG_LOCAL3);
        install(&log::Syslog::write, Level::TRACE);
        write_one_line_of_each_level();
    });
    EXPECT_TRUE(test::succeeded(report));
    EXPECT_THAT(priorities_of(report),
                ElementsAre(LOG_USER | LOG_NOTICE, LOG_USER | LOG_ERR, LOG_USER | LOG_WARNING,
                            LOG_USER | LOG_INFO, LOG_USER | LOG_DEBUG, LOG_USER | LOG_DEBUG));
    EXPECT_EQ(test::parse_syslog(report.syslog.at(0)).identity, "corvalinrouter");
}

TEST(LogTest, direct_syslog_lines_carry_their_own_facility) {
    const ChildReport report = run_with_private_syslog([] {
        install(&log::LoggerImpl::dummy_write, Level::TRACE);
        using log::LocalLevel;
        const log::SystemMessage message;
        log::Syslog::write("some_module", 1, LocalLevel::local_level_default, message);
        log::Syslog::write("some_module", 1, LocalLevel::local_level_statistic, message);
        log::Syslog::write("some_module", 1, LocalLevel::local_level_packet, log::TraceMessage());
        log::Syslog::write("some_module", 1, LocalLevel::local_level_media, log::TraceMessage());
    });
    EXPECT_TRUE(test::succeeded(report));
    EXPECT_THAT(priorities_of(report), ElementsAre(8 | 5, 128 | 5, 136 | 7, 184 | 7));
}

TEST(LogTest, syslog_text_from_outside_is_no_format) {
    const ChildReport report = run_with_private_syslog([] {
        install(&log::Syslog::write, Level::INFO);
        log::write("some_module", 1, log::InfoMessage() << "TEST: %s %n %d %m 100%");
    });
    EXPECT_TRUE(test::succeeded(report));
    EXPECT_THAT(texts_of(report), ElementsAre("INFO    | TEST: %s %n %d %m 100%\n"));
}

TEST(LogTest, direct_syslog_lines_pass_the_same_level_check) {
    const ChildReport report = run_with_private_syslog([] {
        install(&log::Stdlog::write, Level::DEBUG);
        log::Syslog::write("some_module", 3, log::LocalLevel::local_level_media,
                           log::TraceMessage() << "TEST: trace");
        log::Syslog::write("some_module", 4, log::LocalLevel::local_level_media,
                           log::DebugMessage() << "TEST: debug");
    });
    EXPECT_TRUE(test::succeeded(report));
    EXPECT_THAT(report.standard_error, IsEmpty());
    EXPECT_THAT(texts_of(report), ElementsAre("DEBUG   | some_module:4 | TEST: debug\n"));
}

TEST(LogTest, direct_syslog_lines_go_out_in_the_foreground_under_the_default_identity) {
    const ChildReport report = run_with_private_syslog([] {
        install(&log::Stdlog::write, Level::INFO);
        log::Syslog::write("some_module", 1, log::LocalLevel::local_level_statistic,
                           log::SystemMessage() << "TEST: report");
    });
    EXPECT_TRUE(test::succeeded(report));
    EXPECT_THAT(report.standard_error, IsEmpty());
    ASSERT_THAT(report.syslog, SizeIs(1));
    EXPECT_EQ(test::parse_syslog(report.syslog[0]).identity, program_invocation_short_name);
}

TEST(LogTest, once_the_sink_is_removed_only_direct_syslog_lines_go_out) {
    for (const log::LoggerImpl::Write sink :
         {&log::Stdlog::write, static_cast<log::LoggerImpl::Write>(&log::Syslog::write)}) {
        const ChildReport report = run_with_private_syslog([sink] {
            install(sink, Level::INFO);
            install(&log::LoggerImpl::dummy_write, Level::INFO);
            write_one_line_of_each_level();
            log::Syslog::write("some_module", 1, log::LocalLevel::local_level_statistic,
                               log::SystemMessage() << "TEST: report");
        });
        EXPECT_TRUE(test::succeeded(report));
        EXPECT_THAT(report.standard_error, IsEmpty());
        EXPECT_THAT(texts_of(report), ElementsAre("SYSTEM  | TEST: report\n"));
    }
}

TEST(LogTest, closing_syslog_gives_up_the_identity_that_it_was_opened_with) {
    const ChildReport report = run_with_private_syslog([] {
        openlog("corvalinrouter", 0, LOG_USER);
        install(&log::Syslog::write, Level::INFO);
        log::write("some_module", 1, log::SystemMessage() << "TEST: open");
        log::Syslog::close(nullptr);
        log::write("some_module", 2, log::SystemMessage() << "TEST: closed");
    });
    EXPECT_TRUE(test::succeeded(report));
    ASSERT_THAT(report.syslog, SizeIs(2));
    EXPECT_EQ(test::parse_syslog(report.syslog[0]).identity, "corvalinrouter");
    EXPECT_EQ(test::parse_syslog(report.syslog[1]).identity, program_invocation_short_name);
}

TEST(LogTest, a_syslog_that_cannot_deliver_loses_the_line_silently) {
    const ChildReport report = run_with_private_syslog([] {
        EXPECT_EQ(unlink("/dev/log"), 0);
        install(&log::Syslog::write, Level::INFO);
        log::write("some_module", 1, log::SystemMessage() << "TEST: lost");
    });
    EXPECT_TRUE(test::succeeded(report));
    EXPECT_THAT(report.standard_error, IsEmpty());
    EXPECT_THAT(report.syslog, IsEmpty());
}

} // namespace
