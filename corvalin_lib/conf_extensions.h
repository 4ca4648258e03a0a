// conf_extensions: groups of options that services compose into one configuration class.
//
// Each class template derives from its argument, adds its fields and compares its own keys before it passes an option on
// to its base. A chain reads from the inside out: StatExtension<PortExtension<LogExtenstion<Configuration>>>.
//
// Threads    set on the main thread before others exist, read without a lock afterwards; but the version
//            table, which any thread may use at any time.
// Errors     a value that is not acceptable answers option_bad_format, with which the whole object fails.
#pragma once

#include "corvalin_lib/conf_configuration.h"
#include "corvalin_lib/log.h"
#include "corvalin_lib/net.h"
#include "corvalin_lib/utils_str.h"

#include <cstdint>
#include <list>
#include <mutex>
#include <sstream>
#include <string>
#include <unordered_map>

namespace corvalin::conf {

/// Exactly "true" or "false"; any other text is a bad format and leaves `field` alone.
inline int set_bool(const std::string& value, bool& field) {
    if (value != "true" && value != "false") {
        return option_bad_format;
    }
    field = value == "true";
    return option_applied;
}

// The spelling of this name and of KafkaExtenstion is the one that other services of the family use.
template <class Base>
class LogExtenstion : public Base {
public:
    int set_value(const std::string& name, const std::string& value, std::stringstream& message) override {
        if (name == "log_level") {
            return log::try_parse_level(value, m_log_level) ? option_applied : option_bad_format;
        }
        return Base::set_value(name, value, message);
    }

    log::Level m_log_level = log::Level::INFO; // applied to the logger by the service when it starts
};

template <class Base>
class PortExtension : public Base {
public:
    int set_value(const std::string& name, const std::string& value, std::stringstream& message) override {
        if (name == "port") {
            using utils::str::try_parse_value;
            return try_parse_value<unsigned short, 10, void>(value.c_str(), m_port).is_ok()
                       ? option_applied
                       : option_bad_format;
        }
        return Base::set_value(name, value, message);
    }

    uint16_t m_port = 0; // UDP port for media packets
};

template <class Base>
class StatExtension : public Base {
public:
    int set_value(const std::string& name, const std::string& value, std::stringstream& message) override {
        if (name == "statistic_logging_enabled") {
            return set_bool(value, m_statistic_logging_enabled);
        }
        if (name == "statistic_transfer_enabled") {
            return set_bool(value, m_statistic_transfer_enabled);
        }
        if (name == "statistic_transfer_host") {
            return set_transfer_host(value);
        }
        return Base::set_value(name, value, message);
    }

    bool m_statistic_logging_enabled = true;
    // Accepted, checked and stored; nothing reads them.
    bool m_statistic_transfer_enabled = false;
    net::Host m_statistic_transfer_host;

private:
    int set_transfer_host(const std::string& value) {
        std::list<net::Host> hosts;
        net::parse_hosts(value, hosts);
        if (hosts.empty()) {
            return option_bad_format;
        }
        m_statistic_transfer_enabled = true;
        m_statistic_transfer_host = hosts.front();
        return option_applied;
    }
};

/// The versions of the configurations that have been seen. They are not kept across a restart.
template <class Base>
class ConfigVersionExtension : public Base {
public:
    /// The version of `name`. A name that is asked for the first time is entered with version 0.
    unsigned long get_component_version(const std::string& name) {
        const std::lock_guard<std::mutex> lock(m_versions_lock);
        return m_versions[name];
    }

    /// Stores `version` if it is greater than the known one, or if the name is new. Returns true if it was stored.
    bool set_component_version_if_higher(const std::string& name, unsigned long version) {
        const std::lock_guard<std::mutex> lock(m_versions_lock);
        const auto [entry, is_new] = m_versions.try_emplace(name, version);
        if (!is_new && version <= entry->second) {
            return false;
        }
        entry->second = version;
        return true;
    }

    std::mutex m_versions_lock;
    std::unordered_map<std::string, uint64_t> m_versions; // guarded by m_versions_lock
};

template <class Base>
class KafkaExtenstion : public Base {
public:
    int set_value(const std::string& name, const std::string& value, std::stringstream& message) override {
        if (name == "kafka_broker") {
            return assign(m_kafka_broker, value);
        }
        if (name == "kafka_topic_broadcast") {
            return assign(m_kafka_topic_broadcast, value);
        }
        if (name == "kafka_topic_request") {
            return assign(m_kafka_topic_request, value);
        }
        return Base::set_value(name, value, message);
    }

    std::string m_kafka_broker;          // "host:port,host:port"
    std::string m_kafka_topic_request;   // the configuration manager's
    std::string m_kafka_topic_broadcast; // to all instances

private:
    static int assign(std::string& field, const std::string& value) {
        field = value;
        return option_applied;
    }
};

/// The Kafka settings: an object of their own beside the service's configuration.
class KafkaConfiguration : public KafkaExtenstion<Configuration> {};

} // namespace corvalin::conf
