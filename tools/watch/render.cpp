#include "tools/watch/render.h"

#include <cstdio>
#include <functional>
#include <optional>
#include <sstream>

namespace corvalin::watch {

namespace {

constexpr std::size_t NAME_CHARS = 44;
constexpr std::size_t NUMBER_CHARS = 20;
constexpr std::size_t RATE_CHARS = 14;
constexpr double US_PER_SECOND = 1e6;

std::string fixed(double number) {
    char text[64];
    std::snprintf(text, sizeof(text), "%.1f", number);
    return text;
}

std::string right(const std::string& text, std::size_t width) {
    return text.size() < width ? std::string(width - text.size(), ' ') + text : text;
}

std::string left(std::string text, std::size_t width) {
    text.resize(std::max(text.size(), width), ' ');
    return text;
}

std::string view_line(const std::string& name, uint64_t value, const std::string& rate) {
    return left(name, NAME_CHARS) + right(std::to_string(value), NUMBER_CHARS) +
           (rate.empty() ? "" : right(rate, RATE_CHARS)) + "\n";
}

// Where a new group of the view begins, and its name.
const char* group_title(std::size_t counter) {
    switch (counter) {
    case SESSIONS:
        return "sessions";
    case RING_ELEMENTS:
        return "ring";
    case DROPPED_MIN_LENGTH:
        return "dropped and rejected";
    case START_PACKETS:
        return "valid packets";
    default:
        return nullptr;
    }
}

void view_router(std::ostream& out, uint64_t port, const RouterRecord& router, const WatchState& state) {
    out << "corvalinrouter:" << port << "   reports " << router.reports << "   restarts " << router.restarts;
    if (state.now_us != 0 && router.last_arrival_us != 0) {
        out << "   last " << fixed(static_cast<double>(state.now_us - router.last_arrival_us) / US_PER_SECOND)
            << " s ago";
    }
    out << "\n"
        << left("", NAME_CHARS) << right("total", NUMBER_CHARS) << right("per second", RATE_CHARS) << "\n";
    out << "kernel\n";
    if (router.kernel) {
        out << view_line("  datagrams dropped", router.kernel->drops, "")
            << view_line("  bytes in the receive buffer", router.kernel->queued_bytes, "");
    } else {
        out << "  the socket is not seen in /proc/net/udp\n";
    }
    for (std::size_t counter = 0; counter < COUNTER_COUNT; ++counter) {
        if (const char* const title = group_title(counter)) {
            out << title << "\n";
        }
        const bool has_rate = router.interval_s && !COUNTERS[counter].is_gauge;
        out << view_line(std::string("  ") + COUNTERS[counter].label, router.last.values[counter],
                         has_rate ? fixed(router.rates[counter]) : "");
    }
}

// ---- JSON ----

/// Writes one object. Its names are constants without characters that need escaping.
class JsonObject {
public:
    void add(const char* name, const std::string& json) {
        m_text += (m_text.empty() ? "\"" : ",\"") + std::string(name) + "\":" + json;
    }
    void add(const char* name, uint64_t value) { add(name, std::to_string(value)); }
    std::string text() const { return "{" + m_text + "}"; }

private:
    std::string m_text;
};

std::string quoted(const std::string& text) {
    std::string json = "\"";
    for (const char character : text) {
        if (character == '"' || character == '\\') {
            json += '\\';
        }
        json += character;
    }
    return json + "\"";
}

// Only what the program itself wrote is ever quoted, so no control characters come here.
std::string finding_json(const Finding& finding) {
    JsonObject object;
    object.add("layer", quoted(layer_name(finding.layer)));
    object.add("name", quoted(finding.name));
    object.add("amount", finding.amount);
    object.add("what", quoted(finding.what));
    object.add("cause", quoted(finding.cause));
    object.add("cure", quoted(finding.cure));
    return object.text();
}

// ---- Prometheus ----

/// One metric with a series for each router.
class Metrics {
public:
    explicit Metrics(const Ledger& ledger) : m_ledger(ledger) {}

