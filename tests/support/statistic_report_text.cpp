#include "tests/support/statistic_report_text.h"

#include <string_view>

namespace corvalin::test {

namespace {

constexpr std::size_t WIDTH = 76;

// The rows of the two sections; an empty one is a row of the frame without text.
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

std::string framed(const std::string& text) {
    std::string row = "* " + text;
    row.resize(WIDTH - 1, ' ');
    return row + "*";
}

std::string centred(const std::string& title) {
    const std::size_t stars = WIDTH - 2 - title.size();
    return std::string(stars / 2, '*') + " " + title + " " + std::string((stars + 1) / 2, '*');
}

template <std::size_t N>
void append_labels(std::vector<std::string>& labels, const char* const (&section)[N]) {
    for (const std::string_view label : section) {
        if (!label.empty()) {
            labels.emplace_back(label);
        }
    }
}

template <std::size_t N>
void append_section(std::vector<std::string>& rows, const char* const (&section)[N], const Numbers& numbers,
                    std::size_t& next) {
    for (const std::string_view label : section) {
        rows.push_back(framed(label.empty() ? "" : std::string(label) + std::to_string(numbers.at(next++))));
    }
}

} // namespace

Numbers counted_up(uint64_t first) {
    Numbers numbers{};
    for (uint64_t& number : numbers) {
        number = first++;
    }
    return numbers;
}

std::vector<std::string> report_labels() {
    std::vector<std::string> labels;
    append_labels(labels, ROUTING_LABELS);
    append_labels(labels, READER_LABELS);
    return labels;
}

std::string report_title(uint64_t port) {
    return "corvalinrouter:" + std::to_string(port) + " statistic";
}

std::vector<std::string> report_rows(const std::string& title, const Numbers& numbers) {
    std::size_t next = 0;
    std::vector<std::string> rows = {centred(title), framed("")};
    append_section(rows, ROUTING_LABELS, numbers, next);
    rows.insert(rows.end(), {framed(""), centred("packets statistic"), framed("")});
    append_section(rows, READER_LABELS, numbers, next);
    rows.insert(rows.end(), {framed(""), std::string(WIDTH, '*')});
    return rows;
}

std::string report_text(uint64_t port, const Numbers& numbers, const std::string& separator) {
    std::string text;
    for (const std::string& row : report_rows(report_title(port), numbers)) {
        text += separator + row;
    }
    return text;
}

} // namespace corvalin::test
