// What takes a process of its own: events of a wrong shape, which end the router, as nothing stands before RapidJSON's
// assertion; and the names that it takes from its address in another network.
#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
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
        {"versions: a number", "{\"type\":\"config_versions\", \"data\":5}"},
        {"versions: a text", "{\"type\":\"config_versions\", \"data\":\"corvalin_media_nodes\"}"},
        {"versions: below 0", "{\"type\":\"config_versions\", \"data\":{\"corvalin_media_nodes\":-1}}"},
        {"versions: a fraction", "{\"type\":\"config_versions\", \"data\":{\"corvalin_media_nodes\":1.0}}"},
        {"versions: 2^64",
         "{\"type\":\"config_versions\", \"data\":{\"corvalin_writer_nodes\":18446744073709551616}}"},
        {"versions: a text", "{\"type\":\"config_versions\", \"data\":{\"corvalin_writer_nodes\":\"1\"}}"},
        {"version below 0", "{\"type\":\"corvalin_media_nodes\", \"version\":-1, \"data\":[]}"},
        {"version null", "{\"type\":\"corvalin_media_nodes\", \"version\":null, \"data\":[]}"},
        {"version a fraction", "{\"type\":\"corvalin_media_nodes\", \"version\":1.0, \"data\":[]}"},
        {"version 2^64",
         "{\"type\":\"corvalin_writer_nodes\", \"version\":18446744073709551616, \"data\":[]}"},
        {"version a text, read ahead of a look at the data",
         "{\"type\":\"corvalin_writer_nodes\", \"version\":\"1\", \"data\":{}}"},
        {"a node that is a number", "{\"type\":\"corvalin_media_nodes\", \"version\":1, \"data\":[7]}"},
        {"a node that is an array", "{\"type\":\"corvalin_media_nodes\", \"version\":1, \"data\":[[]]}"},
        {"a node that is null", "{\"type\":\"corvalin_media_nodes\", \"version\":1, \"data\":[null]}"},
        {"port below 0",
         "{\"type\":\"corvalin_media_nodes\", \"version\":1, \"data\":[{\"ip\":\"1.1.1.1\",\"port\":-1}]}"},
        {"port a fraction",
         "{\"type\":\"corvalin_media_nodes\", \"version\":1, \"data\":[{\"ip\":\"1.1.1.1\",\"port\":1.5}]}"},
        {"port a text", "{\"type\":\"corvalin_writer_nodes\", \"version\":1, "
                        "\"data\":[{\"ip\":\"1.1.1.1\",\"port\":\"80\"}]}"},
        {"port null", "{\"type\":\"corvalin_writer_nodes\", \"version\":1, "
                      "\"data\":[{\"ip\":\"1.1.1.1\",\"port\":null}]}"},
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

// Moves this process to a network whose one interface has this address and reaches its neighbours by it.
void enter_network_with_address(const char* address) {
    // Root inside a container may lack the right, and everybody has it in a user namespace.
    bool is_done = unshare(CLONE_NEWNET) == 0 || unshare(CLONE_NEWUSER | CLONE_NEWNET) == 0;
    const int control = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq loopback{};
    std::string("lo").copy(loopback.ifr_name, IFNAMSIZ - 1);
    sockaddr_in own{};
    own.sin_family = AF_INET;
    inet_pton(AF_INET, address, &own.sin_addr);
    std::memcpy(&loopback.ifr_addr, &own, sizeof(own));
    is_done = is_done && ioctl(control, SIOCSIFADDR, &loopback) == 0;
    loopback.ifr_flags = IFF_UP;
    is_done = is_done && ioctl(control, SIOCSIFFLAGS, &loopback) == 0;
    if (!is_done) {
        std::perror("no network of its own");
        std::abort();
    }
    close(control);
}

void print_names(const char* address, const char* brokers) {
    enter_network_with_address(address);
    TestService service;
    service.m_kafka_config->m_kafka_broker = brokers;
    service.m_config->m_port = 7000;
    std::string group;
    std::string topic;
    service.on_set_kafka_params(group, topic);
    std::fprintf(stderr, "[%s] [%s]", group.c_str(), topic.c_str());
    std::_Exit(0); // the child owns nothing that it would have to give back
}

TEST(ServiceNamesDeathTest, routers_on_different_hosts_with_one_port_have_different_names) {
    EXPECT_EXIT(print_names("10.2.3.4", "10.2.3.9:9092"), testing::ExitedWithCode(0),
                "^\\[corvalin_router_10o2o3o4_7000\\] \\[corvalin_router_10o2o3o4_7000\\]$");
    EXPECT_EXIT(print_names("10.2.3.5", "10.2.3.9:9092"), testing::ExitedWithCode(0),
                "^\\[corvalin_router_10o2o3o5_7000\\] \\[corvalin_router_10o2o3o5_7000\\]$");
}

TEST(ServiceNamesDeathTest, a_broker_that_no_route_leads_to_leaves_the_address_out) {
    EXPECT_EXIT(print_names("10.2.3.4", "192.0.2.1:9092"), testing::ExitedWithCode(0),
                "^\\[corvalin_router__7000\\] \\[corvalin_router__7000\\]$");
}

} // namespace
