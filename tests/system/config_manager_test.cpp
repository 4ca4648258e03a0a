// The configuration manager as operators and routers meet it: the real tool against the embedded broker. The test plays
// the router by the Kafka library and zlib alone.
#include <librdkafka/rdkafka.h>
#include <zlib.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/temporary_folder.h"
#include "tests/support/tool_process.h"
#include "tests/support/zlib_text.h"

namespace corvalin::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr int LIMIT_MS = 30'000;

const std::string STARTED = R"({"type":"config_manager_started"})";
const std::string ASK_VERSIONS = R"({"type":"get_versions", "config_topic":"router"})";
const std::string ASK_MEDIA =
    R"({"type":"configuration_request", "configuration":"corvalin_media_nodes", "config_topic":"router"})";
const std::string ASK_WRITER =
    R"({"type":"configuration_request", "configuration":"corvalin_writer_nodes", "config_topic":"router"})";

std::string list(int port) {
    return R"([{"ip":"127.0.0.1","port":)" + std::to_string(port) + "}]";
}
std::string media_event(int version, const std::string& nodes) {
    return R"({"type":"corvalin_media_nodes","version":)" + std::to_string(version) + R"(,"data":)" + nodes +
           "}";
}
std::string writer_event(int version, const std::string& nodes) {
    return R"({"type":"corvalin_writer_nodes","version":)" + std::to_string(version) + R"(,"data":)" + nodes +
           "}";
}
std::string versions_event(const std::string& data) {
    return R"({"type":"config_versions","data":{)" + data + "}}";
}

struct Deleter {
    void operator()(rd_kafka_t* handle) const { rd_kafka_destroy(handle); }
    void operator()(rd_kafka_message_t* message) const { rd_kafka_message_destroy(message); }
    void operator()(rd_kafka_topic_partition_list_t* list) const {
        rd_kafka_topic_partition_list_destroy(list);
    }
};
using Handle = std::unique_ptr<rd_kafka_t, Deleter>;

Handle make_handle(rd_kafka_type_t type, const std::string& broker) {
    std::array<char, 512> reason{};
    rd_kafka_conf_t* const conf = rd_kafka_conf_new();
    rd_kafka_conf_set(conf, "bootstrap.servers", broker.c_str(), nullptr, 0);
    rd_kafka_conf_set(conf, "log_level", "0", nullptr, 0);
    rd_kafka_conf_set(conf, "reconnect.backoff.max.ms", "500", nullptr, 0);
    if (type == RD_KAFKA_CONSUMER) {
        rd_kafka_conf_set(conf, "group.id", "reader", nullptr,
                          0); // wanted, and not used: partitions are assigned
    }
    Handle handle(rd_kafka_new(type, conf, reason.data(), reason.size()));
    if (!handle) {
        throw std::runtime_error(reason.data());
    }
    return handle;
}

void send_request(const std::string& broker, const std::string& json) {
    std::string payload = deflated(std::string(1, '\0') + json);
    const Handle producer = make_handle(RD_KAFKA_PRODUCER, broker);
    rd_kafka_topic_t* const topic = rd_kafka_topic_new(producer.get(), "requests", nullptr);
    const int status = rd_kafka_produce(topic, RD_KAFKA_PARTITION_UA, RD_KAFKA_MSG_F_COPY, payload.data(),
                                        payload.size(), nullptr, 0, nullptr);
    rd_kafka_topic_destroy(topic);
    ASSERT_EQ(status, 0);
    ASSERT_EQ(rd_kafka_flush(producer.get(), LIMIT_MS), RD_KAFKA_RESP_ERR_NO_ERROR);
}

// All that is or will be on a topic, from its beginning.
class TopicReader {
public:
    TopicReader(const std::string& broker, const std::string& topic)
        : m_topic(topic), m_consumer(make_handle(RD_KAFKA_CONSUMER, broker)) {
        rd_kafka_poll_set_consumer(m_consumer.get());
        const std::unique_ptr<rd_kafka_topic_partition_list_t, Deleter> partitions(
            rd_kafka_topic_partition_list_new(1));
        rd_kafka_topic_partition_list_add(partitions.get(), topic.c_str(), 0)->offset = 0;
        rd_kafka_assign(m_consumer.get(), partitions.get());
    }
    ~TopicReader() { rd_kafka_consumer_close(m_consumer.get()); }
    TopicReader(const TopicReader&) = delete;
    TopicReader& operator=(const TopicReader&) = delete;

