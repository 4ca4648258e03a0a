#include "tools/config_manager/event_payload.h"

#include <zlib.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <stdexcept>
#include <string>

#include "corvalin_lib/messaging_message_broker.h"
#include "tests/support/zlib_text.h"

namespace corvalin::tools {
namespace {

using test::deflated;

NodeList nodes_of_one_network(int count) {
    NodeList nodes;
    for (int host = 1; host <= count; ++host) {
        nodes.push_back({"192.168.100." + std::to_string(host), 5000});
    }
    return nodes;
}

// What a router makes of a payload; empty if it refuses it.
std::string inflated_by_router(const std::string& payload) {
    unsigned long size = payload.size();
    const std::unique_ptr<unsigned char[]> bytes(
        messaging::MessageBroker::decompress(reinterpret_cast<const unsigned char*>(payload.data()), size));
    return bytes ? std::string(reinterpret_cast<const char*>(bytes.get()), size) : "";
}

std::string random_text(std::size_t size) {
    std::mt19937 random(42);
    std::string text(size, '\0');
    for (char& letter : text) {
        letter = static_cast<char>(random());
    }
    return text;
}

TEST(EventPayloadTest, deflates_a_frame_of_a_kind_byte_and_the_text) {
    const std::string json = started_event();
    EXPECT_EQ(make_payload(json), deflated(std::string(1, '\0') + json));
    EXPECT_EQ(inflated_by_router(make_payload(json)), std::string(1, '\0') + json);
}

TEST(EventPayloadTest, stores_a_list_of_98_nodes_in_one_network_that_deflated_would_be_refused_by_routers) {
    const std::string frame =
        std::string(1, '\0') + node_list_event("corvalin_media_nodes", 1, nodes_of_one_network(98));
    ASSERT_GT(frame.size(), deflated(frame).size() * 10) << "what the guard is for";
    const std::string payload = make_payload(frame.substr(1));
    EXPECT_EQ(payload, deflated(frame, Z_NO_COMPRESSION));
    EXPECT_EQ(inflated_by_router(payload), frame);
}

TEST(EventPayloadTest, makes_lists_of_every_length_that_routers_inflate) {
    int stored = 0;
    for (int count = 0; count <= 254; ++count) {
        const std::string json = node_list_event("corvalin_writer_nodes", 7, nodes_of_one_network(count));
        const std::string payload = make_payload(json);
        ASSERT_EQ(inflated_by_router(payload), std::string(1, '\0') + json) << count << " nodes";
        ASSERT_LE((json.size() + 1) / 9, payload.size()) << count << " nodes: too near to what is refused";
        stored += payload.size() > json.size() ? 1 : 0;
    }
    EXPECT_GT(stored, 0);
    EXPECT_LT(stored, 254);
}

TEST(EventPayloadTest, refuses_an_event_that_no_broker_takes) {
    // What cannot be deflated is stored by zlib, in blocks with a few bytes of their own, and the frame has one byte more.
    const std::size_t around = deflated(random_text(999'964)).size() - 999'964 + 1;
    std::size_t size = 999'964 - around - 10;
    while (make_payload(random_text(size)).size() < 999'964) {
        ++size;
    }
    EXPECT_EQ(make_payload(random_text(size)).size(), 999'964u);
    EXPECT_THROW(make_payload(random_text(size + 1)), std::length_error);
}

TEST(EventPayloadTest, opens_payloads_of_any_ratio_and_tells_which_ones_routers_refuse) {
    const struct {
        const char* description;
        std::string payload;
        int kind;
        std::size_t size;
        bool is_accepted;
    } cases[] = {
        {"event", make_payload("{}"), 0, 2, true},
        {"another kind",
         deflated("\x07"
                  "abc"),
         7, 3, true},
        {"a hundred equal letters, stored", deflated(std::string(100, 'a'), 0), 'a', 99, true},
        {"a thousand equal letters", deflated(std::string(1000, 'a')), 'a', 999, false},
        {"a million equal letters", deflated(std::string(1'000'000, 'a')), 'a', 999'999, false},
        {"nothing", deflated(""), -1, 0, true},
    };
    for (const auto& row : cases) {
        const auto opened = open_payload(row.payload);
        ASSERT_TRUE(opened) << row.description;
        EXPECT_EQ(opened->kind, row.kind) << row.description;
        EXPECT_EQ(opened->text.size(), row.size) << row.description;
        EXPECT_EQ(opened->is_accepted_by_routers, row.is_accepted) << row.description;
    }
}

TEST(EventPayloadTest, tells_a_payload_of_ten_times_its_size_from_one_beyond) {
    // Equal letters, until the stream is exactly a tenth; one letter more does not make it longer.
    std::size_t size = 1;
    while (deflated(std::string(size, 'a')).size() * 10 > size) {
        ++size;
    }
    const std::string exact = deflated(std::string(size, 'a'));
    ASSERT_EQ(exact.size() * 10, size);
    EXPECT_TRUE(open_payload(exact)->is_accepted_by_routers);
    const std::string beyond = deflated(std::string(size + 1, 'a'));
    ASSERT_EQ(beyond.size(), exact.size());
    EXPECT_FALSE(open_payload(beyond)->is_accepted_by_routers);
}

TEST(EventPayloadTest, opens_nothing_that_is_no_zlib_stream) {
    const std::string event = make_payload("{}");
    EXPECT_FALSE(open_payload(""));
    EXPECT_FALSE(open_payload(R"({"type":"get_versions"})"));
    EXPECT_FALSE(open_payload(event.substr(0, event.size() - 1)));
    EXPECT_FALSE(open_payload(deflated(std::string(70'000'000, 'a')))) << "beyond all measure";
}

TEST(EventPayloadTest, writes_events_as_routers_read_them) {
    EXPECT_EQ(started_event(), R"({"type":"config_manager_started"})");
    EXPECT_EQ(versions_event({}), R"({"type":"config_versions","data":{}})");
    EXPECT_EQ(versions_event({{"corvalin_media_nodes", 3}, {"corvalin_writer_nodes", UINT64_MAX}}),
              R"({"type":"config_versions","data":{"corvalin_media_nodes":3,)"
              R"("corvalin_writer_nodes":18446744073709551615}})");
    EXPECT_EQ(node_list_event("corvalin_media_nodes", 3, {{"10.0.0.2", 7000}}),
              R"({"type":"corvalin_media_nodes","version":3,"data":[{"ip":"10.0.0.2","port":7000}]})");
}

} // namespace
} // namespace corvalin::tools
