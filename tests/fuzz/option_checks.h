// option_checks: compares the configuration objects with their models, field by field and line by line.
#pragma once

#include "corvalin_lib/conf_extensions.h"
#include "router/configuration.h"
#include "tests/fuzz/fuzz_support.h"
#include "tests/fuzz/log_recorder.h"
#include "tests/fuzz/option_model.h"

#include <algorithm>
#include <list>
#include <vector>

namespace corvalin::fuzz {

inline void require_nodes(const char* what, const std::vector<Endpoint>& expected,
                          const std::list<net::HostAddr>& nodes) {
    require(std::equal(expected.begin(), expected.end(), nodes.begin(), nodes.end(),
                       [](const Endpoint& endpoint, const net::HostAddr& node) {
                           return endpoint.host == node.host && endpoint.port == node.port;
                       }),
            what);
}

inline void require_fields(const RouterOptionModel& model, const router::Configuration& configuration) {
    require_equal("m_log_level", model.log_level, static_cast<unsigned>(configuration.m_log_level));
    if (!model.is_port_bad) {
        require_equal("m_port", model.port, configuration.m_port);
    }
    require_equal("m_statistic_logging_enabled", model.statistic_logging,
                  configuration.m_statistic_logging_enabled);
    require_equal("m_statistic_transfer_enabled", model.statistic_transfer,
                  configuration.m_statistic_transfer_enabled);
    require_equal("m_statistic_transfer_host", model.transfer_host.host,
                  configuration.m_statistic_transfer_host.host);
    require_equal("port of m_statistic_transfer_host", model.transfer_host.port,
                  configuration.m_statistic_transfer_host.port);
    require_equal("m_discard_media_node", model.discard_media, configuration.m_discard_media_node);
    require_equal("m_discard_writer_node", model.discard_writer, configuration.m_discard_writer_node);
    require_nodes("m_media_nodes", model.media_nodes, configuration.m_media_nodes);
    require_nodes("m_writer_nodes", model.writer_nodes, configuration.m_writer_nodes);
}

inline void require_fields(const KafkaOptionModel& model, const conf::KafkaConfiguration& configuration) {
    require_equal("m_kafka_broker", model.broker, configuration.m_kafka_broker);
    require_equal("m_kafka_topic_request", model.topic_request, configuration.m_kafka_topic_request);
    require_equal("m_kafka_topic_broadcast", model.topic_broadcast, configuration.m_kafka_topic_broadcast);
}

/// The result, the lines since the last call, and all fields.
template <class Model, class Configuration>
void require_same(Model& model, bool expected, const Configuration& configuration, bool accepted) {
    require_same_events(model.take_events(), take_recorded_events());
    require_equal("text accepted", expected, accepted);
    require_fields(model, configuration);
}

} // namespace corvalin::fuzz
