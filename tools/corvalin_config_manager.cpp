// corvalin_config_manager: gives routers their node lists over Kafka.
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <exception>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "corvalin_lib/conf_extensions.h"
#include "corvalin_lib/log.h"
#include "corvalin_lib/messaging_message_broker.h"
#include "corvalin_lib/reference_countable.h"
#include "tools/config_manager/event_payload.h"
#include "tools/config_manager/kafka_link.h"
#include "tools/config_manager/manager.h"
#include "tools/config_manager/node_list.h"
#include "tools/config_manager/version_store.h"
#include "tools/tool_support/command_line.h"

namespace {

using namespace corvalin;
using namespace corvalin::tools;

constexpr const char* NAME = "corvalin_config_manager";
constexpr int EXIT_REFUSED = 2; // a list that must not reach a router

struct Options {
    std::string kafka_config = "/etc/tolvaine/corvalin/kafka.conf";
    std::string broker;
    std::string request_topic;
    std::string broadcast_topic;
    std::string state = "corvalin_node_lists.json";
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

void print_remarks(const std::string& file, const CheckedNodeList& checked) {
    for (const Remark& warning : checked.warnings) {
        std::cerr << file << ":" << warning.line << ": warning: " << warning.text << "\n";
    }
    for (const Remark& fault : checked.faults) {
        std::cerr << file << ":" << fault.line << ": " << fault.text << "\n";
    }
}

// The list of a file that may be sent to routers; empty if it may not, and the faults have been told.
std::optional<NodeList> sound_list(const std::string& file) {
    const CheckedNodeList checked = read_node_list(file);
    print_remarks(file, checked);
    return checked.faults.empty() ? std::optional(checked.nodes) : std::nullopt;
}

// An empty list takes every node of its kind away from new sessions.
bool is_empty_wanted(const Options& options, const std::string& file) {
    if (options.allow_empty) {
        return true;
    }
    if (isatty(STDIN_FILENO) == 0) {
        std::cerr << file << ": the list is empty, and --allow-empty was not given\n";
        return false;
    }
    std::cerr << file << ": the list is empty: new sessions get no node of this kind. Publish it? [y/N] ";
    std::string answer;
    std::getline(std::cin, answer);
    return answer == "y" || answer == "Y" || answer == "yes";
}

const ListKind& kind_of(const std::string& word) {
    return *std::find_if(std::begin(LIST_KINDS), std::end(LIST_KINDS),
                         [&](const ListKind& kind) { return word == kind.word; });
}

// Errors and warnings of the messaging only; with --verbose everything.
void write_problem(void* /*context*/, const char* /*file*/, int /*line*/, const log::Message& message) {
    if (message.level() == log::Level::ERROR || message.level() == log::Level::WARNING) {
        const std::lock_guard<std::mutex> lock(output_lock);
        std::cerr << NAME << ": " << message.text() << "\n";
    }
}

void open_log(const Options& options) {
    log::Logger::m_instance.m_write = options.verbose ? &log::Stdlog::write : &write_problem;
}

// What the command line does not say comes from the routers' own Kafka configuration.
void complete_from_file(Options& options) {
    if (!options.broker.empty() && !options.request_topic.empty() && !options.broadcast_topic.empty()) {
        return;
    }
    const rc_ptr<conf::KafkaConfiguration> file(new conf::KafkaConfiguration());
    if (!file->parse_file(options.kafka_config)) {
        throw std::runtime_error("cannot use " + options.kafka_config +
                                 "; or give --broker, --request-topic and --broadcast-topic");
    }
    const auto complete = [](std::string& option, const std::string& value) {
        if (option.empty()) {
            option = value;
        }
    };
    complete(options.broker, file->m_kafka_broker);
    complete(options.request_topic, file->m_kafka_topic_request);
    complete(options.broadcast_topic, file->m_kafka_topic_broadcast);
}

// All that the verbs with a broker need.
struct Link {
    explicit Link(Options& options)
        : store(options.state, options.first_version), publisher(broker_of(options)),
          manager(store, publisher, {options.request_topic, options.broadcast_topic}, &report) {
        for (const std::string& warning :
             ensure_topics(options.broker, {options.request_topic, options.broadcast_topic})) {
            std::cerr << NAME << ": warning: " << warning << "\n";
        }
    }

