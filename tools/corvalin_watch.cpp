// corvalin_watch: shows what the router's statistic reports say, and what the kernel says of its socket.
//
// It reads a log and /proc/net/udp, and nothing else: the router is neither asked nor touched, and does not know.
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <exception>
#include <functional>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tools/tool_support/command_line.h"
#include "tools/tool_support/steady_clock.h"
#include "tools/tool_support/stop_signal.h"
#include "tools/watch/doctor.h"
#include "tools/watch/input.h"
#include "tools/watch/ledger.h"
#include "tools/watch/metrics_server.h"
#include "tools/watch/render.h"

namespace {

using namespace corvalin::tools;
using namespace corvalin::watch;

constexpr const char* NAME = "corvalin_watch";
constexpr int64_t KERNEL_INTERVAL_US = 1'000'000;
constexpr int64_t VIEW_INTERVAL_US = 1'000'000;
constexpr int READS_IN_TURN = 64;

struct Options {
    std::vector<std::string> logs = {"-"};
    bool follow = false;
    std::string socket;
    std::optional<uint64_t> port;
    std::optional<uint16_t> udp_port;
    std::string proc_net_udp = "/proc/net/udp";
    double duration_s = 0;
    std::optional<uint16_t> metrics_port;
    bool as_json = false;     // doctor
    bool since_start = false; // doctor
};

enum class Verb { VIEW, JSON, METRICS, DOCTOR };

int64_t now_us() {
    return static_cast<int64_t>(steady_ns() / NS_PER_US);
}

/// Hands what the parser finds to the ledger, and lets JSON lines be written as reports come.
class Feed : public LogSink {
public:
    Feed(Ledger& ledger, std::function<void(uint64_t)> on_new_report)
        : m_ledger(ledger), m_on_new_report(std::move(on_new_report)) {}

    void on_report(const Report& report) override {
        const uint64_t before = m_ledger.reports();
        m_ledger.on_report(report);
        if (m_ledger.reports() != before) {
            m_on_new_report(report.port);
        }
    }
    void on_event(LogEvent event, int error) override { m_ledger.on_event(event, error); }

private:
    Ledger& m_ledger; // borrowed
    const std::function<void(uint64_t)> m_on_new_report;
};

/// One of the logs, with the state of its own reports.
struct Source {
    Source(Input&& source_input, LogSink& sink) : input(std::move(source_input)), parser(sink) {}

    Input input;
    ReportParser parser;
    Input::State state = Input::State::MORE;
};

class Watch {
public:
    Watch(const Options& options, Verb verb)
        : m_options(options), m_verb(verb), m_is_terminal(isatty(STDOUT_FILENO) == 1), m_ledger(options.port),
          m_feed(m_ledger, [this](uint64_t port) { on_new_report(port); }) {
        open_sources();
        if (options.metrics_port) {
            m_server = std::make_unique<MetricsServer>(*options.metrics_port);
            std::cerr << "metrics on http://127.0.0.1:" << m_server->port() << "/metrics\n";
        }
    }

    int run() {
        const int64_t start_us = now_us();
        bool is_at_end = false;
        // With a server the numbers are still asked for when the log has ended.
        while (!stop_requested() && !(is_at_end && m_server == nullptr)) {
            const int64_t time_us = now_us();
            if (m_options.duration_s > 0 &&
                static_cast<double>(time_us - start_us) >= m_options.duration_s * 1e6) {
                break;
            }
            const bool is_more_there = read_some();
            is_at_end = std::all_of(m_sources.begin(), m_sources.end(),
                                    [](const auto& source) { return source->state == Input::State::END; });
            sample_kernel_if_due(time_us);
            show_view_if_due(time_us);
            if (m_server != nullptr) {
                m_server->handle([this] { return render_metrics(m_ledger, watch_state()); }, time_us);
            }
            if (!is_more_there) {
                wait(is_at_end);
            }
        }
        sample_kernel();
        return finish();
    }

private:
    void open_sources() {
        if (!m_options.socket.empty()) {
            m_sources.push_back(std::make_unique<Source>(Input::open_socket(m_options.socket), m_feed));
        } else {
            for (const std::string& log : m_options.logs) {
                m_sources.push_back(std::make_unique<Source>(Input::open_log(log, m_options.follow), m_feed));
            }
        }
        m_is_live =
            m_options.follow || std::any_of(m_sources.begin(), m_sources.end(),
                                            [](const auto& source) { return source->input.can_be_polled(); });
    }

