#include "corvalin_lib/app.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "corvalin_lib/log.h"
#include "tests/support/private_syslog.h"
#include "tests/support/refused_system_call.h"
#include "tests/support/temporary_folder.h"

namespace {

namespace fs = std::filesystem;
using namespace corvalin;
using app::DaemonModeArgs;
using test::TemporaryFolder;
using ::testing::ElementsAre;
using ::testing::UnorderedElementsAre;

std::string read_file(const std::string& path) {
    const std::ifstream file(path);
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

bool has_file(const std::string& path) {
    return fs::exists(path);
}

std::string link_target(const std::string& path) {
    std::error_code error;
    return fs::read_symlink(path, error).string();
}

/// What happened in the two processes, in a file that both write. It is set up before the fork.
struct Journal {
    static void write(const std::string& event) {
        const std::string line = (getpid() == launcher ? "L " : "D ") + event + "\n";
        const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        EXPECT_EQ(::write(fd, line.data(), line.size()), static_cast<ssize_t>(line.size()));
        close(fd);
    }
    static void write_message(void* /*context*/, const char* file, int /*line*/,
                              const log::Message& message) {
        write(std::string(file) + " " + log::level_to_string(message.level()) + " " + message.text());
    }

    /// The events of the launcher ('L') or of the daemon ('D').
    static std::vector<std::string> events(char process) {
        std::vector<std::string> events;
        std::istringstream lines(read_file(path));
        for (std::string line; std::getline(lines, line);) {
            if (line[0] == process) {
                events.push_back(line.substr(2));
            }
        }
        return events;
    }

    static inline std::string path;
    static inline pid_t launcher = 0;
};

/// Runs the daemon switch in a process of its own, the launcher, whose daemon becomes a child of the test in its turn
/// and so can be waited for.
class AppTest : public ::testing::Test {
protected:
    AppTest() {
        Journal::path = m_folder.path() + "/journal";
        prctl(PR_SET_CHILD_SUBREAPER, 1);
    }
    ~AppTest() override { prctl(PR_SET_CHILD_SUBREAPER, 0); }

    std::string file(const std::string& name) const { return m_folder.path() + "/" + name; }

    DaemonModeArgs args(const std::string& pid_file) const {
        return {pid_file, file("daemon.log"), [] { Journal::write("child started"); },
                [] { Journal::write("child failed"); }, [] { Journal::write("parent exit"); }};
    }

    void run(const std::function<void()>& launcher, const std::function<void()>& daemon) {
        const test::ChildReport report = test::run_with_private_syslog([&] {
            Journal::launcher = getpid();
            log::Logger::m_instance.m_write = &Journal::write_message;
            std::atexit([] { Journal::write("exit handler"); });
            launcher();
            // Only the daemon comes here.
            EXPECT_NE(getpid(), Journal::launcher);
            Journal::write("returned");
            daemon();
        });
        m_launcher_status = report.wait_status;
        int status = 0;
        while (waitpid(-1, &status, 0) > 0) {
            ++m_daemons;
            m_daemon_status = status;
        }
    }
    /// The switch with these arguments, and what the daemon does then.
    void run(
        DaemonModeArgs arguments, const std::function<void()>& daemon = [] {}) {
        run([&arguments] { app::switch_to_daemon_mode(std::move(arguments)); }, daemon);
    }

    bool launcher_left_with(int status) const {
        return WIFEXITED(m_launcher_status) && WEXITSTATUS(m_launcher_status) == status;
    }
    bool daemon_left_with(int status) const {
        return m_daemons == 1 && WIFEXITED(m_daemon_status) && WEXITSTATUS(m_daemon_status) == status;
    }
    /// The messages of assertions in the daemon, which go where its standard output goes.
    std::string daemon_log() const { return read_file(file("daemon.log")); }

    TemporaryFolder m_folder;
    int m_launcher_status = -1;
    int m_daemons = 0;
    int m_daemon_status = -1;
};

constexpr const char* STARTING = "app SYSTEM DAEMON: starting application in daemon mode";

TEST_F(AppTest, the_arguments_hold_what_they_were_given_and_the_working_directory_is_tmp) {
    std::string called;
    const DaemonModeArgs arguments(
        "pid", "log", [&called] { called += "started "; }, [&called] { called += "failed "; },
        [&called] { called += "exit"; });
    EXPECT_EQ(arguments.pid_file, "pid");
    EXPECT_EQ(arguments.log_file, "log");
    EXPECT_EQ(arguments.working_directory, "/tmp");
    arguments.on_child_started();
    arguments.on_child_failed();
    arguments.on_parent_exit();
    EXPECT_EQ(called, "started failed exit");
}

TEST_F(AppTest, the_parent_leaves_with_0_behind_its_callback_and_its_exit_handlers) {
    run(args(""));
    EXPECT_TRUE(launcher_left_with(0));
    EXPECT_TRUE(daemon_left_with(0)) << daemon_log();
    EXPECT_THAT(Journal::events('L'), ElementsAre(STARTING, "parent exit", "exit handler"));
    EXPECT_THAT(Journal::events('D'), ElementsAre("child started", "returned", "exit handler"));
}

TEST_F(AppTest, the_child_is_the_leader_of_a_new_session) {
    run(args(""), [] {
        EXPECT_EQ(getsid(0), getpid());
        EXPECT_EQ(getpgrp(), getpid());
    });
    EXPECT_TRUE(daemon_left_with(0)) << daemon_log();
    EXPECT_EQ(m_daemons, 1); // one fork, not two
}

TEST_F(AppTest, the_child_works_in_its_directory_with_a_creation_mask_of_0) {
    run(
        [this] {
            umask(022);
            ASSERT_EQ(chdir(m_folder.path().c_str()), 0);
            app::switch_to_daemon_mode(args(""));
        },
        [] {
            EXPECT_EQ(fs::current_path().string(), fs::canonical("/tmp").string());
            EXPECT_EQ(umask(077), 0u);
        });
    EXPECT_TRUE(daemon_left_with(0)) << daemon_log();
}

TEST_F(AppTest, the_child_reads_nothing_and_appends_both_outputs_to_the_log_file) {
    m_folder.write_file("daemon.log", "of an earlier run\n");
    run(args(""), [this] {
        EXPECT_EQ(link_target("/proc/self/fd/0"), "/dev/null");
        EXPECT_EQ(link_target("/proc/self/fd/1"), file("daemon.log"));
        EXPECT_EQ(link_target("/proc/self/fd/2"), file("daemon.log"));
        EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFL) & O_ACCMODE, O_RDONLY);
        EXPECT_NE(fcntl(STDOUT_FILENO, F_GETFL) & O_APPEND, 0);
        EXPECT_NE(fcntl(STDERR_FILENO, F_GETFL) & O_APPEND, 0);
        std::fputs("to standard output\n", stdout);
        std::fflush(stdout);
        std::fputs("to standard error\n", stderr);
    });
    EXPECT_TRUE(daemon_left_with(0)) << daemon_log();
    EXPECT_EQ(daemon_log(), "of an earlier run\nto standard output\nto standard error\n");
}

