// What arrives on a topic and is no event that the router knows: what it survives, and what ends it.
#include "tests/support/kafka/conversation.h"
#include "tests/support/kafka/event_frame.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <list>
#include <string>
#include <vector>

namespace {

using namespace corvalin::test;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

class EventTest : public ConversationTest {
protected:
    /// The lines that an event leaves, without those of the event that synchronises.
    std::vector<std::string> lines_of(const Bytes& payload) {
        const std::size_t before = log_size();
        peer().send(router().topic(), payload);
        wait_until_handled();
        std::vector<std::string> lines;
        for (const std::string& line : log_from(before)) {
            if (line.find("config_manager_started") != std::string::npos) {
                break;
            }
            lines.push_back(line);
        }
        return lines;
    }

    static Bytes of_kind(uint8_t kind, const std::string& body) {
        return zlib_stream(event_frame(kind, body));
    }
};

TEST_P(EventTest, what_is_no_event_is_dropped_with_its_line_and_the_next_one_is_handled) {
    start();
    const struct {
        const char* description;
        Bytes payload;
        std::string body; // shown as received; none if it does not come so far
        std::vector<std::string> lines;
    } cases[] = {
        {"binary event",
         of_kind(1, "abc"),
         "",
         {"WARNING | EVENT_DISPATCHER: binary event is not supported, ignoring; size (3) bytes"}},
        {"unknown kind",
         of_kind(7, "abc"),
         "",
         {"ERROR   | EVENT_DISPATCHER: unknown event (7), ignoring; size (3) bytes"}},
        {"greatest kind, no body",
         of_kind(255, ""),
         "",
         {"ERROR   | EVENT_DISPATCHER: unknown event (255), ignoring; size (0) bytes"}},
        {"no zlib stream",
         {'{', '"', 't', '"', '}'},
         "",
         {"ERROR   | MESSAGE_BROKER: message decompressing error (-3)"}},
        {"unknown type",
         json_payload(R"({"type":"nobody"})"),
         R"({"type":"nobody"})",
         {"ERROR   | EVENT_DISPATCHER: unknown JSON event [nobody]"}},
        {"type of another case",
         json_payload(R"({"type":"Config_versions"})"),
         R"({"type":"Config_versions"})",
         {"ERROR   | EVENT_DISPATCHER: unknown JSON event [Config_versions]"}},
        {"empty type",
         json_payload(R"({"type":""})"),
         R"({"type":""})",
         {"ERROR   | EVENT_DISPATCHER: unknown JSON event []"}},
        {"no type",
         json_payload(R"({"Type":"config_versions"})"),
         R"({"Type":"config_versions"})",
         {R"(ERROR   | EVENT_DISPATCHER: JSON element "type" is not found)"}},
        {"second value",
         json_payload(R"({"type":"x"} {})"),
         R"({"type":"x"} {})",
         {R"(ERROR   | EVENT_DISPATCHER: JSON parse error at [13]: "The document root must not be followed by other values.")"}},
        {"cut off",
         json_payload("{"),
         "{",
         {R"(ERROR   | EVENT_DISPATCHER: JSON parse error at [1]: "Missing a name for object member.")"}},
        {"cut off behind a byte order mark",
         json_payload("\xEF\xBB\xBF{"),
         "\xEF\xBB\xBF{",
         {R"(ERROR   | EVENT_DISPATCHER: JSON parse error at [4]: "Missing a name for object member.")"}},
        {"byte order mark",
         json_payload("\xEF\xBB\xBF{\"type\":\"y\"}"),
         "\xEF\xBB\xBF{\"type\":\"y\"}",
         {"ERROR   | EVENT_DISPATCHER: unknown JSON event [y]"}},
    };
    for (const auto& row : cases) {
        std::vector<std::string> expected = row.lines;
        if (!row.body.empty()) {
            expected.insert(expected.begin(), "INFO    | EVENT_DISPATCHER: JSON event received: " + row.body);
        }
        EXPECT_THAT(lines_of(row.payload), ElementsAreArray(expected)) << row.description;
    }
    EXPECT_THAT(lines_of(json_payload("")),
                ElementsAreArray(
                    {"INFO    | EVENT_DISPATCHER: JSON event received: ",
                     R"(ERROR   | EVENT_DISPATCHER: JSON parse error at [0]: "The document is empty.")"}));
}

TEST_P(EventTest, a_message_without_payload_is_dropped) {
    start();
    const std::size_t before = log_size();
    peer().send_without_payload(router().topic());
    wait_until_handled();
    const auto lines = log_from(before);
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.front(), "ERROR   | MESSAGE_BROKER: message decompressing error (-3)");
}

