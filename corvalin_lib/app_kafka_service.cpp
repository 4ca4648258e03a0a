#include "corvalin_lib/app_kafka_service.h"

#include "corvalin_lib/log.h"

#include <librdkafka/rdkafkacpp.h>

#include <array>
#include <cstdio>

namespace corvalin::app {

namespace {

constexpr const char* SOURCE = "app_kafka_service";
constexpr const char* EXPECTED_VERSION = "1.5.2";

} // namespace

// The library's headers tell a release by its number and nothing of its sources.
std::string kafka_build_version() {
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%016x@release", static_cast<unsigned>(RD_KAFKA_VERSION));
    return text.data();
}

void log_kafka_versions(const std::string& running_version_text, int running_version) {
    log::write(SOURCE, __LINE__,
               log::SystemMessage() << "SERVICE: kafka build version:   " << kafka_build_version());
    std::array<char, 16> number{};
    std::snprintf(number.data(), number.size(), "0x%08x", static_cast<unsigned>(running_version));
    log::write(SOURCE, __LINE__,
               log::SystemMessage() << "SERVICE: kafka running version: " << running_version_text << " ("
                                    << number.data() << ")");
    if (running_version_text != EXPECTED_VERSION) {
        log::write(SOURCE, __LINE__,
                   log::WarningMessage()
                       << "SERVICE: kafka running version differs to expected " << EXPECTED_VERSION);
    }
}

void log_kafka_versions() {
    log_kafka_versions(RdKafka::version_str(), RdKafka::version());
}

void log_kafka_names(const std::string& topic, const std::string& group) {
    log::write(SOURCE, __LINE__, log::SystemMessage() << "SERVICE: kafka topic is set to [" << topic << "]");
    log::write(SOURCE, __LINE__, log::SystemMessage() << "SERVICE: kafka group is set to [" << group << "]");
}

} // namespace corvalin::app
