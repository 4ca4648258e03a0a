// corvalin_media_sender: sends the packets of made-up sessions.
#include <sys/prctl.h>

#include <algorithm>
#include <cstdint>
#include <exception>
#include <iostream>
#include <map>
#include <optional>
#include <string>

#include "tools/tool_support/command_line.h"
#include "tools/tool_support/media_source.h"
#include "tools/tool_support/pacer.h"
#include "tools/tool_support/seeded_random.h"
#include "tools/tool_support/steady_clock.h"
#include "tools/tool_support/stop_signal.h"
#include "tools/tool_support/summary.h"

namespace {

using namespace corvalin;
using namespace corvalin::tools;

constexpr const char* NAME = "corvalin_media_sender";
constexpr uint64_t FLAT_OUT_DATAGRAMS = 64; // between two looks at the clock and the stop flag
constexpr uint64_t DATA_HEADER_BYTES = sizeof(media::DataPacket);

struct Options {
    std::string target;
    uint64_t sessions = 1000;
    uint64_t live = 0;
    uint64_t packets = 100;
    bool endless = false;
    uint64_t rate = 10000;
    uint64_t burst_interval_us = 1000;
    uint64_t max_lag_us = 2000;
    uint64_t payload_bytes = 320;
    std::optional<uint64_t> datagram_bytes;
    std::string flags = "both";
    uint64_t side = 0;
    uint64_t sockets = 1;
    bool segmentation_offload = false;
    uint64_t id_base = 1;
    std::string call_id_prefix = "call-";
    std::optional<uint64_t> first_seq;
    bool no_start = false;
    bool no_terminate = false;
    std::string order = "round-robin";
    double duration_s = 0;
    ImpairmentSettings impairment;
    double garbage_percent = 0;
    bool spare_edges = false;
    std::optional<uint64_t> seed;
    uint64_t progress_ms = 0;
    SummaryTarget summary;
};

const std::map<std::string, uint8_t> FLAGS = {{"writer", media::PACKET_FLAG_WRITER},
                                              {"media", media::PACKET_FLAG_MEDIA},
                                              {"both", media::PACKET_FLAG_WRITER | media::PACKET_FLAG_MEDIA},
                                              {"none", 0}};

void add_session_options(Command& command, Options& options) {
    const char* const group = "Sessions";
    command.add_option("--sessions", options.sessions, "Number of sessions")
        .range(uint64_t{1}, uint64_t{100'000'000})
        .show_default()
        .group(group);
    const Option packets = command.add_option("--packets", options.packets, "Data packets of each session")
                               .range(uint64_t{0}, UINT64_MAX - 1)
                               .show_default()
                               .group(group);
    command.add_flag("--endless", options.endless, "Data packets without end: until --duration or a signal")
        .excludes(packets)
        .group(group);
    command.add_option("--live", options.live, "Sessions that run side by side; 0 for all of them")
        .show_default()
        .group(group);
    command
        .add_option(
            "--order", options.order,
            "round-robin: one packet of each live session in turn; random: of any live session, by the seed")
        .one_of({"round-robin", "random"})
        .show_default()
        .group(group);
    command.add_flag("--no-start", options.no_start, "Send no start packets").group(group);
    command.add_flag("--no-terminate", options.no_terminate, "Send no terminate packets").group(group);
    command
        .add_option("--first-seq", options.first_seq,
                    "seq of each session's first packet (default 1, with --no-start 2)")
        .group(group);
    command.add_option("--id-base", options.id_base, "id of the first session; the others follow")
        .show_default()
        .group(group);
    command.add_option("--call-id-prefix", options.call_id_prefix, "Text of the call id in front of the id")
        .show_default()
        .group(group);
    command
        .add_option("--flags", options.flags, "Nodes that the sessions ask for: writer, media, both or none")
        .one_of({"writer", "media", "both", "none"})
        .show_default()
        .group(group);
    command.add_option("--side", options.side, "0 inbound, 1 to 255 outbound")
        .range(uint64_t{0}, uint64_t{255})
        .show_default()
        .group(group);
    const Option payload =
        command.add_option("--payload-bytes", options.payload_bytes, "Payload of a data packet, even")
            .show_default()
            .group(group);
    command
        .add_option("--datagram-bytes", options.datagram_bytes,
                    "Length of a data packet, its header of 56 bytes included, even")
        .excludes(payload)
        .group(group);
}

void add_pace_options(Command& command, Options& options) {
    const char* const group = "Pace";
    command.add_option("--rate", options.rate, "Packets per second; 0 for flat out")
        .range(uint64_t{0}, Pacer::MAX_RATE)
        .show_default()
        .group(group);
    command
        .add_option("--burst-interval-us", options.burst_interval_us,
                    "What is due is sent in bursts at this interval; 0 for one by one, evenly spaced")
        .range(uint64_t{0}, uint64_t{10'000'000})
        .show_default()
        .group(group);
    command
        .add_option("--max-lag-us", options.max_lag_us,
                    "How much of a delay of the sender is caught up; beyond it the schedule moves on")
        .range(uint64_t{0}, uint64_t{10'000'000})
        .show_default()
        .group(group);
    command
        .add_option(
            "--duration", options.duration_s,
            "Seconds after which only the terminate packets of live sessions are sent; 0 for no limit")
        .range(0.0, 1e6)
        .show_default()
        .group(group);
    command.add_option("--sockets", options.sockets, "Source sockets; each session keeps to one")
        .range(uint64_t{1}, uint64_t{1000})
        .show_default()
        .group(group);
    command
        .add_flag(
            "--segmentation-offload", options.segmentation_offload,
            "Neighbours of one length leave in one send and arrive together, as from a network card that\n"
            "hands over many at a time (UDP_SEGMENT)")
        .group(group);
}

void add_fault_options(Command& command, Options& options) {
    const char* const group = "Injected faults";
    command.add_option("--loss", options.impairment.loss_percent, "Percent of packets that are not sent")
        .percent()
        .group(group);
    command
        .add_option("--duplicate", options.impairment.duplicate_percent,
                    "Percent of packets that are sent twice")
        .percent()
        .group(group);
    command
        .add_option("--reorder", options.impairment.reorder_percent,
                    "Percent of packets that the next packet of their session overtakes")
        .percent()
        .group(group);
    command
        .add_option(
            "--garbage", options.garbage_percent,
            "Percent of packets behind which a datagram follows that is no valid packet: too short, too "
            "long, bad marker, bad version, unknown type or corrupted size")
        .percent()
        .group(group);
    command
        .add_flag("--spare-edges", options.spare_edges,
                  "No loss, duplicate and reordering of start and terminate packets")
        .group(group);
    command.add_option("--seed", options.seed, "Seed of the faults and of the random order (default: random)")
        .group(group);
}

void add_report_options(Command& command, Options& options) {
    const char* const group = "Report";
    add_summary_options(command, options.summary, group);
    command
        .add_option("--progress", options.progress_ms,
                    "Print a running count to standard error at this interval")
        .type_name("MS")
        .group(group);
}

// What the parser's own checks cannot say. Empty if all is well.
std::string find_mistake(Options& options) {
    if (options.datagram_bytes) {
        if (*options.datagram_bytes < DATA_HEADER_BYTES) {
            return "--datagram-bytes: a data packet has at least 56 bytes";
        }
        options.payload_bytes = *options.datagram_bytes - DATA_HEADER_BYTES;
    }
    if (options.payload_bytes % 2 != 0) {
        return "the payload consists of 16-bit units: its length must be even";
    }
    if (options.payload_bytes > PAYLOAD_MAX_BYTES) {
        return "a data packet has at most 1376 bytes, 1320 of them payload";
    }
    if (options.call_id_prefix.size() > CALL_ID_PREFIX_MAX_BYTES) {
        return "--call-id-prefix: at most 1268 bytes, so that any id fits behind it";
    }
    if (options.no_start && options.no_terminate && options.packets == 0 && !options.endless) {
        return "nothing to send: neither start, data nor terminate packets";
    }
    return {};
}

SourceSettings source_settings(const Options& options, const sockaddr_in& target, uint64_t seed) {
    SourceSettings settings;
    settings.target = target;
    settings.sockets = options.sockets;
    settings.segmentation_offload = options.segmentation_offload;
    settings.id_base = options.id_base;
    settings.stream.flags = FLAGS.at(options.flags);
    settings.stream.side = static_cast<uint8_t>(options.side);
    settings.stream.payload_bytes = options.payload_bytes;
    settings.stream.call_id_prefix = options.call_id_prefix;
    settings.schedule.sessions = options.sessions;
    settings.schedule.live = options.live == 0 ? ScheduleSettings::UNLIMITED : options.live;
    settings.schedule.data_packets = options.endless ? ScheduleSettings::UNLIMITED : options.packets;
    settings.schedule.with_start = !options.no_start;
    settings.schedule.with_terminate = !options.no_terminate;
    settings.schedule.first_seq = options.first_seq.value_or(options.no_start ? 2 : 1);
    settings.schedule.order = options.order == "random" ? SessionOrder::random : SessionOrder::round_robin;
    settings.schedule.seed = seed;
    settings.impairment = options.impairment;
    settings.garbage_percent = options.garbage_percent;
    settings.spare_edges = options.spare_edges;
    settings.seed = mix_bits(seed); // not the numbers of the random order
    return settings;
}

struct Run {
    uint64_t elapsed_ns = 0;
    uint64_t slips = 0;
    uint64_t slipped_ns = 0;
    bool interrupted = false;
};

/// Prints a running count at an interval.
class Progress {
public:
    Progress(uint64_t interval_ms, uint64_t start_ns)
        : m_interval_ns(interval_ms * NS_PER_MS), m_start_ns(start_ns), m_next_ns(start_ns + m_interval_ns) {}

