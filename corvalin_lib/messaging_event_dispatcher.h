// messaging_event_dispatcher: gives the byte messages on Kafka a meaning. An event travels in a frame of one kind byte and
// a body; a JSON event goes to the handler of its "type".
//
// Threads    constructor, destructor: the owner's thread. dispatch: any thread. on_message, handle_json_event
//            and all handlers: the consumer thread, one at a time, in the order of the messages.
// Ownership  owns the broker and the handlers. A handler's context is valid during the call only.
// Errors     an event that cannot be used is logged and dropped. A root that is no object and a "type" that
//            is no string end the process by RapidJSON's assertion, and a frame that inflates to nothing by
//            an exception: nothing stands before them, on purpose.
//
// The consumer thread may deliver before the constructor has stored the broker: a handler that dispatches meets a null pointer
// then, unless it waits until the constructor has ended, as those of the router do. And the handlers go before the broker
// does: that gap is accepted.
#pragma once

#include "corvalin_lib/messaging_message_broker.h"
#include "corvalin_lib/owner.h"

#include <functional>
#include <string>
#include <unordered_map>

namespace corvalin::messaging {

/// `context` points at the parsed event, a `rapidjson::Document`.
using EventHandler = std::function<void(const std::string& type, void* context)>;
using EventHandlers = std::unordered_map<std::string, EventHandler>;

class EventDispatcher {
public:
    struct JsonEvent {
        // "type". Never destroyed, as a consumer thread may outlive the exit handlers.
        static const std::string& field_type;
    };

    /// Blocks as the broker's constructor does. `settings.on_message_received` is replaced.
    EventDispatcher(MessageBrokerSettings settings, EventHandlers handlers);
    EventDispatcher(const EventDispatcher&) = delete;
    EventDispatcher& operator=(const EventDispatcher&) = delete;

    /// Sends the JSON text `message` as an event to `topic`; see MessageBroker::send.
    void dispatch(std::string topic, std::string message);

    /// A whole frame.
    void on_message(const unsigned char* data, unsigned long size);
    /// The body of a JSON event.
    void handle_json_event(const unsigned char* data, unsigned long size);

private:
    // Stored when its constructor has returned, looked at by the consumer thread that runs before.
    Owner<MessageBroker> m_broker;
    EventHandlers m_handlers; // set at construction, read-only afterwards
};

} // namespace corvalin::messaging
