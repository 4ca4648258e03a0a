// corvalin_impairment_relay: forwards datagrams as a bad network would.
#include <netinet/in.h>
#include <poll.h>
#include <sys/prctl.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <exception>
#include <iostream>
#include <optional>
#include <string>
#include <system_error>

#include "corvalin_lib/net.h"
#include "tools/tool_support/command_line.h"
#include "tools/tool_support/impairment.h"
#include "tools/tool_support/receiving_end.h"
#include "tools/tool_support/relay_queue.h"
#include "tools/tool_support/seeded_random.h"
#include "tools/tool_support/steady_clock.h"
#include "tools/tool_support/stop_signal.h"
#include "tools/tool_support/summary.h"
#include "tools/tool_support/udp_batch.h"

namespace {

using namespace corvalin;
using namespace corvalin::tools;

constexpr const char* NAME = "corvalin_impairment_relay";
constexpr std::size_t BATCH_DATAGRAMS = 64;
constexpr uint64_t RECEIVE_BUFFER_BYTES = 64U << 20U;

struct Options {
    std::string target;
    std::string address = "127.0.0.1";
    uint16_t port = 0;
    ImpairmentSettings impairment;
    uint64_t reorder_distance = 3;
    uint64_t reorder_limit_ms = 100;
    std::optional<uint64_t> seed;
    ReceivingEnd end;
    SummaryTarget summary;
};

sockaddr_in local_address(const Options& options) {
    sockaddr_in address{};
    net::parse_addr(options.address.c_str(), nullptr, address); // checked by the command line
    address.sin_port = htons(options.port);
    return address;
}

class Relay {
public:
    Relay(const Options& options, const sockaddr_in& target, uint64_t seed)
        : m_options(options), m_impairment(options.impairment, seed), m_receiving(BATCH_DATAGRAMS, true),
          m_sending(m_out.fd(), BATCH_DATAGRAMS),
          m_queue(options.reorder_distance, options.reorder_limit_ms * NS_PER_MS,
                  [this](const uint8_t* bytes, std::size_t size) {
                      std::memcpy(m_sending.slot(), bytes, size);
                      m_sending.commit(size);
                  }) {
        m_in.set_receive_buffer_bytes(RECEIVE_BUFFER_BYTES);
        m_in.bind_to(local_address(options));
        m_out.connect_to(target);
    }
    // The queue holds a pointer to this object.
    Relay(const Relay&) = delete;
    Relay& operator=(const Relay&) = delete;

    uint16_t port() const { return m_in.port(); }

    void run() {
        m_start_ns = steady_ns();
        while (!is_over(steady_ns())) {
            wait();
            receive();
            m_queue.release_due(steady_ns());
            m_sending.flush();
        }
        m_queue.release_all();
        m_sending.flush();
    }

    Summary summary(uint64_t seed, const sockaddr_in& target) const {
        const RelayCounts& counts = m_queue.counts();
        return Summary()
            .add("seed", seed)
            .add("port", uint64_t{port()})
            .add("target", endpoint_text(target))
            .add("received", counts.received + m_oversized)
            .add("forwarded", counts.forwarded)
            .add("lost", counts.lost)
            .add("duplicated", counts.duplicated)
            .add("reordered", counts.reordered)
            .add("delayed", counts.delayed)
            .add("oversized", m_oversized)
            .add("kernel_drops", m_in.kernel_drops())
            .add("refused", m_sending.refused());
    }

private:
    bool is_over(uint64_t now_ns) const {
        const uint64_t received = m_queue.counts().received + m_oversized;
        return m_options.end.is_reached({m_start_ns, received, m_last_datagram_ns}, now_ns);
    }

    // Until a datagram arrives or one in the queue is due, but not past the next look at the ends by time.
    void wait() {
        const uint64_t now_ns = steady_ns();
        const uint64_t due_ns = std::max(m_queue.next_due_ns(), now_ns);
        const uint64_t limit_ns = std::min(m_options.end.longest_wait_ms() * NS_PER_MS, due_ns - now_ns);
        const timespec limit{0, static_cast<long>(limit_ns)}; // below a second
        pollfd polled{m_in.fd(), POLLIN, 0};
        if (ppoll(&polled, 1, &limit, nullptr) < 0 && errno != EINTR) {
            throw std::system_error(errno, std::generic_category(), "ppoll");
        }
    }

    void receive() {
        const std::size_t count = m_receiving.receive(m_in.fd());
        const uint64_t now_ns = steady_ns();
        for (std::size_t index = 0; index < count; ++index) {
            const std::size_t size = m_receiving.size(index);
            const ImpairmentDecision decision = m_impairment.next();
            if (size > ReceiveBatch::SLOT_BYTES) {
                ++m_oversized; // its end is not here
            } else {
                m_queue.on_datagram(m_receiving.bytes(index), size, decision, now_ns);
            }
        }
        m_last_datagram_ns = count == 0 ? m_last_datagram_ns : now_ns;
    }