    void show(const MediaSource& source, uint64_t now_ns) {
        if (m_interval_ns == 0 || now_ns < m_next_ns) {
            return;
        }
        m_next_ns = now_ns + m_interval_ns;
        std::cerr << "sent " << source.counts().total().datagrams << " datagrams in "
                  << (now_ns - m_start_ns) / NS_PER_MS << " ms\n";
    }

private:
    const uint64_t m_interval_ns;
    const uint64_t m_start_ns;
    uint64_t m_next_ns;
};

// Waits until packets are due and says how many. 0 if a signal or the limit of a wait came first.
uint64_t wait_for_due(Pacer& pacer) {
    const uint64_t now_ns = steady_ns();
    if (pacer.next_due_ns() > now_ns) {
        // At low rates the next packet may be far off, and a stop should not wait for it.
        sleep_until_ns(std::min(pacer.next_due_ns(), now_ns + STOP_CHECK_INTERVAL_MS * NS_PER_MS));
    }
    return pacer.take(steady_ns());
}

Run run(MediaSource& source, const Options& options) {
    Run result;
    const uint64_t start_ns = steady_ns();
    const auto duration_ns = static_cast<uint64_t>(options.duration_s * static_cast<double>(NS_PER_SECOND));
    Pacer pacer(std::max<uint64_t>(options.rate, 1), options.burst_interval_us * NS_PER_US,
                options.max_lag_us * NS_PER_US, start_ns);
    Progress progress(options.progress_ms, start_ns);
    while (!stop_requested()) {
        const uint64_t due = options.rate == 0 ? FLAT_OUT_DATAGRAMS : wait_for_due(pacer);
        const uint64_t now_ns = steady_ns();
        if (duration_ns != 0 && now_ns - start_ns >= duration_ns) {
            source.finish();
        }
        if (source.send(due, now_ns / NS_PER_US) < due) {
            break;
        }
        progress.show(source, now_ns);
    }
    result.interrupted = stop_requested();
    result.elapsed_ns = steady_ns() - start_ns;
    result.slips = pacer.slips();
    result.slipped_ns = pacer.slipped_ns();
    return result;
}

Summary traffic_summary(const TrafficCount& count) {
    return Summary().add("datagrams", count.datagrams).add("bytes", count.bytes);
}

Summary summary_of(const MediaSource& source, const Run& run, const Options& options,
                   const sockaddr_in& target, uint64_t seed) {
    const SourceCounts& counts = source.counts();
    const TrafficCount total = counts.total();
    const double elapsed_s = static_cast<double>(run.elapsed_ns) / static_cast<double>(NS_PER_SECOND);
    Summary garbage;
    for (std::size_t kind = 0; kind < GARBAGE_KINDS; ++kind) {
        garbage.add(GARBAGE_NAMES[kind], counts.garbage[kind].datagrams);
    }
    return Summary()
        .add("seed", seed)
        .add("target", endpoint_text(target))
        .add("sessions", options.sessions)
        .add("start", traffic_summary(counts.packets[0]))
        .add("data", traffic_summary(counts.packets[1]))
        .add("terminate", traffic_summary(counts.packets[2]))
        .add("garbage", garbage)
        .add("total", traffic_summary(total))
        .add("lost", counts.lost)
        .add("duplicated", counts.duplicated)
        .add("reordered", counts.reordered)
        .add("refused", source.refused())
        .add("elapsed_ms", run.elapsed_ns / NS_PER_MS)
        .add("datagrams_per_second", elapsed_s > 0 ? static_cast<double>(total.datagrams) / elapsed_s : 0)
        .add("schedule_slips", run.slips)
        .add("schedule_slipped_us", run.slipped_ns / NS_PER_US)
        .add("interrupted", run.interrupted);
}

} // namespace

