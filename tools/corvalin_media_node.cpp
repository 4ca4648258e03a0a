// corvalin_media_node: receives media packets and checks them.
#include <netinet/in.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <exception>
#include <iostream>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "corvalin_lib/net.h"
#include "tools/tool_support/command_line.h"
#include "tools/tool_support/media_sink.h"
#include "tools/tool_support/receiving_end.h"
#include "tools/tool_support/steady_clock.h"
#include "tools/tool_support/stop_signal.h"
#include "tools/tool_support/summary.h"
#include "tools/tool_support/udp_batch.h"

namespace {

using namespace corvalin;
using namespace corvalin::tools;

constexpr const char* NAME = "corvalin_media_node";
constexpr std::size_t BATCH_DATAGRAMS = 256;
constexpr std::size_t BATCHES_IN_TURN = 16;
constexpr uint64_t FINAL_DRAIN_NS = NS_PER_SECOND;
constexpr uint64_t DISCARD_POLL_INTERVAL_US = 1000;

struct Options {
    std::string address = "127.0.0.1";
    std::vector<uint16_t> first_ports = {0};
    uint64_t ports = 1;
    bool verify_content = false;
    bool no_check = false;
    bool discard = false;
    ReceivingEnd end;
    uint64_t receive_buffer_bytes = 64U << 20U;
    std::optional<uint64_t> poll_interval_us; // default: 0, with `discard` DISCARD_POLL_INTERVAL_US
    uint64_t progress_ms = 0;
    SummaryTarget summary;
};

SinkMode sink_mode(const Options& options) {
    if (options.discard) {
        return SinkMode::discard;
    }
    return options.verify_content ? SinkMode::verify : SinkMode::check;
}

struct Port {
    UdpSocket socket;
    MediaSink sink;
    uint16_t number;
    uint64_t receive_buffer_bytes;
};

Port open_port(const Options& options, uint16_t number) {
    sockaddr_in address{};
    net::parse_addr(options.address.c_str(), nullptr, address);
    address.sin_port = htons(number);
    Port port{UdpSocket(), MediaSink(sink_mode(options)), 0, 0};
    port.receive_buffer_bytes = port.socket.set_receive_buffer_bytes(options.receive_buffer_bytes);
    port.socket.bind_to(address);
    port.number = port.socket.port();
    return port;
}

std::vector<Port> open_ports(const Options& options) {
    std::vector<Port> ports;
    for (const uint16_t first : options.first_ports) {
        for (uint64_t index = 0; index < options.ports; ++index) {
            ports.push_back(open_port(options, static_cast<uint16_t>(first == 0 ? 0 : first + index)));
        }
    }
    return ports;
}

/// Receives on all ports until it is time to end.
class Node {
public:
    Node(const Options& options, std::vector<Port> ports)
        : m_options(options), m_poll_interval_us(options.poll_interval_us.value_or(
                                  options.discard ? DISCARD_POLL_INTERVAL_US : 0)),
          m_ports(std::move(ports)), m_batch(BATCH_DATAGRAMS, !options.discard) {
        for (const Port& port : m_ports) {
            m_polled.push_back(pollfd{port.socket.fd(), POLLIN, 0});
        }
    }

    void run() {
        m_start_ns = steady_ns();
        m_next_progress_ns = m_start_ns + m_options.progress_ms * NS_PER_MS;
        uint64_t now_ns = m_start_ns;
        while (!is_over(now_ns)) {
            wait(now_ns);
            now_ns = steady_ns();
            for (Port& port : m_ports) {
                drain(port, now_ns, BATCHES_IN_TURN);
            }
            show_progress(now_ns);
        }
        drain_at_end();
        m_end_ns = steady_ns();
    }

    SinkCounts total() const {
        SinkCounts total;
        for (const Port& port : m_ports) {
            total.add(port.sink.counts());
        }
        return total;
    }

    Summary summary() const;