    void begin(const char* name, const char* type, const char* help) {
        m_out << "# HELP " << name << " " << help << "\n# TYPE " << name << " " << type << "\n";
        m_name = name;
    }
    /// A series of the metric that was begun.
    void add(const std::string& labels, const std::string& value) {
        m_out << m_name << (labels.empty() ? "" : "{" + labels + "}") << " " << value << "\n";
    }
    /// For each router what `value` gives, if anything.
    void add_each(const std::function<std::optional<std::string>(const RouterRecord&)>& value,
                  const std::string& more_labels = "") {
        for (const auto& [port, router] : m_ledger.routers()) {
            if (const auto text = value(router)) {
                add("port=\"" + std::to_string(port) + "\"" + (more_labels.empty() ? "" : ",") + more_labels,
                    *text);
            }
        }
    }
    std::string text() const { return m_out.str(); }

private:
    const Ledger& m_ledger; // borrowed
    const char* m_name = "";
    std::ostringstream m_out;
};

void add_report_metrics(Metrics& metrics) {
    const std::string* last_name = nullptr;
    std::string name;
    for (std::size_t counter = 0; counter < COUNTER_COUNT; ++counter) {
        const CounterInfo& info = COUNTERS[counter];
        if (last_name == nullptr || name != info.metric) {
            metrics.begin(info.metric, info.is_gauge ? "gauge" : "counter", info.help);
            name = info.metric;
            last_name = &name;
        }
        metrics.add_each(
            [counter](const RouterRecord& router) { return std::to_string(router.last.values[counter]); },
            info.metric_label);
    }
}

void add_kernel_metrics(Metrics& metrics, const Ledger& ledger) {
    bool is_any_seen = false;
    for (const auto& [port, router] : ledger.routers()) {
        is_any_seen = is_any_seen || router.kernel.has_value();
    }
    if (!is_any_seen) {
        return; // a metric without a series is an error to some readers
    }
    const auto of_kernel = [](uint64_t KernelSocket::*field) {
        return [field](const RouterRecord& router) {
            return router.kernel ? std::optional(std::to_string((*router.kernel).*field)) : std::nullopt;
        };
    };
    metrics.begin("corvalin_router_kernel_dropped_datagrams_total", "counter",
                  "Datagrams that the kernel dropped at the router's receive socket.");
    metrics.add_each(of_kernel(&KernelSocket::drops));
    metrics.begin("corvalin_router_kernel_queue_bytes", "gauge",
                  "Memory of the datagrams in the receive buffer.");
    metrics.add_each(of_kernel(&KernelSocket::queued_bytes));
    metrics.begin("corvalin_router_kernel_receive_buffer_bytes", "gauge",
                  "Receive buffer of a socket that is opened now.");
    metrics.add("", std::to_string(default_receive_buffer_bytes()));
}

void add_event_metrics(Metrics& metrics, const LogEvents& events) {
    metrics.begin("corvalin_router_failed_sends_total", "counter",
                  "Lines of the log that tell of a failed send to a node.");
    metrics.add("", std::to_string(events.failed_sends));
    metrics.begin("corvalin_router_assigned_sessions_total", "counter",
                  "Lines of the log that tell of a session's nodes, by whether it got any.");
    metrics.add("nodes=\"some\"", std::to_string(events.sessions_with_hosts));
    metrics.add("nodes=\"none\"", std::to_string(events.sessions_without_host));
}

} // namespace

std::string render_view(const Ledger& ledger, const WatchState& state) {
    std::ostringstream out;
    if (ledger.routers().empty()) {
        out << "no report yet\n";
    }
    for (const auto& [port, router] : ledger.routers()) {
        view_router(out, port, router, state);
        out << "\n";
    }
    out << "broken reports " << state.broken_reports << "   failed sends in the log "
        << ledger.events().failed_sends << "   sessions without a node "
        << ledger.events().sessions_without_host << "\n";
    return out.str();
}

std::string render_json_line(uint64_t port, const RouterRecord& router, const LogEvents& events) {
    JsonObject counters;
    JsonObject rates;
    for (std::size_t counter = 0; counter < COUNTER_COUNT; ++counter) {
        counters.add(COUNTERS[counter].key, router.last.values[counter]);
        if (router.interval_s && !COUNTERS[counter].is_gauge) {
            rates.add(COUNTERS[counter].key, fixed(router.rates[counter]));
        }
    }
    JsonObject kernel;
    if (router.kernel) {
        kernel.add("drops", router.kernel->drops);
        kernel.add("queued_bytes", router.kernel->queued_bytes);
    }
    JsonObject line;
    line.add("port", port);
    line.add("time_us", router.last.stamp.time_us == 0 ? "null" : std::to_string(router.last.stamp.time_us));
    line.add("reports", router.reports);
    line.add("restarts", router.restarts);
    line.add("interval_s", router.interval_s ? fixed(*router.interval_s) : "null");
    line.add("counters", counters.text());
    line.add("rates", router.interval_s ? rates.text() : "null");
    line.add("kernel", router.kernel ? kernel.text() : "null");
    line.add("failed_sends", events.failed_sends);
    line.add("sessions_without_host", events.sessions_without_host);
    return line.text() + "\n";
}

std::string render_metrics(const Ledger& ledger, const WatchState& state) {
    Metrics metrics(ledger);
    metrics.begin("corvalin_watch_broken_reports_total", "counter",
                  "Reports that were cut or mixed, and not used.");
    metrics.add("", std::to_string(state.broken_reports));
    add_event_metrics(metrics, ledger.events());
    if (ledger.routers().empty()) {
        return metrics.text();
    }
    metrics.begin("corvalin_watch_reports_total", "counter", "Reports read.");
    metrics.add_each([](const RouterRecord& router) { return std::to_string(router.reports); });
    metrics.begin("corvalin_watch_restarts_total", "counter",
                  "Restarts of the router, seen by its counters.");
    metrics.add_each([](const RouterRecord& router) { return std::to_string(router.restarts); });
    if (state.now_us != 0) {
        metrics.begin("corvalin_watch_report_age_seconds", "gauge", "Time since the last report was read.");
        metrics.add_each([&state](const RouterRecord& router) {
            return fixed(static_cast<double>(state.now_us - router.last_arrival_us) / US_PER_SECOND);
        });
    }
    add_report_metrics(metrics);
    add_kernel_metrics(metrics, ledger);
    return metrics.text();
}

std::string render_findings(uint64_t port, const RouterRecord& router, const std::vector<Finding>& findings) {
    std::ostringstream out;
    out << "corvalinrouter:" << port << ": " << router.reports << " reports, " << router.restarts
        << " restarts: "
        << (findings.empty() ? "nothing was lost" : std::to_string(findings.size()) + " findings") << "\n";
    if (!router.kernel) {
        out << "  (the kernel's drops are unknown: the socket is not seen in /proc/net/udp)\n";
    }
    for (const Finding& finding : findings) {
        out << "\n"
            << layer_name(finding.layer) << "/" << finding.name << ": " << finding.what << "\n"
            << "  cause  " << finding.cause << "\n"
            << "  cure   " << finding.cure << "\n";
    }
    return out.str();
}

std::string render_findings_json(uint64_t port, const RouterRecord& router,
                                 const std::vector<Finding>& findings) {
    std::string list;
    for (const Finding& finding : findings) {
        list += (list.empty() ? "" : ",") + finding_json(finding);
    }
    JsonObject line;
    line.add("port", port);
    line.add("reports", router.reports);
    line.add("restarts", router.restarts);
    line.add("kernel_seen", router.kernel ? "true" : "false");
    line.add("findings", "[" + list + "]");
    return line.text() + "\n";
}

} // namespace corvalin::watch
