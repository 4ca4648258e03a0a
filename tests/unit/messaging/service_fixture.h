// service_fixture: the router's service with its parts in the open, between a log and a double of Kafka.
#pragma once

#include "router/service.h"

#include <string>

#include "tests/unit/messaging/broker_fixture.h"

namespace corvalin::test {

class TestService : public router::Service {
public:
    TestService() {
        m_config = new router::Configuration();
        m_kafka_config = new conf::KafkaConfiguration();
        m_kafka_config->m_kafka_broker = "127.0.0.1:9092";
        m_kafka_config->m_kafka_topic_broadcast = "wide";
        m_kafka_config->m_kafka_topic_request = "request";
        m_config->m_statistic_logging_enabled = false;
        m_kafka_topic = "own";
        m_kafka_group = "circle";
        m_signal_stop = 0;
    }

    using Service::event_request_config;
    using Service::m_application_name;
    using Service::m_capabilities;
    using Service::m_config;
    using Service::m_dispatcher;
    using Service::m_kafka_config;
    using Service::m_kafka_group;
    using Service::m_kafka_topic;
    using Service::m_routing_manager;
    using Service::m_service_name;
    using Service::m_signal_stop;
    using Service::m_socket;
    using Service::on_pre_start;
    using Service::on_set_kafka_params;
    using Service::on_start;
    using Service::read_hosts;
    using Service::start_messaging;

    /// An event as the broker hands it over.
    void on_event(const std::string& json) {
        const std::string frame = std::string(1, '\0') + json;
        m_dispatcher->on_message(reinterpret_cast<const unsigned char*>(frame.data()), frame.size());
    }
};

} // namespace corvalin::test
