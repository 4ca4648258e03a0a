// statistic_report_text: the router's report of counters, word for word. Written out without the code that makes such
// reports and without the code that reads them, so that no test compares either with itself.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace corvalin::test {

constexpr std::size_t COUNTERS_OF_A_REPORT = 22;
/// Characters of a label, its dots, its colon and its blank included.
constexpr std::size_t REPORT_LABEL_CHARS = 45;
using Numbers = std::array<uint64_t, COUNTERS_OF_A_REPORT>; // in the order of the rows

/// 1, 2, 3, ...: no two counters are alike.
Numbers counted_up(uint64_t first = 1);
/// "session number.............................: " and so on, in the order of the rows.
std::vector<std::string> report_labels();
/// "corvalinrouter:5000 statistic".
std::string report_title(uint64_t port);
/// The 32 rows of a report, without line feeds.
std::vector<std::string> report_rows(const std::string& title, const Numbers& numbers);
/// The rows of a router on this port, each behind `separator`.
std::string report_text(uint64_t port, const Numbers& numbers, const std::string& separator);

} // namespace corvalin::test
