// Events of a wrong shape end the router, each in a child process: nothing stands before RapidJSON's assertion.
#include <csignal>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/unit/messaging/kafka_double.h"
#include "tests/unit/messaging/service_fixture.h"

namespace {

using namespace corvalin;
using namespace corvalin::test;
using testing::KilledBySignal;

class ServiceDeathTest : public ::testing::Test {
protected:
    /// Takes the event, and ends well if nothing else ends the process.
    void on_event(const std::string& json) {
        log_to_standard_error();
        m_kafka.rebalance(RdKafka::ERR__ASSIGN_PARTITIONS, {"own/0"});
        TestService service;
        service.start_messaging();
        service.on_event(json);
    }

    KafkaDouble m_kafka;
};

TEST_F(ServiceDeathTest, members_of_a_wrong_type_abort) {
    struct Case {
        const char* description;
        const char* event;
    };
    const std::vector<Case> cases = {
        {"versions: an array", "{\"type\":\"config_versions\", \"data\":[]}"},
        {"versions: null", "{\"type\":\"config_versions\", \"data\":null}"},
        {"versions: below 0", "{\"type\":\"config_versions\", \"data\":{\"corvalin_media_nodes\":-1}}"},
        {"versions: a fraction", "{\"type\":\"config_versions\", \"data\":{\"corvalin_media_nodes\":1.0}}"},
        {"versions: 2^64",
         "{\"type\":\"config_versions\", \"data\":{\"corvalin_writer_nodes\":18446744073709551616}}"},
        {"versions: a text", "{\"type\":\"config_versions\", \"data\":{\"corvalin_writer_nodes\":\"1\"}}"},
        {"version below 0", "{\"type\":\"corvalin_media_nodes\", \"version\":-1, \"data\":[]}"},
        {"version a fraction", "{\"type\":\"corvalin_media_nodes\", \"version\":1.0, \"data\":[]}"},
        {"version 2^64",
         "{\"type\":\"corvalin_writer_nodes\", \"version\":18446744073709551616, \"data\":[]}"},
        {"version a text, read ahead of a look at the data",
         "{\"type\":\"corvalin_writer_nodes\", \"version\":\"1\", \"data\":{}}"},
        {"a node that is a number", "{\"type\":\"corvalin_media_nodes\", \"version\":1, \"data\":[7]}"},
        {"a node that is null", "{\"type\":\"corvalin_media_nodes\", \"version\":1, \"data\":[null]}"},
        {"port below 0",
         "{\"type\":\"corvalin_media_nodes\", \"version\":1, \"data\":[{\"ip\":\"1.1.1.1\",\"port\":-1}]}"},
        {"port a fraction",
         "{\"type\":\"corvalin_media_nodes\", \"version\":1, \"data\":[{\"ip\":\"1.1.1.1\",\"port\":1.5}]}"},
        {"port a text", "{\"type\":\"corvalin_writer_nodes\", \"version\":1, "
                        "\"data\":[{\"ip\":\"1.1.1.1\",\"port\":\"80\"}]}"},
        {"port 2^32", "{\"type\":\"corvalin_writer_nodes\", \"version\":1, "
                      "\"data\":[{\"ip\":\"1.1.1.1\",\"port\":4294967296}]}"},
        {"ip a number",
         "{\"type\":\"corvalin_media_nodes\", \"version\":1, \"data\":[{\"ip\":5,\"port\":1}]}"},
        {"ip null",
         "{\"type\":\"corvalin_media_nodes\", \"version\":1, \"data\":[{\"ip\":null,\"port\":1}]}"},
    };
    for (const Case& row : cases) {
        SCOPED_TRACE(row.description);
        EXPECT_EXIT(on_event(row.event), KilledBySignal(SIGABRT),
                    "SERVICE: event \\[.*\\] received\nRapidJSON assertion failed: ");
    }
}

} // namespace