    void print_ports() const {
        std::cout << "ports";
        for (const Port& port : m_ports) {
            std::cout << " " << port.number;
        }
        std::cout << std::endl; // flushed: whoever started this process waits for the line
    }

private:
    bool is_over(uint64_t now_ns) const {
        return m_options.end.is_reached({m_start_ns, m_datagrams, m_last_datagram_ns}, now_ns);
    }

    // Waking for each datagram costs this process and whoever sends it; a pause lets them gather in the socket.
    void wait(uint64_t now_ns) {
        if (m_poll_interval_us != 0) {
            pause_until(now_ns + m_poll_interval_us * NS_PER_US);
            return;
        }
        const int limit_ms = static_cast<int>(m_options.end.longest_wait_ms());
        if (poll(m_polled.data(), m_polled.size(), limit_ms) < 0 && errno != EINTR) {
            throw std::system_error(errno, std::generic_category(), "poll");
        }
    }

    void pause_until(uint64_t until_ns) {
        for (uint64_t now_ns = steady_ns(); now_ns < until_ns && !is_over(now_ns); now_ns = steady_ns()) {
            sleep_until_ns(std::min(until_ns, now_ns + STOP_CHECK_INTERVAL_MS * NS_PER_MS));
        }
    }

    // Takes what waits at the socket, but not more than `max_batches`: a flood must neither starve the other ports
    // nor hide a stop. True if there may be more.
    bool drain(Port& port, uint64_t now_ns, std::size_t max_batches) {
        for (std::size_t batch = 0; batch < max_batches; ++batch) {
            const std::size_t count = m_batch.receive(port.socket.fd());
            for (std::size_t index = 0; index < count; ++index) {
                port.sink.on_datagram(m_options.discard ? nullptr : m_batch.bytes(index),
                                      m_batch.size(index));
            }
            if (count != 0) {
                m_first_datagram_ns = m_datagrams == 0 ? now_ns : m_first_datagram_ns;
                m_last_datagram_ns = now_ns;
            }
            m_datagrams += count;
            if (count < m_batch.capacity()) {
                return false;
            }
        }
        return true;
    }

    // Takes what arrived before the reason to end, though not for ever from a sender that goes on.
    void drain_at_end() {
        const uint64_t limit_ns = steady_ns() + FINAL_DRAIN_NS;
        for (Port& port : m_ports) {
            while (drain(port, steady_ns(), BATCHES_IN_TURN) && steady_ns() < limit_ns) {
            }
        }
    }

    void show_progress(uint64_t now_ns) {
        if (m_options.progress_ms != 0 && now_ns >= m_next_progress_ns) {
            m_next_progress_ns = now_ns + m_options.progress_ms * NS_PER_MS;
            std::cerr << "received " << m_datagrams << " datagrams in " << (now_ns - m_start_ns) / NS_PER_MS
                      << " ms\n";
        }
    }