    static const std::string& broker_of(Options& options) {
        complete_from_file(options);
        return options.broker;
    }

    VersionStore store;
    KafkaPublisher publisher;
    Manager manager;
};

int check(const Options& options) {
    bool is_sound = true;
    for (const std::string& file : options.files) {
        if (const auto nodes = sound_list(file)) {
            report(file + ": " + std::to_string(nodes->size()) + " nodes");
        } else {
            is_sound = false;
        }
    }
    return is_sound ? EXIT_OK : EXIT_REFUSED;
}

int diff(const Options& options) {
    const auto nodes = sound_list(options.file);
    if (!nodes) {
        return EXIT_REFUSED;
    }
    const auto published = VersionStore(options.state).latest(kind_of(options.kind).name);
    for (const std::string& line : difference(published ? published->nodes : NodeList(), *nodes)) {
        report(line);
    }
    return EXIT_OK;
}

int publish(Options& options) {
    const auto nodes = sound_list(options.file);
    if (!nodes || (nodes->empty() && !is_empty_wanted(options, options.file))) {
        return EXIT_REFUSED;
    }
    Link(options).manager.publish(kind_of(options.kind), *nodes);
    return EXIT_OK;
}

int rollback(Options& options) {
    const ListKind& kind = kind_of(options.kind);
    const std::vector<PublishedList> history = VersionStore(options.state).history(kind.name);
    // Without a version it is the list before the latest one.
    const auto wanted = options.to_version == 0
                            ? (history.size() < 2 ? history.end() : history.end() - 2)
                            : std::find_if(history.begin(), history.end(), [&](const PublishedList& list) {
                                  return list.version == options.to_version;
                              });
    if (wanted == history.end()) {
        std::cerr << NAME << ": no such version of " << kind.name << " in " << options.state << "\n";
        return EXIT_REFUSED;
    }
    if (wanted->nodes.empty() && !is_empty_wanted(options, "version " + std::to_string(wanted->version))) {
        return EXIT_REFUSED;
    }
    Link(options).manager.publish(kind, wanted->nodes);
    return EXIT_OK;
}

int decode(const Options& options) {
    const std::string payload = options.file.empty()
                                    ? std::string(std::istreambuf_iterator<char>(std::cin), {})
                                    : read_text(options.file);
    const auto opened = open_payload(payload);
    if (!opened) {
        std::cerr << NAME << ": no zlib stream, or one that inflates beyond all measure\n";
        return EXIT_FAILED;
    }
    report("kind " + std::to_string(opened->kind) + ", " + std::to_string(payload.size()) +
           " bytes, inflated " + std::to_string(opened->kind < 0 ? 0 : opened->text.size() + 1) + ", " +
           (opened->is_accepted_by_routers ? "accepted" : "refused") + " by routers");
    report(opened->text);
    return EXIT_OK;
}

sigset_t stop_signals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    return signals;
}

// Blocked in all threads, so that only wait_for_stop takes them.
void block_stop_signals() {
    const sigset_t signals = stop_signals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

bool wait_for_stop(std::chrono::milliseconds limit) {
    const sigset_t signals = stop_signals();
    const timespec time{limit.count() / 1000, limit.count() % 1000 * 1'000'000};
    return sigtimedwait(&signals, nullptr, &time) > 0;
}

int watch(Options& options) {
    complete_from_file(options);
    block_stop_signals();
    std::mutex lock;
    uint64_t seen = 0;
    messaging::MessageBrokerSettings settings;
    settings.brokers = options.broker;
    settings.group = std::string(NAME) + "_watch_" + std::to_string(getpid());
    settings.topics = {options.request_topic, options.broadcast_topic};
    settings.on_message_received = [&](const unsigned char* data, unsigned long size) {
        report(std::string(reinterpret_cast<const char*>(data) + 1, size == 0 ? 0 : size - 1));
        const std::lock_guard<std::mutex> guard(lock);
        ++seen;
    };
    const auto begin = std::chrono::steady_clock::now();
    const messaging::MessageBroker broker(settings);
    report("watching [" + options.request_topic + "] and [" + options.broadcast_topic + "]");
    const auto is_done = [&] {
        const std::lock_guard<std::mutex> guard(lock);
        const std::chrono::duration<double> passed = std::chrono::steady_clock::now() - begin;
        return (options.count != 0 && seen >= options.count) ||
               (options.duration_s > 0 && passed.count() >= options.duration_s);
    };
    while (!is_done() && !wait_for_stop(std::chrono::milliseconds(100))) {
    }
    return EXIT_OK;
}

// One list that is kept published while its file changes.
class WatchedFile {
public:
    WatchedFile(const ListKind& kind, std::string path, bool allow_empty)
        : m_kind(kind), m_path(std::move(path)), m_allow_empty(allow_empty) {}

    /// Publishes the list if it differs from what routers have. False if it must not reach them.
    bool bring_up_to_date(Link& link) {
        m_text = read_text(m_path);
        const auto nodes = sound_list(m_path);
        if (!nodes) {
            return false;
        }
        if (nodes->empty() && !m_allow_empty) {
            std::cerr << m_path << ": the list is empty, and --allow-empty was not given\n";
            return false;
        }
        const auto published = link.store.latest(m_kind.name);
        if (!published || published->nodes != *nodes) {
            link.manager.publish(m_kind, *nodes);
        }
        return true;
    }

    /// True if the file has another text than when it was last looked at. A file that is being replaced is left alone.
    bool has_changed() const {
        try {
            return read_text(m_path) != m_text;
        } catch (const std::exception&) {
            return false;
        }
    }

    /// The list that is there may not be sent; what routers have stays.
    void tell_refusal() const { report(m_path + " is not published: what routers have stays"); }

private:
    const ListKind m_kind;
    const std::string m_path;
    const bool m_allow_empty;
    std::string m_text;
};

int run(Options& options) {
    block_stop_signals();
    std::vector<WatchedFile> files;
    if (!options.media_file.empty()) {
        files.emplace_back(kind_of("media"), options.media_file, options.allow_empty);
    }
    if (!options.writer_file.empty()) {
        files.emplace_back(kind_of("writer"), options.writer_file, options.allow_empty);
    }
    // All files are looked at before anything is sent.
    for (const std::string& path : {options.media_file, options.writer_file}) {
        if (!path.empty() && !sound_list(path)) {
            return EXIT_REFUSED;
        }
    }
    Link link(options);
    for (WatchedFile& file : files) {
        if (!file.bring_up_to_date(link)) {
            return EXIT_REFUSED;
        }
    }
    messaging::MessageBrokerSettings settings;
    settings.brokers = options.broker;
    settings.group = NAME;
    settings.topics = {options.request_topic};
    settings.on_message_received = [&](const unsigned char* data, unsigned long size) {
        link.manager.on_frame(data, size);
    };
    const messaging::MessageBroker broker(settings);
    link.manager.announce();
    while (!wait_for_stop(std::chrono::milliseconds(options.poll_ms))) {
        for (WatchedFile& file : files) {
            if (file.has_changed() && !file.bring_up_to_date(link)) {
                file.tell_refusal();
            }
        }
    }
    return EXIT_OK;
}

void add_kafka_options(CLI::App& command, Options& options) {
    command
        .add_option("--kafka-config", options.kafka_config,
                    "Kafka configuration of the routers, for what the next three do not say")
        ->capture_default_str()
        ->type_name("FILE");
    command.add_option("--broker", options.broker, "Brokers, as host:port joined by commas");
    command.add_option("--request-topic", options.request_topic, "Topic on which routers ask");
    command.add_option("--broadcast-topic", options.broadcast_topic, "Topic to which all routers listen");
    command.add_flag("--verbose", options.verbose, "Show all that the messaging logs");
}

void add_state_options(CLI::App& command, Options& options) {
    command.add_option("--state", options.state, "File that keeps the versions")->capture_default_str();
    command
        .add_option("--first-version", options.first_version,
                    "Where versions begin if the state is lost: above all that routers have")
        ->capture_default_str();
}

void add_kind(CLI::App& command, Options& options) {
    command.add_option("KIND", options.kind, "media or writer")
        ->required()
        ->check(CLI::IsMember({"media", "writer"}));
}

void add_allow_empty(CLI::App& command, Options& options) {
    command.add_flag("--allow-empty", options.allow_empty, "Publish an empty list without asking");
}

} // namespace

int main(int argc, char** argv) {
    Options options;
    CLI::App app("Gives routers their node lists over Kafka, and lets no list through that would harm them.\n"
                 "A list is a JSON array: [{\"ip\":\"10.0.0.1\",\"port\":5000}, ...]\n",
                 NAME);
    app.require_subcommand(1);
    app.footer("Exit status:\n"
               "  0  success\n"
               "  1  failure at run time\n"
               "  2  wrong command line, or a list that must not reach a router; its faults are told with "
               "their lines");
    add_version_flag(app);

    CLI::App& run_command =
        *app.add_subcommand("run", "Publish the lists, follow their files, answer routers");
    add_kafka_options(run_command, options);
    add_state_options(run_command, options);
    add_allow_empty(run_command, options);
    run_command.add_option("--media", options.media_file, "File with the media nodes")->type_name("FILE");
    run_command.add_option("--writer", options.writer_file, "File with the writer nodes")->type_name("FILE");
    run_command.add_option("--poll-ms", options.poll_ms, "How often the files are looked at")
        ->capture_default_str()
        ->check(CLI::Range(1, 60'000));

    CLI::App& check_command = *app.add_subcommand("check", "Check files; sends nothing");
    check_command.add_option("FILE", options.files, "Lists to check")->required();

    CLI::App& publish_command = *app.add_subcommand("publish", "Send one list under a new version");
    add_kafka_options(publish_command, options);
    add_state_options(publish_command, options);
    add_allow_empty(publish_command, options);
    add_kind(publish_command, options);
    publish_command.add_option("FILE", options.file, "The list")->required();

    CLI::App& rollback_command = *app.add_subcommand("rollback", "Send an earlier list under a new version");
    add_kafka_options(rollback_command, options);
    add_state_options(rollback_command, options);
    add_allow_empty(rollback_command, options);
    add_kind(rollback_command, options);
    rollback_command.add_option("--to", options.to_version,
                                "Version of the list; the one before the latest by default");

    CLI::App& diff_command = *app.add_subcommand("diff", "Compare a file with what was published");
    add_state_options(diff_command, options);
    add_kind(diff_command, options);
    diff_command.add_option("FILE", options.file, "The list")->required();

    CLI::App& watch_command = *app.add_subcommand("watch", "Show the events on both topics");
    add_kafka_options(watch_command, options);
    watch_command.add_option("--count", options.count, "End after so many events");
    watch_command.add_option("--duration", options.duration_s, "End after so many seconds");

    CLI::App& decode_command = *app.add_subcommand("decode", "Show the event in a payload");
    decode_command.add_option("FILE", options.file, "The payload; standard input by default");

    if (const auto status = parse_command_line(app, argc, argv)) {
        return *status;
    }
    open_log(options);
    try {
        if (run_command) {
            return run(options);
        }
        if (check_command) {
            return check(options);
        }
        if (publish_command) {
            return publish(options);
        }
        if (rollback_command) {
            return rollback(options);
        }
        if (diff_command) {
            return diff(options);
        }
        return watch_command ? watch(options) : decode(options);
    } catch (const std::exception& error) {
        std::cerr << NAME << ": " << error.what() << "\n";
        return EXIT_FAILED;
    }
}
