#include "tools/config_manager/manager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/temporary_folder.h"
#include "tools/config_manager/event_payload.h"

namespace corvalin::tools {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

const ListKind& MEDIA = LIST_KINDS[0];
const ListKind& WRITER = LIST_KINDS[1];
const NodeList ONE{{"10.0.0.1", 1}};
const NodeList TWO{{"10.0.0.2", 2}};

// A broker that knows what was sent to it.
class RecordingSink : public EventSink {
public:
    TopicState provide_topic(const std::string& name) override {
        ++looks;
        if (!topic_failure.empty()) {
            throw std::runtime_error(topic_failure);
        }
        const bool is_new = partitions.emplace(name, 1).second;
        return {is_new, partitions.at(name)};
    }
    void send(const std::string& topic, const std::string& payload) override {
        if (!send_failure.empty()) {
            throw std::runtime_error(send_failure);
        }
        sent.push_back(topic + " " + open_payload(payload)->text);
    }

    std::map<std::string, int> partitions;
    std::vector<std::string> sent; // topic and text
    std::string topic_failure;
    std::string send_failure;
    int looks = 0;
};

class ManagerTest : public testing::Test {
protected:
    void request(const std::string& json) {
        const std::string frame = std::string(1, '\0') + json;
        m_manager.on_frame(reinterpret_cast<const unsigned char*>(frame.data()), frame.size());
    }
    void request_versions() { request(R"({"type":"get_versions", "config_topic":"router"})"); }
    void request_list(const std::string& name) {
        request(R"({"type":"configuration_request", "configuration":")" + name +
                R"(", "config_topic":"router"})");
    }

    test::TemporaryFolder m_folder;
    VersionStore m_store{m_folder.path() + "/state.json"};
    RecordingSink m_sink;
    std::vector<std::string> m_reports;
    Manager m_manager{m_store, m_sink, {"requests", "broadcast"}, [this](const std::string& line) {
                          m_reports.push_back(line);
                      }};
};

TEST_F(ManagerTest, makes_its_topics_and_warns_of_one_with_more_partitions) {
    m_sink.partitions["broadcast"] = 4;
    m_manager.prepare_topics();
    EXPECT_EQ(m_sink.partitions.at("requests"), 1);
    EXPECT_THAT(m_reports,
                ElementsAre("warning: topic [broadcast] has 4 partitions: events on different ones may "
                            "overtake each other"));
}

TEST_F(ManagerTest, announces_itself_to_all_routers) {
    m_manager.announce();
    EXPECT_THAT(m_sink.sent, ElementsAre(R"(broadcast {"type":"config_manager_started"})"));
}

TEST_F(ManagerTest, publishes_each_list_to_all_routers_under_a_higher_version) {
    m_manager.publish(MEDIA, ONE);
    m_manager.publish(MEDIA, ONE);
    m_manager.publish(WRITER, {});
    EXPECT_THAT(
        m_sink.sent,
        ElementsAre(
            R"(broadcast {"type":"corvalin_media_nodes","version":1,"data":[{"ip":"10.0.0.1","port":1}]})",
            R"(broadcast {"type":"corvalin_media_nodes","version":2,"data":[{"ip":"10.0.0.1","port":1}]})",
            R"(broadcast {"type":"corvalin_writer_nodes","version":1,"data":[]})"));
    EXPECT_THAT(m_reports, ElementsAre("published corvalin_media_nodes version 1: 1 nodes",
                                       "published corvalin_media_nodes version 2: 1 nodes",
                                       "published corvalin_writer_nodes version 1: 0 nodes"));
}

TEST_F(ManagerTest, rolls_back_by_sending_the_old_nodes_under_a_higher_version) {
    m_manager.publish(MEDIA, ONE);
    m_manager.publish(MEDIA, TWO);
    const History history = m_store.history(MEDIA.name);
    m_manager.rollback(MEDIA, *find_rollback_target(history, 0));
    EXPECT_EQ(m_sink.sent.back(),
              R"(broadcast {"type":"corvalin_media_nodes","version":3,"data":[{"ip":"10.0.0.1","port":1}]})");
    EXPECT_EQ(m_reports.back(), "published corvalin_media_nodes version 3: 1 nodes, those of version 1");
    EXPECT_TRUE(is_withdrawn(m_store.history(MEDIA.name), TWO));
}

TEST_F(ManagerTest, records_nothing_that_no_broker_takes) {
    NodeList nodes;
    for (int third = 0; third < 200; ++third) {
        for (int fourth = 0; fourth < 250; ++fourth) {
            nodes.push_back({"10.0." + std::to_string(third) + "." + std::to_string(fourth), 5000});
        }
    }
    EXPECT_THROW(m_manager.publish(MEDIA, nodes), std::length_error);
    EXPECT_FALSE(m_store.exists());
    EXPECT_THAT(m_sink.sent, IsEmpty());
}

TEST_F(ManagerTest, never_uses_the_version_of_a_list_that_could_not_be_sent_again) {
    m_sink.send_failure = "the broker is away";
    try {
        m_manager.publish(MEDIA, ONE);
        FAIL() << "nothing was said";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(),
                     "corvalin_media_nodes version 1 is recorded, but was not sent: the broker is away");
    }
    m_sink.send_failure.clear();
    m_manager.publish(MEDIA, TWO);
    EXPECT_THAT(m_sink.sent, ElementsAre(HasSubstr("\"version\":2")));
}