    const Options m_options;
    const uint64_t m_poll_interval_us;
    std::vector<Port> m_ports;
    std::vector<pollfd> m_polled;
    ReceiveBatch m_batch;
    uint64_t m_datagrams = 0;
    uint64_t m_first_datagram_ns = 0;
    uint64_t m_last_datagram_ns = 0;
    uint64_t m_start_ns = 0;
    uint64_t m_end_ns = 0;
    uint64_t m_next_progress_ns = 0;
};

Summary counts_summary(const SinkCounts& counts, uint64_t kernel_drops, bool discard) {
    Summary summary;
    summary.add("datagrams", counts.datagrams).add("bytes", counts.bytes).add("kernel_drops", kernel_drops);
    if (discard) {
        return summary; // the rest was not looked at, and a zero would say that it was
    }
    return summary.add("start", counts.packets[0])
        .add("data", counts.packets[1])
        .add("terminate", counts.packets[2])
        .add("sessions", counts.sequence.sessions)
        .add("ended_sessions", counts.sequence.ended_sessions)
        .add("gaps", counts.sequence.gaps)
        .add("missing", counts.sequence.missing)
        .add("repeats", counts.sequence.repeats)
        .add("after_end", counts.sequence.after_end)
        .add("invalid", counts.invalid)
        .add("changed", counts.changed);
}

Summary Node::summary() const {
    std::vector<Summary> ports;
    uint64_t total_drops = 0;
    for (const Port& port : m_ports) {
        const uint64_t drops = port.socket.kernel_drops();
        total_drops += drops;
        ports.push_back(Summary()
                            .add("port", uint64_t{port.number})
                            .add("receive_buffer_bytes", port.receive_buffer_bytes)
                            .add("counts", counts_summary(port.sink.counts(), drops, m_options.discard)));
    }
    const SinkCounts all = total();
    const uint64_t busy_ns = m_last_datagram_ns - m_first_datagram_ns;
    Summary summary;
    summary.add("ports", std::move(ports))
        .add("total", counts_summary(all, total_drops, m_options.discard))
        .add("elapsed_ms", (m_end_ns - m_start_ns) / NS_PER_MS)
        .add("first_to_last_datagram_ms", busy_ns / NS_PER_MS)
        .add("content_verified", m_options.verify_content && !m_options.discard);
    if (!m_options.discard) {
        summary.add("clean", all.are_clean());
    }
    return summary;
}

void add_options(Command& command, Options& options) {
    command.add_option("--address", options.address, "Local address").ipv4().show_default();
    command
        .add_option("--port", options.first_ports,
                    "Port, or 0 for one of the kernel's choice; may be repeated")
        .shown_as_single()
        .show_default("0");
    command
        .add_option("--ports", options.ports, "How many ports to open for each --port, counting up from it")
        .range(uint64_t{1}, uint64_t{1000})
        .show_default();
    command.add_flag("--verify-content", options.verify_content,
                     "Compare every byte but seq with what corvalin_media_sender makes");
    command.add_flag("--no-check", options.no_check, "Exit with 0 whatever was seen");
    command.add_flag("--discard", options.discard, "Only count datagrams and bytes, at the least cost");
    add_receiving_end_options(command, options.end);
    command
        .add_option("--receive-buffer-bytes", options.receive_buffer_bytes,
                    "Receive buffer to ask for, for each port")
        .show_default();
    command.add_option(
        "--poll-interval-us", options.poll_interval_us,
        "Look for datagrams at this interval; 0 to wake for each (default 0, with --discard 1000)");
    command
        .add_option("--progress", options.progress_ms,
                    "Print a running count to standard error at this interval")
        .type_name("MS");
    add_summary_options(command, options.summary);
}

} // namespace

int main(int argc, char** argv) {
    Options options;
    CommandLine command_line(
        "Receives media packets on one or several UDP ports and checks each session's seq, port by port: it\n"
        "must count 1, 2, 3, ... without a gap or a repeat. The first line of the output tells the ports,\n"
        "\"ports 40001 40002\"; the summary comes at the end.\n",
        NAME);
    add_options(command_line, options);
    command_line.add_version_flag();
    command_line.footer(
        "Without --packets, --idle-exit and --duration it runs until SIGINT or SIGTERM. What has arrived by "
        "then\n"
        "is still counted.\n\n" +
        exit_status_help("a gap, a repeat, a packet behind the end of its session, an invalid datagram or a\n"
                         "     changed byte was seen; or failure"));
    if (const auto status = command_line.parse(argc, argv)) {
        return *status;
    }

    try {
        catch_stop_signals();
        Node node(options, open_ports(options));
        node.print_ports();
        node.run();
        write_summary(node.summary(), options.summary);
        const bool clean = options.discard || node.total().are_clean();
        return clean || options.no_check ? EXIT_OK : EXIT_FAILED;
    } catch (const std::exception& error) {
        std::cerr << NAME << ": " << error.what() << "\n";
        return EXIT_FAILED;
    }
}
