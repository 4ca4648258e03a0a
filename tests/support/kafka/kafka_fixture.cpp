#include "tests/support/kafka/kafka_fixture.h"

#include "tests/support/temporary_folder.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <set>
#include <system_error>

namespace corvalin::test {

namespace {

// The router takes the port a moment later, so that another process could come between; the kernel gives the same
// port again last.
uint16_t free_udp_port() {
    static std::set<uint16_t> used;
    for (;;) {
        const int descriptor = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        socklen_t size = sizeof(address);
        const bool bound = bind(descriptor, reinterpret_cast<const sockaddr*>(&address), size) == 0 &&
                           getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &size) == 0;
        const int error = errno;
        close(descriptor);
        if (!bound) {
            throw std::system_error(error, std::generic_category(), "cannot find a free port");
        }
        if (used.insert(ntohs(address.sin_port)).second) {
            return ntohs(address.sin_port);
        }
    }
}

} // namespace

KafkaRouter::KafkaRouter(Broker& broker, const ManagerTopics& topics, OwnTopic own_topic)
    : m_port(free_udp_port()), m_topic("corvalin_router_127o0o0o1_" + std::to_string(m_port)) {
    if (own_topic == OwnTopic::CREATED) {
        broker.create_topic(m_topic);
    }
    write_file(m_place.kafka_conf(), "kafka_broker=" + broker.address() +
                                         "\n"
                                         "kafka_topic_request=" +
                                         topics.request +
                                         "\n"
                                         "kafka_topic_broadcast=" +
                                         topics.broadcast + "\n");
}

void KafkaRouter::start(const std::string& configuration, const std::vector<std::string>& arguments) {
    write_file(m_place.router_conf(), "port=" + std::to_string(m_port) + "\n" + configuration);
    m_arguments = arguments;
    restart();
}

void KafkaRouter::restart() {
    m_process.reset();
    m_process.emplace(m_place, m_arguments);
}

std::string KafkaRouter::list_request(const std::string& configuration) const {
    return R"({"type":"configuration_request", "configuration":")" + configuration +
           R"(", "config_topic":")" + m_topic + R"("})";
}

std::string KafkaRouter::versions_request() const {
    return R"({"type":"get_versions", "config_topic":")" + m_topic + R"("})";
}

std::unique_ptr<Broker> KafkaTest::s_broker;
std::optional<BrokerKind> KafkaTest::s_kind;

void KafkaTest::end_broker() {
    s_broker.reset();
    s_kind.reset();
}

void KafkaTest::SetUp() {
    if (s_kind != GetParam()) {
        end_broker();
        try {
            s_broker = start_broker(GetParam());
        } catch (const BrokerUnavailable& reason) {
            if (is_continuous_integration()) {
                FAIL() << reason.what();
            }
            GTEST_SKIP() << reason.what(); // no Java, Maven or registry here; a failure in CI, see above
        }
        s_kind = GetParam();
    }
    const std::string suffix = std::to_string(free_udp_port());
    m_topics = {"requests_" + suffix, "broadcast_" + suffix};
    broker().create_topic(m_topics.request);
    broker().create_topic(m_topics.broadcast);
    m_peer.emplace(broker().address(), m_topics.request);
}

void KafkaTest::TearDown() {
    if (s_broker != nullptr) {
        s_broker->up();
    }
}

std::string node_list_event(const std::string& type, uint64_t version,
                            const std::vector<const UdpNode*>& nodes) {
    std::string data;
    for (const UdpNode* const node : nodes) {
        data += (data.empty() ? "" : ",") + std::string(R"({"ip":"127.0.0.1","port":)") +
                std::to_string(node->port()) + "}";
    }
    return R"({"type":")" + type + R"(","version":)" + std::to_string(version) + R"(,"data":[)" + data + "]}";
}

} // namespace corvalin::test
