// The real router and the real configuration manager, with nobody else on the broker.
#include "tests/support/kafka/kafka_fixture.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/tool_process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <librdkafka/rdkafkacpp.h>

#include <csignal>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace corvalin::test;
using ::testing::HasSubstr;

constexpr int METADATA_LIMIT_MS = 30'000;

std::string list_of(const UdpNode& node) {
    return R"([{"ip":"127.0.0.1","port":)" + std::to_string(node.port()) + "}]";
}

class ConfigManagerTest : public KafkaTest {
protected:
    /// Replaces the file that the manager follows.
    void write_list(const UdpNode& node) const {
        std::filesystem::rename(m_folder.write_file("writer.json.next", list_of(node)), m_list);
    }

    std::vector<std::string> command(std::vector<std::string> words, const ManagerTopics& topics) {
        words.insert(words.begin(), CORVALIN_CONFIG_MANAGER_PATH);
        words.insert(words.end(), {"--state", m_folder.path() + "/state.json", "--broker", broker().address(),
                                   "--request-topic", topics.request, "--broadcast-topic", topics.broadcast});
        return words;
    }
    /// A router may be started right behind it: whoever is later asks the other.
    std::unique_ptr<ToolProcess> start_manager() {
        return std::make_unique<ToolProcess>(
            command({"run", "--writer", m_list, "--poll-ms", "20"}, topics()));
    }
    /// Receives already; the test has failed if it does not.
    std::unique_ptr<KafkaRouter> running_router() {
        auto router = std::make_unique<KafkaRouter>(broker(), topics());
        router->start();
        EXPECT_TRUE(router->process().wait_until_receiving());
        return router;
    }
    /// Reads what the manager says up to this line. False, and the test has failed, if it does not say it.
    static bool wait_for(ToolProcess& manager, const std::string& wanted) {
        for (std::string line = manager.read_line(); !line.empty(); line = manager.read_line()) {
            if (line == wanted) {
                return true;
            }
        }
        ADD_FAILURE() << "the manager did not say \"" << wanted << "\": " << manager.err();
        return false;
    }
    /// Begins sessions until one of them goes to the node.
    bool takes_new_sessions(KafkaRouter& router, UdpNode& node) {
        UdpSender sender(router.port());
        const uint64_t old_id = m_last_id;
        return wait_until([&] {
            sender.send(start_packet().id(++m_last_id).seq(1).flags(0x80).bytes());
            bool is_reached = false;
            while (node.has_datagram()) {
                is_reached = id_of(node.receive().value()) > old_id || is_reached;
            }
            return is_reached;
        });
    }

    /// Of a topic that the broker has; 0 for one that it has not.
    std::size_t partitions_of(const std::string& name) {
        const std::unique_ptr<RdKafka::Conf> conf(RdKafka::Conf::create(RdKafka::Conf::CONF_GLOBAL));
        std::string error;
        conf->set("metadata.broker.list", broker().address(), error);
        const std::unique_ptr<RdKafka::Producer> client(RdKafka::Producer::create(conf.get(), error));
        RdKafka::Metadata* received = nullptr;
        if (client == nullptr ||
            client->metadata(true, nullptr, &received, METADATA_LIMIT_MS) != RdKafka::ERR_NO_ERROR) {
            throw std::runtime_error("no answer from the broker");
        }
        const std::unique_ptr<RdKafka::Metadata> metadata(received);
        for (const RdKafka::TopicMetadata* const topic : *metadata->topics()) {
            if (topic->topic() == name) {
                return topic->partitions()->size();
            }
        }
        return 0;
    }

    TemporaryFolder m_folder;
    const std::string m_list = m_folder.path() + "/writer.json";
    uint64_t m_last_id = 0;
};

TEST_P(ConfigManagerTest, a_router_gets_its_list_from_a_manager_and_takes_up_a_change) {
    UdpNode first;
    UdpNode second;
    write_list(first);
    const auto manager = start_manager();
    ASSERT_TRUE(wait_for(*manager, "announced to all routers on [" + topics().broadcast + "]"));
    KafkaRouter router(broker(), topics());
    router.start();
    ASSERT_TRUE(wait_for(*manager, "sent corvalin_writer_nodes version 1 to [" + router.topic() + "]"));
    ASSERT_TRUE(router.process().wait_until_receiving());
    EXPECT_TRUE(takes_new_sessions(router, first));

    write_list(second);
    EXPECT_TRUE(takes_new_sessions(router, second));
    EXPECT_EQ(router.process().stop(), exited(0));
    manager->send_signal(SIGTERM);
    EXPECT_EQ(manager->wait(), 0);
}

TEST_P(ConfigManagerTest, a_router_that_runs_gets_its_list_from_a_manager_that_starts_later) {
    const auto router = running_router();
    UdpNode node;
    write_list(node);
    const auto manager = start_manager();
    ASSERT_TRUE(wait_for(*manager, "sent versions to [" + router->topic() + "]"));
    EXPECT_TRUE(takes_new_sessions(*router, node));
    EXPECT_EQ(router->process().stop(), exited(0));
}