TEST_F(AppTest, the_child_runs_on_with_closed_outputs_if_the_log_file_cannot_be_opened) {
    DaemonModeArgs arguments = args(file("pid"));
    arguments.log_file = file("missing/daemon.log");
    run(std::move(arguments), [] {
        EXPECT_EQ(link_target("/proc/self/fd/0"), "/dev/null");
        EXPECT_EQ(fcntl(STDOUT_FILENO, F_GETFD), -1);
        EXPECT_EQ(fcntl(STDERR_FILENO, F_GETFD), -1);
    });
    EXPECT_TRUE(launcher_left_with(0));
    EXPECT_TRUE(daemon_left_with(0));
    EXPECT_FALSE(has_file(file("missing")));
    EXPECT_TRUE(has_file(file("pid")));
    EXPECT_THAT(Journal::events('D'), ElementsAre("child started", "returned", "exit handler"));
}

// ---- The pid file

TEST_F(AppTest, the_pid_file_holds_the_number_of_the_child_and_nothing_else) {
    m_folder.write_file("pid", "an older and longer text than any number\n");
    run(args(file("pid")), [this] { EXPECT_EQ(read_file(file("pid")), std::to_string(getpid())); });
    EXPECT_TRUE(daemon_left_with(0)) << daemon_log();
    EXPECT_TRUE(has_file(file("pid"))); // it outlives the process
}