    /// The text of the next event; empty, and the test has failed, if none comes.
    std::string next() {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(LIMIT_MS);
        while (std::chrono::steady_clock::now() < deadline) {
            const std::unique_ptr<rd_kafka_message_t, Deleter> message(
                rd_kafka_consumer_poll(m_consumer.get(), 1000));
            if (message && message->err == RD_KAFKA_RESP_ERR_NO_ERROR) {
                return text_of(*message);
            }
        }
        ADD_FAILURE() << "nothing came on " << m_topic;
        return "";
    }

    int64_t count() {
        int64_t low = 0;
        int64_t high = -1;
        EXPECT_EQ(
            rd_kafka_query_watermark_offsets(m_consumer.get(), m_topic.c_str(), 0, &low, &high, LIMIT_MS),
            RD_KAFKA_RESP_ERR_NO_ERROR);
        return high - low;
    }

private:
    static std::string text_of(const rd_kafka_message_t& message) {
        std::string frame(message.len * 10, '\0'); // all that a router has room for
        uLongf size = frame.size();
        const int code = uncompress(reinterpret_cast<Bytef*>(frame.data()), &size,
                                    static_cast<const Bytef*>(message.payload), message.len);
        EXPECT_EQ(code, Z_OK);
        EXPECT_EQ(frame[0], '\0') << "kind of the frame";
        return frame.substr(1, size - 1);
    }

    const std::string m_topic;
    const Handle m_consumer;
};

class ConfigManagerTest : public testing::Test {
protected:
    using Words = std::vector<std::string>;

    void start_broker() {
        m_broker = std::make_unique<ToolProcess>(Words{CORVALIN_EMBEDDED_BROKER_PATH, "--topic", "requests",
                                                       "--topic", "broadcast", "--topic", "router"},
                                                 ToolProcess::Input::LINES);
        const std::string line = m_broker->read_line();
        ASSERT_THAT(line, testing::StartsWith("broker ")) << m_broker->err();
        m_address = line.substr(line.find(' ') + 1);
    }
    void tell_broker(const std::string& command) {
        m_broker->write_line(command);
        ASSERT_EQ(m_broker->read_line(), "ok");
    }

    std::string path(const std::string& name) const { return m_folder.path() + "/" + name; }
    // Replaced as editors and deployments do it.
    std::string write(const std::string& name, const std::string& text) const {
        std::filesystem::rename(m_folder.write_file(name + ".next", text), path(name));
        return path(name);
    }

    Words with_kafka(Words words) const {
        words.insert(words.begin(), CORVALIN_CONFIG_MANAGER_PATH);
        words.insert(words.end(), {"--broker", m_address, "--request-topic", "requests", "--broadcast-topic",
                                   "broadcast"});
        return words;
    }
    Words with_state(Words words) const {
        words.insert(words.end(), {"--state", path("state.json")});
        return words;
    }

    /// Starts a manager that stays, and reads its lines up to the announcement.
    std::unique_ptr<ToolProcess> start_manager(Words words) {
        words.insert(words.begin(), "run");
        words.insert(words.end(), {"--poll-ms", "20"});
        auto manager = std::make_unique<ToolProcess>(with_state(with_kafka(std::move(words))));
        for (std::string line = " "; !line.empty() && line != "announced to all routers on [broadcast]";) {
            line = manager->read_line();
            m_start_lines.push_back(line);
        }
        EXPECT_FALSE(m_start_lines.back().empty()) << manager->err();
        return manager;
    }

    struct Result {
        int status;
        std::string out;
        std::string err;
    };
    static Result run(const Words& words) {
        ToolProcess process(words);
        const int status = process.wait();
        return {status, process.out(), process.err()};
    }
    Result run_verb(Words words) const { return run(with_state(with_kafka(std::move(words)))); }

    TemporaryFolder m_folder;
    std::unique_ptr<ToolProcess> m_broker;
    std::string m_address = "127.0.0.1:1";
    std::vector<std::string> m_start_lines;
};

