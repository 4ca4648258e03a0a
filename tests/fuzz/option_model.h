// option_model: a second reading of option files and argument strings, and of the options of the router.
//
// It keeps every field, and every log line as an event. Texts are cut by the functions of endpoint_model.
//
// Threads    one.
// Ownership  plain values. The account of what was reached is borrowed.
#pragma once

#include "tests/fuzz/endpoint_model.h"
#include "tests/fuzz/fuzz_support.h"
#include "tests/fuzz/log_recorder.h"

#include <cstddef>
#include <string>
#include <vector>

namespace corvalin::fuzz {

/// What each target of options has to reach, whatever its source.
#define CORVALIN_FUZZ_OPTION_REACH                                                                           \
    "flag applied", "flag unknown", "option applied", "option unknown", "bad option",                        \
        "empty value is a flag", "wrong number of pieces", "nodes add up", "transfer host"

class OptionModel {
public:
    explicit OptionModel(Reach& reach) : m_reach(reach) {}
    virtual ~OptionModel() = default;
    OptionModel(const OptionModel&) = delete;
    OptionModel& operator=(const OptionModel&) = delete;

    // True if the object is usable afterwards.
    bool parse_file(const std::string& path, const std::string& text);
    bool parse_args(const std::string& args);

    Events take_events();

protected:
    enum class Status : uint8_t { applied, unknown, bad };

    virtual Status set_flag(const std::string& name) = 0;
    virtual Status set_value(const std::string& name, const std::string& value) = 0;

    void mark(const char* what) { m_reach.mark(what); }

private:
    bool parse_line(const std::string& line, std::size_t number);
    bool apply(const std::vector<std::string>& pieces);
    bool report(Status status, const std::string& subject, const std::string& value_text);
    void log(int level, const std::string& text);

    Reach& m_reach;
    Events m_events;
};

class RouterOptionModel : public OptionModel {
public:
    using OptionModel::OptionModel;

    /// True if a host list among the options names more ports than a search should build.
    bool is_too_large() const { return m_is_too_large; }

    unsigned log_level = 3;
    unsigned port = 0;
    bool is_port_bad = false; // then the field may hold anything: the object is of no use
    bool statistic_logging = true;
    bool statistic_transfer = false;
    Endpoint transfer_host{"", 0};
    bool discard_media = false;
    bool discard_writer = false;
    std::vector<Endpoint> media_nodes;
    std::vector<Endpoint> writer_nodes;

protected:
    Status set_flag(const std::string& name) override;
    Status set_value(const std::string& name, const std::string& value) override;

private:
    Status add_nodes(const std::string& value, std::vector<Endpoint>& nodes, bool& discard);
    Status set_transfer_host(const std::string& value);
    Status set_log_level(const std::string& value);
    Status set_port(const std::string& value);
    static Status set_bool(const std::string& value, bool& field);

    bool m_is_too_large = false;
};

class KafkaOptionModel : public OptionModel {
public:
    using OptionModel::OptionModel;

    std::string broker;
    std::string topic_request;
    std::string topic_broadcast;

protected:
    Status set_flag(const std::string& name) override;
    Status set_value(const std::string& name, const std::string& value) override;
};

} // namespace corvalin::fuzz
