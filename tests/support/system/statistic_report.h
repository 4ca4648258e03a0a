// statistic_report: the router's report of counters as it stands in syslog, read back and written independently.
#pragma once

#include "tests/support/system/syslog_socket.h"

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace corvalin::test {

/// Counters by their label without dots, colon and blank: "session number", "packet dropped  by min length".
using Counters = std::map<std::string, uint64_t>;

/// Every counter of a report, all zero: the start of an expected report.
Counters zero_counters();

/// The whole syslog text of a report at a threshold of INFO or below, frame and all.
std::string expected_report_text(unsigned int port, const Counters& counters);

/// Reads the counters of a report. Nothing if `text` is not, to the character, the report of these counters.
std::optional<Counters> parse_report(unsigned int port, const std::string& text);

/// The reports that arrived so far, oldest first. Fails the test for a report that is not as it should be.
std::vector<Counters> reports(const SyslogSocket& syslog, unsigned int port);

/// Waits for a report of which `wanted` holds; reports before the first `from` are not looked at. Returns the
/// last report that arrived, whether it is the wanted one or not, and fails the test if none arrived at all.
Counters wait_for_report(const SyslogSocket& syslog, unsigned int port,
                         const std::function<bool(const Counters&)>& wanted,
                         std::chrono::milliseconds limit = std::chrono::seconds(30));

/// Waits until a report has exactly these counters, and compares the last report with them: the counters only
/// ever grow, but for two gauges, so that a wrong total cannot pass through the right one unseen.
void expect_report(const SyslogSocket& syslog, unsigned int port, const Counters& expected,
                   std::chrono::milliseconds limit = std::chrono::seconds(30));

/// The next report that is not yet here.
Counters next_report(const SyslogSocket& syslog, unsigned int port,
                     std::chrono::milliseconds limit = std::chrono::seconds(30));

} // namespace corvalin::test