    // A bounded amount of each log. True if there is more at once.
    bool read_some() {
        const auto now_s = static_cast<int64_t>(time(nullptr));
        bool is_more_there = false;
        for (const auto& source : m_sources) {
            if (source->state == Input::State::END) {
                continue;
            }
            m_ledger.set_arrival_us(m_is_live ? now_us() : 0);
            source->state = Input::State::MORE;
            for (int turn = 0; turn < READS_IN_TURN && source->state == Input::State::MORE; ++turn) {
                source->state = source->input.read(source->parser, now_s);
            }
            is_more_there = is_more_there || source->state == Input::State::MORE;
        }
        return is_more_there;
    }

    void wait(bool is_at_end) {
        std::vector<pollfd> events;
        for (const auto& source : m_sources) {
            if (source->input.can_be_polled() && source->state != Input::State::END) {
                events.push_back({source->input.fd(), POLLIN, 0});
            }
        }
        if (m_server != nullptr) {
            m_server->poll_events(events);
        }
        if (!events.empty() || !is_at_end) {
            poll(events.data(), events.size(), STOP_CHECK_INTERVAL_MS);
        }
    }

    void on_new_report(uint64_t port) {
        if (m_verb != Verb::JSON) {
            return;
        }
        if (m_is_live) {
            sample_kernel();
        }
        std::cout << render_json_line(port, m_ledger.routers().at(port), m_ledger.events());
        if (m_is_live) {
            std::cout.flush();
        }
    }

    void sample_kernel_if_due(int64_t time_us) {
        if (m_is_live && time_us - m_last_sample_us >= KERNEL_INTERVAL_US) {
            m_last_sample_us = time_us;
            sample_kernel();
        }
    }

    void sample_kernel() {
        std::vector<uint64_t> ports;
        for (const auto& [port, router] : m_ledger.routers()) {
            ports.push_back(port);
        }
        for (const uint64_t port : ports) {
            const bool is_only_one = ports.size() == 1;
            const auto socket_port =
                m_options.udp_port && is_only_one ? *m_options.udp_port : static_cast<uint16_t>(port);
            if (socket_port == 0) {
                continue; // the kernel's choice, which the report does not show
            }
            if (const auto socket = read_kernel_socket(m_options.proc_net_udp, socket_port)) {
                m_ledger.on_kernel_socket(port, *socket);
            }
        }
    }

    uint64_t broken_reports() const {
        uint64_t all = 0;
        for (const auto& source : m_sources) {
            all += source->parser.broken_reports();
        }
        return all;
    }

    WatchState watch_state() const { return {broken_reports(), m_is_live ? now_us() : 0}; }

    void show_view_if_due(int64_t time_us) {
        if (m_verb != Verb::VIEW || !m_is_terminal || !m_is_live ||
            time_us - m_last_view_us < VIEW_INTERVAL_US) {
            return;
        }
        m_last_view_us = time_us;
        std::string text;
        for (const char character : render_view(m_ledger, watch_state())) {
            text +=
                character == '\n' ? "\033[K\n" : std::string(1, character); // what was behind the line goes
        }
        std::cout << "\033[H" << text << "\033[J" << std::flush;
    }

    int finish() {
        switch (m_verb) {
        case Verb::VIEW:
            if (!m_is_terminal || !m_is_live) {
                std::cout << render_view(m_ledger, watch_state());
            }
            break;
        case Verb::METRICS:
            if (m_server == nullptr) {
                std::cout << render_metrics(m_ledger, watch_state());
            }
            break;
        case Verb::DOCTOR:
            return finish_doctor();
        case Verb::JSON:
            break;
        }
        std::cout.flush();
        return m_ledger.reports() == 0 ? no_report() : EXIT_OK;
    }

    int no_report() const {
        std::cerr << NAME << ": no report was found";
        if (broken_reports() != 0) {
            std::cerr << ", but " << broken_reports() << " that were cut or mixed";
        }
        std::cerr << "\n";
        return EXIT_FAILED;
    }

