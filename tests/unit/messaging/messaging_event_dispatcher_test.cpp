// The dispatcher: what it sends, whom it calls, and what it makes of frames that nobody can use.
#include "corvalin_lib/messaging_event_dispatcher.h"

#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "corvalin_lib/json.h"
#include "tests/support/captured_log.h"
#include "tests/unit/messaging/broker_fixture.h"
#include "tests/unit/messaging/kafka_double.h"
#include "tests/unit/messaging/test_broker.h"

namespace {

using namespace corvalin;
using namespace corvalin::test;
using log::Level;
using messaging::EventDispatcher;
using messaging::EventHandlers;
using messaging::MessageBrokerSettings;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class MessagingEventDispatcherTest : public BrokerFixture {
protected:
    EventHandlers handlers() {
        EventHandlers table;
        for (const char* const name : {"alarm", "rest"}) {
            table[name] = [this](const std::string& type, void* context) {
                const auto& event = *static_cast<const rapidjson::Document*>(context);
                m_handled.push_back(type + " of " + std::to_string(event.MemberCount()));
            };
        }
        return table;
    }
    static void on_frame(EventDispatcher& dispatcher, const std::string& frame) {
        dispatcher.on_message(reinterpret_cast<const unsigned char*>(frame.data()), frame.size());
    }
    static std::string frame(const std::string& body) { return std::string(1, '\0') + body; }

    struct UnusableCase {
        const char* description;
        std::string body;
        std::string line;
    };
    /// That each body reaches no handler, and is an error's one line behind that of its receipt.
    void expect_unusable(const std::vector<UnusableCase>& cases) {
        EventDispatcher dispatcher(producer_settings(), handlers());
        for (const UnusableCase& row : cases) {
            SCOPED_TRACE(row.description);
            m_log.clear();
            on_frame(dispatcher, frame(row.body));
            EXPECT_THAT(m_log.texts(Level::ERROR), ElementsAre(row.line));
            EXPECT_EQ(m_log.lines().size(), 2u); // with that of its receipt
        }
        EXPECT_THAT(m_handled, IsEmpty());
    }

    Texts m_handled;
};

// ---- Sending

TEST_F(MessagingEventDispatcherTest, an_event_is_sent_as_a_zero_and_its_text) {
    EventDispatcher dispatcher(producer_settings(), {});
    dispatcher.dispatch("request", "{\"type\":\"alarm\"}");
    ASSERT_EQ(m_kafka.produced().size(), 1u);
    EXPECT_EQ(m_kafka.produced()[0].topic, "request");
    EXPECT_EQ(inflated(m_kafka.produced()[0].payload), frame("{\"type\":\"alarm\"}"));
    EXPECT_THAT(m_log.texts(), ElementsAre("EVENT_DISPATCHER: dispatch to [request]: {\"type\":\"alarm\"}"));
    EXPECT_EQ(m_log.lines()[0].level, Level::SYSTEM);
    EXPECT_EQ(m_log.lines()[0].file, "messaging_event_dispatcher");
}

TEST_F(MessagingEventDispatcherTest, the_line_of_an_event_stands_ahead_of_those_of_its_sending) {
    EventDispatcher dispatcher(producer_settings(), {});
    m_kafka.produce_answers = {RdKafka::ERR__UNKNOWN_TOPIC};
    dispatcher.dispatch("request", "text");
    EXPECT_THAT(m_log.texts(),
                ElementsAre("EVENT_DISPATCHER: dispatch to [request]: text",
                            "MESSAGE_BROKER: failed to send message to [request]; error (-188): "
                            "Local: Unknown topic"));
}

TEST_F(MessagingEventDispatcherTest, an_empty_event_is_a_frame_of_one_zero_and_an_empty_document) {
    EventDispatcher dispatcher(producer_settings(), {});
    dispatcher.dispatch("request", "");
    const std::string sent = inflated(m_kafka.produced().at(0).payload);
    EXPECT_EQ(sent, std::string(1, '\0'));
    m_log.clear();
    on_frame(dispatcher, sent);
    EXPECT_THAT(m_log.texts(),
                ElementsAre("EVENT_DISPATCHER: JSON event received: ",
                            "EVENT_DISPATCHER: JSON parse error at [0]: \"The document is empty.\""));
}

// ---- Frames

TEST_F(MessagingEventDispatcherTest, frames_of_other_kinds_are_told_and_dropped) {
    struct Case {
        const char* description;
        std::string frame;
        Level level;
        const char* line;
    };
    const std::vector<Case> cases = {
        {"binary", "\1abc", Level::WARNING,
         "EVENT_DISPATCHER: binary event is not supported, ignoring; size (3) bytes"},
        {"binary without a body", "\1", Level::WARNING,
         "EVENT_DISPATCHER: binary event is not supported, ignoring; size (0) bytes"},
        {"the first unknown kind", "\2{\"type\":\"alarm\"}", Level::ERROR,
         "EVENT_DISPATCHER: unknown event (2), ignoring; size (16) bytes"},
        {"seven", "\7abc", Level::ERROR, "EVENT_DISPATCHER: unknown event (7), ignoring; size (3) bytes"},
        {"a text without a kind", "{\"type\":\"alarm\"}", Level::ERROR,
         "EVENT_DISPATCHER: unknown event (123), ignoring; size (15) bytes"},
        {"the last kind", "\xff", Level::ERROR,
         "EVENT_DISPATCHER: unknown event (255), ignoring; size (0) bytes"},
    };
    EventDispatcher dispatcher(producer_settings(), handlers());
    for (const Case& row : cases) {
        SCOPED_TRACE(row.description);
        m_log.clear();
        on_frame(dispatcher, row.frame);
        EXPECT_EQ(m_log.lines().size(), 1u);
        EXPECT_EQ(m_log.count(row.level, row.line), 1u);
    }
    EXPECT_THAT(m_handled, IsEmpty());
}

// ---- JSON events

TEST_F(MessagingEventDispatcherTest, the_handler_of_the_type_is_called_with_the_parsed_event) {
    EventDispatcher dispatcher(producer_settings(), handlers());
    on_frame(dispatcher, frame("{\"type\":\"alarm\"}"));
    on_frame(dispatcher, frame(" {\"a\":[1], \"type\":\"rest\", \"b\":null}\n"));
    EXPECT_THAT(m_handled, ElementsAre("alarm of 1", "rest of 3"));
    EXPECT_THAT(m_log.texts(), ElementsAre("EVENT_DISPATCHER: JSON event received: {\"type\":\"alarm\"}",
                                           "EVENT_DISPATCHER: JSON event received:  {\"a\":[1], "
                                           "\"type\":\"rest\", \"b\":null}\n"));
    EXPECT_EQ(m_log.lines(Level::INFO).size(), 2u);
}

TEST_F(MessagingEventDispatcherTest, the_type_is_handed_on_as_the_key_of_the_table) {
    EventHandlers table;
    const std::string* seen = nullptr;
    table["alarm"] = [&seen](const std::string& type, void*) { seen = &type; };
    EventDispatcher dispatcher(producer_settings(), std::move(table));
    on_frame(dispatcher, frame("{\"type\":\"alarm\"}"));
    const std::string* const first = seen;
    on_frame(dispatcher, frame("{\"type\":\"alarm\"}"));
    EXPECT_EQ(seen, first); // not a copy that goes with the call
    ASSERT_NE(seen, nullptr);
    EXPECT_EQ(*seen, "alarm");
}

TEST_F(MessagingEventDispatcherTest, events_without_a_handler_are_a_line) {
    expect_unusable({
        {"another type", "{\"type\":\"alarms\"}", "EVENT_DISPATCHER: unknown JSON event [alarms]"},
        {"other letters", "{\"type\":\"Alarm\"}", "EVENT_DISPATCHER: unknown JSON event [Alarm]"},
        {"an empty type", "{\"type\":\"\"}", "EVENT_DISPATCHER: unknown JSON event []"},
        {"a zero behind the type", "{\"type\":\"alarm\\u0000\"}",
         std::string("EVENT_DISPATCHER: unknown JSON event [alarm\0]", 45)},
        {"no type", "{\"kind\":\"alarm\"}", "EVENT_DISPATCHER: JSON element \"type\" is not found"},
        {"no member at all", "{}", "EVENT_DISPATCHER: JSON element \"type\" is not found"},
        {"a type further down", "{\"data\":{\"type\":\"alarm\"}}",
         "EVENT_DISPATCHER: JSON element \"type\" is not found"},
    });
}

TEST_F(MessagingEventDispatcherTest, an_empty_type_has_its_handler_like_any_other) {
    EventHandlers table = handlers();
    table[""] = table["rest"];
    EventDispatcher dispatcher(producer_settings(), std::move(table));
    on_frame(dispatcher, frame("{\"type\":\"\"}"));
    EXPECT_THAT(m_handled, ElementsAre(" of 1"));
}

TEST_F(MessagingEventDispatcherTest, a_body_that_is_no_json_is_told_with_its_offset) {
    expect_unusable({
        {"nothing", "", "EVENT_DISPATCHER: JSON parse error at [0]: \"The document is empty.\""},
        {"blanks", "   ", "EVENT_DISPATCHER: JSON parse error at [3]: \"The document is empty.\""},
        {"an end that is missing", "{",
         "EVENT_DISPATCHER: JSON parse error at [1]: \"Missing a name for object member.\""},
        {"a second value", "{\"type\":\"alarm\"} {}",
         "EVENT_DISPATCHER: JSON parse error at [17]: \"The document root must not be followed by other "
         "values.\""},
        {"a byte order mark counts", "\xEF\xBB\xBF{",
         "EVENT_DISPATCHER: JSON parse error at [4]: \"Missing a name for object member.\""},
        {"a comment is none", "/* */{}", "EVENT_DISPATCHER: JSON parse error at [0]: \"Invalid value.\""},
        {"a comma too much", "{\"type\":\"alarm\",}",
         "EVENT_DISPATCHER: JSON parse error at [16]: \"Missing a name for object member.\""},
    });
}

TEST_F(MessagingEventDispatcherTest, a_byte_order_mark_ahead_of_an_event_is_no_matter) {
    EventDispatcher dispatcher(producer_settings(), handlers());
    on_frame(dispatcher, frame("\xEF\xBB\xBF{\"type\":\"alarm\"}"));
    EXPECT_THAT(m_handled, ElementsAre("alarm of 1"));
    EXPECT_THAT(m_log.texts(),
                ElementsAre("EVENT_DISPATCHER: JSON event received: \xEF\xBB\xBF{\"type\":\"alarm\"}"));
}

TEST_F(MessagingEventDispatcherTest, the_name_of_the_type_field_is_type) {
    EXPECT_EQ(EventDispatcher::JsonEvent::field_type, "type");
}

// ---- With a consumer

TEST_F(MessagingEventDispatcherTest, a_receiver_in_the_settings_is_replaced_with_a_warning) {
    assign_first();
    m_kafka.deliver("own", deflated(frame("{\"type\":\"alarm\"}")));
    const EventDispatcher dispatcher(consumer_settings(), handlers());
    ASSERT_TRUE(m_kafka.wait_until_idle());
    EXPECT_EQ(m_log.texts().front(), "EVENT_DISPATCHER: Resetting message received event");
    EXPECT_EQ(m_log.lines().front().level, Level::WARNING);
    EXPECT_THAT(m_received, IsEmpty());
    EXPECT_THAT(m_handled, ElementsAre("alarm of 1"));
}

TEST_F(MessagingEventDispatcherTest, without_a_receiver_in_the_settings_there_is_no_warning) {
    const EventDispatcher dispatcher(producer_settings(), {});
    EXPECT_THAT(m_log.lines(), IsEmpty());
}

TEST_F(MessagingEventDispatcherTest, events_are_handled_one_by_one_on_the_consumers_thread_past_bad_ones) {
    std::vector<std::thread::id> threads;
    EventHandlers table = handlers();
    table["thread"] = [&threads](const std::string&, void*) {
        threads.push_back(std::this_thread::get_id());
    };
    assign_first();
    for (const char* const body : {"{\"type\":\"thread\"}", "{", "{\"type\":\"none\"}",
                                   "{\"type\":\"alarm\"}", "{\"type\":\"rest\"}", "{\"type\":\"thread\"}"}) {
        m_kafka.deliver("wide", deflated(frame(body)));
    }
    MessageBrokerSettings settings = consumer_settings();
    settings.on_message_received = nullptr;
    const EventDispatcher dispatcher(settings, std::move(table));
    ASSERT_TRUE(m_kafka.wait_until_idle());
    EXPECT_THAT(m_handled, ElementsAre("alarm of 1", "rest of 1"));
    ASSERT_EQ(threads.size(), 2u);
    EXPECT_EQ(threads[0], threads[1]);
    EXPECT_NE(threads[0], std::this_thread::get_id());
    EXPECT_EQ(m_log.lines(Level::ERROR).size(), 2u);
}

TEST_F(MessagingEventDispatcherTest, a_handler_that_sends_keeps_the_next_message_waiting) {
    std::unique_ptr<EventDispatcher> dispatcher;
    EventHandlers table = handlers();
    table["ask"] = [&dispatcher](const std::string&, void*) { dispatcher->dispatch("request", "question"); };
    assign_first();
    MessageBrokerSettings settings = consumer_settings();
    settings.on_message_received = nullptr;
    dispatcher = std::make_unique<EventDispatcher>(settings, std::move(table));
    m_kafka.deliver("own", deflated(frame("{\"type\":\"ask\"}")));
    m_kafka.deliver("own", deflated(frame("{\"type\":\"alarm\"}")));
    ASSERT_TRUE(m_kafka.wait_until_idle());
    EXPECT_THAT(m_kafka.calls({"consume", "produce", "flush"}),
                ElementsAre("consume", "consume", "produce request", "flush 5000", "consume"));
    EXPECT_THAT(m_handled, ElementsAre("alarm of 1"));
}

TEST_F(MessagingEventDispatcherTest, handlers_go_ahead_of_the_broker) {
    Texts calls_at_the_end;
    auto witness = std::shared_ptr<void>(nullptr, [&](void*) {
        calls_at_the_end = m_kafka.calls({"close", "flush", "delete"});
    });
    assign_first();
    {
        EventHandlers table;
        table["alarm"] = [witness = std::move(witness)](const std::string&, void*) {};
        const EventDispatcher dispatcher(consumer_settings(), std::move(table));
        ASSERT_TRUE(m_kafka.wait_until_idle());
    }
    EXPECT_THAT(calls_at_the_end,
                ElementsAre("delete topic conf", "delete global conf", "delete global conf"));
    EXPECT_THAT(m_kafka.calls({"close"}), ElementsAre("close"));
}

} // namespace
