// app_service: the frame in which every service of the family runs.
//
// The frame owns the order of start and stop: command line, logger, daemon switch, signals, configuration,
// the service itself. A concrete service supplies hooks and nothing else.
//
// Threads    everything on the main thread, but the signal handler, which runs on whichever thread the kernel
// picks. Errors     told by the exit status that `start` returns: 0 a clean stop or help, 1 a failed start,
// 10 started twice.
//            An exception from a hook is not caught.
#pragma once

#include "corvalin_lib/conf_configuration.h"
#include "corvalin_lib/reference_countable.h"

#include <atomic>
#include <bitset>
#include <csignal>
#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

namespace corvalin::app {

/// Bits of a service's capabilities.
enum Capability : std::size_t {
    capability_daemon_mode = 0,
};

class ServiceBase {
public:
    using Arguments = std::vector<std::string>;

    ServiceBase(const ServiceBase&) = delete;
    ServiceBase& operator=(const ServiceBase&) = delete;
    virtual ~ServiceBase() = default;

    /// Runs the service from the first argument to the closing of the logger. Returns the exit status of the
    /// process.
    int start(int argc, char** argv);

protected:
    /// `service_name` is the short name, from which the configuration's path and the application's name are
    /// made.
    explicit ServiceBase(const std::string& service_name);

    /// Before the daemon switch.
    virtual void on_pre_start();
    /// The service proper. Returns false if it could not start.
    virtual bool on_start();
    virtual void help() = 0;
    /// Reads the configuration. Returns true when on_start may run.
    virtual bool do_start() = 0;
    /// An argument that the frame does not know. May move `position` on; 0 goes on behind it, any other
    /// result ends the command line with that result.
    virtual int parse_arg(Arguments::const_iterator& position, const Arguments::const_iterator& end);
    /// Each argument, before the logger is open. May consume following ones by moving `next` and `remaining`
    /// on. Returns true if the argument is to be left out of the second pass.
    virtual bool pre_parse_arg(const std::string& argument, int& remaining, char**& next);
    /// Installs the sink: syslog for a daemon, else the standard log stream.
    virtual void on_logger_open();
    virtual void on_logger_close();

    /// First pass: what the choice of the logger needs. Logs nothing.
    Arguments pre_parse_args(int argc, char** argv);
    /// Second pass. Returns 0 to go on, 1 for help, -1 for an unknown argument, -2 for a missing value, or
    /// what a service's parse_arg returned.
    int parse_args(Arguments arguments);
    /// Joins `text` to the configuration arguments with a comma: behind the old ones, or in front of them.
    void push_config_args(std::string text, bool append);

    static void signals_subscribe();
    static void signals_handler(int signal, siginfo_t* info, void* context);

    std::bitset<32> m_capabilities;
    std::string m_exec_path;
    std::string m_config_args; // option assignments, joined by commas
    std::string m_config_path;
    std::atomic<uint8_t> m_running{0}; // 1 from the moment that start is entered
    std::string m_service_name;
    std::string m_application_name; // "corvalin" and the service's name; the identity in syslog
    std::string m_pid_file;         // empty: none
    bool m_daemonized = false;      // true in the daemon child; a marker that nothing reads
    bool m_daemon_mode = false;

    // Raised by the signal handler, cleared by signals_subscribe. Lock-free, as a handler demands.
    static std::atomic<int32_t> m_signal_stop;
    // Raised and logged; for services that want them.
    static std::atomic<bool> m_signal_update;
    static std::atomic<bool> m_signal_user1;
    static std::atomic<bool> m_signal_user2;

private:
    void daemonize();
};

/// A service with a configuration of its own. `Flag` is false in every service of this program.
template <class Config, bool Flag>
class Service : public ServiceBase {
protected:
    using ServiceBase::ServiceBase;

    /// Prints nothing, on purpose.
    void help() override {}
    bool do_start() override {
        if (!read_config()) {
            return false;
        }
        on_config();
        return true;
    }
    /// The configuration is in place.
    virtual void on_config() {}

    /// The service's file if it can be opened, then the arguments, which win. On a failure m_config is null.
    bool read_config() {
        // A file that cannot be opened is no error: the service runs on its defaults then.
        const std::ifstream file(m_config_path);
        const rc_ptr<Config> config(new Config());
        const bool is_read = config->parse_file(file.is_open() ? m_config_path : std::string()) &&
                             (m_config_args.empty() || config->parse_args(m_config_args));
        m_config = is_read ? config.get() : nullptr;
        return is_read;
    }

    rc_ptr<Config> m_config; // null until it has been read
};

} // namespace corvalin::app
