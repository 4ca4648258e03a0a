#include "router/statistic_service.h"

#include "corvalin_lib/log.h"
#include "corvalin_lib/never_destroyed.h"

#include <cerrno>
#include <ctime>
#include <sstream>

namespace corvalin::router {

namespace {

constexpr const char* SOURCE = "statistic_service";

constexpr std::size_t FRAME_WIDTH = 76;
constexpr time_t PERIOD_S = 5;

NeverDestroyed<StatisticService> service;

bool fits(const std::string& text) {
    return text.size() + 4 <= FRAME_WIDTH;
}

void print_unframed(std::ostream& stream, const std::string& text) {
    stream << "* " << text << "\n";
}

void print_counter(std::ostream& stream, const char* label, const Counter& counter) {
    std::ostringstream text;
    text << label << counter.value();
    StatisticService::print_section_line(stream, text.str());
}

void sleep_period() {
    timespec left{PERIOD_S, 0};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
        // A signal is no reason for a report ahead of time: sleep on for what is left.
    }
}

} // namespace

constinit StatisticService& StatisticService::Instance = service.object;

StatisticService::StatisticService() : m_transfer_host(net::make_host_addr("127.0.0.1", 0)) {
}

void StatisticService::run() {
    log::write(SOURCE, __LINE__,
               log::SystemMessage() << "STATISTIC_SERVICE: thread [" << current_thread_id() << "] started");
    while (is_running()) {
        if (m_logging_enabled) {
            report();
        }
        sleep_period();
    }
}

int StatisticService::stop() {
    if (!is_running()) {
        return 0;
    }
    const int error = Thread::stop();
    // The thread is gone by now: the id in these lines is that of the caller.
    if (error == 0) {
        log::write(SOURCE, __LINE__,
                   log::SystemMessage()
                       << "STATISTIC_SERVICE: thread [" << current_thread_id() << "] stopped");
    } else {
        log::write(SOURCE, __LINE__,
                   log::WarningMessage() << "STATISTIC_SERVICE: thread [" << current_thread_id()
                                         << "] stopped with error (" << error << ")");
    }
    return error;
}

// Straight to syslog: a report never goes to the terminal.
void StatisticService::report() const {
    std::stringstream text;
    text << "\n";
    print(text);
    log::Syslog::write(SOURCE, __LINE__, log::LocalLevel::local_level_statistic,
                       log::SystemMessage() << text.str());
}

void StatisticService::print(std::ostream& stream) const {
    std::ostringstream title;
    title << "corvalinrouter";
    if (m_has_port) {
        title << ":" << m_port;
    }
    title << " statistic";
    print_section_header(stream, title.str());
    print_section_line(stream, "");
    print_routing(stream);
    print_section_line(stream, "");
    print_section_header(stream, "packets statistic");
    print_section_line(stream, "");
    print_packet_reader(stream);
    print_section_line(stream, "");
    print_spawned_symbol(stream, '*');
}

void StatisticService::print_routing(std::ostream& stream) const {
    const media::SessionManagerStatistic& counters = m_session_statistic;
    print_counter(stream, "session number.............................: ", counters.session_number);
    print_counter(stream, "session number (zombie)....................: ", counters.zombie_number);
    print_counter(stream, "session audit executions number............: ", counters.audit_executions);
    print_section_line(stream, "");
    print_counter(stream, "session allocation errors number...........: ", counters.allocation_errors);
    print_counter(stream, "session existing index errors number.......: ", counters.existing_index_errors);
    print_counter(stream, "session unknown index errors number........: ", counters.unknown_index_errors);
    print_counter(stream, "session sequence break errors number.......: ", counters.sequence_breaks);
    print_counter(stream, "session lost packets number................: ", counters.lost_packets);
}

void StatisticService::print_packet_reader(std::ostream& stream) const {
    const media::PacketReaderStatistic& counters = m_reader_statistic;
    print_counter(stream, "packet queue elements number...............: ", counters.elements);
    print_counter(stream, "packet queue passed elements number........: ", counters.passed_elements);
    print_counter(stream, "packet queue dropped elements number.......: ", counters.dropped_elements);
    print_counter(stream, "packet queue idle hits number..............: ", counters.idle_hits);
    print_section_line(stream, "");
    print_counter(stream, "packet dropped  by min length..............: ", counters.dropped_min_length);
    print_counter(stream, "packet dropped  by max length..............: ", counters.dropped_max_length);
    print_counter(stream,
                  "packet dropped  by failed allocation.......: ", counters.dropped_failed_allocation);
    print_counter(stream, "packet rejected by bad marker..............: ", counters.rejected_bad_marker);
    print_counter(stream, "packet rejected by version.................: ", counters.rejected_version);
    print_counter(stream, "packet rejected by corrupted size..........: ", counters.rejected_corrupted_size);
    print_counter(stream, "packet rejected by unknown type............: ", counters.rejected_unknown_type);
    print_section_line(stream, "");
    print_counter(stream, "packet 'start' type number.................: ", counters.start_packets);
    print_counter(stream, "packet 'term'  type number.................: ", counters.term_packets);
    print_counter(stream, "packet 'data'  type number.................: ", counters.data_packets);
}

// An odd remainder goes to the right.
void StatisticService::print_section_header(std::ostream& stream, const std::string& title) {
    if (!fits(title)) {
        print_unframed(stream, title);
        return;
    }
    const std::size_t stars = FRAME_WIDTH - 2 - title.size();
    stream << std::string(stars / 2, '*') << " " << title << " " << std::string(stars - stars / 2, '*')
           << "\n";
}

void StatisticService::print_section_line(std::ostream& stream, const std::string& text) {
    if (!fits(text)) {
        print_unframed(stream, text);
        return;
    }
    stream << "* " << text << std::string(FRAME_WIDTH - 3 - text.size(), ' ') << "*\n";
}

void StatisticService::print_spawned_symbol(std::ostream& stream, char symbol) {
    stream << std::string(FRAME_WIDTH, symbol);
}

} // namespace corvalin::router