// A frame whose deflated form is exactly a tenth of it, made of a text that is padded until that comes out.
TEST_P(EventTest, what_inflates_to_ten_times_its_size_is_read_and_what_goes_beyond_is_lost) {
    start();
    Bytes exact;
    Bytes beyond;
    std::string json;
    // Each further blank adds one byte to the content, and now and then one to the stream; other digits in front shift
    // where, so that a stream of exactly a tenth is met.
    for (uint64_t seed = 1; exact.empty() && seed < 100; ++seed) {
        for (std::size_t blanks = 100; exact.empty() && blanks < 2000; ++blanks) {
            json = R"({"type":"exact )" + std::to_string(seed * 7919 * 104729) + "\"" +
                   std::string(blanks, ' ') + "}";
            const Bytes payload = json_payload(json);
            if ((json.size() + 1) == payload.size() * 10) {
                exact = payload;
                beyond = json_payload(json.substr(0, json.size() - 1) + " }");
            }
        }
    }
    ASSERT_FALSE(exact.empty());
    ASSERT_GT(zlib_content(beyond).size(), beyond.size() * 10);
    const auto lines = lines_of(exact);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], "INFO    | EVENT_DISPATCHER: JSON event received: " + json);
    EXPECT_THAT(lines_of(beyond),
                ElementsAreArray({"ERROR   | MESSAGE_BROKER: message decompressing error (-5)"}));
    EXPECT_THAT(lines_of(of_kind(0, std::string(1000, 'x'))),
                ElementsAreArray({"ERROR   | MESSAGE_BROKER: message decompressing error (-5)"}));
}

INSTANTIATE_TEST_SUITE_P(, EventTest, BOTH_BROKERS, broker_test_name);

// One malformed event ends the router; nothing guards it. Routers side by side, as each waits for its assignment.
class FatalEventTest : public KafkaTest {};

TEST_P(FatalEventTest, each_end_is_an_abort) {
    const struct {
        const char* description;
        Bytes payload;
    } cases[] = {
        {"empty frame", zlib_stream({})},
        {"root is an array", json_payload("[]")},
        {"root is null", json_payload("null")},
        {"type is a number", json_payload(R"({"type":5})")},
        {"type is null", json_payload(R"({"type":null})")},
        {"versions are an array", json_payload(R"({"type":"config_versions","data":[]})")},
        {"announced version is negative",
         json_payload(R"({"type":"config_versions","data":{"corvalin_media_nodes":-1}})")},
        {"version is negative", json_payload(R"({"type":"corvalin_media_nodes","version":-1,"data":[]})")},
        {"version is a fraction", json_payload(R"({"type":"corvalin_media_nodes","version":1.0,"data":[]})")},
        {"version is too great",
         json_payload(R"({"type":"corvalin_media_nodes","version":18446744073709551616,"data":[]})")},
        {"version is a text", json_payload(R"({"type":"corvalin_writer_nodes","version":"1","data":[]})")},
        {"node is a number", json_payload(R"({"type":"corvalin_media_nodes","version":1,"data":[7]})")},
        {"port is negative",
         json_payload(
             R"({"type":"corvalin_media_nodes","version":1,"data":[{"ip":"127.0.0.1","port":-1}]})")},
        {"port is too great", json_payload(R"({"type":"corvalin_media_nodes","version":1,)"
                                           R"("data":[{"ip":"127.0.0.1","port":4294967296}]})")},
        {"ip is a number",
         json_payload(R"({"type":"corvalin_media_nodes","version":1,"data":[{"ip":5,"port":1}]})")},
    };
    std::list<KafkaRouter> routers;
    for (const auto& row : cases) {
        SCOPED_TRACE(row.description);
        routers.emplace_back(broker(), topics()).start();
    }
    auto router = routers.begin();
    for (const auto& row : cases) {
        ASSERT_TRUE(router->process().wait_until_receiving()) << row.description;
        peer().send(router->topic(), row.payload);
        ++router;
    }
    router = routers.begin();
    for (const auto& row : cases) {
        EXPECT_EQ(router->process().wait_for_exit(), killed_by(SIGABRT)) << row.description;
        ++router;
    }
}

INSTANTIATE_TEST_SUITE_P(, FatalEventTest, BOTH_BROKERS, broker_test_name);

} // namespace
