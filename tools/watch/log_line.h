// log_line: takes apart the lines in which the router's texts arrive, whoever wrote them to a file or a socket.
//
// Senders choose call ids, and a call id stands in the trace lines: no text in the middle of a line is taken for
// something that the router says. What counts is what stands right behind the level.
//
// Threads    free functions; any thread.
// Ownership  views point into the given text.
// Errors     what is not of the form gives nothing; nothing is thrown.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace corvalin::watch {

/// Where and when a text was written, as far as the line tells.
struct Stamp {
    int64_t time_us = 0; // since the epoch; 0: unknown
    int64_t pid = 0;     // 0: unknown
};

/// "<time host tag: >LEVEL | <place | >text".
struct Body {
    std::string_view prefix; // in front of the level
    std::string_view level;  // "SYSTEM", without its padding
    std::string_view text;
};
std::optional<Body> split_body(std::string_view line);

/// Reads what stands in front of the level: the time in the form of RFC 3339 or "Mmm dd hh:mm:ss" of local time,
/// and the number in brackets behind the tag. `now_s` chooses the year that the second form leaves out.
Stamp parse_prefix(std::string_view prefix, int64_t now_s);

/// One syslog record: of a socket, or a line of the journal's JSON.
struct SyslogText {
    std::string text;
    std::optional<unsigned int> facility;
    Stamp stamp;
};
/// "<133>Nov 21 12:00:00 tag[pid]: text".
std::optional<SyslogText> parse_syslog_datagram(std::string_view datagram, int64_t now_s);
/// One line of `journalctl -o json`. A message that the journal shows as bytes or leaves out gives nothing.
std::optional<SyslogText> parse_journal_line(std::string_view line);

/// Facility of the statistic reports.
constexpr unsigned int STATISTIC_FACILITY = 16;

/// What other lines of the router tell of packets.
enum class LogEvent {
    NONE,
    SEND_FAILED,
    HOSTS_ASSIGNED,
    NO_HOST_ASSIGNED,
    START_WITH_NODES,
    START_WITHOUT_NODES
};
LogEvent classify(const Body& body);
/// Of a SEND_FAILED line: the error number, 0 if there is none.
int send_error(const Body& body);

} // namespace corvalin::watch
