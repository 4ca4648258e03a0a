#include "tests/support/system/statistic_report.h"

#include <gtest/gtest.h>

#include <charconv>
#include <functional>
#include <string_view>
#include <utility>
#include <vector>

namespace corvalin::test {

namespace {

// The lines of the two sections, word for word; an empty one is a frame line without text.
constexpr const char* ROUTING_LABELS[] = {
    "session number.............................: ", "session number (zombie)....................: ",
    "session audit executions number............: ", "",
    "session allocation errors number...........: ", "session existing index errors number.......: ",
    "session unknown index errors number........: ", "session sequence break errors number.......: ",
    "session lost packets number................: ",
};
constexpr const char* READER_LABELS[] = {
    "packet queue elements number...............: ",
    "packet queue passed elements number........: ",
    "packet queue dropped elements number.......: ",
    "packet queue idle hits number..............: ",
    "",
    "packet dropped  by min length..............: ",
    "packet dropped  by max length..............: ",
    "packet dropped  by failed allocation.......: ",
    "packet rejected by bad marker..............: ",
    "packet rejected by version.................: ",
    "packet rejected by corrupted size..........: ",
    "packet rejected by unknown type............: ",
    "",
    "packet 'start' type number.................: ",
    "packet 'term'  type number.................: ",
    "packet 'data'  type number.................: ",
};
constexpr std::size_t LABEL_CHARS = 45;
constexpr std::size_t WIDTH = 76;

// "session number....: " -> "session number"
std::string key_of(std::string_view label) {
    label.remove_suffix(2);
    return std::string(label.substr(0, label.find_last_not_of('.') + 1));
}

std::string line_of(const std::string& text) {
    std::string line = "* " + text;
    line.resize(WIDTH - 1, ' ');
    return line + "*\n";
}

std::string header_of(const std::string& title) {
    const std::size_t stars = WIDTH - 2 - title.size();
    return std::string(stars / 2, '*') + " " + title + " " + std::string((stars + 1) / 2, '*') + "\n";
}

template <std::size_t N>
std::string section_of(const char* const (&labels)[N], const Counters& counters) {
    std::string text;
    for (const char* const row : labels) {
        const std::string label = row;
        text += line_of(label.empty() ? "" : label + std::to_string(counters.at(key_of(label))));
    }
    return text;
}

} // namespace

Counters zero_counters() {
    Counters counters;
    for (const std::string_view label : ROUTING_LABELS) {
        if (!label.empty()) {
            counters[key_of(label)] = 0;
        }
    }
    for (const std::string_view label : READER_LABELS) {
        if (!label.empty()) {
            counters[key_of(label)] = 0;
        }
    }
    return counters;
}

std::string expected_report_text(unsigned int port, const Counters& counters) {
    return "SYSTEM  | \n" + header_of("corvalinrouter:" + std::to_string(port) + " statistic") + line_of("") +
           section_of(ROUTING_LABELS, counters) + line_of("") + header_of("packets statistic") + line_of("") +
           section_of(READER_LABELS, counters) + line_of("") + std::string(WIDTH, '*') + "\n";
}

std::optional<Counters> parse_report(unsigned int port, const std::string& text) {
    Counters counters = zero_counters();
    std::size_t begin = 0;
    while (begin < text.size()) {
        std::size_t end = text.find('\n', begin);
        end = end == std::string::npos ? text.size() : end;
        const std::string line = text.substr(begin, end - begin);
        begin = end + 1;
        if (line.size() < LABEL_CHARS + 3 || line.compare(LABEL_CHARS, 2, ": ") != 0) {
            continue;
        }
        const auto counter = counters.find(key_of(std::string_view(line).substr(2, LABEL_CHARS)));
        if (counter != counters.end()) {
            std::from_chars(line.data() + 2 + LABEL_CHARS, line.data() + line.size(), counter->second);
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
