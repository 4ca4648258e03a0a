#include "corvalin_lib/app.h"

#include "corvalin_lib/log.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace corvalin::app {

namespace {

constexpr const char* SOURCE = "app";

void run(const std::function<void()>& callback) {
    if (callback) {
        callback();
    }
}

// `exit` and not `_exit`, in parent and child alike: the exit handlers are to run.
[[noreturn]] void fail(int line, const std::function<void()>& callback, const log::Message& message) {
    log::write(SOURCE, line, message);
    run(callback);
    exit(1);
}

// Whatever fails here leaves a stream closed; the daemon can do without.
void redirect_streams(const std::string& log_file) {
    std::FILE* stream = std::freopen("/dev/null", "r", stdin);
    stream = std::freopen(log_file.c_str(), "a", stdout);
    stream = std::freopen(log_file.c_str(), "a", stderr);
    static_cast<void>(stream);
}

bool write_pid(const std::string& pid_file) {
    std::FILE* const file = std::fopen(pid_file.c_str(), "w");
    if (file == nullptr) {
        return false;
    }
    std::fprintf(file, "%d", static_cast<int>(getpid()));
    std::fclose(file);
    return true;
}

} // namespace

DaemonModeArgs::DaemonModeArgs(std::string pid_file_path, std::string log_file_path,
                               std::function<void()> child_started, std::function<void()> child_failed,
                               std::function<void()> parent_exit)
    : pid_file(std::move(pid_file_path)), log_file(std::move(log_file_path)), working_directory("/tmp"),
      on_child_started(std::move(child_started)), on_child_failed(std::move(child_failed)),
      on_parent_exit(std::move(parent_exit)) {
}

void switch_to_daemon_mode(DaemonModeArgs args) {
    log::write(SOURCE, __LINE__, log::SystemMessage() << "DAEMON: starting application in daemon mode");
    const pid_t child = fork();
    if (child < 0) {
        const int error = errno;
        fail(__LINE__, args.on_parent_exit,
             log::ErrorMessage() << "DAEMON: failed to fork process; error [" << error
                                 << "]: " << strerror(error));
    }
    if (child > 0) {
        run(args.on_parent_exit);
        exit(0);
    }
    run(args.on_child_started);
    umask(0);
    redirect_streams(args.log_file);
    if (setsid() < 0) {
        const int error = errno;
        fail(__LINE__, args.on_child_failed,
             log::ErrorMessage() << "DAEMON: failed to create SID for daemon process; error [" << error
                                 << "]: " << strerror(error));
    }
    if (chdir(args.working_directory.c_str()) != 0) {
        fail(__LINE__, args.on_child_failed,
             log::ErrorMessage() << "DAEMON: failed to change working directory to "
                                 << args.working_directory);
    }
    if (args.pid_file.empty()) {
        return;
    }
    if (!write_pid(args.pid_file)) {
        const int error = errno;
        fail(__LINE__, args.on_child_failed,
             log::ErrorMessage() << "DAEMON: failed to open pid file \"" << args.pid_file << "\"; error ["
                                 << error << "]: " << strerror(error));
    }
}

} // namespace corvalin::app