TEST_F(ConfigManagerTest, publishes_its_files_announces_itself_and_answers_routers) {
    start_broker();
    const auto manager = start_manager(
        {"--media", write("media.json", list(7001)), "--writer", write("writer.json", list(6001))});
    TopicReader broadcast(m_address, "broadcast");
    EXPECT_EQ(broadcast.next(), media_event(1, list(7001)));
    EXPECT_EQ(broadcast.next(), writer_event(1, list(6001)));
    EXPECT_EQ(broadcast.next(), STARTED);
    TopicReader replies(m_address, "router");
    send_request(m_address, ASK_VERSIONS);
    EXPECT_EQ(replies.next(), versions_event(R"("corvalin_media_nodes":1,"corvalin_writer_nodes":1)"));
    send_request(m_address, ASK_WRITER);
    EXPECT_EQ(replies.next(), writer_event(1, list(6001)));
    send_request(m_address, ASK_MEDIA);
    EXPECT_EQ(replies.next(), media_event(1, list(7001)));
    manager->send_signal(SIGTERM);
    EXPECT_EQ(manager->wait(), 0);
    EXPECT_EQ(broadcast.count(), 3) << "routers are answered on their own topics";
}

TEST_F(ConfigManagerTest, publishes_a_file_that_changes_and_lets_no_harmful_list_through) {
    start_broker();
    const auto manager = start_manager({"--media", write("media.json", list(7001))});
    TopicReader broadcast(m_address, "broadcast");
    EXPECT_EQ(broadcast.next(), media_event(1, list(7001)));
    EXPECT_EQ(broadcast.next(), STARTED);
    write("media.json", list(7002));
    EXPECT_EQ(broadcast.next(), media_event(2, list(7002)));
    EXPECT_EQ(manager->read_line(), "published corvalin_media_nodes version 2: 1 nodes");
    write("media.json", "[\n{\"ip\":\"node.example\",\"port\":7003}]");
    EXPECT_EQ(manager->read_line(), path("media.json") + " is not published: what routers have stays");
    write("media.json", "[]");
    EXPECT_EQ(manager->read_line(), path("media.json") +
                                        " is not published, as it is empty and --allow-empty was "
                                        "not given: what routers have stays");
    write("media.json", list(7004));
    EXPECT_EQ(broadcast.next(), media_event(3, list(7004))) << "nothing in between";
    manager->send_signal(SIGINT);
    EXPECT_EQ(manager->wait(), 0);
    EXPECT_THAT(manager->err(), HasSubstr(path("media.json") + ":2: \"ip\" is no dotted IPv4 address"));
}

TEST_F(ConfigManagerTest, sends_nothing_if_one_of_its_files_is_bad) {
    start_broker();
    write("media.json", list(7001));
    const struct {
        const char* description;
        const char* writer;
        const char* fault;
    } cases[] = {
        {"bad address", "[\n\n{\"ip\":\"10.0.0.256\",\"port\":1}]", ":3: \"ip\" is no dotted IPv4 address"},
        {"no JSON", "[\n", ":2: "},
        {"empty list", "[]", ": the list is empty, and --allow-empty was not given"},
    };
    for (const auto& row : cases) {
        write("writer.json", row.writer);
        const Result result =
            run_verb({"run", "--media", path("media.json"), "--writer", path("writer.json")});
        EXPECT_EQ(result.status, 2) << row.description;
        EXPECT_THAT(result.err, HasSubstr(path("writer.json") + row.fault)) << row.description;
    }
    EXPECT_EQ(TopicReader(m_address, "broadcast").count(), 0);
    EXPECT_FALSE(std::filesystem::exists(path("state.json"))) << "and no version is used";
}

TEST_F(ConfigManagerTest, other_verbs_publish_beside_a_running_manager_which_answers_accordingly) {
    start_broker();
    const auto manager = start_manager({"--media", write("media.json", list(7001))});
    TopicReader replies(m_address, "router");
    EXPECT_EQ(run_verb({"publish", "media", write("other.json", list(7002))}).status, 0);
    send_request(m_address, ASK_MEDIA);
    EXPECT_EQ(replies.next(), media_event(2, list(7002)));
    const Result rollback = run_verb({"rollback", "media"});
    EXPECT_EQ(rollback.out, "published corvalin_media_nodes version 3: 1 nodes, those of version 1\n");
    send_request(m_address, ASK_MEDIA);
    EXPECT_EQ(replies.next(), media_event(3, list(7001)));
    EXPECT_EQ(run_verb({"announce"}).status, 0);
    TopicReader broadcast(m_address, "broadcast");
    const std::vector<std::string> expected{media_event(1, list(7001)), STARTED, media_event(2, list(7002)),
                                            media_event(3, list(7001)), STARTED};
    for (const std::string& event : expected) {
        EXPECT_EQ(broadcast.next(), event);
    }
}

