#include "corvalin_lib/app_service.h"

#include "corvalin_lib/app.h"
#include "corvalin_lib/log.h"
#include "corvalin_lib/thread.h"
#include "corvalin_lib/utils_path.h"

#include <syslog.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace corvalin::app {

namespace {

constexpr const char* SOURCE = "app_service";

constexpr int EXIT_STARTED_TWICE = 10;

// Results of parse_args.
constexpr int ARGUMENTS_DONE = 0;
constexpr int ARGUMENTS_HELP = 1;
constexpr int ARGUMENTS_UNKNOWN = -1;
constexpr int ARGUMENTS_VALUE_MISSING = -2;

// One record for all signals, static so that it lives as long as the process.
struct sigaction signalling;

bool is_daemon_option(const std::string& argument) {
    return argument == "--daemon" || argument == "-d";
}

// Puts back the errno of the code that a signal has interrupted: a handler's own system calls change it.
class ErrnoGuard {
public:
    ErrnoGuard() noexcept : m_errno(errno) {}
    ErrnoGuard(const ErrnoGuard&) = delete;
    ErrnoGuard& operator=(const ErrnoGuard&) = delete;
    ~ErrnoGuard() { errno = m_errno; }

private:
    const int m_errno;
};

} // namespace

std::atomic<int32_t> ServiceBase::m_signal_stop{0};
std::atomic<bool> ServiceBase::m_signal_update{false};
std::atomic<bool> ServiceBase::m_signal_user1{false};
std::atomic<bool> ServiceBase::m_signal_user2{false};

static_assert(std::atomic<int32_t>::is_always_lock_free && std::atomic<bool>::is_always_lock_free,
              "the signal handler may touch nothing that takes a lock");

ServiceBase::ServiceBase(const std::string& service_name)
    : m_config_path(conf::default_directory + "/" + service_name + conf::default_conf_ext),
      m_service_name(service_name), m_application_name("corvalin" + service_name) {
}

int ServiceBase::start(int argc, char** argv) {
    uint8_t idle = 0;
    if (!m_running.compare_exchange_strong(idle, 1, std::memory_order_seq_cst)) {
        return EXIT_STARTED_TWICE;
    }
    const Arguments arguments = pre_parse_args(argc, argv);
    // Open before the command line is judged, so that the judgement can be logged. The two roads out of here
    // leave the logger open and m_running set: they lead straight to the end of the process.
    on_logger_open();
    const int verdict = parse_args(arguments);
    if (verdict == ARGUMENTS_HELP) {
        help();
        return 0;
    }
    if (verdict != ARGUMENTS_DONE) {
        return 1;
    }
    log::write(SOURCE, __LINE__, log::SystemMessage() << "SERVICE: exec path: " << m_exec_path);
    if (!m_pid_file.empty()) {
        log::write(SOURCE, __LINE__, log::SystemMessage() << "SERVICE:  pid file: " << m_pid_file);
    }
    on_pre_start();
    if (m_capabilities.test(capability_daemon_mode) && m_daemon_mode) {
        daemonize();
    }
    signals_subscribe(); // only in the process that will do the work
    log::write(SOURCE, __LINE__,
               log::SystemMessage() << "SERVICE: [" << m_application_name << "] main thread ["
                                    << current_thread_id() << "] started");
    const bool is_done = do_start() && on_start();
    log::write(SOURCE, __LINE__,
               log::SystemMessage() << "SERVICE: [" << m_application_name << "] main thread ["
                                    << current_thread_id() << "] stopped");
    on_logger_close();
    m_running.store(0, std::memory_order_seq_cst);
    return is_done ? 0 : 1;
}

void ServiceBase::daemonize() {
    switch_to_daemon_mode(DaemonModeArgs(
        m_pid_file, log::default_directory + "/" + m_service_name + "_daemon.log",
        [this] {
            m_daemonized = true;
            on_logger_open();
        },
        [this] { on_logger_close(); }, [this] { on_logger_close(); }));
}

void ServiceBase::on_pre_start() {
}

bool ServiceBase::on_start() {
    return true;
}

int ServiceBase::parse_arg(Arguments::const_iterator& /*position*/,
                           const Arguments::const_iterator& /*end*/) {
    return ARGUMENTS_UNKNOWN;
}

bool ServiceBase::pre_parse_arg(const std::string& /*argument*/, int& /*remaining*/, char**& /*next*/) {
    return false;
}

void ServiceBase::on_logger_open() {
    log::LoggerImpl& logger = log::Logger::m_instance;
    logger.m_context = nullptr;
    if (m_daemon_mode) {
        openlog(m_application_name.c_str(), LOG_PID | LOG_CONS | LOG_NDELAY, LOG_DAEMON);
        logger.m_write = &log::Syslog::write;
        logger.m_close = &log::Syslog::close;
    } else {
        logger.m_write = &log::Stdlog::write;
        logger.m_close = nullptr;
    }
}

void ServiceBase::on_logger_close() {
    log::LoggerImpl& logger = log::Logger::m_instance;
    logger.close();
    logger.m_close = nullptr;
    logger.m_context = nullptr;
    logger.m_write = &log::LoggerImpl::dummy_write;
}