int main(int argc, char** argv) {
    Options options;
    CommandLine command_line(
        "Sends the media packets of made-up sessions over UDP: start, data and terminate packets of many\n"
        "sessions side by side, at a steady pace or flat out, with injected faults if wanted. Every byte\n"
        "follows from the session and the packet, so that corvalin_media_node can verify them.\n",
        NAME);
    command_line.add_option("target", options.target, "PORT of 127.0.0.1, ADDRESS:PORT or NAME:PORT")
        .required()
        .type_name("TARGET");
    add_session_options(command_line, options);
    add_pace_options(command_line, options);
    add_fault_options(command_line, options);
    add_report_options(command_line, options);
    command_line.add_version_flag();
    command_line.footer(
        "SIGINT and SIGTERM end the run early, with the summary and without terminate packets.\n\n" +
        exit_status_help("the packets could not be sent, or the summary not be written"));
    if (const auto status = command_line.parse(argc, argv)) {
        return *status;
    }
    sockaddr_in target{};
    const std::string mistake = parse_endpoint(options.target, target)
                                    ? find_mistake(options)
                                    : "\"" + options.target + "\" is no PORT, ADDRESS:PORT or NAME:PORT";
    if (!mistake.empty()) {
        std::cerr << NAME << ": " << mistake << "\nTry '" << NAME << " --help' for more.\n";
        return EXIT_USAGE;
    }

    try {
        catch_stop_signals();
        prctl(PR_SET_TIMERSLACK,
              1); // the default of 50 us is more than the gap between packets at 20000 a second
        const uint64_t seed = options.seed ? *options.seed : random_seed();
        std::cerr << "seed " << seed << "\n"; // now, so that a run that fails can be repeated too
        MediaSource source(source_settings(options, target, seed));
        const Run result = run(source, options);
        write_summary(summary_of(source, result, options, target, seed), options.summary);
    } catch (const std::exception& error) {
        std::cerr << NAME << ": " << error.what() << "\n";
        return EXIT_FAILED;
    }
    return EXIT_OK;
}
