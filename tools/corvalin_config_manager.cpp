// corvalin_config_manager: gives routers their node lists over Kafka.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <exception>
#include <iostream>
#include <iterator>
#include <limits>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "corvalin_lib/conf_extensions.h"
#include "corvalin_lib/log.h"
#include "corvalin_lib/messaging_message_broker.h"
#include "corvalin_lib/reference_countable.h"
#include "tools/config_manager/consumer_group.h"
#include "tools/config_manager/event_payload.h"
#include "tools/config_manager/kafka_link.h"
#include "tools/config_manager/manager.h"
#include "tools/config_manager/node_list.h"
#include "tools/config_manager/publishable_list.h"
#include "tools/config_manager/service.h"
#include "tools/config_manager/version_store.h"
#include "tools/tool_support/command_line.h"
#include "tools/tool_support/stop_signal.h"

namespace {

using namespace corvalin;
using namespace corvalin::tools;

constexpr const char* NAME = "corvalin_config_manager";
constexpr int EXIT_REFUSED = 2; // a list that must not reach a router

struct Options {
    std::string kafka_config = conf::default_kafka_config_path;
    std::string broker;
    ManagerTopics topics;
    std::vector<std::string> further_topics;
    std::string state = "/var/lib/tolvaine/corvalin/node_lists.json";
    uint64_t first_version = 1;
    std::string kind;
    std::string file;
    std::vector<std::string> files;
    std::string media_file;
    std::string writer_file;
    bool allow_empty = false;
    bool verbose = false;
    uint64_t to_version = 0;
    unsigned poll_ms = 200;
    uint64_t count = 0;
    double duration_s = 0;
};

std::mutex output_lock;

void report(const std::string& line) {
    const std::lock_guard<std::mutex> lock(output_lock);
    std::cout << line << std::endl; // flushed: whoever reads a pipe waits for the line
}

void complain(const std::string& text) {
    const std::lock_guard<std::mutex> lock(output_lock);
    std::cerr << NAME << ": " << text << "\n";
}

// Errors and warnings of the messaging only; with --verbose everything.
void write_problem(void* /*context*/, const char* /*file*/, int /*line*/, const log::Message& message) {
    if (message.level() == log::Level::ERROR || message.level() == log::Level::WARNING) {
        complain(message.text());
    }
}

const ListKind& kind_of(const std::string& word) {
    return *std::find_if(std::begin(LIST_KINDS), std::end(LIST_KINDS),
                         [&](const ListKind& kind) { return word == kind.word; });
}

std::optional<NodeList> read_publishable(const std::string& path) {
    return publishable_list(path, read_text(path));
}

// What the command line does not say comes from the routers' own Kafka configuration.
void complete_from_file(Options& options) {
    struct Setting {
        std::string& value;
        std::string conf::KafkaConfiguration::*in_file;
        const char* names;
    };
    const Setting settings[] = {
        {options.broker, &conf::KafkaConfiguration::m_kafka_broker, "--broker or kafka_broker"},
        {options.topics.request, &conf::KafkaConfiguration::m_kafka_topic_request,
         "--request-topic or kafka_topic_request"},
        {options.topics.broadcast, &conf::KafkaConfiguration::m_kafka_topic_broadcast,
         "--broadcast-topic or kafka_topic_broadcast"},
    };
    const auto is_missing = [](const Setting& setting) { return setting.value.empty(); };
    if (std::none_of(std::begin(settings), std::end(settings), is_missing)) {
        return;
    }
    const rc_ptr<conf::KafkaConfiguration> file(new conf::KafkaConfiguration());
    if (!file->parse_file(options.kafka_config)) {
        throw std::runtime_error("cannot use " + options.kafka_config +
                                 "; or give --broker, --request-topic and --broadcast-topic");
    }
    for (const Setting& setting : settings) {
        if (setting.value.empty()) {
            setting.value = file.get()->*setting.in_file;
        }
        if (setting.value.empty()) {
            throw std::runtime_error(std::string("give ") + setting.names + " in " + options.kafka_config);
        }
    }
}

VersionStore open_store(const Options& options) {
    VersionStore store(options.state, options.first_version);
    if (!store.exists()) {
        complain("warning: there is no " + options.state + ": versions begin at " +
                 std::to_string(options.first_version) +
                 ", and routers that have a higher one ignore them; see --first-version");
    }
    return store;
}

int check(Options& options) {
    bool is_sound = true;
    for (const std::string& file : options.files) {
        if (const auto nodes = read_publishable(file)) {
            report(file + ": " + std::to_string(nodes->size()) + " nodes");
        } else {
            is_sound = false;
        }
    }
    return is_sound ? EXIT_OK : EXIT_REFUSED;
}

int diff(Options& options) {
    const auto nodes = read_publishable(options.file);
    if (!nodes) {
        return EXIT_REFUSED;
    }
    const History history = VersionStore(options.state).history(kind_of(options.kind).name);
    const NodeList published = history.empty() ? NodeList() : history.back().nodes;
    const std::vector<std::string> lines = difference(published, *nodes);
    for (const std::string& line : lines) {
        report(line);
    }
    if (lines.empty() && published != *nodes) {
        report("the same nodes in another order");
    }
    return EXIT_OK;
}

int publish(Options& options) {
    const auto nodes = read_publishable(options.file);
    if (!nodes || !is_emptiness_wanted(*nodes, options.file, options.allow_empty)) {
        return EXIT_REFUSED;
    }
    complete_from_file(options);
    VersionStore store = open_store(options);
    KafkaLink link(options.broker);
    Manager manager(store, link, options.topics, &report);
    manager.prepare_topics();
    manager.publish(kind_of(options.kind), *nodes);
    return EXIT_OK;
}

int rollback(Options& options) {
    const ListKind& kind = kind_of(options.kind);
    VersionStore store(options.state, options.first_version);
    const History history = store.history(kind.name);
    const PublishedList* const target = find_rollback_target(history, options.to_version);
    if (target == nullptr) {
        complain((options.to_version != 0 ? "no version " + std::to_string(options.to_version)
                                          : std::string("no earlier list")) +
                 " of " + kind.name + " in " + options.state);
        return EXIT_REFUSED;
    }
    const std::string origin = std::string(kind.name) + " version " + std::to_string(target->version);
    if (!is_emptiness_wanted(target->nodes, origin, options.allow_empty)) {
        return EXIT_REFUSED;
    }
    complete_from_file(options);
    KafkaLink link(options.broker);
    Manager manager(store, link, options.topics, &report);
    manager.prepare_topics();
    manager.rollback(kind, *target);
    return EXIT_OK;
}

int announce(Options& options) {
    complete_from_file(options);
    VersionStore store(options.state);
    KafkaLink link(options.broker);
    Manager(store, link, options.topics, &report).announce();
    return EXIT_OK;
}

int decode(Options& options) {
    const std::string payload = options.file.empty()
                                    ? std::string(std::istreambuf_iterator<char>(std::cin), {})
                                    : read_text(options.file);
    const auto opened = open_payload(payload);
    if (!opened) {
        complain("no zlib stream, or one that inflates beyond all measure");
        return EXIT_FAILED;
    }
    report("kind " + std::to_string(opened->kind) + ", " + std::to_string(payload.size()) +
           " bytes, inflated " + std::to_string(opened->kind < 0 ? 0 : opened->text.size() + 1) + ", " +
           (opened->is_accepted_by_routers ? "accepted" : "refused") + " by routers");
    report(opened->text);
    return EXIT_OK;
}

int watch(Options& options) {
    complete_from_file(options);
    catch_stop_signals();
    std::atomic<uint64_t> seen{0}; // consumer thread
    messaging::MessageBrokerSettings settings;
    settings.brokers = options.broker;
    settings.group = make_consumer_group("_watch");
    settings.topics = {options.topics.request, options.topics.broadcast};
    settings.topics.insert(settings.topics.end(), options.further_topics.begin(),
                           options.further_topics.end());
    settings.on_message_received = [&seen](const unsigned char* data, unsigned long size) {
        report(std::string(reinterpret_cast<const char*>(data) + 1, size == 0 ? 0 : size - 1));
        seen.fetch_add(1, std::memory_order_relaxed);
    };
    const messaging::MessageBroker broker(settings);
    for (const std::string& topic : settings.topics) {
        report("watching [" + topic + "]");
    }
    const auto begin = std::chrono::steady_clock::now();
    const auto is_done = [&] {
        const std::chrono::duration<double> passed = std::chrono::steady_clock::now() - begin;
        return (options.count != 0 && seen.load(std::memory_order_relaxed) >= options.count) ||
               (options.duration_s > 0 && passed.count() >= options.duration_s);
    };
    while (!is_done() && !wait_for_stop(std::chrono::milliseconds(STOP_CHECK_INTERVAL_MS))) {
    }
    return EXIT_OK;
}

int run(Options& options) {
    complete_from_file(options);
    catch_stop_signals();
    std::vector<FollowedFile> files;
    if (!options.media_file.empty()) {
        files.emplace_back(kind_of("media"), options.media_file);
    }
    if (!options.writer_file.empty()) {
        files.emplace_back(kind_of("writer"), options.writer_file);
    }
    VersionStore store = open_store(options);
    const ManagerLock lock(store);
    KafkaLink link(options.broker);
    ManagerService service(
        {options.broker, options.topics, options.allow_empty, std::chrono::milliseconds(options.poll_ms)},
        store, link, &report);
    return service.run(files) ? EXIT_OK : EXIT_REFUSED;
}

void add_kafka_options(Command& command, Options& options) {
    command
        .add_option("--kafka-config", options.kafka_config,
                    "Kafka configuration of the routers, for what the next three do not say")
        .show_default()
        .type_name("FILE");
    command.add_option("--broker", options.broker, "Brokers, as host:port joined by commas");
    command.add_option("--request-topic", options.topics.request, "Topic on which routers ask");
    command.add_option("--broadcast-topic", options.topics.broadcast, "Topic to which all routers listen");
    command.add_flag("--verbose", options.verbose, "Show all that the messaging logs");
}

void add_state(Command& command, Options& options) {
    command.add_option("--state", options.state, "File that keeps the versions").show_default();
}

void add_first_version(Command& command, Options& options) {
    command
        .add_option("--first-version", options.first_version,
                    "The least version to use: above all that routers have, should the state be lost")
        .show_default()
        .range(uint64_t{1}, std::numeric_limits<uint64_t>::max());
}

/// What each verb takes that gives routers a new version of a list.
void add_versions_and_kafka(Command& command, Options& options) {
    add_state(command, options);
    add_first_version(command, options);
    add_kafka_options(command, options);
}

void add_kind(Command& command, Options& options) {
    command.add_option("KIND", options.kind, "media or writer").required().one_of({"media", "writer"});
}

void add_allow_empty(Command& command, Options& options) {
    command.add_flag("--allow-empty", options.allow_empty, "Publish an empty list without asking");
}

void add_list(Command& command, Options& options) {
    command.add_option("FILE", options.file, "The list").required().existing_file();
}

struct Verb {
    Command command; // borrowed
    int (*function)(Options&);
};

Verb add_run(CommandLine& command_line, Options& options) {
    Command command = command_line.add_verb("run", "Publish the lists of files, follow them, answer routers");
    command.add_option("--media", options.media_file, "File with the media nodes")
        .type_name("FILE")
        .existing_file();
    command.add_option("--writer", options.writer_file, "File with the writer nodes")
        .type_name("FILE")
        .existing_file();
    command.add_option("--poll-ms", options.poll_ms, "How often the files are looked at")
        .show_default()
        .range(1, 60'000);
    command.add_flag("--allow-empty", options.allow_empty,
                     "Publish an empty list without asking, also when a file changes to one");
    add_versions_and_kafka(command, options);
    command.footer(
        "All files are checked before anything is sent. A file that changes to a list that must not reach a\n"
        "router is told and left alone: routers keep what they have. Ends by SIGTERM and SIGINT.");
    return {command, &run};
}

Verb add_check(CommandLine& command_line, Options& options) {
    Command command = command_line.add_verb("check", "Check files; sends nothing");
    command.add_option("FILE", options.files, "Lists to check").required().existing_file();
    return {command, &check};
}

Verb add_publish(CommandLine& command_line, Options& options) {
    Command command = command_line.add_verb("publish", "Send one list under a new version");
    add_kind(command, options);
    add_list(command, options);
    add_allow_empty(command, options);
    add_versions_and_kafka(command, options);
    command.footer("May be used beside a running manager, which answers with the new list from then on.");
    return {command, &publish};
}

Verb add_rollback(CommandLine& command_line, Options& options) {
    Command command = command_line.add_verb("rollback", "Send an earlier list under a new version");
    add_kind(command, options);
    command
        .add_option("--to", options.to_version, "Version of the list; without it the one before the latest")
        .range(uint64_t{1}, std::numeric_limits<uint64_t>::max());
    add_allow_empty(command, options);
    add_versions_and_kafka(command, options);
    command.footer("May be used beside a running manager. Two rollbacks go back by two lists. A file that "
                   "still holds the\n"
                   "list that was taken back is not published again until it changes.");
    return {command, &rollback};
}

Verb add_announce(CommandLine& command_line, Options& options) {
    Command command =
        command_line.add_verb("announce", "Have all routers ask a running manager for what they do not have");
    add_state(command, options);
    add_kafka_options(command, options);
    return {command, &announce};
}

Verb add_diff(CommandLine& command_line, Options& options) {
    Command command = command_line.add_verb("diff", "Compare a file with what was published; sends nothing");
    add_kind(command, options);
    add_list(command, options);
    add_state(command, options);
    command.footer("Each line is a node: \"+\" only in the file, \"-\" only in what was published.");
    return {command, &diff};
}

Verb add_watch(CommandLine& command_line, Options& options) {
    Command command = command_line.add_verb("watch", "Show events as they come, as a router would read them");
    command.add_option("--topic", options.further_topics,
                       "Topic to watch beside the manager's two; may be repeated");
    command.add_option("--count", options.count, "End after so many events");
    command.add_option("--duration", options.duration_s, "End after so many seconds");
    add_kafka_options(command, options);
    return {command, &watch};
}

Verb add_decode(CommandLine& command_line, Options& options) {
    Command command = command_line.add_verb("decode", "Show the event in the payload of a message");
    command.add_option("FILE", options.file, "The payload; standard input by default").existing_file();
    return {command, &decode};
}

} // namespace

int main(int argc, char** argv) {
    Options options;
    CommandLine command_line(
        "Gives routers their node lists over Kafka, and lets no list through that would harm them.\n"
        "A list is a JSON array: [{\"ip\":\"10.0.0.1\",\"port\":5000}, ...]\n",
        NAME);
    command_line.require_verb();
    command_line.footer(
        "Each verb tells its options with --help.\n\n"
        "Exit status:\n"
        "  0  success\n"
        "  1  failure at run time\n"
        "  2  wrong command line, or a list that must not reach a router; its faults are told with "
        "their lines");
    command_line.add_version_flag();
    const Verb verbs[] = {
        add_run(command_line, options),      add_check(command_line, options),
        add_publish(command_line, options),  add_rollback(command_line, options),
        add_announce(command_line, options), add_diff(command_line, options),
        add_watch(command_line, options),    add_decode(command_line, options),
    };
    if (const auto status = command_line.parse(argc, argv)) {
        return *status;
    }
    log::Logger::m_instance.m_write = options.verbose ? &log::Stdlog::write : &write_problem;
    try {
        const auto verb = std::find_if(std::begin(verbs), std::end(verbs),
                                       [](const Verb& candidate) { return candidate.command.is_chosen(); });
        return verb->function(options);
    } catch (const std::exception& error) {
        complain(error.what());
        return EXIT_FAILED;
    }
}
