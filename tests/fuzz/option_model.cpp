#include "tests/fuzz/option_model.h"

#include <utility>

namespace corvalin::fuzz {

namespace {

constexpr int SYSTEM = 0;
constexpr int ERROR = 1;
constexpr int WARNING = 2;
constexpr int INFO = 3;

} // namespace

Events OptionModel::take_events() {
    return std::exchange(m_events, {});
}

void OptionModel::log(int level, const std::string& text) {
    m_events.push_back("log " + std::to_string(level) + " CONFIGURATION: " + text);
}

bool OptionModel::parse_file(const std::string& path, const std::string& text) {
    if (path.empty()) {
        log(INFO, "file is not specified, default values are used");
        return true;
    }
    log(SYSTEM, "reading from file [" + path + "]");
    const std::vector<std::string> lines = pieces_of(text, '\n');
    for (std::size_t number = 0; number < lines.size(); ++number) {
        if (!parse_line(lines[number], number)) {
            return false;
        }
    }
    return true;
}

bool OptionModel::parse_line(const std::string& line, std::size_t number) {
    const std::string text = trimmed(line);
    if (text.empty() || text[0] == '#') {
        return true;
    }
    const std::vector<std::string> pieces = filled_pieces_of(text, '=');
    if (pieces.empty() || pieces.size() > 2) {
        mark("wrong number of pieces");
        log(ERROR, "incorrect option format at line " + std::to_string(number) + ": \"" + line + "\"");
        return false;
    }
    return apply(pieces);
}

bool OptionModel::parse_args(const std::string& args) {
    log(SYSTEM, "reading from args: " + args);
    // A pair of commas is one comma of a value, and so is the pair "_;": what separates is a comma alone.
    std::vector<std::string> options(1);
    for (std::size_t index = 0; index < args.size(); ++index) {
        const std::string pair = args.substr(index, 2);
        if (pair == ",,") {
            options.back() += "_;";
            ++index;
        } else if (args[index] == ',') {
            options.emplace_back();
        } else {
            options.back() += args[index];
        }
    }
    std::size_t position = 0;
    for (const std::string& option : options) {
        if (option.empty()) {
            continue;
        }
        ++position;
        std::string text;
        for (std::size_t index = 0; index < option.size(); ++index) {
            const bool is_pair = option.substr(index, 2) == "_;";
            text += is_pair ? ',' : option[index];
            index += is_pair ? 1 : 0;
        }
        const std::vector<std::string> pieces = pieces_of(text, '=');
        if (pieces.empty() || pieces.size() > 2) {
            mark("wrong number of pieces");
            log(ERROR, "incorrect option format at position [" + std::to_string(position) + "]");
            return false;
        }
        if (!apply(pieces)) {
            return false;
        }
    }
    return true;
}

bool OptionModel::apply(const std::vector<std::string>& pieces) {
    const std::string name = trimmed_right(pieces[0]);
    const std::string value = pieces.size() == 2 ? trimmed_left(pieces[1]) : "";
    if (pieces.size() == 2 && value.empty()) {
        mark("empty value is a flag");
    }
    if (value.empty()) {
        const Status status = set_flag(name);
        mark(status == Status::applied ? "flag applied" : "flag unknown");
        return report(status, "flag [" + name + "]", "");
    }
    const Status status = set_value(name, value);
    mark(status == Status::applied   ? "option applied"
         : status == Status::unknown ? "option unknown"
                                     : "bad option");
    return report(status, "option [" + name + "]", value);
}

bool OptionModel::report(Status status, const std::string& subject, const std::string& value_text) {
    if (status == Status::unknown) {
        log(WARNING, subject + " is unknown");
        return true;
    }
    if (status == Status::applied) {
        log(SYSTEM, subject + (value_text.empty() ? " applied" : " is set to [" + value_text + "]"));
        return true;
    }
    log(ERROR, "failed to set " + subject + " to [" + value_text + "]: unexpected value format");
    return planted("accept");
}

OptionModel::Status RouterOptionModel::set_flag(const std::string& name) {
    if (name == "discard_media_node") {
        discard_media = true;
        return Status::applied;
    }
    if (name == "discard_writer_node") {
        discard_writer = true;
        return Status::applied;
    }
    return Status::unknown;
}

OptionModel::Status RouterOptionModel::set_value(const std::string& name, const std::string& value) {
    if (name == "media_node") {
        return add_nodes(value, media_nodes, discard_media);
    }
    if (name == "writer_node") {
        return add_nodes(value, writer_nodes, discard_writer);
    }
    if (name == "statistic_logging_enabled") {
        return set_bool(value, statistic_logging);
    }
    if (name == "statistic_transfer_enabled") {
        return set_bool(value, statistic_transfer);
    }
    if (name == "statistic_transfer_host") {
        return set_transfer_host(value);
    }
    if (name == "port") {
        return set_port(value);
    }
    return name == "log_level" ? set_log_level(value) : Status::unknown;
}

OptionModel::Status RouterOptionModel::add_nodes(const std::string& value, std::vector<Endpoint>& nodes,
                                                 bool& discard) {
    const bool had_nodes = !nodes.empty();
    const std::vector<Endpoint> added = expected_addrs(value, [](const char*) {});
    nodes.insert(nodes.end(), added.begin(), added.end());
    if (nodes.empty()) {
        return Status::bad;
    }
    if (had_nodes) {
        mark("nodes add up");
    }
    discard = !planted("discard");
    return Status::applied;
}

OptionModel::Status RouterOptionModel::set_transfer_host(const std::string& value) {
    constexpr std::size_t MOST = 1'000;
    const auto hosts = expected_hosts(value, MOST, [](const char*) {});
    if (!hosts) {
        m_is_too_large = true;
        return Status::bad;
    }
    if (hosts->empty()) {
        return Status::bad;
    }
    mark("transfer host");
    transfer_host = hosts->front();
    statistic_transfer = true;
    return Status::applied;
}

OptionModel::Status RouterOptionModel::set_port(const std::string& value) {
    const std::optional<unsigned> number = strict_port(value);
    if (!number) {
        is_port_bad = true;
        return Status::bad;
    }
    port = *number;
    return Status::applied;
}

OptionModel::Status RouterOptionModel::set_log_level(const std::string& value) {
    constexpr const char* NAMES[] = {"SYSTEM", "ERROR", "WARNING", "INFO", "DEBUG", "TRACE"};
    unsigned level = 0;
    for (const char* name : NAMES) {
        if (value == name) {
            log_level = level;
            return Status::applied;
        }
        ++level;
    }
    return Status::bad;
}

OptionModel::Status RouterOptionModel::set_bool(const std::string& value, bool& field) {
    if (value == "true") {
        field = true;
        return Status::applied;
    }
    if (value == "false") {
        field = false;
        return Status::applied;
    }
    return Status::bad;
}

OptionModel::Status KafkaOptionModel::set_flag(const std::string& /*name*/) {
    return Status::unknown;
}

OptionModel::Status KafkaOptionModel::set_value(const std::string& name, const std::string& value) {
    std::string* const field = name == "kafka_broker"            ? &broker
                               : name == "kafka_topic_broadcast" ? &topic_broadcast
                               : name == "kafka_topic_request"   ? &topic_request
                                                                 : nullptr;
    if (field == nullptr) {
        return Status::unknown;
    }
    *field = value;
    return Status::applied;
}

} // namespace corvalin::fuzz
