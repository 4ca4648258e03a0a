#include "corvalin_lib/log.h"

#include "corvalin_lib/never_destroyed.h"

#include <sys/time.h>
#include <syslog.h>

#include <array>
#include <cstdio>
#include <ctime>
#include <iostream>

namespace corvalin::log {

const std::string default_directory = "/var/log/tolvaine/corvalin";

namespace {

struct LevelRow {
    const char* name;
    const char* spaces;
    int severity;
};

static_assert(static_cast<int>(LocalLevel::local_level_default) == LOG_USER);
static_assert(static_cast<int>(LocalLevel::local_level_statistic) == LOG_LOCAL0);
static_assert(static_cast<int>(LocalLevel::local_level_packet) == LOG_LOCAL1);
static_assert(static_cast<int>(LocalLevel::local_level_media) == LOG_LOCAL7);

constexpr std::array<LevelRow, 6> LEVELS = {{
    {"SYSTEM", " ", LOG_NOTICE},
    {"ERROR", "  ", LOG_ERR},
    {"WARNING", "", LOG_WARNING},
    {"INFO", "   ", LOG_INFO},
    {"DEBUG", "  ", LOG_DEBUG},
    {"TRACE", "  ", LOG_DEBUG},
}};

const LevelRow& row(Level level) noexcept {
    return LEVELS[static_cast<std::size_t>(level)];
}

constinit NeverDestroyed<LoggerImpl> logger;

// A sink that is still open when the process exits is closed there. The record itself stays as it is: other
// threads may go on logging until the process is gone, and syslog opens itself again for them.
struct CloseAtExit {
    ~CloseAtExit() { logger.object.close(); }
};
const CloseAtExit close_at_exit;

} // namespace

constinit LoggerImpl& Logger::m_instance = logger.object;

const char* level_to_string(Level level) noexcept {
    return row(level).name;
}

const char* level_to_spaces(Level level) noexcept {
    return row(level).spaces;
}

int level_to_syslevel(Level level) noexcept {
    return row(level).severity;
}

bool try_parse_level(const std::string& text, Level& level) {
    for (std::size_t index = 0; index < LEVELS.size(); ++index) {
        if (text == LEVELS[index].name) {
            level = static_cast<Level>(index);
            return true;
        }
    }
    return false;
}

std::ostream& format_message(std::ostream& stream, const char* file, int line, Level threshold,
                             const Message& message) {
    stream << level_to_string(message.level()) << level_to_spaces(message.level()) << message_delimiter;
    if (threshold >= Level::DEBUG) {
        stream << file << ":" << line << message_delimiter;
    }
    return stream << message.text();
}

std::string format_time() {
    timeval now{};
    gettimeofday(&now, nullptr);
    tm local{};
    localtime_r(&now.tv_sec, &local); // the static result of localtime would tear between threads
    std::array<char, 64> seconds{};
    std::strftime(seconds.data(), seconds.size(), "%Y.%m.%d %X", &local);
    std::array<char, 16> microseconds{};
    std::snprintf(microseconds.data(), microseconds.size(), ".%06d", static_cast<int>(now.tv_usec));
    return std::string(seconds.data()) + microseconds.data();
}

LoggerImpl::~LoggerImpl() {
    close();
}

void LoggerImpl::close() const {
    const Close function = m_close;
    if (function != nullptr) {
        function(m_context);
    }
}

void LoggerImpl::dummy_write(void* /*context*/, const char* /*file*/, int /*line*/,
                             const Message& /*message*/) {
}

void Stdlog::write(void* /*context*/, const char* file, int line, const Message& message) {
    if (!passes(message.level())) {
        return;
    }
    std::ostringstream text;
    text << format_time() << message_delimiter;
    format_message(text, file, line, Logger::m_instance.m_level, message) << "\n";
    const std::string whole = text.str();
    std::clog.write(whole.data(), static_cast<std::streamsize>(whole.size())).flush();
}

void Syslog::write(void* /*context*/, const char* file, int line, const Message& message) {
    write(file, line, LocalLevel::local_level_default, message);
}

void Syslog::write(const char* file, int line, LocalLevel facility, const Message& message) {
    if (!passes(message.level())) {
        return;
    }
    std::ostringstream text;
    format_message(text, file, line, Logger::m_instance.m_level, message) << "\n";
    syslog(static_cast<int>(facility) | level_to_syslevel(message.level()), "%s", text.str().c_str());
}

void Syslog::close(void* /*context*/) {
    closelog();
}

} // namespace corvalin::log
