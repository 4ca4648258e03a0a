// report_text: statistic reports as they stand in syslog, written out independently of who reads them.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace corvalin::watch::test {

constexpr std::size_t COUNTERS_OF_A_REPORT = 22;
using Numbers = std::array<uint64_t, COUNTERS_OF_A_REPORT>; // in the order of the rows

/// 1, 2, 3, ...: no two counters are alike.
Numbers counted_up(uint64_t first = 1);
/// The 32 rows of a report, without line feeds.
std::vector<std::string> report_rows(const std::string& title, const Numbers& numbers);
/// The rows of a router on this port, each behind `separator`.
std::string report_text(uint64_t port, const Numbers& numbers, const std::string& separator);

} // namespace corvalin::watch::test