TEST_F(ManagerTest, answers_routers_on_their_topics) {
    m_sink.partitions["router"] = 1;
    m_manager.publish(MEDIA, ONE);
    m_manager.publish(MEDIA, TWO);
    m_sink.sent.clear();
    request_versions();
    request_list("corvalin_media_nodes");
    EXPECT_THAT(
        m_sink.sent,
        ElementsAre(
            R"(router {"type":"config_versions","data":{"corvalin_media_nodes":2}})",
            R"(router {"type":"corvalin_media_nodes","version":2,"data":[{"ip":"10.0.0.2","port":2}]})"));
    EXPECT_EQ(m_sink.looks, 1) << "a topic that is there stays";
    EXPECT_FALSE(m_manager.take_new_topic());
}

TEST_F(ManagerTest, answers_with_what_another_process_has_published) {
    m_sink.partitions["router"] = 1;
    VersionStore(m_store.path()).record(WRITER.name, TWO);
    request_list("corvalin_writer_nodes");
    EXPECT_THAT(m_sink.sent, ElementsAre(HasSubstr("\"version\":1")));
}

TEST_F(ManagerTest, answers_a_router_whose_topic_was_missing_on_the_broadcast_topic_too) {
    m_manager.publish(MEDIA, ONE);
    m_sink.sent.clear();
    request_list("corvalin_media_nodes");
    request_versions();
    EXPECT_THAT(m_sink.sent, ElementsAre(HasSubstr("router {\"type\":\"corvalin_media_nodes\""),
                                         HasSubstr("broadcast {\"type\":\"corvalin_media_nodes\""),
                                         HasSubstr("router {\"type\":\"config_versions\""),
                                         HasSubstr("broadcast {\"type\":\"config_versions\"")));
    EXPECT_EQ(m_sink.partitions.at("router"), 1);
    EXPECT_TRUE(m_manager.take_new_topic());
    EXPECT_FALSE(m_manager.take_new_topic()) << "once";
}

TEST_F(ManagerTest, answers_although_it_cannot_look_after_the_topic) {
    m_sink.topic_failure = "no rights";
    request_versions();
    EXPECT_THAT(m_sink.sent, ElementsAre(R"(router {"type":"config_versions","data":{}})"));
    EXPECT_THAT(m_reports, ElementsAre("no rights", "sent versions to [router]"));
}

TEST_F(ManagerTest, sends_nothing_where_nothing_was_published) {
    m_sink.partitions["router"] = 1;
    request_list("corvalin_media_nodes");
    request_list("weather");
    EXPECT_THAT(m_sink.sent, IsEmpty());
    EXPECT_THAT(m_reports,
                ElementsAre("nothing published under [corvalin_media_nodes], which [router] asks for",
                            "nothing published under [weather], which [router] asks for"));
}

TEST_F(ManagerTest, outlives_requests_of_any_shape) {
    const struct {
        const char* description;
        std::string frame;
        const char* report;
    } cases[] = {
        {"nothing", "", "dropped a request that is no JSON event"},
        {"kind byte only", std::string(1, '\0'), "dropped a request that is no JSON event"},
        {"binary event", "\x01{}", "dropped a request that is no JSON event"},
        {"no JSON", std::string(1, '\0') + "{", "dropped a request that is no JSON object"},
        {"array", std::string(1, '\0') + "[]", "dropped a request that is no JSON object"},
        {"brackets only", std::string(1, '\0') + std::string(10'000'000, '['),
         "dropped a request that is no JSON object"},
        {"empty object", std::string(1, '\0') + "{}", "dropped a request [] without \"config_topic\""},
        {"type that is a number", std::string(1, '\0') + R"({"type":5,"config_topic":"router"})",
         "dropped a request of unknown type []"},
        {"topic that is a number", std::string(1, '\0') + R"({"type":"get_versions","config_topic":5})",
         "dropped a request [get_versions] without \"config_topic\""},
        {"unknown type", std::string(1, '\0') + R"({"type":"hello","config_topic":"router"})",
         "dropped a request of unknown type [hello]"},
    };
    m_sink.partitions["router"] = 1;
    for (const auto& row : cases) {
        m_reports.clear();
        m_manager.on_frame(reinterpret_cast<const unsigned char*>(row.frame.data()), row.frame.size());
        EXPECT_THAT(m_reports, ElementsAre(row.report)) << row.description;
    }
    EXPECT_THAT(m_sink.sent, IsEmpty());
}

TEST_F(ManagerTest, outlives_a_broker_that_does_not_take_an_answer) {
    m_sink.partitions["router"] = 1;
    m_sink.send_failure = "the broker is away";
    request_versions();
    EXPECT_THAT(m_reports, ElementsAre("could not answer [router]: the broker is away"));
    m_sink.send_failure.clear();
    request_versions();
    EXPECT_EQ(m_sink.sent.size(), 1u);
}

} // namespace
} // namespace corvalin::tools