TEST_F(AppTest, the_pid_file_is_closed_and_made_with_the_mask_of_the_daemon) {
    run(
        [this] {
            umask(077);
            app::switch_to_daemon_mode(args(file("pid")));
        },
        [] {
            for (const fs::directory_entry& entry : fs::directory_iterator("/proc/self/fd")) {
                EXPECT_EQ(link_target(entry.path().string()).find("/pid"), std::string::npos);
            }
        });
    EXPECT_TRUE(daemon_left_with(0)) << daemon_log();
    struct stat status {};
    ASSERT_EQ(stat(file("pid").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777u, 0666u);
}

TEST_F(AppTest, without_a_path_no_pid_file_is_written) {
    run(args(""));
    EXPECT_TRUE(daemon_left_with(0)) << daemon_log();
    std::vector<std::string> names;
    for (const fs::directory_entry& entry : fs::directory_iterator(m_folder.path())) {
        names.push_back(entry.path().filename().string());
    }
    EXPECT_THAT(names, UnorderedElementsAre("daemon.log", "journal"));
}

TEST_F(AppTest, a_pid_file_that_cannot_be_opened_ends_the_child_while_the_parent_left_with_0) {
    struct Case {
        const char* description;
        std::string path;
        int error;
    };
    const std::array<Case, 2> cases = {{
        {"in no directory", file("missing/pid"), ENOENT},
        {"a directory", m_folder.path(), EISDIR},
    }};
    for (const Case& row : cases) {
        SCOPED_TRACE(row.description);
        fs::remove(Journal::path);
        m_daemons = 0;
        run(args(row.path));
        EXPECT_TRUE(launcher_left_with(0));
        EXPECT_TRUE(daemon_left_with(1)) << daemon_log();
        EXPECT_THAT(Journal::events('L'), ElementsAre(STARTING, "parent exit", "exit handler"));
        EXPECT_THAT(Journal::events('D'),
                    ElementsAre("child started",
                                "app ERROR DAEMON: failed to open pid file \"" + row.path + "\"; error [" +
                                    std::to_string(row.error) + "]: " + strerror(row.error),
                                "child failed", "exit handler"));
    }
}

// ---- Failures

TEST_F(AppTest, a_failed_fork_ends_the_only_process_with_1_behind_the_callback_of_the_parent) {
    run(
        [this] {
            test::with_refused_system_call(SYS_clone, EAGAIN,
                                           [this] { app::switch_to_daemon_mode(args(file("pid"))); });
        },
        [] {});
    EXPECT_TRUE(launcher_left_with(1));
    EXPECT_EQ(m_daemons, 0);
    EXPECT_THAT(
        Journal::events('L'),
        ElementsAre(STARTING,
                    "app ERROR DAEMON: failed to fork process; error [11]: Resource temporarily unavailable",
                    "parent exit", "exit handler"));
    EXPECT_FALSE(has_file(file("pid")));
}

TEST_F(AppTest, a_refused_session_ends_the_child_with_1) {
    run(
        [this] {
            test::with_refused_system_call(SYS_setsid, EPERM,
                                           [this] { app::switch_to_daemon_mode(args(file("pid"))); });
        },
        [] {});
    EXPECT_TRUE(launcher_left_with(0));
    EXPECT_TRUE(daemon_left_with(1)) << daemon_log();
    EXPECT_THAT(
        Journal::events('D'),
        ElementsAre("child started",
                    "app ERROR DAEMON: failed to create SID for daemon process; error [1]: Operation not "
                    "permitted",
                    "child failed", "exit handler"));
    EXPECT_FALSE(has_file(file("pid")));
}

TEST_F(AppTest, a_missing_working_directory_ends_the_child_with_1) {
    DaemonModeArgs arguments = args(file("pid"));
    arguments.working_directory = file("missing");
    run(std::move(arguments));
    EXPECT_TRUE(launcher_left_with(0));
    EXPECT_TRUE(daemon_left_with(1)) << daemon_log();
    EXPECT_THAT(Journal::events('D'),
                ElementsAre("child started",
                            "app ERROR DAEMON: failed to change working directory to " + file("missing"),
                            "child failed", "exit handler"));
    EXPECT_FALSE(has_file(file("pid")));
}

TEST_F(AppTest, callbacks_that_are_missing_are_skipped) {
    run(DaemonModeArgs("", file("daemon.log"), {}, {}, {}));
    EXPECT_TRUE(launcher_left_with(0));
    EXPECT_TRUE(daemon_left_with(0)) << daemon_log();
    EXPECT_THAT(Journal::events('D'), ElementsAre("returned", "exit handler"));

    fs::remove(Journal::path);
    m_daemons = 0;
    run(DaemonModeArgs(file("missing/pid"), file("daemon.log"), {}, {}, {}));
    EXPECT_TRUE(launcher_left_with(0));
    EXPECT_TRUE(daemon_left_with(1)) << daemon_log();
}

TEST_F(AppTest, the_child_calls_back_first_of_all) {
    DaemonModeArgs arguments = args("");
    arguments.on_child_started = [this] {
        EXPECT_NE(getpid(), Journal::launcher);
        EXPECT_NE(getsid(0), getpid());
        EXPECT_EQ(umask(0123), 0077u);
        EXPECT_NE(link_target("/proc/self/fd/1"), file("daemon.log"));
        Journal::write("child started");
    };
    run(
        [&arguments] {
            umask(0077);
            app::switch_to_daemon_mode(std::move(arguments));
        },
        [] { EXPECT_EQ(umask(0), 0u); });
    EXPECT_TRUE(daemon_left_with(0)) << daemon_log();
}

} // namespace