TEST_P(ConfigManagerTest, a_rollback_brings_new_sessions_back_to_the_nodes_before) {
    UdpNode first;
    UdpNode second;
    write_list(first);
    const auto manager = start_manager();
    const auto router = running_router();
    write_list(second);
    ASSERT_TRUE(takes_new_sessions(*router, second));

    ToolProcess rollback(command({"rollback", "writer"}, topics()));
    EXPECT_EQ(rollback.wait(), 0) << rollback.err();
    EXPECT_EQ(rollback.out(), "published corvalin_writer_nodes version 3: 1 nodes, those of version 1\n");
    EXPECT_TRUE(takes_new_sessions(*router, first));
    EXPECT_EQ(router->process().stop(), exited(0));
}

TEST_P(ConfigManagerTest, a_list_that_would_end_a_router_or_lead_it_astray_is_kept_from_it) {
    UdpNode first;
    UdpNode second;
    write_list(first);
    const auto manager = start_manager();
    const auto router = running_router();
    ASSERT_TRUE(takes_new_sessions(*router, first));
    for (const char* const text :
         {"[7]", R"([{"ip":"127.0.0.1","port":"80"}])", R"([{"ip":"no address","port":1}])", "[", "[]"}) {
        std::filesystem::rename(m_folder.write_file("writer.json.next", text), m_list);
        std::string line = manager->read_line();
        while (line.rfind(m_list + " is not published", 0) != 0 && !line.empty()) {
            line = manager->read_line(); // what it said before
        }
        EXPECT_NE(line, "") << text;
    }
    write_list(second);
    ASSERT_TRUE(wait_for(*manager, "published corvalin_writer_nodes version 2: 1 nodes"));
    EXPECT_TRUE(takes_new_sessions(*router, second)) << "the router is alive";
    EXPECT_EQ(router->process().stop(), exited(0));
}

TEST_P(ConfigManagerTest, the_manager_warns_of_a_topic_with_more_partitions) {
    const ManagerTopics wide{topics().request, topics().broadcast + "_wide"};
    broker().create_topic(wide.broadcast, 2);
    UdpNode node;
    write_list(node);
    ToolProcess publish(command({"publish", "writer", m_list}, wide));
    EXPECT_EQ(publish.wait(), 0) << publish.err();
    EXPECT_THAT(publish.out(), HasSubstr("warning: topic [" + wide.broadcast + "] has 2 partitions"));
}

INSTANTIATE_TEST_SUITE_P(, ConfigManagerTest, BOTH_BROKERS, broker_test_name);

// What the embedded broker does otherwise: it makes no topic that it is asked for, but every one that is used, with four
// partitions.
class ConfigManagerEmbeddedTest : public ConfigManagerTest {};

TEST_P(ConfigManagerEmbeddedTest, a_router_whose_own_topic_came_up_by_itself_gets_its_list) {
    UdpNode node;
    write_list(node);
    const auto manager = start_manager();
    KafkaRouter router(broker(), topics(), KafkaRouter::OwnTopic::MISSING);
    router.start();
    ASSERT_TRUE(
        wait_for(*manager, "warning: topic [" + router.topic() +
                               "] has 4 partitions: events on different ones may overtake each other"));
    ASSERT_TRUE(wait_for(*manager, "sent corvalin_writer_nodes version 1 to [" + router.topic() + "]"));
    ASSERT_TRUE(router.process().wait_until_receiving());
    EXPECT_TRUE(takes_new_sessions(router, node));
    EXPECT_EQ(router.process().stop(), exited(0));
}

INSTANTIATE_TEST_SUITE_P(, ConfigManagerEmbeddedTest, ::testing::Values(BrokerKind::EMBEDDED),
                         broker_test_name);

class ConfigManagerTopicTest : public ConfigManagerTest {};

TEST_P(ConfigManagerTopicTest, the_manager_creates_its_topics_with_one_partition) {
    const ManagerTopics missing{topics().request + "_new", topics().broadcast + "_new"};
    UdpNode node;
    write_list(node);
    ASSERT_EQ(partitions_of(missing.request), 0u);
    ToolProcess publish(command({"publish", "writer", m_list}, missing));
    EXPECT_EQ(publish.wait(), 0) << publish.err();
    EXPECT_EQ(publish.out(), "published corvalin_writer_nodes version 1: 1 nodes\n");
    EXPECT_EQ(partitions_of(missing.request), 1u);
    EXPECT_EQ(partitions_of(missing.broadcast), 1u);
}

TEST_P(ConfigManagerTopicTest, a_router_whose_own_topic_is_missing_gets_its_list_all_the_same) {
    UdpNode node;
    write_list(node);
    const auto manager = start_manager();
    ASSERT_TRUE(wait_for(*manager, "announced to all routers on [" + topics().broadcast + "]"));
    KafkaRouter router(broker(), topics(), KafkaRouter::OwnTopic::MISSING);
    router.start();
    ASSERT_TRUE(wait_for(*manager, "created [" + router.topic() + "]; its router is answered on [" +
                                       topics().broadcast + "], too"));
    ASSERT_TRUE(router.process().wait_until_receiving());
    EXPECT_TRUE(takes_new_sessions(router, node));
    EXPECT_EQ(partitions_of(router.topic()), 1u);
    EXPECT_EQ(router.process().stop(), exited(0));
}

INSTANTIATE_TEST_SUITE_P(, ConfigManagerTopicTest, ::testing::Values(BrokerKind::APACHE), broker_test_name);

} // namespace
