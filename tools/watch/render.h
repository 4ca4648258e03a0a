// render: the three forms in which the counters are shown: a view for people, JSON lines, and Prometheus text.
//
// All of them consist of this file's own words and of numbers. No text of the input gets into them: it may hold
// whatever a sender put into a call id, escape sequences for terminals among it, and a label with a session, a call id
// or a uuid would cost the metrics' store one series for each call.
//
// Threads    free functions; any thread.
// Errors     never fails.
#pragma once

#include "tools/watch/doctor.h"
#include "tools/watch/ledger.h"

#include <cstdint>
#include <string>
#include <vector>

namespace corvalin::watch {

/// What the outputs tell beside the ledger.
struct WatchState {
    uint64_t broken_reports = 0;
    int64_t now_us = 0; // monotonic clock; 0: the input is from the past, and nothing is said of its age
};

/// All routers, as a table of at most 80 columns.
std::string render_view(const Ledger& ledger, const WatchState& state);

/// One object in one line, line feed included: the router's last report.
std::string render_json_line(uint64_t port, const RouterRecord& router, const LogEvents& events);

/// The exposition format of Prometheus, version 0.0.4.
std::string render_metrics(const Ledger& ledger, const WatchState& state);

/// What the doctor found for one router, as text or as one line of JSON.
std::string render_findings(uint64_t port, const RouterRecord& router, const std::vector<Finding>& findings);
std::string render_findings_json(uint64_t port, const RouterRecord& router,
                                 const std::vector<Finding>& findings);

} // namespace corvalin::watch
