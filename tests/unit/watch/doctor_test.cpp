#include "tools/watch/doctor.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

namespace corvalin::watch::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

std::vector<std::string> names(const std::vector<Finding>& findings) {
    std::vector<std::string> names;
    for (const Finding& finding : findings) {
        names.push_back(std::string(layer_name(finding.layer)) + "/" + finding.name);
    }
    return names;
}

Evidence healthy() {
    Evidence evidence;
    evidence.counts[SESSIONS] = 120;
    evidence.counts[AUDIT_EXECUTIONS] = 3;
    evidence.counts[RING_ELEMENTS] = 12;
    evidence.counts[RING_PASSED] = 1000000;
    evidence.counts[IDLE_HITS] = 3;
    evidence.counts[START_PACKETS] = 1000;
    evidence.counts[TERM_PACKETS] = 880;
    evidence.counts[DATA_PACKETS] = 998120;
    evidence.kernel_drops = 0;
    evidence.receive_buffer_bytes = 212992;
    evidence.events.sessions_with_hosts = 990;
    evidence.events.sessions_without_host = 10;
    evidence.events.starts_without_nodes = 10;
    evidence.silent_s = 5;
    return evidence;
}

TEST(WatchDoctorTest, a_healthy_router_has_no_findings) {
    EXPECT_THAT(names(diagnose(healthy())), IsEmpty());
    EXPECT_THAT(names(diagnose(Evidence{})), IsEmpty());
}

TEST(WatchDoctorTest, each_fault_is_named_with_its_layer_alone) {
    const struct {
        const char* description;
        std::function<void(Evidence&)> inject;
        const char* name;
        uint64_t amount;
    } cases[] = {
        {"packets that never came", [](Evidence& all) { all.counts[LOST_PACKETS] = 7; }, "sender/gaps", 7},
        {"packets that came twice", [](Evidence& all) { all.counts[SEQUENCE_BREAKS] = 7; }, "sender/order",
         7},
        {"packets that were overtaken",
         [](Evidence& all) { all.counts[SEQUENCE_BREAKS] = all.counts[LOST_PACKETS] = 7; }, "sender/order",
         7},
        {"a full receive buffer, and the gaps it makes",
         [](Evidence& all) {
             all.kernel_drops = 7;
             all.counts[LOST_PACKETS] = 7;
         },
         "kernel/receive_buffer", 7},
        {"a receive buffer that fills up", [](Evidence& all) { all.kernel_queued_bytes = 106497; },
         "kernel/receive_queue", 106497},
        {"a full ring, and the gaps it makes",
         [](Evidence& all) { all.counts[RING_DROPPED] = all.counts[LOST_PACKETS] = 7; }, "ring/full", 7},
        {"no buffers, and the gaps it makes",
         [](Evidence& all) { all.counts[DROPPED_FAILED_ALLOCATION] = all.counts[LOST_PACKETS] = 7; },
         "ring/pool", 7},
        {"a ring that fills up", [](Evidence& all) { all.counts[RING_ELEMENTS] = 10000; }, "ring/backlog",
         10000},
        {"short datagrams", [](Evidence& all) { all.counts[DROPPED_MIN_LENGTH] = 7; }, "validation/too_short",
         7},
        {"long datagrams", [](Evidence& all) { all.counts[DROPPED_MAX_LENGTH] = 7; }, "validation/too_long",
         7},
        {"foreign datagrams", [](Evidence& all) { all.counts[REJECTED_BAD_MARKER] = 7; },
         "validation/bad_marker", 7},
        {"another version", [](Evidence& all) { all.counts[REJECTED_VERSION] = 7; }, "validation/version", 7},
        {"wrong lengths", [](Evidence& all) { all.counts[REJECTED_CORRUPTED_SIZE] = 7; },
         "validation/corrupted_size", 7},
        {"another type", [](Evidence& all) { all.counts[REJECTED_UNKNOWN_TYPE] = 7; },
         "validation/unknown_type", 7},
        {"data without a start",
         [](Evidence& all) { all.counts[UNKNOWN_INDEX_ERRORS] = all.counts[ZOMBIES] = 7; },
         "session/unknown_session", 7},
        {"an id twice", [](Evidence& all) { all.counts[EXISTING_INDEX_ERRORS] = 7; },
         "session/existing_session", 7},
        {"no memory", [](Evidence& all) { all.counts[SESSION_ALLOCATION_ERRORS] = 7; }, "session/allocation",
         7},
        {"sends that fail",
         [](Evidence& all) {
             all.events.failed_sends = 7;
             all.events.failed_sends_by_error[13] = 7;
         },
         "send/send_failed", 7},
        {"no list of nodes", [](Evidence& all) { all.events.sessions_without_host = 17; }, "send/no_node", 7},
        {"silence", [](Evidence& all) { all.silent_s = 15.5; }, "report/silence", 15},
    };
    for (const auto& row : cases) {
        Evidence evidence = healthy();
        row.inject(evidence);
        const std::vector<Finding> findings = diagnose(evidence);
        EXPECT_THAT(names(findings), ElementsAre(row.name)) << row.description;
        if (findings.size() == 1) {
            EXPECT_EQ(findings[0].amount, row.amount) << row.description;
            EXPECT_FALSE(findings[0].cause.empty()) << row.description;
            EXPECT_FALSE(findings[0].cure.empty()) << row.description;
        }
    }
}