ServiceBase::Arguments ServiceBase::pre_parse_args(int argc, char** argv) {
    m_exec_path = utils::path::get_absolute_path(argv[0]);
    Arguments arguments;
    arguments.reserve(static_cast<std::size_t>(argc - 1));
    int remaining = argc - 1;
    char** next = argv + 1;
    while (remaining > 0) {
        const std::string argument = *next;
        --remaining;
        ++next;
        if (is_daemon_option(argument)) {
            m_daemon_mode = m_daemon_mode || m_capabilities.test(capability_daemon_mode);
            arguments.push_back(argument); // the second pass has its own word on it
        } else if (!pre_parse_arg(argument, remaining, next)) {
            arguments.push_back(argument);
        }
    }
    return arguments;
}

int ServiceBase::parse_args(Arguments arguments) {
    const Arguments::const_iterator end = arguments.cend();
    Arguments::const_iterator position = arguments.cbegin();
    while (position != end) {
        const std::string& option = *position;
        const bool is_config = option == "--config" || option == "-c";
        const bool is_pid_file = option == "--pid-file";
        if (option == "--help" || option == "-h") {
            return ARGUMENTS_HELP;
        }
        if (is_daemon_option(option)) {
            if (!m_capabilities.test(capability_daemon_mode)) {
                log::write(SOURCE, __LINE__,
                           log::WarningMessage() << "SERVICE: daemon mode is not supported, ignoring option ["
                                                 << option << "]");
            }
        } else if (option == "--pid-file-default") {
            m_pid_file = m_exec_path + ".pid";
        } else if (is_config || is_pid_file || option == "--args") {
            if (++position == end) {
                log::write(SOURCE, __LINE__,
                           log::ErrorMessage()
                               << "SERVICE: value if not specified for option [" << option << "]");
                return ARGUMENTS_VALUE_MISSING;
            }
            if (is_config) {
                m_config_path = utils::path::get_absolute_path(*position);
            } else if (is_pid_file) {
                m_pid_file = utils::path::get_absolute_path(*position);
            } else {
                push_config_args(*position, false);
            }
        } else if (const int result = parse_arg(position, end); result != ARGUMENTS_DONE) {
            return result;
        }
        // A service's parse_arg may have consumed all that was left.
        if (position != end) {
            ++position;
        }
    }
    return ARGUMENTS_DONE;
}

void ServiceBase::push_config_args(std::string text, bool append) {
    if (text.empty()) {
        return;
    }
    if (m_config_args.empty()) {
        m_config_args = std::move(text);
    } else if (append) {
        m_config_args += "," + text;
    } else {
        m_config_args = text + "," + m_config_args;
    }
}

// Without SA_RESTART: the EINTR of an interrupted recv is what wakes the receive loop.
void ServiceBase::signals_subscribe() {
    m_signal_stop.store(0, std::memory_order_relaxed);
    m_signal_update.store(false, std::memory_order_seq_cst);
    m_signal_user1.store(false, std::memory_order_seq_cst);
    m_signal_user2.store(false, std::memory_order_seq_cst);
    signal(SIGPIPE, SIG_IGN);
    signalling = {};
    signalling.sa_sigaction = &ServiceBase::signals_handler;
    signalling.sa_flags = SA_SIGINFO;
    for (const int number : {SIGINT, SIGQUIT, SIGTERM, SIGHUP, SIGUSR1, SIGUSR2}) {
        sigaction(number, &signalling, nullptr);
    }
}

// Writing to a log is not safe within a signal handler. The lines are wanted all the same: an operator sees
// that his signal has arrived even when the service is too busy to act on it.
void ServiceBase::signals_handler(int signal, siginfo_t* /*info*/, void* /*context*/) {
    const ErrnoGuard guard;
    log::write(SOURCE, __LINE__,
               log::SystemMessage() << "SERVICE: signal " << signal << " has been received");
    switch (signal) {
    case SIGHUP:
        log::write(SOURCE, __LINE__, log::SystemMessage() << "SERVICE: update has been requested");
        m_signal_update.store(true, std::memory_order_seq_cst);
        break;
    case SIGINT:
    case SIGQUIT:
    case SIGTERM:
        log::write(SOURCE, __LINE__, log::SystemMessage() << "SERVICE: application stop has been requested");
        // Relaxed: the loop acts on the flag alone.
        m_signal_stop.store(1, std::memory_order_relaxed);
        break;
    case SIGUSR1:
        log::write(SOURCE, __LINE__, log::SystemMessage() << "SERVICE: user action #1 has been requested");
        m_signal_user1.store(true, std::memory_order_seq_cst);
        break;
    case SIGUSR2:
        log::write(SOURCE, __LINE__, log::SystemMessage() << "SERVICE: user action #2 has been requested");
        m_signal_user2.store(true, std::memory_order_seq_cst);
        break;
    case SIGPIPE:
        // Ignored by this frame. For a service that installs the handler for it.
        log::write(SOURCE, __LINE__, log::WarningMessage() << "SERVICE: signal SIGPIPE has been ignored");
        break;
    default:
        break;
    }
}

} // namespace corvalin::app
