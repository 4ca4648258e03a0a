#include "tests/unit/watch/report_text.h"

namespace corvalin::watch::test {

namespace {

constexpr const char* FIRST_LABELS[] = {
    "session number.............................: ", "session number (zombie)....................: ",
    "session audit executions number............: ", "",
    "session allocation errors number...........: ", "session existing index errors number.......: ",
    "session unknown index errors number........: ", "session sequence break errors number.......: ",
    "session lost packets number................: ",
};
constexpr const char* SECOND_LABELS[] = {
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
    row.resize(75, ' ');
    return row + "*";
}

std::string centred(const std::string& title) {
    const std::size_t stars = 74 - title.size();
    return std::string(stars / 2, '*') + " " + title + " " + std::string((stars + 1) / 2, '*');
}

} // namespace

Numbers counted_up(uint64_t first) {
    Numbers numbers{};
    for (uint64_t& number : numbers) {
        number = first++;
    }
    return numbers;
}

std::vector<std::string> report_rows(const std::string& title, const Numbers& numbers) {
    std::size_t next = 0;
    const auto row_of = [&](const std::string& label) {
        return framed(label.empty() ? "" : label + std::to_string(numbers.at(next++)));
    };
    std::vector<std::string> rows = {centred(title), framed("")};
    for (const char* const label : FIRST_LABELS) {
        rows.push_back(row_of(label));
    }
    rows.insert(rows.end(), {framed(""), centred("packets statistic"), framed("")});
    for (const char* const label : SECOND_LABELS) {
        rows.push_back(row_of(label));
    }
    rows.insert(rows.end(), {framed(""), std::string(76, '*')});
    return rows;
}

std::string report_text(uint64_t port, const Numbers& numbers, const std::string& separator) {
    std::string text;
    for (const std::string& row :
         report_rows("corvalinrouter:" + std::to_string(port) + " statistic", numbers)) {
        text += separator + row;
    }
    return text;
}

} // namespace corvalin::watch::test
