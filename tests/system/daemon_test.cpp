// The router in the background: what the launcher sees, what the daemon is, and where its lines go.
#include "tests/support/system/router_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

namespace {

using namespace corvalin::test;
using ::testing::MatchesRegex;

namespace fs = std::filesystem;

class DaemonTest : public RouterTest {
protected:
    std::string daemon_log() const { return (m_place.log_folder() / "router_daemon.log").string(); }

    static std::string tag_of(pid_t process) { return "corvalinrouter[" + std::to_string(process) + "]"; }

    /// Starts it and waits until the daemon receives.
    void start_daemon(const std::vector<std::string>& arguments) {
        m_router.emplace(m_place, arguments);
        m_launcher = router().pid();
        router().follow_daemon();
        ASSERT_NE(router().pid(), m_launcher);
        ASSERT_TRUE(router().wait_until_receiving());
        m_sender.emplace(router().port());
    }

    /// Records of the logger, that is without the reports.
    std::vector<SyslogRecord> log_records() {
        return syslog().records(
            [](const SyslogRecord& record) { return record.priority != STATISTIC_NOTICE; });
    }

    bool has_record(int priority, pid_t process, const std::string& text) {
        const SyslogRecord wanted{priority, tag_of(process), text + "\n", {}};
        return syslog().wait_for([&](const SyslogRecord& record) { return record == wanted; }).has_value();
    }

