// report_parser: finds the statistic reports in a log, in every shape in which log daemons leave them.
//
//   real line feeds   a record of 33 lines, each in a line of its own; the lines may be indented or bear the log
//                     daemon's prefix, and lines of others may stand between them
//   escaped           one line, with "#012" for each line feed
//   plain             one line, whose line feeds are blanks, "\n" or nothing
//
// A report counts only if all its rows stand there, whole and in order, so that neither a cut nor two mixed
// reports give a wrong number.
//
// Threads    one thread.
// Ownership  the sink is borrowed.
// Errors     a report that is begun and not completed is counted in `broken_reports`; nothing is thrown.
#pragma once

#include "tools/watch/counters.h"
#include "tools/watch/log_line.h"

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace corvalin::watch {

struct Report {
    uint64_t port = 0; // 0: the banner shows none, or 0
    Values values{};
    Stamp stamp;
};

/// Takes what the log tells. The calls come on the thread of the parser.
class LogSink {
public:
    virtual ~LogSink() = default;
    virtual void on_report(const Report& report) = 0;
    /// `error` belongs to SEND_FAILED.
    virtual void on_event(LogEvent event, int error) = 0;
};

/// Follows the rows of one report.
class RowReader {
public:
    enum class Result {
        FOREIGN,  // no row of a report, or no report has begun
        TAKEN,    // the next row
        COMPLETE, // the last row: `report` is whole
        BROKEN,   // a row, but not the next one: what was begun is lost
        RESTARTED // a banner where another row should stand: what was begun is lost, and a new report has begun
    };

    /// `row` without line feed and indentation.
    Result feed(std::string_view row);
    bool is_in_report() const { return m_next_row != 0; }
    /// Drops what was begun.
    void reset() { m_next_row = 0; }

    const Report& report() const { return m_report; }
    Report& report() { return m_report; }

private:
    bool take_banner(std::string_view row);
    bool take_row(std::string_view row);

    std::size_t m_next_row = 0; // 0: waits for a banner
    Report m_report;
};

class ReportParser {
public:
    explicit ReportParser(LogSink& sink) : m_sink(sink) {}

    /// One line of a log, without its line feed: text of any shape, a line of the journal's JSON, or a syslog
    /// record with its priority. `now_s` is the wall clock.
    void feed_line(std::string_view line, int64_t now_s);
    /// One datagram of a syslog socket.
    void feed_datagram(std::string_view datagram, int64_t now_s);
    /// No more lines: a report that has begun is broken.
    void finish();

    uint64_t broken_reports() const { return m_broken_reports; }

private:
    void feed_record(const SyslogText& record);
    void feed_text_line(std::string_view line, int64_t now_s);
    void feed_row_of_lines(std::string_view line, bool is_log_line);
    void feed_one_line_report(std::string_view text, const Stamp& stamp);
    void feed_rows(std::string_view text, std::string_view separator, const Stamp& stamp);
    void feed_event(const Body& body);

    LogSink& m_sink;              // borrowed
    RowReader m_rows;             // of reports with a line for each row
    Stamp m_header;               // of the latest line that a report may follow
    uint64_t m_foreign_lines = 0; // since the last row of the report that has begun
    uint64_t m_broken_reports = 0;
};

} // namespace corvalin::watch
