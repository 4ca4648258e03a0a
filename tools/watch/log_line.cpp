#include "tools/watch/log_line.h"

#include "corvalin_lib/json.h"

#include <array>
#include <charconv>
#include <cstring>
#include <ctime>

namespace corvalin::watch {

namespace {

constexpr std::string_view DELIMITER = " | ";
constexpr std::size_t LEVEL_CHARS = 7;
constexpr std::array<std::string_view, 6> LEVELS = {"SYSTEM", "ERROR", "WARNING", "INFO", "DEBUG", "TRACE"};
constexpr int64_t US_PER_SECOND = 1'000'000;
constexpr int64_t SECONDS_PER_DAY = 86400;
constexpr std::size_t SHORT_TIME_CHARS = sizeof("Mmm dd hh:mm:ss") - 1;

// The level at the end of a field, padded to 7 characters; empty if there is none.
std::string_view level_at_end(std::string_view field) {
    if (field.size() < LEVEL_CHARS) {
        return {};
    }
    const std::string_view padded = field.substr(field.size() - LEVEL_CHARS);
    if (field.size() > LEVEL_CHARS && field[field.size() - LEVEL_CHARS - 1] != ' ') {
        return {};
    }
    for (const std::string_view level : LEVELS) {
        if (padded.substr(0, level.size()) == level &&
            padded.find_first_not_of(' ', level.size()) == std::string_view::npos) {
            return padded.substr(0, level.size());
        }
    }
    return {};
}

bool is_digit(char character) {
    return character >= '0' && character <= '9';
}

// "2026.11.14 17:26:05.004217", which stands in front of the level on standard error.
bool ends_in_stream_time(std::string_view field) {
    constexpr std::string_view FORM = "dddd.dd.dd dd:dd:dd.dddddd";
    if (field.size() < FORM.size()) {
        return false;
    }
    const std::string_view time = field.substr(field.size() - FORM.size());
    for (std::size_t index = 0; index < FORM.size(); ++index) {
        if (FORM[index] == 'd' ? !is_digit(time[index]) : time[index] != FORM[index]) {
            return false;
        }
    }
    return true;
}

// "net_socket:120", which stands behind the level at the thresholds DEBUG and TRACE.
bool is_place(std::string_view field) {
    const std::size_t colon = field.find(':');
    if (colon == std::string_view::npos || colon == 0 || colon + 1 == field.size()) {
        return false;
    }
    for (std::size_t index = 0; index < field.size(); ++index) {
        const char character = field[index];
        const bool is_name =
            (character >= 'a' && character <= 'z') || character == '_' || is_digit(character);
        if (index != colon && (index < colon ? !is_name : !is_digit(character))) {
            return false;
        }
    }
    return true;
}

template <class Number>
bool parse_number(std::string_view text, Number& number) {
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
    return result.ec == std::errc() && result.ptr == text.data() + text.size();
}

// Fixed places of digits.
int digits_at(std::string_view text, std::size_t begin, std::size_t count) {
    int number = -1;
    return begin + count <= text.size() && parse_number(text.substr(begin, count), number) ? number : -1;
}

std::optional<int64_t> parse_rfc3339(std::string_view text) {
    constexpr std::size_t DATE_TIME_CHARS = sizeof("2026-11-21T12:00:00") - 1;
    if (text.size() < DATE_TIME_CHARS || text[4] != '-' || text[7] != '-' || text[10] != 'T' ||
        text[13] != ':' || text[16] != ':') {
        return std::nullopt;
    }
    tm parts{};
    parts.tm_year = digits_at(text, 0, 4) - 1900;
    parts.tm_mon = digits_at(text, 5, 2) - 1;
    parts.tm_mday = digits_at(text, 8, 2);
    parts.tm_hour = digits_at(text, 11, 2);
    parts.tm_min = digits_at(text, 14, 2);
    parts.tm_sec = digits_at(text, 17, 2);
    if (parts.tm_year < 0 || parts.tm_mon < 0 || parts.tm_mday < 1 || parts.tm_hour < 0 || parts.tm_min < 0 ||
        parts.tm_sec < 0) {
        return std::nullopt;
    }
    int64_t time_us = static_cast<int64_t>(timegm(&parts)) * US_PER_SECOND;
    text.remove_prefix(DATE_TIME_CHARS);
    if (!text.empty() && text[0] == '.') {
        int64_t unit_us = US_PER_SECOND / 10;
        for (text.remove_prefix(1); !text.empty() && is_digit(text[0]); text.remove_prefix(1)) {
            time_us += (text[0] - '0') * unit_us;
            unit_us /= 10;
        }
    }
    if (text.size() >= 6 && (text[0] == '+' || text[0] == '-') && text[3] == ':') {
        const int64_t offset_s = (digits_at(text, 1, 2) * 60 + digits_at(text, 4, 2)) * int64_t{60};
        time_us -= (text[0] == '+' ? offset_s : -offset_s) * US_PER_SECOND;
    }
    return time_us;
}

std::optional<int64_t> parse_short_time(std::string_view text, int64_t now_s) {
    static constexpr std::string_view MONTHS = "JanFebMarAprMayJunJulAugSepOctNovDec";
    if (text.size() < SHORT_TIME_CHARS || text[3] != ' ' || text[6] != ' ' || text[9] != ':' ||
        text[12] != ':') {
        return std::nullopt;
    }
    const std::size_t month = MONTHS.find(text.substr(0, 3));
    const int day = text[4] == ' ' ? digits_at(text, 5, 1) : digits_at(text, 4, 2);
    tm parts{};
    parts.tm_hour = digits_at(text, 7, 2);
    parts.tm_min = digits_at(text, 10, 2);
    parts.tm_sec = digits_at(text, 13, 2);
    if (month == std::string_view::npos || month % 3 != 0 || day < 1 || parts.tm_hour < 0 ||
        parts.tm_min < 0 || parts.tm_sec < 0) {
        return std::nullopt;
    }
    parts.tm_mon = static_cast<int>(month / 3);
    parts.tm_mday = day;
    parts.tm_isdst = -1;
    const time_t now = static_cast<time_t>(now_s);
    tm today{};
    localtime_r(&now, &today);
    parts.tm_year = today.tm_year;
    tm copy = parts; // mktime changes its argument
    time_t time = mktime(&copy);
    if (time > now + SECONDS_PER_DAY) { // of December, read in January
        --parts.tm_year;
        time = mktime(&parts);
    }
    return static_cast<int64_t>(time) * US_PER_SECOND;
}

// "corvalinrouter[123]: " -> 123.
int64_t pid_of(std::string_view prefix) {
    constexpr std::string_view END = "]: ";
    int64_t pid = 0;
    if (prefix.size() > END.size() && prefix.substr(prefix.size() - END.size()) == END) {
        prefix.remove_suffix(END.size());
        const std::size_t bracket = prefix.rfind('[');
        if (bracket == std::string_view::npos || !parse_number(prefix.substr(bracket + 1), pid)) {
            pid = 0;
        }
    }
    return pid;
}

const char* string_member(const rapidjson::Document& object, const char* name, std::size_t& size) {
    const auto member = object.FindMember(name);
    if (member == object.MemberEnd() || !member->value.IsString()) {
        return nullptr;
    }
    size = member->value.GetStringLength();
    return member->value.GetString();
}

template <class Number>
std::optional<Number> number_member(const rapidjson::Document& object, const char* name) {
    std::size_t size = 0;
    Number number{};
    const char* const text = string_member(object, name, size);
    if (text == nullptr || !parse_number(std::string_view(text, size), number)) {
        return std::nullopt;
    }
    return number;
}

} // namespace

std::optional<Body> split_body(std::string_view line) {
    std::size_t begin = 0;
    std::size_t bar = line.find(DELIMITER);
    if (bar != std::string_view::npos && ends_in_stream_time(line.substr(0, bar))) {
        begin = bar + DELIMITER.size();
        bar = line.find(DELIMITER, begin);
    }
    if (bar == std::string_view::npos) {
        return std::nullopt;
    }
    const std::string_view field = line.substr(begin, bar - begin);
    Body body;
    body.level = level_at_end(field);
    if (body.level.empty()) {
        return std::nullopt;
    }
    body.prefix = line.substr(0, begin + field.size() - LEVEL_CHARS);
    body.text = line.substr(bar + DELIMITER.size());
    const std::size_t place_end = body.text.find(DELIMITER);
    if (place_end != std::string_view::npos && is_place(body.text.substr(0, place_end))) {
        body.text.remove_prefix(place_end + DELIMITER.size());
    }
    return body;
}

Stamp parse_prefix(std::string_view prefix, int64_t now_s) {
    Stamp stamp;
    if (const auto rfc3339 = parse_rfc3339(prefix)) {
        stamp.time_us = *rfc3339;
    } else if (const auto short_time = parse_short_time(prefix, now_s)) {
        stamp.time_us = *short_time;
    }
    stamp.pid = pid_of(prefix);
    return stamp;
}

std::optional<SyslogText> parse_syslog_datagram(std::string_view datagram, int64_t now_s) {
    const std::size_t end = datagram.substr(0, 6).find('>');
    unsigned int priority = 0;
    if (datagram.empty() || datagram[0] != '<' || end == std::string_view::npos ||
        !parse_number(datagram.substr(1, end - 1), priority)) {
        return std::nullopt;
    }
    SyslogText record;
    record.facility = priority >> 3U;
    record.text = datagram.substr(end + 1);
    while (!record.text.empty() && (record.text.back() == '\n' || record.text.back() == '\0')) {
        record.text.pop_back();
    }
    if (const auto body = split_body(record.text)) {
        record.stamp = parse_prefix(body->prefix, now_s);
    }
    return record;
}

std::optional<SyslogText> parse_journal_line(std::string_view line) {
    rapidjson::Document object;
    // By iteration: the depth of an object from outside must not become that of the stack.
    object.Parse<rapidjson::kParseIterativeFlag>(line.data(), line.size());
    if (object.HasParseError() || !object.IsObject()) {
        return std::nullopt;
    }
    std::size_t size = 0;
    const char* const message = string_member(object, "MESSAGE", size);
    if (message == nullptr) {
        return std::nullopt;
    }
    SyslogText record;
    record.text.assign(message, size);
    record.facility = number_member<unsigned int>(object, "SYSLOG_FACILITY");
    record.stamp.time_us = number_member<int64_t>(object, "__REALTIME_TIMESTAMP").value_or(0);
    record.stamp.pid = number_member<int64_t>(object, "_PID").value_or(0);
    return record;
}

LogEvent classify(const Body& body) {
    const std::string_view text = body.text;
    const auto begins = [&text](std::string_view start) { return text.substr(0, start.size()) == start; };
    if (body.level == "ERROR" && begins("SOCKET[") && text.find("]: failed to send a data (") < 32) {
        return LogEvent::SEND_FAILED;
    }
    if (body.level != "SYSTEM") {
        return LogEvent::NONE;
    }
    if (begins("ROUTING_MANAGER: ")) {
        constexpr std::string_view ASSIGNED = ": assigned hosts:";
        const std::size_t at = text.find(ASSIGNED);
        if (at == std::string_view::npos) {
            return LogEvent::NONE;
        }
        return text.substr(at + ASSIGNED.size(), 3) == " -" ? LogEvent::NO_HOST_ASSIGNED
                                                            : LogEvent::HOSTS_ASSIGNED;
    }
    if (begins("START | ")) {
        // In front of the call id, which a sender chooses.
        const std::size_t flags = text.find(", f: ");
        if (flags == std::string_view::npos) {
            return LogEvent::NONE;
        }
        return text.substr(flags + 5, 2) == "--" ? LogEvent::START_WITHOUT_NODES : LogEvent::START_WITH_NODES;
    }
    return LogEvent::NONE;
}

int send_error(const Body& body) {
    constexpr std::string_view ERROR = "error (";
    const std::size_t begin = body.text.find(ERROR);
    const std::size_t end = body.text.find(')', begin);
    int error = 0;
    if (begin == std::string_view::npos || end == std::string_view::npos ||
        !parse_number(body.text.substr(begin + ERROR.size(), end - begin - ERROR.size()), error)) {
        return 0;
    }
    return error;
}

} // namespace corvalin::watch
