// event_sink: where a manager's events go. Kafka, or a test that looks at them.
#pragma once

#include <string>

namespace corvalin::tools {

struct TopicState {
    bool is_new = false; // made by this call: who has subscribed to it may not read it yet
    int partitions = 1;
};

class EventSink {
public:
    virtual ~EventSink() = default;

    /// Makes the topic with one partition if it is missing. Throws std::runtime_error if that fails.
    virtual TopicState provide_topic(const std::string& name) = 0;
    /// Returns when the payload is there. Throws std::runtime_error if it cannot be brought there.
    virtual void send(const std::string& topic, const std::string& payload) = 0;
};

} // namespace corvalin::tools
