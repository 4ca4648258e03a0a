// statistic_service: writes a report of all counters to syslog every 5 seconds.
//
// Threads    start, stop and the settings: the main thread. run and print: the statistics thread, which reads
//            the counters without a lock while their own threads go on counting: lines of one report may be
//            from slightly different moments. No counter is written here.
// Ownership  owns the blocks that the reader and the session table count into, so that counters exist before
//            their users and outlive them.
// Errors     a report that syslog cannot take is lost.
#pragma once

#include "corvalin_lib/counter.h"
#include "corvalin_lib/media_packet_reader.h"
#include "corvalin_lib/media_session_manager.h"
#include "corvalin_lib/net.h"
#include "corvalin_lib/thread.h"

#include <cstdint>
#include <ostream>
#include <string>

namespace corvalin::router {

class StatisticService : public Thread {
public:
    StatisticService();

    /// The one of the process. It exists before main and is never destroyed.
    static StatisticService& Instance;

    /// Reports at once, and then every 5 seconds plus the time of a report.
    void run() override;
    /// Waits for the sleep between two reports to end, up to 5 seconds. Returns 0, or the error number of the
    /// join.
    int stop() override;

    /// One whole report, without a line feed behind its last row.
    void print(std::ostream& stream) const;
    void print_routing(std::ostream& stream) const;
    void print_packet_reader(std::ostream& stream) const;

    // Rows of the frame, which is 76 characters wide. A text that does not fit loses the right side of its
    // frame.
    static void print_section_header(std::ostream& stream, const std::string& title);
    static void print_section_line(std::ostream& stream, const std::string& text);
    /// No line feed.
    static void print_spawned_symbol(std::ostream& stream, char symbol);

    media::PacketReaderStatistic m_reader_statistic;
    media::SessionManagerStatistic m_session_statistic;
    // Set before start.
    uint64_t m_port = 0;
    bool m_has_port = false;
    bool m_logging_enabled = true;
    // Reserved for a transfer of reports over the network. Nothing reads or writes them.
    bool m_transfer_enabled = false;
    net::HostAddr m_transfer_host;

private:
    void report() const;
};

} // namespace corvalin::router