    int finish_doctor() {
        bool is_anything_wrong = false;
        for (const auto& [port, router] : m_ledger.routers()) {
            Evidence evidence = evidence_of(router, m_ledger.events(), m_options.since_start);
            if (m_is_live && router.last_arrival_us != 0) {
                evidence.silent_s = static_cast<double>(now_us() - router.last_arrival_us) / 1e6;
            }
            const std::vector<Finding> findings = diagnose(evidence);
            std::cout << (m_options.as_json ? render_findings_json(port, router, findings)
                                            : render_findings(port, router, findings));
            is_anything_wrong = is_anything_wrong || !findings.empty();
        }
        std::cout.flush();
        if (m_ledger.reports() == 0) {
            return no_report();
        }
        return is_anything_wrong ? EXIT_FAILED : EXIT_OK;
    }

    const Options& m_options; // borrowed
    const Verb m_verb;
    const bool m_is_terminal;
    Ledger m_ledger;
    Feed m_feed;
    std::vector<std::unique_ptr<Source>> m_sources;
    bool m_is_live = false; // reports come as they are written; else they are from the past
    std::unique_ptr<MetricsServer> m_server;
    int64_t m_last_sample_us = 0;
    int64_t m_last_view_us = 0;
};

void add_input_options(Command& command, Options& options) {
    const Option log =
        command.add_option("log", options.logs, "Files with the log, or - for standard input").show_default();
    const Option follow =
        command.add_flag("--follow", options.follow, "Go on at the end of the file, and when it is rotated");
    command
        .add_option("--socket", options.socket,
                    "Make this socket, and read the syslog datagrams written to it")
        .type_name("PATH")
        .excludes(log)
        .excludes(follow);
    command.add_option("--port", options.port, "Look at the router of this port only, as the reports show it")
        .range(0, 65535);
    command
        .add_option("--udp-port", options.udp_port,
                    "Port of the router's socket, if the reports do not show it: for a single router")
        .range(1, 65535);
    command
        .add_option("--proc-net-udp", options.proc_net_udp,
                    "Sockets of the router's network namespace, as of /proc/PID/net/udp")
        .type_name("FILE")
        .show_default();
    command.add_option("--duration", options.duration_s, "End after this many seconds").range(0.0, 1e6);
}

void add_metrics_port(Command& command, Options& options) {
    command
        .add_option(
            "--metrics-port", options.metrics_port,
            "Answer http://127.0.0.1:PORT/metrics too, with 0 on a port of the kernel's choice, until "
            "SIGINT or SIGTERM")
        .type_name("PORT")
        .range(0, 65535);
}

} // namespace

int main(int argc, char** argv) {
    Options options;
    CommandLine command_line(
        "Shows the counters of corvalin_router: reads its statistic reports from a log, and what the kernel\n"
        "knows of its socket from /proc/net/udp. The log is text as rsyslog or journalctl write it, the\n"
        "journal's JSON (journalctl -o json), or syslog datagrams. The router is not touched.\n",
        NAME);
    Command view = command_line.add_verb("view", "Counters with rates per second, live on a terminal");
    Command json = command_line.add_verb("json", "One line of JSON for each report");
    Command metrics = command_line.add_verb(
        "metrics", "Prometheus text: once at the end of the log, or with --metrics-port over HTTP");
    Command doctor = command_line.add_verb(
        "doctor", "Names the layer that lost packets (sender, kernel, ring, validation, "
                  "session, send), cause and cure");
    for (Command verb : {view, json, metrics, doctor}) {
        add_input_options(verb, options);
    }
    for (Command verb : {view, json, metrics}) {
        add_metrics_port(verb, options);
    }
    doctor.add_flag("--json", options.as_json, "One line of JSON for each router");
    doctor.add_flag("--since-start", options.since_start,
                    "Judge all since the router's start instead of what has grown between the reports");
    command_line.require_verb();
    command_line.add_version_flag();
    command_line.footer(
        "Reads until the end of the log, or SIGINT or SIGTERM. Failed sends and sessions without a "
        "node stand\n"
        "in other lines of the log than the reports: give the doctor all facilities.\n\n" +
        exit_status_help("no report was found; doctor: something was lost; or failure"));
    if (const auto status = command_line.parse(argc, argv)) {
        return *status;
    }

    try {
        catch_stop_signals();
        const Verb verb = view.is_chosen()      ? Verb::VIEW
                          : json.is_chosen()    ? Verb::JSON
                          : metrics.is_chosen() ? Verb::METRICS
                                                : Verb::DOCTOR;
        return Watch(options, verb).run();
    } catch (const std::exception& error) {
        std::cerr << NAME << ": " << error.what() << "\n";
        return EXIT_FAILED;
    }
}
