#include "tests/support/system/statistic_report.h"

#include <gtest/gtest.h>

#include <charconv>
#include <functional>
#include <string_view>
#include <utility>
#include <vector>

#include "tests/support/statistic_report_text.h"

namespace corvalin::test {

namespace {

// "session number....: " -> "session number"
std::string key_of(std::string_view label) {
    label.remove_suffix(2);
    return std::string(label.substr(0, label.find_last_not_of('.') + 1));
}

} // namespace

Counters zero_counters() {
    Counters counters;
    for (const std::string& label : report_labels()) {
        counters[key_of(label)] = 0;
    }
    return counters;
}

std::string expected_report_text(unsigned int port, const Counters& counters) {
    Numbers numbers{};
    std::size_t next = 0;
    for (const std::string& label : report_labels()) {
        numbers.at(next++) = counters.at(key_of(label));
    }
    return "SYSTEM  | " + report_text(port, numbers, "\n") + "\n";
}

std::optional<Counters> parse_report(unsigned int port, const std::string& text) {
    Counters counters = zero_counters();
    std::size_t begin = 0;
    while (begin < text.size()) {
        std::size_t end = text.find('\n', begin);
        end = end == std::string::npos ? text.size() : end;
        const std::string line = text.substr(begin, end - begin);
        begin = end + 1;
        if (line.size() < REPORT_LABEL_CHARS + 3 || line.compare(REPORT_LABEL_CHARS, 2, ": ") != 0) {
            continue;
        }
        const auto counter = counters.find(key_of(std::string_view(line).substr(2, REPORT_LABEL_CHARS)));
        if (counter != counters.end()) {
            std::from_chars(line.data() + 2 + REPORT_LABEL_CHARS, line.data() + line.size(), counter->second);
        }
    }
    if (text != expected_report_text(port, counters)) {
        return std::nullopt;
    }
    return counters;
}

std::vector<Counters> reports(const SyslogSocket& syslog, unsigned int port) {
    std::vector<Counters> all;
    for (const std::string& text : syslog.texts(STATISTIC_NOTICE)) {
        if (const auto counters = parse_report(port, text)) {
            all.push_back(*counters);
        } else {
            ADD_FAILURE() << "not a statistic report of port " << port << ":\n" << text;
        }
    }
    return all;
}

Counters wait_for_report(const SyslogSocket& syslog, unsigned int port,
                         const std::function<bool(const Counters&)>& wanted,
                         std::chrono::milliseconds limit) {
    syslog.wait_until(
        [&](const std::vector<SyslogRecord>& records) {
            for (auto record = records.rbegin(); record != records.rend(); ++record) {
                if (record->priority == STATISTIC_NOTICE) {
                    const auto counters = parse_report(port, record->text);
                    return counters && wanted(*counters);
                }
            }
            return false;
        },
        limit);
    const std::vector<Counters> all = reports(syslog, port);
    if (all.empty()) {
        ADD_FAILURE() << "no statistic report arrived";
        return zero_counters();
    }
    return all.back();
}

void expect_report(const SyslogSocket& syslog, unsigned int port, const Counters& expected,
                   std::chrono::milliseconds limit) {
    const Counters last = wait_for_report(
        syslog, port, [&expected](const Counters& counters) { return counters == expected; }, limit);
    for (const auto& [label, value] : expected) {
        EXPECT_EQ(last.at(label), value) << "counter \"" << label << "\" of the last report";
    }
}

Counters next_report(const SyslogSocket& syslog, unsigned int port, std::chrono::milliseconds limit) {
    const auto is_report = [](const SyslogRecord& record) { return record.priority == STATISTIC_NOTICE; };
    const std::size_t before = syslog.records().size();
    const auto record = syslog.wait_for(is_report, before, limit);
    if (!record) {
        ADD_FAILURE() << "no further statistic report arrived";
        return zero_counters();
    }
    const auto counters = parse_report(port, record->text);
    EXPECT_TRUE(counters.has_value()) << "not a statistic report of port " << port << ":\n" << record->text;
    return counters.value_or(zero_counters());
}

} // namespace corvalin::test