TEST(WatchDoctorTest, limits_are_no_findings_yet) {
    Evidence evidence = healthy();
    evidence.kernel_queued_bytes = 212992 / 2;
    evidence.counts[RING_ELEMENTS] = 9999;
    evidence.silent_s = 15;
    EXPECT_THAT(names(diagnose(evidence)), IsEmpty());
}

TEST(WatchDoctorTest, gaps_beyond_what_was_lost_here_are_the_senders) {
    Evidence evidence = healthy();
    evidence.kernel_drops = 10;
    evidence.counts[RING_DROPPED] = 20;
    evidence.counts[DROPPED_FAILED_ALLOCATION] = 5;
    evidence.counts[LOST_PACKETS] = 36;
    std::vector<Finding> findings = diagnose(evidence);
    EXPECT_THAT(names(findings),
                ElementsAre("sender/gaps", "kernel/receive_buffer", "ring/full", "ring/pool"));
    EXPECT_EQ(findings[0].amount, 1u);
    evidence.counts[LOST_PACKETS] = 35;
    EXPECT_THAT(names(diagnose(evidence)), ElementsAre("kernel/receive_buffer", "ring/full", "ring/pool"));
}

TEST(WatchDoctorTest, what_may_be_late_or_rejected_widens_the_range_and_hides_no_gap) {
    Evidence evidence = healthy();
    evidence.counts[LOST_PACKETS] = 100;
    evidence.counts[SEQUENCE_BREAKS] = 10;
    evidence.counts[REJECTED_BAD_MARKER] = 1000;
    const std::vector<Finding> findings = diagnose(evidence);
    EXPECT_THAT(names(findings), ElementsAre("sender/gaps", "sender/order", "validation/bad_marker"));
    EXPECT_THAT(findings[0].what, HasSubstr("0 to 100 packets"));
    evidence.counts[REJECTED_BAD_MARKER] = 30;
    EXPECT_THAT(diagnose(evidence)[0].what, HasSubstr("60 to 100 packets"));
}

TEST(WatchDoctorTest, an_unseen_kernel_is_not_taken_for_a_clean_one) {
    Evidence evidence = healthy();
    evidence.counts[LOST_PACKETS] = 1;
    EXPECT_THAT(diagnose(evidence)[0].cause, HasSubstr("have not dropped them"));
    evidence.kernel_drops.reset();
    EXPECT_THAT(diagnose(evidence)[0].cause, HasSubstr("unknown"));
}

TEST(WatchDoctorTest, a_failed_send_tells_its_errors) {
    Evidence evidence = healthy();
    evidence.events.failed_sends = 3;
    evidence.events.failed_sends_by_error = {{0, 1}, {101, 2}};
    EXPECT_THAT(diagnose(evidence)[0].what,
                HasSubstr("1 times 0 (unknown), 2 times 101 (Network is unreachable)"));
}

TEST(WatchDoctorTest, growth_is_judged_unless_the_whole_life_is_asked_for) {
    Ledger ledger;
    Report report;
    report.port = 5000;
    report.values[REJECTED_VERSION] = 10;
    ledger.on_report(report);
    const auto rejected = [&ledger](bool since_start) {
        return evidence_of(ledger.routers().at(5000), ledger.events(), since_start).counts[REJECTED_VERSION];
    };
    EXPECT_EQ(rejected(false), 10u) << "a single report has no growth";
    report.values[REJECTED_VERSION] = 12;
    ledger.on_report(report);
    EXPECT_EQ(rejected(false), 2u);
    EXPECT_EQ(rejected(true), 12u);
    ledger.on_kernel_socket(5000, {5, 6, 7});
    const Evidence first = evidence_of(ledger.routers().at(5000), ledger.events(), false);
    EXPECT_EQ(first.kernel_drops, 5u);
    EXPECT_TRUE(first.kernel_drops_are_total);
    ledger.on_kernel_socket(5000, {8, 6, 7});
    const Evidence second = evidence_of(ledger.routers().at(5000), ledger.events(), false);
    EXPECT_EQ(second.kernel_drops, 3u);
    EXPECT_FALSE(second.kernel_drops_are_total);
    EXPECT_GT(second.receive_buffer_bytes, 0u);
}

} // namespace
} // namespace corvalin::watch::test
