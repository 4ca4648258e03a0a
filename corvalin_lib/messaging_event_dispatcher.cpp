#include "corvalin_lib/messaging_event_dispatcher.h"

#include "corvalin_lib/json.h"
#include "corvalin_lib/log.h"
#include "corvalin_lib/never_destroyed.h"

#include <algorithm>
#include <memory>
#include <utility>

namespace corvalin::messaging {

namespace {

constexpr const char* SOURCE = "messaging_event_dispatcher";

// The first byte of a frame.
constexpr unsigned char KIND_JSON = 0;
constexpr unsigned char KIND_BINARY = 1; // reserved

const NeverDestroyed<std::string> type_field("type");

} // namespace

const std::string& EventDispatcher::JsonEvent::field_type = type_field.object;

EventDispatcher::EventDispatcher(MessageBrokerSettings settings, EventHandlers handlers)
    : m_handlers(std::move(handlers)) {
    if (settings.on_message_received) {
        log::write(SOURCE, __LINE__,
                   log::WarningMessage() << "EVENT_DISPATCHER: Resetting message received event");
    }
    settings.on_message_received = [this](const unsigned char* data, unsigned long size) {
        on_message(data, size);
    };
    m_broker.reset(std::make_unique<MessageBroker>(std::move(settings)));
}

void EventDispatcher::dispatch(std::string topic, std::string message) {
    const unsigned long size = message.size() + 1;
    const std::unique_ptr<unsigned char[]> frame(new unsigned char[size]());
    frame[0] = KIND_JSON;
    std::copy(message.begin(), message.end(), frame.get() + 1);
    log::write(SOURCE, __LINE__,
               log::SystemMessage() << "EVENT_DISPATCHER: dispatch to [" << topic << "]: " << message);
    m_broker->send(std::move(topic), frame.get(), size);
}

// The first byte is read without a look at the size: the broker's buffers begin with a defined zero even when nothing
// was inflated.
void EventDispatcher::on_message(const unsigned char* data, unsigned long size) {
    const unsigned char kind = data[0];
    const unsigned long body_size = size - 1;
    switch (kind) {
    case KIND_JSON:
        handle_json_event(data + 1, body_size);
        break;
    case KIND_BINARY:
        log::write(SOURCE, __LINE__,
                   log::WarningMessage()
                       << "EVENT_DISPATCHER: binary event is not supported, ignoring; size (" << body_size
                       << ") bytes");
        break;
    default:
        log::write(SOURCE, __LINE__,
                   log::ErrorMessage() << "EVENT_DISPATCHER: unknown event (" << unsigned{kind}
                                       << "), ignoring; size (" << body_size << ") bytes");
    }
}

void EventDispatcher::handle_json_event(const unsigned char* data, unsigned long size) {
    // Ahead of everything that looks at the bytes: the body of an empty frame has a size that wrapped, and this throws.
    const std::string body(reinterpret_cast<const char*>(data), size);
    log::write(SOURCE, __LINE__, log::InfoMessage() << "EVENT_DISPATCHER: JSON event received: " << body);
    rapidjson::MemoryStream bytes(body.data(), body.size());
    rapidjson::EncodedInputStream<rapidjson::UTF8<>, rapidjson::MemoryStream> input(
        bytes); // skips a byte order mark
    rapidjson::Document event;
    event.ParseStream(input);
    if (event.HasParseError()) {
        log::write(SOURCE, __LINE__,
                   log::ErrorMessage()
                       << "EVENT_DISPATCHER: JSON parse error at [" << event.GetErrorOffset() << "]: \""
                       << rapidjson::GetParseError_En(event.GetParseError()) << "\"");
        return;
    }
    const rapidjson::Value& root = event; // iterators of a constant value compare without a conversion
    const auto member = root.FindMember(JsonEvent::field_type.c_str());
    if (member == root.MemberEnd()) {
        log::write(SOURCE, __LINE__,
                   log::ErrorMessage()
                       << "EVENT_DISPATCHER: JSON element \"" << JsonEvent::field_type << "\" is not found");
        return;
    }
    const std::string type(member->value.GetString(), member->value.GetStringLength());
    const auto handler = m_handlers.find(type);
    if (handler == m_handlers.end()) {
        log::write(SOURCE, __LINE__,
                   log::ErrorMessage() << "EVENT_DISPATCHER: unknown JSON event [" << type << "]");
        return;
    }
    handler->second(handler->first, &event);
}

} // namespace corvalin::messaging
