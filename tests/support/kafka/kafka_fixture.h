// kafka_fixture: a test with a broker of either kind, topics of its own, a peer in the manager's place and any
// number of routers.
//
// All tests with one kind of broker that run in one process share it; it is up again after each. Names of topics
// and groups hold the router's port and are never used twice.
#pragma once

#include "tests/support/kafka/broker.h"
#include "tests/support/kafka/kafka_peer.h"
#include "tests/support/system/router_process.h"
#include "tests/support/system/udp.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace corvalin::test {

/// The manager's topics.
struct ManagerTopics {
    std::string request;
    std::string broadcast;
};

/// A router that talks to a broker, with a place of its own.
class KafkaRouter {
public:
    enum class OwnTopic { CREATED, MISSING };

    /// Chooses a free UDP port and creates the router's own topic. Does not start it.
    KafkaRouter(Broker& broker, const ManagerTopics& topics, OwnTopic own_topic = OwnTopic::CREATED);

    /// Starts the process with this content of router.conf beside the port. Does not wait for anything.
    void start(const std::string& configuration = "", const std::vector<std::string>& arguments = {});
    /// Starts it again in the same place, with what was given last. It has ended before.
    void restart();

    /// "corvalin_router_127o0o0o1_PORT", also the name of its group.
    const std::string& topic() const { return m_topic; }
    uint16_t port() const { return m_port; }
    RouterPlace& place() { return m_place; }
    RouterProcess& process() { return *m_process; }

    /// The texts of its requests.
    std::string list_request(const std::string& configuration) const;
    std::string versions_request() const;

private:
    const uint16_t m_port;
    const std::string m_topic;
    RouterPlace m_place;
    std::vector<std::string> m_arguments;
    std::optional<RouterProcess> m_process; // goes before the place
};

class KafkaTest : public ::testing::TestWithParam<BrokerKind> {
public:
    /// Ends the broker that the tests share, before the process does.
    static void end_broker();

protected:
    /// Skips where the broker cannot be had; in CI that is a failure.
    void SetUp() override;
    void TearDown() override;

    Broker& broker() { return *s_broker; }
    EmbeddedBroker& embedded_broker() { return dynamic_cast<EmbeddedBroker&>(*s_broker); }
    ApacheBroker& apache_broker() { return dynamic_cast<ApacheBroker&>(*s_broker); }
    const ManagerTopics& topics() const { return m_topics; }
    KafkaPeer& peer() { return *m_peer; }

private:
    static std::unique_ptr<Broker> s_broker;
    static std::optional<BrokerKind> s_kind;

    ManagerTopics m_topics;
    std::optional<KafkaPeer> m_peer;
};

/// The text of a list event with these nodes.
std::string node_list_event(const std::string& type, uint64_t version,
                            const std::vector<const UdpNode*>& nodes);

/// Both kinds of broker, named "Embedded" and "Apache".
inline const auto BOTH_BROKERS = ::testing::Values(BrokerKind::EMBEDDED, BrokerKind::APACHE);
inline std::string broker_test_name(const ::testing::TestParamInfo<BrokerKind>& info) {
    return name_of(info.param);
}

} // namespace corvalin::test
