// app_kafka_service: a service that talks to Kafka.
//
// Threads    the main thread, before any thread of the service exists.
// Errors     a missing or bad Kafka configuration fails the start; a library of another version is only
// warned about.
//
// Nothing here connects to Kafka: settings are read and names prepared.
#pragma once

#include "corvalin_lib/app_service.h"
#include "corvalin_lib/conf_configuration.h"
#include "corvalin_lib/conf_extensions.h"
#include "corvalin_lib/reference_countable.h"

#include <string>

namespace corvalin::app {

/// Identifies the Kafka library that this program was built against: "<sixteen hex digits>@<branch>".
std::string kafka_build_version();
/// Logs that identity beside the version that the running library tells, and warns if it is not the expected
/// one.
void log_kafka_versions(const std::string& running_version_text, int running_version);
/// The same with the library's own answers.
void log_kafka_versions();
void log_kafka_names(const std::string& topic, const std::string& group);

template <class Config>
class KafkaService : public Service<Config, false> {
protected:
    /// Group and topic begin as the application's name and stay so until on_set_kafka_params changes them.
    explicit KafkaService(const std::string& service_name)
        : Service<Config, false>(service_name), m_kafka_group(this->m_application_name),
          m_kafka_topic(this->m_application_name) {}

    bool do_start() override {
        if (!this->read_config()) {
            return false;
        }
        this->on_config();
        log_kafka_versions();
        if (!read_kafka_config()) {
            return false;
        }
        on_set_kafka_params(m_kafka_group, m_kafka_topic);
        log_kafka_names(m_kafka_topic, m_kafka_group);
        return true;
    }

    /// Derives the consumer group and the service's own topic.
    virtual void on_set_kafka_params(std::string& group, std::string& topic) = 0;

    rc_ptr<conf::KafkaConfiguration> m_kafka_config; // null until it has been read
    std::string m_kafka_group;
    std::string m_kafka_topic;

private:
    // Unlike the service's own file this one has a fixed path and must be there, and the arguments do not
    // touch it.
    bool read_kafka_config() {
        const rc_ptr<conf::KafkaConfiguration> config(new conf::KafkaConfiguration());
        const bool is_read = config->parse_file(conf::default_kafka_config_path);
        m_kafka_config = is_read ? config.get() : nullptr;
        return is_read;
    }
};

} // namespace corvalin::app
