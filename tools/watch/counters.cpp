#include "tools/watch/counters.h"

namespace corvalin::watch {

namespace {

constexpr const char* DROPPED_METRIC = "corvalin_router_dropped_packets_total";
constexpr const char* DROPPED_HELP = "Datagrams dropped in front of the ring, by reason.";
constexpr const char* REJECTED_METRIC = "corvalin_router_rejected_packets_total";
constexpr const char* REJECTED_HELP = "Packets that failed validation behind the ring, by reason.";
constexpr const char* PACKETS_METRIC = "corvalin_router_packets_total";
constexpr const char* PACKETS_HELP = "Valid packets, by type.";

} // namespace

const std::array<CounterInfo, COUNTER_COUNT> COUNTERS = {{
    {"session number", "sessions", "corvalin_router_sessions", "",
     "Entries of the session table, zombies included.", true},
    {"session number (zombie)", "zombies", "corvalin_router_zombies_total", "",
     "Zombie sessions created since the router started.", false},
    {"session audit executions number", "audit_executions", "corvalin_router_audit_executions_total", "",
     "Audits that removed at least one session.", false},
    {"session allocation errors number", "session_allocation_errors",
     "corvalin_router_session_allocation_errors_total", "", "Sessions that could not be built.", false},
    {"session existing index errors number", "existing_index_errors",
     "corvalin_router_existing_index_errors_total", "", "Start packets for an id that was in the table.",
     false},
    {"session unknown index errors number", "unknown_index_errors",
     "corvalin_router_unknown_index_errors_total", "",
     "Data and terminate packets for an id that was not in the table.", false},
    {"session sequence break errors number", "sequence_breaks", "corvalin_router_sequence_breaks_total", "",
     "Packets that were repeated or late in their session.", false},
    {"session lost packets number", "lost_packets", "corvalin_router_lost_packets_total", "",
     "Packets missing in the sequences of the sessions.", false},
    {"packet queue elements number", "ring_elements", "corvalin_router_ring_packets", "",
     "Packets that wait in the ring.", true},
    {"packet queue passed elements number", "ring_passed", "corvalin_router_ring_passed_packets_total", "",
     "Packets pushed into the ring.", false},
    {"packet queue dropped elements number", "ring_dropped", "corvalin_router_ring_dropped_packets_total", "",
     "Packets lost because the ring was full.", false},
    {"packet queue idle hits number", "idle_hits", "corvalin_router_idle_hits_total", "",
     "Idle rounds of the reader that removed sessions.", false},
    {"packet dropped  by min length", "dropped_min_length", DROPPED_METRIC, "reason=\"min_length\"",
     DROPPED_HELP, false},
    {"packet dropped  by max length", "dropped_max_length", DROPPED_METRIC, "reason=\"max_length\"",
     DROPPED_HELP, false},
    {"packet dropped  by failed allocation", "dropped_failed_allocation", DROPPED_METRIC,
     "reason=\"failed_allocation\"", DROPPED_HELP, false},
    {"packet rejected by bad marker", "rejected_bad_marker", REJECTED_METRIC, "reason=\"bad_marker\"",
     REJECTED_HELP, false},
    {"packet rejected by version", "rejected_version", REJECTED_METRIC, "reason=\"version\"", REJECTED_HELP,
     false},
    {"packet rejected by corrupted size", "rejected_corrupted_size", REJECTED_METRIC,
     "reason=\"corrupted_size\"", REJECTED_HELP, false},
    {"packet rejected by unknown type", "rejected_unknown_type", REJECTED_METRIC, "reason=\"unknown_type\"",
     REJECTED_HELP, false},
    {"packet 'start' type number", "start_packets", PACKETS_METRIC, "type=\"start\"", PACKETS_HELP, false},
    {"packet 'term'  type number", "term_packets", PACKETS_METRIC, "type=\"terminate\"", PACKETS_HELP, false},
    {"packet 'data'  type number", "data_packets", PACKETS_METRIC, "type=\"data\"", PACKETS_HELP, false},
}};

std::string padded_label(const CounterInfo& counter) {
    std::string label = counter.label;
    label.resize(LABEL_CHARS - 2, '.');
    return label + ": ";
}

} // namespace corvalin::watch