    const Options m_options;
    Impairment m_impairment;
    UdpSocket m_in;
    UdpSocket m_out;
    ReceiveBatch m_receiving;
    SendBatch m_sending;
    RelayQueue m_queue;
    uint64_t m_oversized = 0;
    uint64_t m_start_ns = 0;
    uint64_t m_last_datagram_ns = 0;
};

void add_fault_options(Command& command, Options& options) {
    const char* const group = "Faults";
    command.add_option("--loss", options.impairment.loss_percent, "Percent of datagrams that are lost")
        .percent()
        .group(group);
    command
        .add_option("--duplicate", options.impairment.duplicate_percent,
                    "Percent of datagrams that are forwarded twice")
        .percent()
        .group(group);
    command
        .add_option("--reorder", options.impairment.reorder_percent,
                    "Percent of datagrams that later ones overtake")
        .percent()
        .group(group);
    command.add_option("--reorder-distance", options.reorder_distance, "How many overtake such a datagram")
        .range(uint64_t{1}, uint64_t{10000})
        .show_default()
        .group(group);
    command.add_option("--reorder-limit", options.reorder_limit_ms, "How long it waits for them at most")
        .type_name("MS")
        .show_default()
        .group(group);
    command
        .add_option("--delay", options.impairment.delay_percent,
                    "Percent of datagrams that are delayed; these are not reordered besides")
        .percent()
        .group(group);
    command.add_option("--delay-min-us", options.impairment.delay_min_us, "Shortest delay")
        .range(uint64_t{0}, uint64_t{60'000'000})
        .show_default()
        .group(group);
    command.add_option("--delay-max-us", options.impairment.delay_max_us, "Longest delay")
        .range(uint64_t{0}, uint64_t{60'000'000})
        .show_default()
        .group(group);
    command.add_option("--seed", options.seed, "Seed of all decisions (default: random)").group(group);
}

void add_other_options(Command& command, Options& options) {
    command.add_option("--address", options.address, "Local address").ipv4().show_default();
    command.add_option("--port", options.port, "Local port, or 0 for one of the kernel's choice")
        .show_default();
    add_receiving_end_options(command, options.end);
    add_summary_options(command, options.summary);
}

} // namespace

int main(int argc, char** argv) {
    Options options;
    CommandLine command_line(
        "Forwards every datagram that arrives at its port to another, as a bad network would: some are "
        "lost,\n"
        "some come twice, late or out of order. The same seed and the same datagrams give the same faults.\n"
        "The first line of the output tells the port, \"port 40001\"; the summary comes at the end.\n",
        NAME);
    command_line
        .add_option("target", options.target,
                    "Where to forward: PORT of 127.0.0.1, ADDRESS:PORT or NAME:PORT")
        .required()
        .type_name("TARGET");
    add_fault_options(command_line, options);
    add_other_options(command_line, options);
    command_line.add_version_flag();
    command_line.footer(
        "Without --packets, --idle-exit and --duration it runs until SIGINT or SIGTERM. What still "
        "waits goes on then.\nDatagrams of more than 2048 bytes are dropped and counted.\n\n" +
        exit_status_help("failure"));
    if (const auto status = command_line.parse(argc, argv)) {
        return *status;
    }
    sockaddr_in target{};
    std::string mistake;
    if (!parse_endpoint(options.target, target)) {
        mistake = "\"" + options.target + "\" is no PORT, ADDRESS:PORT or NAME:PORT";
    } else if (options.impairment.delay_min_us > options.impairment.delay_max_us) {
        mistake = "--delay-min-us is above --delay-max-us";
    } else if (options.impairment.delay_percent > 0 && options.impairment.delay_max_us == 0) {
        mistake = "--delay needs --delay-max-us";
    }
    if (!mistake.empty()) {
        std::cerr << NAME << ": " << mistake << "\nTry '" << NAME << " --help' for more.\n";
        return EXIT_USAGE;
    }

    try {
        catch_stop_signals();
        prctl(PR_SET_TIMERSLACK, 1); // delays are to the microsecond
        const uint64_t seed = options.seed ? *options.seed : random_seed();
        std::cerr << "seed " << seed << "\n"; // now, so that a run that fails can be repeated too
        Relay relay(options, target, seed);
        std::cout << "port " << relay.port()
                  << std::endl; // flushed: whoever started this process waits for it
        relay.run();
        write_summary(relay.summary(seed, target), options.summary);
    } catch (const std::exception& error) {
        std::cerr << NAME << ": " << error.what() << "\n";
        return EXIT_FAILED;
    }
    return EXIT_OK;
}
