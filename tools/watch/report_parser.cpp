#include "tools/watch/report_parser.h"

#include <algorithm>
#include <charconv>
#include <string>
#include <vector>

namespace corvalin::watch {

namespace {

constexpr std::size_t WIDTH = 76;
constexpr std::string_view ESCAPED_LINE_FEED = "#012";
constexpr std::string_view BANNER_NAME = "corvalinrouter";
constexpr std::string_view BANNER_END = " statistic";
// Beyond this a report has lost its end; lines between its rows are few, if any.
constexpr uint64_t MAX_FOREIGN_LINES = 1000;

// What a row behind the banner must be: a counter, or a fixed text.
struct Row {
    std::size_t counter = COUNTER_COUNT; // COUNTER_COUNT: the row is fixed
    std::string start;                   // "* session number....: ", or the whole row
};

std::string framed(const std::string& text) {
    std::string row = "* " + text;
    row.resize(WIDTH - 1, ' ');
    return row + "*";
}

std::vector<Row> make_rows() {
    const Row empty{COUNTER_COUNT, framed("")};
    std::vector<Row> rows = {Row{}, empty}; // the first stands for the banner
    const auto add_counters = [&rows](std::size_t first, std::size_t last) {
        for (std::size_t counter = first; counter <= last; ++counter) {
            rows.push_back({counter, "* " + padded_label(COUNTERS[counter])});
        }
    };
    add_counters(SESSIONS, AUDIT_EXECUTIONS);
    rows.push_back(empty);
    add_counters(SESSION_ALLOCATION_ERRORS, LOST_PACKETS);
    rows.push_back(empty);
    rows.push_back({COUNTER_COUNT, std::string(28, '*') + " packets statistic " + std::string(29, '*')});
    rows.push_back(empty);
    add_counters(RING_ELEMENTS, IDLE_HITS);
    rows.push_back(empty);
    add_counters(DROPPED_MIN_LENGTH, REJECTED_UNKNOWN_TYPE);
    rows.push_back(empty);
    add_counters(START_PACKETS, DATA_PACKETS);
    rows.push_back(empty);
    rows.push_back({COUNTER_COUNT, std::string(WIDTH, '*')});
    return rows;
}

const std::vector<Row>& rows() {
    static const std::vector<Row> all = make_rows();
    return all;
}

bool is_framed(std::string_view row) {
    return row.size() == WIDTH && row.front() == '*' && row.back() == '*';
}

std::string_view trimmed(std::string_view line) {
    while (!line.empty() && (line.back() == ' ' || line.back() == '\r' || line.back() == '\t')) {
        line.remove_suffix(1);
    }
    const std::size_t begin = line.find_first_not_of(" \t");
    return begin == std::string_view::npos ? std::string_view() : line.substr(begin);
}

bool starts_with(std::string_view text, std::string_view start) {
    return text.substr(0, start.size()) == start;
}

} // namespace

bool RowReader::take_banner(std::string_view row) {
    const std::size_t begin = row.find_first_not_of('*');
    if (!is_framed(row) || begin == std::string_view::npos) {
        return false;
    }
    const std::size_t end = row.find_last_not_of('*');
    std::string_view title = row.substr(begin, end + 1 - begin);
    if (title.size() < 2 || title.front() != ' ' || title.back() != ' ') {
        return false;
    }
    title = title.substr(1, title.size() - 2);
    if (!starts_with(title, BANNER_NAME) || title.size() < BANNER_NAME.size() + BANNER_END.size() ||
        title.substr(title.size() - BANNER_END.size()) != BANNER_END) {
        return false;
    }
    const std::string_view port =
        title.substr(BANNER_NAME.size(), title.size() - BANNER_NAME.size() - BANNER_END.size());
    Report report;
    if (!port.empty()) {
        const char* const port_end = port.data() + port.size();
        const auto number = std::from_chars(port.data() + 1, port_end, report.port);
        if (port[0] != ':' || number.ec != std::errc() || number.ptr != port_end ||
            report.port > UINT16_MAX) {
            return false;
        }
    }
    m_report = report;
    m_next_row = 1;
    return true;
}

bool RowReader::take_row(std::string_view row) {
    const Row& wanted = rows()[m_next_row];
    if (wanted.counter == COUNTER_COUNT) {
        return row == wanted.start;
    }
    if (!is_framed(row) || !starts_with(row, wanted.start)) {
        return false;
    }
    const std::string_view field = row.substr(wanted.start.size(), WIDTH - 1 - wanted.start.size());
    const auto number =
        std::from_chars(field.data(), field.data() + field.size(), m_report.values[wanted.counter]);
    const auto digits = static_cast<std::size_t>(number.ptr - field.data());
    return number.ec == std::errc() && field.find_first_not_of(' ', digits) == std::string_view::npos;
}

RowReader::Result RowReader::feed(std::string_view row) {
    const bool was_in_report = is_in_report();
    if (take_banner(row)) {
        return was_in_report ? Result::RESTARTED : Result::TAKEN;
    }
    if (!was_in_report) {
        return Result::FOREIGN;
    }
    if (take_row(row)) {
        ++m_next_row;
        if (m_next_row < rows().size()) {
            return Result::TAKEN;
        }
        m_next_row = 0;
        return Result::COMPLETE;
    }
    if (is_framed(row)) {
        m_next_row = 0;
        return Result::BROKEN;
    }
    return Result::FOREIGN;
}

void ReportParser::feed_line(std::string_view line, int64_t now_s) {
    if (line.empty()) {
        return;
    }
    if (line.front() == '{') {
        if (const auto record = parse_journal_line(line)) {
            feed_record(*record);
        }
        return;
    }
    feed_text_line(line, now_s);
}

void ReportParser::feed_datagram(std::string_view datagram, int64_t now_s) {
    if (const auto record = parse_syslog_datagram(datagram, now_s)) {
        feed_record(*record);
    }
}

void ReportParser::finish() {
    m_broken_reports += m_rows.is_in_report() ? 1 : 0;
    m_rows.reset();
}

// A record tells its facility, so that no text of another one passes for a report.
void ReportParser::feed_record(const SyslogText& record) {
    const std::string_view text = record.text;
    const std::size_t header_end = std::min(text.find('\n'), text.size());
    const auto body = split_body(text.substr(0, header_end));
    if (!body) {
        return;
    }
    if (record.facility != STATISTIC_FACILITY) {
        feed_event(*body);
    } else if (header_end < text.size()) {
        feed_rows(text.substr(header_end + 1), "\n", record.stamp);
    } else {
        feed_one_line_report(body->text, record.stamp);
    }
}

void ReportParser::feed_text_line(std::string_view line, int64_t now_s) {
    const auto body = split_body(line);
    if (body && body->level == "SYSTEM") {
        if (body->text.find_first_not_of(" \r") == std::string_view::npos) {
            m_header = parse_prefix(body->prefix, now_s);
            return;
        }
        if (starts_with(body->text, ESCAPED_LINE_FEED) || body->text.front() == '*' ||
            starts_with(body->text, " *") || starts_with(body->text, "\\n*")) {
            feed_one_line_report(body->text, parse_prefix(body->prefix, now_s));
            return;
        }
    }
    if (body) {
        feed_event(*body);
    }
    feed_row_of_lines(line, body.has_value());
}

void ReportParser::feed_row_of_lines(std::string_view line, bool is_log_line) {
    std::string_view row = is_log_line ? std::string_view() : trimmed(line);
    if (!m_rows.is_in_report() && (row.empty() || row.back() != '*')) {
        return; // nearly all lines of a log
    }
    if (row.size() > WIDTH && row[row.size() - WIDTH - 1] == ' ') {
        row = row.substr(row.size() - WIDTH); // behind the log daemon's prefix
    }
    switch (m_rows.feed(row)) {
    case RowReader::Result::TAKEN:
        m_foreign_lines = 0;
        break;
    case RowReader::Result::COMPLETE:
        m_rows.report().stamp = m_header;
        m_header = {};
        m_sink.on_report(m_rows.report());
        break;
    case RowReader::Result::RESTARTED:
    case RowReader::Result::BROKEN:
        ++m_broken_reports;
        m_foreign_lines = 0;
        break;
    case RowReader::Result::FOREIGN:
        if (m_rows.is_in_report() && ++m_foreign_lines > MAX_FOREIGN_LINES) {
            ++m_broken_reports;
            m_foreign_lines = 0;
            m_rows.reset();
        }
        break;
    }
}

void ReportParser::feed_one_line_report(std::string_view text, const Stamp& stamp) {
    // What stands for the line feed in front of the banner stands for all others too.
    const std::size_t banner = text.find('*');
    if (banner == std::string_view::npos) {
        return;
    }
    std::string separator(text.substr(0, banner));
    text.remove_prefix(banner);
    if (separator.empty() && text.size() > WIDTH && text[WIDTH] == ' ') {
        separator = " "; // the first one may have been trimmed off with the blanks around the text
    }
    feed_rows(text, separator, stamp);
}

void ReportParser::feed_rows(std::string_view text, std::string_view separator, const Stamp& stamp) {
    RowReader reader;
    bool has_begun = false;
    const std::size_t step = WIDTH + separator.size();
    for (std::size_t begin = 0; begin < text.size(); begin += step) {
        const RowReader::Result result = reader.feed(text.substr(begin, WIDTH));
        if (result == RowReader::Result::COMPLETE) {
            reader.report().stamp = stamp;
            m_sink.on_report(reader.report());
            return;
        }
        has_begun = has_begun || reader.is_in_report();
        const bool is_separated =
            text.substr(std::min(text.size(), begin + WIDTH), separator.size()) == separator;
        if (result != RowReader::Result::TAKEN || !is_separated) {
            break;
        }
    }
    m_broken_reports += has_begun ? 1 : 0; // else it is the text of somebody else
}

void ReportParser::feed_event(const Body& body) {
    const LogEvent event = classify(body);
    if (event != LogEvent::NONE) {
        m_sink.on_event(event, event == LogEvent::SEND_FAILED ? send_error(body) : 0);
    }
}

} // namespace corvalin::watch
