#include "tools/watch/doctor.h"

#include <algorithm>
#include <cstring>
#include <sstream>

namespace corvalin::watch {

namespace {

// Of the ring's 100000 places: above this the reader has fallen behind by seconds.
constexpr uint64_t RING_BACKLOG_PACKETS = 10000;
// Three periods of the reports.
constexpr double SILENCE_LIMIT_S = 15;

std::string number(uint64_t value) {
    return std::to_string(value);
}

void diagnose_reports(const Evidence& evidence, std::vector<Finding>& findings) {
    if (evidence.silent_s && *evidence.silent_s > SILENCE_LIMIT_S) {
        const auto seconds = static_cast<uint64_t>(*evidence.silent_s);
        findings.push_back({Layer::REPORT, "silence", seconds,
                            "no report for " + number(seconds) + " s, where one is due every 5 s",
                            "The router has ended, or the log daemon stands still: then the router's reader "
                            "waits in syslog and the ring fills up.",
                            "Look whether the router runs (systemctl status) and whether the log daemon "
                            "takes lines (logger test). A "
                            "rate limit of the journal that eats reports shows as gaps in their times: lift "
                            "it for this service."});
    }
}

void diagnose_sender(const Evidence& evidence, std::vector<Finding>& findings) {
    const Values& counts = evidence.counts;
    const uint64_t gaps = counts[LOST_PACKETS];
    const uint64_t breaks = counts[SEQUENCE_BREAKS];
    const uint64_t here =
        evidence.kernel_drops.value_or(0) + counts[RING_DROPPED] + counts[DROPPED_FAILED_ALLOCATION];
    const uint64_t rejected = counts[REJECTED_BAD_MARKER] + counts[REJECTED_VERSION] +
                              counts[REJECTED_CORRUPTED_SIZE] + counts[REJECTED_UNKNOWN_TYPE] +
                              counts[DROPPED_MIN_LENGTH] + counts[DROPPED_MAX_LENGTH];
    const uint64_t late = std::min(breaks, gaps); // a packet that comes late has been counted as a gap before
    if (gaps > here + late) {
        const uint64_t most = gaps - here;
        const uint64_t least = gaps - std::min(gaps, here + late + rejected);
        findings.push_back(
            {Layer::SENDER, "gaps", most,
             number(least) + " to " + number(most) + " packets of running sessions never came here (" +
                 number(gaps) + " missing in the sequences, " + number(here) +
                 " of them lost by the kernel, the ring or the pool)",
             evidence.kernel_drops
                 ? "Lost at the sender or on the network in front of this machine: the kernel, the "
                   "ring and the pool have not dropped them."
                 : "Lost in front of the router. Whether the kernel dropped them is unknown: its line "
                   "of /proc/net/udp was not found.",
             "Compare with the sender's own counters; look at the interface (ip -s link, ethtool -S) and the "
             "switch."});
    }
    if (breaks > 0) {
        findings.push_back(
            {Layer::SENDER, "order", breaks,
             number(breaks) + " packets came twice or behind a later one of their session, and were dropped",
             "The sender repeats packets or sends one session from several threads, or the network has "
             "several paths.",
             "Keep a session to one socket and one path; switch repeats off at the sender."});
    }
}

void diagnose_kernel(const Evidence& evidence, std::vector<Finding>& findings) {
    const std::string buffer =
        evidence.receive_buffer_bytes == 0
            ? "the receive buffer"
            : "the receive buffer of " + number(evidence.receive_buffer_bytes) + " bytes";
    if (evidence.kernel_drops.value_or(0) > 0) {
        findings.push_back(
            {Layer::KERNEL, "receive_buffer", *evidence.kernel_drops,
             number(*evidence.kernel_drops) + " datagrams found " + buffer + " full" +
                 (evidence.kernel_drops_are_total ? ", since the router opened its socket" : ""),
             "Bursts are larger than the buffer, or the main thread does not get the processor. The router "
             "does not see these.",
             "Raise net.core.rmem_default (rmem_max alone changes nothing), restart the router, and give it "
             "a processor of its own."});
    } else if (evidence.receive_buffer_bytes != 0 &&
               evidence.kernel_queued_bytes > evidence.receive_buffer_bytes / 2) {
        findings.push_back(
            {Layer::KERNEL, "receive_queue", evidence.kernel_queued_bytes,
             number(evidence.kernel_queued_bytes) + " bytes wait in " + buffer + ", more than half of it",
             "The main thread does not keep up, or stands still.",
             "Look at the router's processor time by thread (top -H) before datagrams are dropped."});
    }
}

void diagnose_ring(const Evidence& evidence, std::vector<Finding>& findings) {
    const Values& counts = evidence.counts;
    if (counts[RING_DROPPED] > 0) {
        findings.push_back({Layer::RING, "full", counts[RING_DROPPED],
                            number(counts[RING_DROPPED]) + " packets found the ring of 100000 full",
                            "The reader thread is slower than the packets come, or stands: in syslog, as the "
                            "log daemon takes no lines, or in sends, as the send buffer is full.",
                            "Look whether the log daemon stands still; lower log_level from TRACE; take "
                            "sessions off this router."});
    }
    if (counts[DROPPED_FAILED_ALLOCATION] > 0) {
        findings.push_back(
            {Layer::RING, "pool", counts[DROPPED_FAILED_ALLOCATION],
             number(counts[DROPPED_FAILED_ALLOCATION]) + " datagrams found no free packet buffer",
             "The pool of 150000 is larger than the ring, so this should not be: buffers do not come back.",
             "Restart the router and report it as an error of the router, with the reports before."});
    }
    if (counts[RING_DROPPED] == 0 && counts[RING_ELEMENTS] >= RING_BACKLOG_PACKETS) {
        findings.push_back({Layer::RING, "backlog", counts[RING_ELEMENTS],
                            number(counts[RING_ELEMENTS]) + " packets wait in the ring of 100000",
                            "The reader thread has fallen behind; nothing is lost yet.",
                            "Look whether the log daemon stands still; lower log_level from TRACE."});
    }
}

struct ValidationRule {
    CounterId counter;
    const char* name;
    const char* what;
    const char* cause;
    const char* cure;
};

constexpr const char* STRANGER_CURE =
    "Find the source (tcpdump on the port) and let the firewall take datagrams from the senders only.";
constexpr const char* SENDER_CURE = "Find the sender (tcpdump on the port) and correct or update it.";

constexpr ValidationRule VALIDATION_RULES[] = {
    {DROPPED_MIN_LENGTH, "too_short", " datagrams were shorter than a packet header of 48 bytes",
     "A stranger, a probe of the port, or a sender that cuts packets.", STRANGER_CURE},
    {DROPPED_MAX_LENGTH, "too_long", " datagrams were longer than 1376 bytes",
     "A sender that puts too much media or too long a call id into a packet, or a stranger.", SENDER_CURE},
    {REJECTED_BAD_MARKER, "bad_marker", " datagrams had not the marker of a media packet",
     "Foreign traffic on this port.", STRANGER_CURE},
    {REJECTED_VERSION, "version", " packets had a version other than 0",
     "A sender of another format version.", SENDER_CURE},
    {REJECTED_CORRUPTED_SIZE, "corrupted_size", " packets were not as long as their fields say",
     "A sender that counts wrongly, or packets cut on the way.", SENDER_CURE},
    {REJECTED_UNKNOWN_TYPE, "unknown_type", " packets were neither start, data nor terminate",
     "A sender of another format, or a stranger.", SENDER_CURE},
};

void diagnose_validation(const Evidence& evidence, std::vector<Finding>& findings) {
    for (const ValidationRule& rule : VALIDATION_RULES) {
        const uint64_t amount = evidence.counts[rule.counter];
        if (amount > 0) {
            findings.push_back(
                {Layer::VALIDATION, rule.name, amount, number(amount) + rule.what, rule.cause, rule.cure});
        }
    }
}

void diagnose_session(const Evidence& evidence, std::vector<Finding>& findings) {
    const Values& counts = evidence.counts;
    if (counts[UNKNOWN_INDEX_ERRORS] > 0) {
        findings.push_back(
            {Layer::SESSION, "unknown_session", counts[UNKNOWN_INDEX_ERRORS],
             number(counts[UNKNOWN_INDEX_ERRORS]) + " packets belonged to no session; " +
                 number(counts[ZOMBIES]) +
                 " zombies took the place, and swallow all further data of their ids without a count",
             "The start packet was lost or came behind the data, the session had ended or had timed out, or "
             "the router was restarted in the middle of calls.",
             "If starts are lost, cure the loss in front first; let senders wait between start and data, and "
             "keep media time running. Calls that lived over a restart stay lost until they end."});
    }
    if (counts[EXISTING_INDEX_ERRORS] > 0) {
        findings.push_back({Layer::SESSION, "existing_session", counts[EXISTING_INDEX_ERRORS],
                            number(counts[EXISTING_INDEX_ERRORS]) +
                                " start packets found their id in the table, and were dropped",
                            "Two calls share an id, a sender repeats its start, or data came in front of the "
                            "start and a zombie stands "
                            "in its place.",
                            "Make ids unique over all senders and over at least 300 seconds behind a call."});
    }
    if (counts[SESSION_ALLOCATION_ERRORS] > 0) {
        findings.push_back(
            {Layer::SESSION, "allocation", counts[SESSION_ALLOCATION_ERRORS],
             number(counts[SESSION_ALLOCATION_ERRORS]) + " sessions could not be built",
             "The process got no memory: the machine had none left to give. A limit by MemoryMax of the unit "
             "would have ended the router instead.",
             "Find what takes the memory: a session takes about 450 bytes, and more with a long call id."});
    }
}

std::string errors_text(const LogEvents& events) {
    std::ostringstream text;
    for (const auto& [error, count] : events.failed_sends_by_error) {
        text << (text.tellp() == 0 ? "" : ", ") << count << " times " << error << " ("
             << (error == 0 ? "unknown" : std::strerror(error)) << ")";
    }
    return text.str();
}

void diagnose_send(const Evidence& evidence, std::vector<Finding>& findings) {
    const LogEvents& events = evidence.events;
    if (events.failed_sends > 0) {
        findings.push_back({Layer::SEND, "send_failed", events.failed_sends,
                            number(events.failed_sends) +
                                " sends to nodes were refused by this machine: " + errors_text(events),
                            "No route to the node, a firewall rule on the way out, or an address that cannot "
                            "be sent to. Each is one packet to one node; no counter of the report holds it.",
                            "Look up the node's address (ip route get ADDRESS) and the rules (nft list "
                            "ruleset); correct the node list."});
    }
    // Sessions may ask for no node; what asks is known only where the trace is read too.
    const uint64_t by_wish = events.starts_without_nodes;
    if (events.sessions_without_host > by_wish) {
        const uint64_t amount = events.sessions_without_host - by_wish;
        const bool is_trace_seen = events.starts_with_nodes + events.starts_without_nodes > 0;
        findings.push_back(
            {Layer::SEND, "no_node", amount,
             number(amount) + " sessions were given no node, and all their packets go nowhere",
             is_trace_seen
                 ? "The list of nodes of the kind that they ask for was empty when they began."
                 : "The list of nodes was empty when they began, or they ask for none, which the trace would "
                   "tell.",
             "Look for the node lists in the log, and whether Kafka and the configuration manager answer; a "
             "list in router.conf bridges the time. Sessions that run keep what they have."});
    }
}

} // namespace

Evidence evidence_of(const RouterRecord& router, const LogEvents& events, bool since_start) {
    Evidence evidence;
    for (std::size_t counter = 0; counter < COUNTER_COUNT; ++counter) {
        const GrowingCount& count = router.counts[counter];
        evidence.counts[counter] = COUNTERS[counter].is_gauge ? count.last()
                                   : since_start              ? count.total()
                                                              : count.growth();
    }
    if (router.kernel) {
        evidence.kernel_drops = since_start ? router.kernel_drops.total() : router.kernel_drops.growth();
        evidence.kernel_drops_are_total = since_start || router.kernel_drops.values() == 1;
        evidence.kernel_queued_bytes = router.kernel->queued_bytes;
        evidence.receive_buffer_bytes = default_receive_buffer_bytes();
    }
    evidence.events = events;
    return evidence;
}

const char* layer_name(Layer layer) {
    switch (layer) {
    case Layer::SENDER:
        return "sender";
    case Layer::KERNEL:
        return "kernel";
    case Layer::RING:
        return "ring";
    case Layer::VALIDATION:
        return "validation";
    case Layer::SESSION:
        return "session";
    case Layer::SEND:
        return "send";
    case Layer::REPORT:
        return "report";
    }
    return "";
}

std::vector<Finding> diagnose(const Evidence& evidence) {
    std::vector<Finding> findings;
    diagnose_reports(evidence, findings);
    diagnose_sender(evidence, findings);
    diagnose_kernel(evidence, findings);
    diagnose_ring(evidence, findings);
    diagnose_validation(evidence, findings);
    diagnose_session(evidence, findings);
    diagnose_send(evidence, findings);
    return findings;
}

} // namespace corvalin::watch