TEST_F(ConfigManagerTest, a_manager_that_was_killed_goes_on_above_its_last_version_and_hears_at_once) {
    start_broker();
    start_manager({"--media", write("media.json", list(7001))})->send_signal(SIGKILL);
    write("media.json", list(7002));
    const auto before = std::chrono::steady_clock::now();
    const auto manager = start_manager({"--media", path("media.json")});
    send_request(m_address, ASK_VERSIONS);
    EXPECT_EQ(TopicReader(m_address, "router").next(), versions_event(R"("corvalin_media_nodes":2)"));
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(30))
        << "a broker holds the group of a killed member for 44 s";
}

TEST_F(ConfigManagerTest, a_restart_does_not_undo_a_rollback) {
    start_broker();
    EXPECT_EQ(run_verb({"publish", "media", write("media.json", list(7001))}).status, 0);
    EXPECT_EQ(run_verb({"publish", "media", write("media.json", list(7002))}).status, 0);
    EXPECT_EQ(run_verb({"rollback", "media"}).status, 0);
    const auto manager = start_manager({"--media", path("media.json")});
    EXPECT_THAT(
        m_start_lines,
        ElementsAre(path("media.json") +
                        " holds a list that was rolled back: it is not published until the file changes",
                    "announced to all routers on [broadcast]"));
    write("media.json", list(7003));
    EXPECT_EQ(manager->read_line(), "published corvalin_media_nodes version 4: 1 nodes");
}

TEST_F(ConfigManagerTest, a_list_that_changed_while_the_broker_was_away_reaches_routers_when_it_is_back) {
    start_broker();
    const auto manager = start_manager({"--media", write("media.json", list(7001))});
    tell_broker("down");
    write("media.json", list(7002));
    EXPECT_THAT(
        manager->read_line(),
        HasSubstr("corvalin_media_nodes version 2 is recorded, but was not sent: no answer from the broker"));
    tell_broker("up");
    TopicReader broadcast(m_address, "broadcast");
    EXPECT_EQ(broadcast.next(), media_event(1, list(7001)));
    EXPECT_EQ(broadcast.next(), STARTED);
    EXPECT_EQ(broadcast.next(), STARTED) << "which makes routers ask";
    send_request(m_address, ASK_MEDIA);
    EXPECT_EQ(TopicReader(m_address, "router").next(), media_event(2, list(7002)));
}

TEST_F(ConfigManagerTest, refuses_to_run_beside_another_manager_with_the_same_state) {
    start_broker();
    const auto manager = start_manager({});
    const Result second = run_verb({"run"});
    EXPECT_EQ(second.status, 1);
    EXPECT_THAT(second.err, HasSubstr("another manager runs with " + path("state.json")));
}

TEST_F(ConfigManagerTest, publishes_an_empty_list_only_if_somebody_says_so) {
    start_broker();
    write("media.json", "[]");
    const Result unasked = run_verb({"publish", "media", path("media.json")});
    EXPECT_EQ(unasked.status, 2);
    EXPECT_THAT(unasked.err, HasSubstr("the list is empty, and --allow-empty was not given"));
    const Result flagged = run_verb({"publish", "media", path("media.json"), "--allow-empty"});
    EXPECT_EQ(flagged.status, 0);

    // At a terminal, which `script` makes.
    std::string command;
    for (const std::string& word : with_state(with_kafka({"publish", "media", path("media.json")}))) {
        command += word + " ";
    }
    for (const auto& [answer, status] : {std::pair("n", 2), std::pair("", 2), std::pair("y", 0)}) {
        ToolProcess terminal({"script", "--quiet", "--return", "--command", command, "/dev/null"},
                             ToolProcess::Input::LINES);
        terminal.write_line(answer);
        EXPECT_EQ(terminal.wait(), status) << "answer \"" << answer << "\": " << terminal.out();
        EXPECT_THAT(terminal.out(), HasSubstr("Publish it? [y/N]"));
    }
    EXPECT_EQ(TopicReader(m_address, "broadcast").count(), 2) << "the flag and the yes";
}

