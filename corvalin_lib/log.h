// log: levels, messages, the process-wide logger record and its sinks.
//
// A statement builds a message on the stack, streams its text and hands it to the sink of the moment:
//
//     log::write(SOURCE, __LINE__, log::SystemMessage() << "SERVICE: exec path: " << m_exec_path);
//
// Threads    any thread may log at any time, also before main and while the process exits. The record is
//            written by the main thread at start and stop only.
// Cost       a message is a whole string stream: fine for start-up, sessions and failures. On the packet path
//            a statement at DEBUG or TRACE looks at the threshold first and builds nothing that would be
//            dropped.
// Errors     none. A line that a sink cannot deliver is lost silently.
#pragma once

#include "corvalin_lib/counter.h"

#include <sstream>
#include <string>
#include <string_view>

namespace corvalin::log {

/// From the most important to the least. A message passes if its level is not above the threshold.
enum class Level : int {
    SYSTEM = 0,
    ERROR = 1,
    WARNING = 2,
    INFO = 3,
    DEBUG = 4,
    TRACE = 5,
};

/// The syslog facility that a line is written with.
enum class LocalLevel : int {
    local_level_default = 8,     // LOG_USER: lines through the logger
    local_level_statistic = 128, // LOG_LOCAL0: statistic reports
    local_level_packet = 136,    // LOG_LOCAL1: start, terminate and session tracing
    local_level_media = 184,     // LOG_LOCAL7: data packet tracing
};

/// Separates the fields of a line. No string object: lines are also written while and after such objects are
/// destroyed at exit.
inline constexpr std::string_view message_delimiter = " | ";
/// Directory of the daemon's log file.
extern const std::string default_directory;

const char* level_to_string(Level level) noexcept;
/// The blanks that bring the name of `level` to 7 characters.
const char* level_to_spaces(Level level) noexcept;
/// The syslog severity of `level`.
int level_to_syslevel(Level level) noexcept;

/// Reads a level's upper-case name. Leaves `level` alone and returns false on any other text.
bool try_parse_level(const std::string& text, Level& level);

/// One line under construction. Belongs to the thread that builds it. Nothing is written by its destructor.
class Message {
public:
    explicit Message(Level level) : m_level(level) {}
    virtual ~Message() = default;
    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;

    template <class T>
    Message& operator<<(const T& value) {
        m_stream << value;
        return *this;
    }

    /// For std::endl and its like, whose type cannot be deduced above.
    Message& operator<<(std::ostream& (*manipulator)(std::ostream&)) {
        m_stream << manipulator;
        return *this;
    }

    Level level() const noexcept { return m_level; }
    std::ostream& stream() noexcept { return m_stream; }
    std::string text() const { return m_stream.str(); }

private:
    const Level m_level;
    std::stringstream m_stream;
};

class SystemMessage : public Message {
public:
    SystemMessage() : Message(Level::SYSTEM) {}
};

class ErrorMessage : public Message {
public:
    ErrorMessage() : Message(Level::ERROR) {}
};

class WarningMessage : public Message {
public:
    WarningMessage() : Message(Level::WARNING) {}
};

class InfoMessage : public Message {
public:
    InfoMessage() : Message(Level::INFO) {}
};

class DebugMessage : public Message {
public:
    DebugMessage() : Message(Level::DEBUG) {}
};

class TraceMessage : public Message {
public:
    TraceMessage() : Message(Level::TRACE) {}
};

/// Writes the body of a line: level, padding, the place at a threshold of DEBUG or TRACE, text. No line end.
std::ostream& format_message(std::ostream& stream, const char* file, int line, Level threshold,
                             const Message& message);

/// The local time as "2026.11.14 17:26:05.004217".
std::string format_time();

/// The active sink and the threshold: a table of functions. A sink is a few free functions.
struct LoggerImpl {
    using Close = void (*)(void* context);
    using Write = void (*)(void* context, const char* file, int line, const Message& message);

    constexpr LoggerImpl() noexcept = default;
    LoggerImpl(const LoggerImpl&) = delete;
    LoggerImpl& operator=(const LoggerImpl&) = delete;
    /// Closes the sink.
    ~LoggerImpl();

    /// Calls the close function if there is one. Any thread, but see the fields.
    void close() const;

    /// Drops the message: the sink before `on_logger_open` and after `on_logger_close`.
    static void dummy_write(void* context, const char* file, int line, const Message& message);

    // Written by the main thread at start and stop, read by any.
    Shared<void*> m_context = nullptr;
    Shared<Close> m_close = nullptr; // null: nothing to close
    Shared<Write> m_write = &LoggerImpl::dummy_write;
    Shared<Level> m_level = Level::INFO;
};

/// Holds the one record of the process. It is constant-initialised, so a statement is safe from the first
/// instruction of the process on, and never destroyed, so it is safe in the last.
struct Logger {
    static LoggerImpl& m_instance;
};

/// Hands `message` to the active sink. `file` is the module's name and must outlive the call.
inline void write(const char* file, int line, const Message& message) {
    const LoggerImpl& logger = Logger::m_instance;
    const LoggerImpl::Write sink = logger.m_write;
    sink(logger.m_context, file, line, message);
}

/// True if a message of `level` would be written.
inline bool passes(Level level) noexcept {
    return level <= static_cast<Level>(Logger::m_instance.m_level);
}

/// The sink of a process in the foreground.
struct Stdlog {
    /// Writes the line to the standard log stream in one piece, so that the lines of two threads do not mix.
    static void write(void* context, const char* file, int line, const Message& message);
};

/// The sink of a daemon, and the road of the lines that have a facility of their own.
struct Syslog {
    static void write(void* context, const char* file, int line, const Message& message);
    /// Goes straight to syslog, whatever sink is active.
    static void write(const char* file, int line, LocalLevel facility, const Message& message);
    static void close(void* context);
};

} // namespace corvalin::log