    pid_t m_launcher = -1;
};

bool is_same_file(const std::string& left, const std::string& right) {
    struct stat left_status {};
    struct stat right_status {};
    return stat(left.c_str(), &left_status) == 0 && stat(right.c_str(), &right_status) == 0 &&
           left_status.st_dev == right_status.st_dev && left_status.st_ino == right_status.st_ino;
}

// Seen with the means of a debugger, which holds the launcher there.
struct Fork {
    pid_t child = -1;
    std::size_t threads = 0; // of the launcher
};

Fork fork_of(pid_t launcher) {
    Fork seen;
    int status = 0;
    while (waitpid(launcher, &status, 0) == launcher && WIFSTOPPED(status)) {
        if (status >> 16 == PTRACE_EVENT_FORK) {
            unsigned long child = 0;
            ptrace(PTRACE_GETEVENTMSG, launcher, nullptr, &child);
            seen.child = static_cast<pid_t>(child);
            seen.threads = threads_of(launcher).size();
            break;
        }
        const bool is_own = WSTOPSIG(status) == SIGSTOP || WSTOPSIG(status) == SIGTRAP;
        ptrace(PTRACE_CONT, launcher, nullptr, is_own ? 0L : long{WSTOPSIG(status)});
    }
    return seen;
}

// Of several threads only the one that forks would be in the daemon.
TEST_F(DaemonTest, the_launcher_has_one_thread_when_it_forks) {
    const std::string etc = (m_place.folder() / "etc").string();
    const std::string log = (m_place.folder() / "log").string();
    const std::string dev_log = syslog().path();
    const std::string router = router_executable();
    const pid_t launcher = fork();
    if (launcher == 0) {
        // Neither forks on its way to the router.
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        std::raise(SIGSTOP);
        execl(CORVALIN_PRIVATE_RUN_PATH, CORVALIN_PRIVATE_RUN_PATH, "--etc", etc.c_str(), "--log",
              log.c_str(), "--dev-log", dev_log.c_str(), "--", router.c_str(), "--daemon",
              static_cast<char*>(nullptr));
        _exit(127);
    }
    int status = 0;
    ASSERT_EQ(waitpid(launcher, &status, 0), launcher);
    ASSERT_TRUE(WIFSTOPPED(status));
    const long options = PTRACE_O_EXITKILL | PTRACE_O_TRACEEXEC | PTRACE_O_TRACEFORK;
    ptrace(PTRACE_SETOPTIONS, launcher, nullptr, options);
    ptrace(PTRACE_CONT, launcher, nullptr, nullptr);

    const Fork seen = fork_of(launcher);
    ASSERT_NE(seen.child, -1) << "no fork";
    EXPECT_EQ(fs::read_symlink("/proc/" + std::to_string(launcher) + "/exe"), fs::canonical(router));
    EXPECT_TRUE(has_record(USER_NOTICE, launcher, "SYSTEM  | DAEMON: starting application in daemon mode"));
    EXPECT_EQ(seen.threads, 1u);

    for (const pid_t process : {seen.child, launcher}) {
        kill(process, SIGKILL);
        while (waitpid(process, &status, __WALL) == process && !WIFSIGNALED(status)) {
        }
        EXPECT_TRUE(WIFSIGNALED(status)) << "process " << process;
    }
}

TEST_F(DaemonTest, a_daemon_detaches_writes_its_pid_file_and_logs_to_syslog) {
    m_writers = std::vector<UdpNode>(1);
    write_file(m_place.folder() / "my.conf", "writer_node=" + writer().address() + "\n");
    // Relative paths hold, though the daemon leaves the folder.
    start_daemon({"-d", "--pid-file", "router.pid", "--config", "my.conf"});
    const pid_t daemon = router().pid();
    const std::string proc = "/proc/" + std::to_string(daemon);

    EXPECT_EQ(read_file(m_place.folder() / "router.pid"), std::to_string(daemon)) << "and no line end";
    EXPECT_EQ(getsid(daemon), daemon) << "a session of its own";
    EXPECT_EQ(fs::read_symlink(proc + "/cwd"), "/tmp");
    EXPECT_EQ(status_field(daemon, "Umask"), "0000");
    EXPECT_TRUE(is_same_file(proc + "/fd/0", "/dev/null"));
    EXPECT_TRUE(is_same_file(proc + "/fd/1", daemon_log()));
    EXPECT_TRUE(is_same_file(proc + "/fd/2", daemon_log()));

    send_start(1, TO_WRITER);
    EXPECT_TRUE(writer().receive().has_value());
    EXPECT_TRUE(has_record(USER_NOTICE, daemon,
                           "SYSTEM  | ROUTING_MANAGER: " + std::string(DEFAULT_UUID_TEXT) +
                               ": assigned hosts: " + writer().address()));
    const int descriptor = router().receive_socket().descriptor;
    ASSERT_TRUE(router().wait_until_receiving());
    router().signal(SIGTERM);
    EXPECT_EQ(router().wait_for_exit(), exited(0));

    // Up to the switch the lines are those of the launcher, from there on those of the daemon; the facility is
    // LOG_USER, whatever openlog was given.
    const std::string main_thread = "[" + std::to_string(daemon) + "]";
    std::vector<SyslogRecord> records = log_records();
    const auto expect_begin = [&](std::size_t index, pid_t process, const std::string& text) {
        ASSERT_LT(index, records.size());
        EXPECT_EQ(records[index], (SyslogRecord{USER_NOTICE, tag_of(process), text + "\n", {}}));
    };
    expect_begin(0, m_launcher, "SYSTEM  | SERVICE: exec path: " + router_executable());
    expect_begin(1, m_launcher,
                 "SYSTEM  | SERVICE:  pid file: " + (m_place.folder() / "router.pid").string());
    EXPECT_THAT(records[2].text, MatchesRegex("SYSTEM  \\| build version: \".*\"\n"));
    EXPECT_EQ(records[2].tag, tag_of(m_launcher)) << "the version is logged before the switch";
    expect_begin(3, m_launcher, "SYSTEM  | DAEMON: starting application in daemon mode");
    expect_begin(4, daemon, "SYSTEM  | SERVICE: [corvalinrouter] main thread " + main_thread + " started");
    expect_begin(5, daemon,
                 "SYSTEM  | CONFIGURATION: reading from file [" + (m_place.folder() / "my.conf").string() +
                     "]");
    const auto listening = std::find_if(records.begin(), records.end(), [](const SyslogRecord& record) {
        return record.text.find("messages listening thread [") != std::string::npos;
    });
    ASSERT_NE(listening, records.end());
    const std::string listening_thread = listening->text.substr(0, listening->text.rfind(' '));
    const std::vector<SyslogRecord> end = {
        {USER_NOTICE, tag_of(daemon), "SYSTEM  | SERVICE: signal 15 has been received\n", {}},
        {USER_NOTICE, tag_of(daemon), "SYSTEM  | SERVICE: application stop has been requested\n", {}},
        {USER_INFO,
         tag_of(daemon),
         "INFO    | SOCKET[" + std::to_string(descriptor) + "]: system interrupted call\n",
         {}},
        {USER_NOTICE, tag_of(daemon), "SYSTEM  | PACKETS_READER: thread " + main_thread + " stopped\n", {}},
        {USER_NOTICE,
         tag_of(daemon),
         "SYSTEM  | MESSAGE_BROKER: rebalance \"Local: Revoke partitions\": [broadcast/0], "
         "[corvalin_router_127o0o0o1_0/0]\n",
         {}},
        {USER_NOTICE, tag_of(daemon), listening_thread + " stopped\n", {}},
        {USER_NOTICE,
         tag_of(daemon),
         "SYSTEM  | STATISTIC_SERVICE: thread " + main_thread + " stopped\n",
         {}},
        {USER_NOTICE,
         tag_of(daemon),
         "SYSTEM  | SERVICE: [corvalinrouter] main thread " + main_thread + " stopped\n",
         {}},
    };
    ASSERT_GT(records.size(), end.size());
    EXPECT_EQ(
        std::vector<SyslogRecord>(records.end() - static_cast<std::ptrdiff_t>(end.size()), records.end()),
        end);
    // The trace lines and the reports keep their facilities.
    EXPECT_EQ(syslog().texts(PACKET_NOTICE).size(), 1u);
    EXPECT_GE(reports(syslog(), 0).size(), 1u);

    EXPECT_EQ(router().raw_log(), std::vector<std::string>{}) << "nothing on the launcher's terminal";
    EXPECT_EQ(router().output(), std::vector<std::string>{});
    EXPECT_EQ(read_file(daemon_log()), "");
    EXPECT_TRUE(fs::exists(m_place.folder() / "router.pid")) << "nobody removes it";
}

TEST_F(DaemonTest, without_a_pid_file_option_no_pid_file_is_written) {
    start_daemon({"--daemon"});
    for (const auto& entry : fs::recursive_directory_iterator(m_place.folder())) {
        EXPECT_NE(entry.path().extension(), ".pid") << entry.path();
    }
    EXPECT_FALSE(fs::exists(router_executable() + ".pid"));
}

TEST_F(DaemonTest, a_pid_file_that_cannot_be_written_ends_the_daemon_behind_the_back_of_the_launcher) {
    const std::string path = (m_place.folder() / "missing" / "router.pid").string();
    m_router.emplace(m_place, std::vector<std::string>{"-d", "--pid-file", path});
    const pid_t launcher = router().pid();
    router().follow_daemon(); // which asks for the launcher's status 0
    ASSERT_NE(router().pid(), launcher);
    EXPECT_EQ(router().wait_for_exit(), exited(1));
    EXPECT_TRUE(has_record(USER_ERROR, router().pid(),
                           "ERROR   | DAEMON: failed to open pid file \"" + path +
                               "\"; error [2]: No such file or directory"));
    EXPECT_EQ(log_records().size(), 5u) << "four lines of the launcher and this one";
}

TEST_F(DaemonTest, a_daemon_without_its_log_folder_runs_with_its_streams_closed) {
    m_writers = std::vector<UdpNode>(1);
    write_file(m_place.router_conf(), "writer_node=" + writer().address() + "\n");
    fs::remove_all(m_place.log_folder());
    start_daemon({"-d"});
    send_start(1, TO_WRITER);
    EXPECT_TRUE(writer().receive().has_value());
    EXPECT_TRUE(has_record(PACKET_NOTICE, router().pid(),
                           "SYSTEM  | START | mt: 0, v: 0, f: w-, uuid: " + std::string(DEFAULT_UUID_TEXT) +
                               ", ts: 0, seq: 1, leg: inbound, call id: , id: 1, sync ts: 0, sync mt: 0"));
    EXPECT_EQ(router().raw_log(), std::vector<std::string>{}) << "the launcher's terminal is still held";
}

// The first pass looks at every argument by itself, the second one takes the value of an option whatever it is.
TEST_F(DaemonTest, a_daemon_option_in_the_place_of_a_value_counts_as_both) {
    write_file(m_place.folder() / "--daemon", "discard_media_node\n");
    start_daemon({"--config", "--daemon"});
    EXPECT_TRUE(has_record(USER_NOTICE, router().pid(),
                           "SYSTEM  | CONFIGURATION: reading from file [" +
                               (m_place.folder() / "--daemon").string() + "]"));
    EXPECT_TRUE(has_record(USER_NOTICE, router().pid(),
                           "SYSTEM  | CONFIGURATION: flag [discard_media_node] applied"));
}

TEST_F(DaemonTest, a_bad_command_line_is_reported_to_syslog_and_to_the_launcher) {
    const struct {
        const char* description;
        std::vector<std::string> arguments;
        int status;
        std::vector<std::string> lines;
    } cases[] = {
        {"help", {"-d", "--help"}, 0, {}},
        {"unknown argument", {"-d", "foo"}, 1, {}},
        {"value missing", {"-d", "-c"}, 1, {"ERROR   | SERVICE: value if not specified for option [-c]\n"}},
        {"the daemon option behind the mistake", {"foo", "-d"}, 1, {}},
    };
    for (const auto& row : cases) {
        RouterProcess process(m_place, row.arguments);
        EXPECT_EQ(process.wait_for_exit(), exited(row.status)) << row.description;
        EXPECT_EQ(process.raw_log(), std::vector<std::string>{}) << row.description;
        const SyslogSocket::Predicate of_process = [&](const SyslogRecord& record) {
            return record.tag == tag_of(process.pid());
        };
        std::vector<std::string> lines;
        for (const SyslogRecord& record : syslog().records(of_process)) {
            EXPECT_EQ(record.priority, USER_ERROR);
            lines.push_back(record.text);
        }
        EXPECT_EQ(lines, row.lines) << row.description;
    }
}

TEST_F(DaemonTest, a_start_that_fails_behind_the_switch_is_told_to_syslog_alone) {
    write_file(m_place.router_conf(), "port=x\n");
    m_router.emplace(m_place, std::vector<std::string>{"-d"});
    const pid_t launcher = router().pid();
    router().follow_daemon();
    ASSERT_NE(router().pid(), launcher);
    EXPECT_EQ(router().wait_for_exit(), exited(1));
    EXPECT_TRUE(
        has_record(USER_ERROR, router().pid(),
                   "ERROR   | CONFIGURATION: failed to set option [port] to [x]: unexpected value format"));
    EXPECT_TRUE(has_record(USER_NOTICE, router().pid(),
                           "SYSTEM  | SERVICE: [corvalinrouter] main thread [" +
                               std::to_string(router().pid()) + "] stopped"));
}

} // namespace