TEST_F(ConfigManagerTest, a_list_that_deflates_too_well_reaches_routers_all_the_same) {
    start_broker();
    std::string nodes = "[";
    for (int host = 1; host <= 98; ++host) {
        nodes += std::string(host == 1 ? "" : ",") + R"({"ip":"192.168.100.)" + std::to_string(host) +
                 R"(","port":5000})";
    }
    nodes += "]";
    EXPECT_EQ(run_verb({"publish", "writer", write("writer.json", nodes)}).status, 0);
    EXPECT_EQ(TopicReader(m_address, "broadcast").next(), writer_event(1, nodes));
}

TEST_F(ConfigManagerTest, warns_of_a_topic_with_more_than_one_partition) {
    start_broker();
    tell_broker("topic wide 3");
    Words words = {CORVALIN_CONFIG_MANAGER_PATH,
                   "publish",
                   "media",
                   write("media.json", list(1)),
                   "--broker",
                   m_address,
                   "--request-topic",
                   "requests",
                   "--broadcast-topic",
                   "wide"};
    const Result result = run(with_state(words));
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.out, HasSubstr("warning: topic [wide] has 3 partitions"));
}

TEST_F(ConfigManagerTest, shows_events_as_they_come) {
    start_broker();
    Words words = with_kafka({"watch", "--count", "2", "--topic", "router"});
    ToolProcess watch(words);
    EXPECT_EQ(watch.read_line(), "watching [requests]");
    EXPECT_EQ(watch.read_line(), "watching [broadcast]");
    EXPECT_EQ(watch.read_line(), "watching [router]");
    send_request(m_address, ASK_VERSIONS);
    EXPECT_EQ(watch.read_line(), ASK_VERSIONS);
    EXPECT_EQ(run_verb({"publish", "media", write("media.json", list(7001))}).status, 0);
    EXPECT_EQ(watch.read_line(), media_event(1, list(7001)));
    EXPECT_EQ(watch.wait(), 0);
}

TEST_F(ConfigManagerTest, checks_and_compares_files_without_a_broker) {
    const std::string good =
        write("good.json", "[{\"ip\":\"10.0.0.1\",\"port\":1},{\"ip\":\"10.0.0.2\",\"port\":2}]");
    const std::string bad = write("bad.json", "[{\"ip\":\"10.0.0.1\",\n\"port\":70000}]");
    const Result check = run({CORVALIN_CONFIG_MANAGER_PATH, "check", bad, good});
    EXPECT_EQ(check.status, 2);
    EXPECT_EQ(check.out, good + ": 2 nodes\n") << "all files are looked at";
    EXPECT_EQ(check.err, bad + ":2: \"port\" is not in 1 to 65535: 70000\n");
    EXPECT_EQ(run({CORVALIN_CONFIG_MANAGER_PATH, "check", good}).status, 0);

    write("state.json", R"({"corvalin_media_nodes": [{"version": 1, "nodes": [{"ip":"10.0.0.2","port":2},)"
                        R"({"ip":"10.0.0.3","port":3}]}]})");
    const Result diff = run(with_state({CORVALIN_CONFIG_MANAGER_PATH, "diff", "media", good}));
    EXPECT_EQ(diff.status, 0);
    EXPECT_EQ(diff.out, "- 10.0.0.3:3\n+ 10.0.0.1:1\n");
    write("good.json", R"([{"ip":"10.0.0.3","port":3},{"ip":"10.0.0.2","port":2}])");
    EXPECT_EQ(run(with_state({CORVALIN_CONFIG_MANAGER_PATH, "diff", "media", good})).out,
              "the same nodes in another order\n");
}

TEST_F(ConfigManagerTest, decodes_the_payload_of_a_message) {
    const std::string frame = std::string(1, '\0') + ASK_VERSIONS;
    uLongf size = compressBound(frame.size());
    std::string payload(size, '\0');
    compress(reinterpret_cast<Bytef*>(payload.data()), &size, reinterpret_cast<const Bytef*>(frame.data()),
             frame.size());
    payload.resize(size);
    const std::string file = m_folder.write_file("payload", payload);
    const Result result = run({CORVALIN_CONFIG_MANAGER_PATH, "decode", file});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "kind 0, " + std::to_string(size) + " bytes, inflated " +
                              std::to_string(frame.size()) + ", accepted by routers\n" + ASK_VERSIONS + "\n");
    const Result text =
        run({CORVALIN_CONFIG_MANAGER_PATH, "decode", m_folder.write_file("text", ASK_VERSIONS)});
    EXPECT_EQ(text.status, 1);
    EXPECT_THAT(text.err, HasSubstr("no zlib stream"));
}

TEST_F(ConfigManagerTest, takes_its_topics_from_the_routers_kafka_configuration) {
    start_broker();
    const std::string conf = m_folder.write_file("kafka.conf", "kafka_broker=" + m_address +
                                                                   "\nkafka_topic_request=requests\n"
                                                                   "kafka_topic_broadcast=broadcast\n");
    const auto with_conf = [this](const std::string& file) {
        return with_state({CORVALIN_CONFIG_MANAGER_PATH, "publish", "media", write("media.json", list(7001)),
                           "--kafka-config", file});
    };
    EXPECT_EQ(run(with_conf(conf)).status, 0);
    EXPECT_EQ(TopicReader(m_address, "broadcast").next(), media_event(1, list(7001)));
    const Result incomplete =
        run(with_conf(m_folder.write_file("half.conf", "kafka_broker=" + m_address + "\n")));
    EXPECT_EQ(incomplete.status, 1);
    EXPECT_THAT(incomplete.err,
                HasSubstr("give --request-topic or kafka_topic_request in " + path("half.conf")));
    const Result missing = run(with_conf(path("none.conf")));
    EXPECT_EQ(missing.status, 1);
    EXPECT_THAT(missing.err, HasSubstr("cannot use " + path("none.conf")));
}

TEST_F(ConfigManagerTest, says_what_is_wrong_with_a_command_line_and_what_each_verb_takes) {
    const std::string file = write("media.json", list(1));
    const struct {
        const char* description;
        Words words;
        int status;
        const char* out;
        const char* err;
    } cases[] = {
        {"help", {"--help"}, 0, "Exit status:", ""},
        {"version", {"--version"}, 0, "corvalin_config_manager ", ""},
        {"help of run", {"run", "--help"}, 0, "--poll-ms", ""},
        {"help of check", {"check", "--help"}, 0, "FILE", ""},
        {"help of publish", {"publish", "--help"}, 0, "--allow-empty", ""},
        {"help of rollback", {"rollback", "--help"}, 0, "--to", ""},
        {"help of announce", {"announce", "--help"}, 0, "--broadcast-topic", ""},
        {"help of diff", {"diff", "--help"}, 0, "--state", ""},
        {"help of watch", {"watch", "--help"}, 0, "--count", ""},
        {"help of decode", {"decode", "--help"}, 0, "FILE", ""},
        {"no verb", {}, 2, "", "A subcommand is required"},
        {"unknown verb", {"erase"}, 2, "", "--help' for more."},
        {"file that is not there", {"check", "/none.json"}, 2, "", "File does not exist: /none.json"},
        {"kind that does not exist", {"publish", "audio", file}, 2, "", "audio not in {media,writer}"},
        {"version 0", {"rollback", "media", "--to", "0"}, 2, "", "--to"},
        {"first version 0", {"publish", "media", file, "--first-version", "0"}, 2, "", "--first-version"},
        {"nothing to roll back to", with_state({"rollback", "media"}), 2, "",
         "no earlier list of corvalin_media_nodes in"},
        {"version that was never used", with_state({"rollback", "media", "--to", "7"}), 2, "",
         "no version 7 of corvalin_media_nodes in"},
    };
    for (const auto& row : cases) {
        Words words = row.words;
        words.insert(words.begin(), CORVALIN_CONFIG_MANAGER_PATH);
        const Result result = run(words);
        EXPECT_EQ(result.status, row.status) << row.description << ": " << result.err;
        EXPECT_THAT(result.out, HasSubstr(row.out)) << row.description;
        EXPECT_THAT(result.err, HasSubstr(row.err)) << row.description;
    }
}

} // namespace
} // namespace corvalin::test
