#include "corvalin_lib/app_service.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "corvalin_lib/conf_configuration.h"
#include "corvalin_lib/log.h"
#include "corvalin_lib/net_socket.h"
#include "corvalin_lib/thread.h"
#include "tests/support/captured_log.h"
#include "tests/support/local_address.h"
#include "tests/support/private_syslog.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/waiting.h"
#include "tools/tool_support/private_paths.h"

namespace {

namespace fs = std::filesystem;
using namespace corvalin;
using test::CapturedLog;
using test::ChildReport;
using test::run_with_private_syslog;
using test::succeeded;
using test::TemporaryFolder;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

/// A command line as main gets it.
class CommandLine {
public:
    explicit CommandLine(const std::vector<const char*>& arguments)
        : m_texts(arguments.begin(), arguments.end()) {
        for (std::string& text : m_texts) {
            m_pointers.push_back(text.data());
        }
        m_pointers.push_back(nullptr);
    }
    int argc() const { return static_cast<int>(m_texts.size()); }
    char** argv() { return m_pointers.data(); }

private:
    std::vector<std::string> m_texts;
    std::vector<char*> m_pointers;
};

/// A service that tells what the frame asks of it. The logger's hooks are noted and not acted upon, so that a captured
/// log stays in place.
class TestService : public app::ServiceBase {
public:
    explicit TestService(bool supports_daemon_mode = true) : ServiceBase("unit") {
        m_capabilities.set(app::capability_daemon_mode, supports_daemon_mode);
    }

    int start(const std::vector<const char*>& arguments) {
        CommandLine line(arguments);
        return ServiceBase::start(line.argc(), line.argv());
    }
    Arguments pre_parse(const std::vector<const char*>& arguments) {
        CommandLine line(arguments);
        return pre_parse_args(line.argc(), line.argv());
    }

    using ServiceBase::m_application_name;
    using ServiceBase::m_capabilities;
    using ServiceBase::m_config_args;
    using ServiceBase::m_config_path;
    using ServiceBase::m_daemon_mode;
    using ServiceBase::m_daemonized;
    using ServiceBase::m_exec_path;
    using ServiceBase::m_pid_file;
    using ServiceBase::m_running;
    using ServiceBase::m_service_name;
    using ServiceBase::m_signal_stop;
    using ServiceBase::m_signal_update;
    using ServiceBase::m_signal_user1;
    using ServiceBase::m_signal_user2;
    using ServiceBase::parse_args;
    using ServiceBase::push_config_args;
    using ServiceBase::signals_handler;
    using ServiceBase::signals_subscribe;

    std::vector<std::string> m_events;
    bool m_has_real_logger = false;
    std::function<void()> m_pre_start;
    std::function<bool()> m_do_start;
    std::function<bool()> m_on_start;
    std::function<void()> m_logger_close;

    void on_logger_open() override {
        m_events.push_back("logger open");
        if (m_has_real_logger) {
            ServiceBase::on_logger_open();
        }
    }
    void on_logger_close() override {
        m_events.push_back("logger close");
        if (m_logger_close) {
            m_logger_close();
        }
        if (m_has_real_logger) {
            ServiceBase::on_logger_close();
        }
    }
    void on_pre_start() override {
        m_events.push_back("pre start");
        if (m_pre_start) {
            m_pre_start();
        }
    }
    void help() override { m_events.push_back("help"); }
    bool do_start() override {
        m_events.push_back("do start");
        return !m_do_start || m_do_start();
    }
    bool on_start() override {
        m_events.push_back("start");
        return !m_on_start || m_on_start();
    }
};

constexpr std::array<int, 7> SIGNALS = {SIGPIPE, SIGINT, SIGQUIT, SIGTERM, SIGHUP, SIGUSR1, SIGUSR2};

/// Puts back what a start changes in the process: signal actions, and the flags.
class AppServiceTest : public ::testing::Test {
protected:
    AppServiceTest() {
        for (std::size_t index = 0; index < SIGNALS.size(); ++index) {
            sigaction(SIGNALS[index], nullptr, &m_found_actions[index]);
        }
    }
    ~AppServiceTest() override {
        TestService::signals_subscribe();
        for (std::size_t index = 0; index < SIGNALS.size(); ++index) {
            sigaction(SIGNALS[index], &m_found_actions[index], nullptr);
        }
    }

    static std::string in_this_directory(const std::string& name) {
        return fs::current_path().string() + "/" + name;
    }
    static std::string thread_line(const char* what) {
        return "SERVICE: [corvalinunit] main thread [" + std::to_string(gettid()) + "] " + what;
    }

    std::array<struct sigaction, SIGNALS.size()> m_found_actions{};
    TestService m_service;
};

// ---- Construction

TEST_F(AppServiceTest, a_new_service_has_its_start_values) {
    EXPECT_EQ(m_service.m_service_name, "unit");
    EXPECT_EQ(m_service.m_application_name, "corvalinunit");
    EXPECT_EQ(m_service.m_config_path, "/etc/tolvaine/corvalin/unit.conf");
    EXPECT_EQ(m_service.m_exec_path, "");
    EXPECT_EQ(m_service.m_config_args, "");
    EXPECT_EQ(m_service.m_pid_file, "");
    EXPECT_EQ(m_service.m_running.load(), 0);
    EXPECT_FALSE(m_service.m_daemonized);
    EXPECT_FALSE(m_service.m_daemon_mode);
    EXPECT_THAT(m_service.m_events, IsEmpty());
}

// ---- start

TEST_F(AppServiceTest, a_start_calls_its_hooks_and_logs_its_lines_in_their_order) {
    const CapturedLog log;
    m_service.m_pre_start = [] { log::write("test", 1, log::InfoMessage() << "pre start"); };
    m_service.m_do_start = [] {
        log::write("test", 1, log::InfoMessage() << "do start");
        return true;
    };
    m_service.m_on_start = [this] {
        log::write("test", 1, log::InfoMessage() << "start");
        EXPECT_EQ(m_service.m_running.load(), 1);
        return true;
    };

    EXPECT_EQ(m_service.start({"/opt/x/unit", "--pid-file", "/run/unit.pid"}), 0);

    EXPECT_THAT(m_service.m_events,
                ElementsAre("logger open", "pre start", "do start", "start", "logger close"));
    EXPECT_THAT(log.texts(),
                ElementsAre("SERVICE: exec path: /opt/x/unit", "SERVICE:  pid file: /run/unit.pid",
                            "pre start", thread_line("started"), "do start", "start",
                            thread_line("stopped")));
    EXPECT_THAT(log.lines(log::Level::SYSTEM), SizeIs(4));
    EXPECT_EQ(log.lines()[0].file, "app_service");
    EXPECT_EQ(m_service.m_running.load(), 0);
    EXPECT_FALSE(m_service.m_daemonized);
}

TEST_F(AppServiceTest, the_status_tells_how_far_a_start_came) {
    struct Case {
        const char* description;
        bool do_start;
        bool on_start;
        std::vector<std::string> expected_events;
        int expected_status;
    };
    const std::vector<Case> cases = {
        {"clean stop", true, true, {"logger open", "pre start", "do start", "start", "logger close"}, 0},
        {"no start", true, false, {"logger open", "pre start", "do start", "start", "logger close"}, 1},
        {"no configuration", false, true, {"logger open", "pre start", "do start", "logger close"}, 1},
    };
    for (const Case& row : cases) {
        SCOPED_TRACE(row.description);
        const CapturedLog log;
        TestService service;
        service.m_do_start = [&row] { return row.do_start; };
        service.m_on_start = [&row] { return row.on_start; };

        EXPECT_EQ(service.start({"/opt/x/unit"}), row.expected_status);

        EXPECT_EQ(service.m_events, row.expected_events);
        EXPECT_EQ(service.m_running.load(), 0);
        EXPECT_THAT(log.texts(), ElementsAre("SERVICE: exec path: /opt/x/unit", thread_line("started"),
                                             thread_line("stopped")));
    }
}

TEST_F(AppServiceTest, a_service_can_start_again_behind_a_stop) {
    const CapturedLog log;
    EXPECT_EQ(m_service.start({"unit"}), 0);
    EXPECT_EQ(m_service.start({"unit"}), 0);
    EXPECT_THAT(m_service.m_events, SizeIs(10));
}

TEST_F(AppServiceTest, a_start_while_the_service_runs_returns_10_and_touches_nothing) {
    const CapturedLog log;
    m_service.m_on_start = [this] {
        EXPECT_EQ(m_service.start({"/other/unit", "-d", "--pid-file", "x", "--help"}), 10);
        return true;
    };
    EXPECT_EQ(m_service.start({"/opt/x/unit"}), 0);
    EXPECT_EQ(m_service.m_exec_path, "/opt/x/unit");
    EXPECT_EQ(m_service.m_pid_file, "");
    EXPECT_FALSE(m_service.m_daemon_mode);
    EXPECT_THAT(m_service.m_events,
                ElementsAre("logger open", "pre start", "do start", "start", "logger close"));
    EXPECT_THAT(log.lines(), SizeIs(3));
}

TEST_F(AppServiceTest, help_ends_the_start_with_0_an_open_logger_and_the_guard_set) {
    for (const char* const option : {"--help", "-h"}) {
        SCOPED_TRACE(option);
        const CapturedLog log;
        TestService service;
        EXPECT_EQ(service.start({"unit", option}), 0);
        EXPECT_THAT(service.m_events, ElementsAre("logger open", "help"));
        EXPECT_EQ(service.m_running.load(), 1);
        EXPECT_EQ(service.start({"unit"}), 10);
        EXPECT_THAT(service.m_events, SizeIs(2));
        EXPECT_THAT(log.lines(), IsEmpty());
    }
}

TEST_F(AppServiceTest, a_bad_command_line_ends_the_start_with_1_an_open_logger_and_the_guard_set) {
    struct Case {
        const char* description;
        std::vector<const char*> line;
        std::vector<std::string> expected_errors;
    };
    const std::vector<Case> cases = {
        {"unknown option", {"unit", "--bogus"}, {}},
        {"positional argument", {"unit", "foo"}, {}},
        {"unknown option in front of help", {"unit", "--bogus", "--help"}, {}},
        {"no value", {"unit", "-c"}, {"SERVICE: value if not specified for option [-c]"}},
    };
    for (const Case& row : cases) {
        SCOPED_TRACE(row.description);
        const CapturedLog log;
        TestService service;
        EXPECT_EQ(service.start(row.line), 1);
        EXPECT_THAT(service.m_events, ElementsAre("logger open"));
        EXPECT_EQ(service.m_running.load(), 1);
        EXPECT_EQ(log.texts(), row.expected_errors);
        EXPECT_EQ(log.texts(log::Level::ERROR), row.expected_errors);
    }
}

TEST_F(AppServiceTest, an_exception_of_a_hook_leaves_start) {
    struct Case {
        const char* description;
        std::function<void(TestService&)> arm;
    };
    const auto fail = [] { throw std::string("log level is forbidden"); };
    const std::vector<Case> cases = {
        {"on_pre_start", [&fail](TestService& service) { service.m_pre_start = fail; }},
        {"do_start",
         [&fail](TestService& service) {
             service.m_do_start = [&fail] {
                 fail();
                 return true;
             };
         }},
        {"on_start",
         [&fail](TestService& service) {
             service.m_on_start = [&fail] {
                 fail();
                 return true;
             };
         }},
    };
    for (const Case& row : cases) {
        SCOPED_TRACE(row.description);
        const CapturedLog log;
        TestService service;
        row.arm(service);
        try {
            service.start({"unit"});
            ADD_FAILURE() << "no exception";
        } catch (const std::string& text) {
            EXPECT_EQ(text, "log level is forbidden");
        }
        EXPECT_EQ(log.count(log::Level::SYSTEM, thread_line("stopped")), 0u);
        EXPECT_NE(service.m_events.back(), "logger close");
    }
}

TEST_F(AppServiceTest, the_hooks_of_the_base_class_do_nothing_and_let_the_start_go_on) {
    class Plain : public app::ServiceBase {
    public:
        Plain() : ServiceBase("plain") {}
        void help() override {}
        bool do_start() override { return true; }
        void on_logger_open() override {}
        void on_logger_close() override {}
    };
    const CapturedLog log;
    Plain service;
    CommandLine line({"/opt/x/plain"});
    EXPECT_EQ(service.start(line.argc(), line.argv()), 0);
    EXPECT_THAT(log.lines(), SizeIs(3));
}

// ---- The sink

TEST_F(AppServiceTest, a_service_in_the_foreground_logs_to_the_standard_log_stream_and_never_behind_its_end) {
    const ChildReport child = run_with_private_syslog([] {
        TestService service;
        service.m_has_real_logger = true;
        const log::LoggerImpl& logger = log::Logger::m_instance;
        log::Logger::m_instance.m_context = &service;
        service.m_on_start = [&logger] {
            const log::LoggerImpl::Write expected = &log::Stdlog::write;
            EXPECT_EQ(logger.m_write, expected);
            EXPECT_EQ(logger.m_close, nullptr);
            EXPECT_EQ(logger.m_context, nullptr);
            return true;
        };
        EXPECT_EQ(service.start({"/opt/x/unit"}), 0);
        EXPECT_EQ(logger.m_write, &log::LoggerImpl::dummy_write);
        EXPECT_EQ(logger.m_close, nullptr);
        EXPECT_EQ(logger.m_context, nullptr);
        log::write("test", 1, log::SystemMessage() << "behind the end");
    });
    EXPECT_TRUE(succeeded(child));
    EXPECT_THAT(child.syslog, IsEmpty());
    ASSERT_THAT(child.standard_error, SizeIs(3));
    EXPECT_THAT(child.standard_error[0], HasSubstr(" | SYSTEM  | SERVICE: exec path: /opt/x/unit\n"));
    EXPECT_THAT(child.standard_error[2], HasSubstr("] stopped\n"));
}

TEST_F(AppServiceTest, closing_the_logger_calls_the_close_function_with_its_context_once) {
    static int closed = 0;
    const CapturedLog restores_the_record;
    log::LoggerImpl& logger = log::Logger::m_instance;
    logger.m_context = &closed;
    logger.m_close = [](void* context) { ++*static_cast<int*>(context); };
    m_service.m_has_real_logger = true;

    m_service.on_logger_close();
    EXPECT_EQ(closed, 1);
    EXPECT_EQ(logger.m_close, nullptr);
    EXPECT_EQ(logger.m_context, nullptr);
    EXPECT_EQ(logger.m_write, &log::LoggerImpl::dummy_write);

    m_service.on_logger_close();
    EXPECT_EQ(closed, 1);
}

TEST_F(AppServiceTest, a_daemon_opens_syslog_with_its_name_its_number_and_the_daemon_facility_at_once) {
    const ChildReport child = run_with_private_syslog([] {
        const auto socket_count = [] {
            std::size_t count = 0;
            for (const fs::directory_entry& entry : fs::directory_iterator("/proc/self/fd")) {
                std::error_code error;
                count += fs::read_symlink(entry.path(), error).string().rfind("socket:", 0) == 0 ? 1 : 0;
            }
            return count;
        };
        TestService service;
        service.m_has_real_logger = true;
        service.m_daemon_mode = true;
        const std::size_t sockets_before = socket_count();
        log::Logger::m_instance.m_context = &service;

        service.on_logger_open();

        EXPECT_EQ(socket_count(), sockets_before + 1); // not delayed until the first line
        const log::LoggerImpl& logger = log::Logger::m_instance;
        const log::LoggerImpl::Write expected = &log::Syslog::write;
        EXPECT_EQ(logger.m_write, expected);
        EXPECT_EQ(logger.m_close, &log::Syslog::close);
        EXPECT_EQ(logger.m_context, nullptr);
        log::write("test", 1, log::ErrorMessage() << "TEST: through the logger");
        syslog(LOG_INFO, "with the facility of the process");

        service.on_logger_close();
        EXPECT_EQ(socket_count(), sockets_before);
        log::write("test", 1, log::ErrorMessage() << "TEST: dropped");
    });
    EXPECT_TRUE(succeeded(child));
    ASSERT_THAT(child.syslog, SizeIs(2));
    const test::SyslogLine line = test::parse_syslog(child.syslog[0]);
    EXPECT_THAT(line.identity, ::testing::MatchesRegex("corvalinunit\\[[0-9]+\\]"));
    EXPECT_EQ(line.priority, LOG_USER | LOG_ERR);
    EXPECT_EQ(line.text, "ERROR   | TEST: through the logger\n");
    EXPECT_EQ(test::parse_syslog(child.syslog[1]).priority, LOG_DAEMON | LOG_INFO);
    EXPECT_THAT(child.standard_error, IsEmpty());
}

TEST_F(AppServiceTest, a_daemon_without_syslog_logs_to_the_console) {
    const ChildReport child = run_with_private_syslog([] {
        ASSERT_EQ(unlink("/dev/log"), 0);
        std::ofstream("/dev/console").flush();
        TestService service;
        service.m_has_real_logger = true;
        service.m_daemon_mode = true;
        service.on_logger_open();
        log::write("test", 1, log::ErrorMessage() << "TEST: nobody listens");
        std::ostringstream console;
        console << std::ifstream("/dev/console").rdbuf();
        EXPECT_THAT(console.str(), HasSubstr("ERROR   | TEST: nobody listens"));
    });
    EXPECT_TRUE(succeeded(child));
}

// ---- First pass over the command line

TEST_F(AppServiceTest, the_first_pass_finds_the_executable_and_the_daemon_mode_and_keeps_all_arguments) {
    struct Case {
        const char* description;
        std::vector<const char*> line;
        bool expected_daemon_mode;
    };
    const std::vector<Case> cases = {
        {"nothing", {"bin/unit"}, false},
        {"long form", {"bin/unit", "--daemon"}, true},
        {"short form", {"bin/unit", "-d"}, true},
        {"behind others", {"bin/unit", "foo", "--help", "-d"}, true},
        {"as the value of another", {"bin/unit", "--config", "--daemon"}, true},
        {"twice", {"bin/unit", "-d", "-d"}, true},
        {"not quite", {"bin/unit", "--daemonize", "-D", "d", ""}, false},
    };
    for (const Case& row : cases) {
        SCOPED_TRACE(row.description);
        const CapturedLog log;
        TestService service;
        const TestService::Arguments arguments = service.pre_parse(row.line);
        EXPECT_EQ(arguments, TestService::Arguments(row.line.begin() + 1, row.line.end()));
        EXPECT_EQ(service.m_daemon_mode, row.expected_daemon_mode);
        EXPECT_EQ(service.m_exec_path, in_this_directory("bin/unit"));
        EXPECT_THAT(log.lines(), IsEmpty());
    }
}

TEST_F(AppServiceTest, the_first_pass_sets_no_daemon_mode_for_a_service_that_does_not_support_it) {
    TestService service(false);
    EXPECT_THAT(service.pre_parse({"unit", "-d", "--daemon"}), ElementsAre("-d", "--daemon"));
    EXPECT_FALSE(service.m_daemon_mode);
}

TEST_F(AppServiceTest, a_service_may_take_arguments_out_in_the_first_pass) {
    class Taker : public TestService {
    public:
        bool pre_parse_arg(const std::string& argument, int& remaining, char**& next) override {
            m_seen.push_back(argument + " " + std::to_string(remaining));
            if (argument != "--take") {
                return false;
            }
            m_taken = *next;
            ++next;
            --remaining;
            return true;
        }
        std::vector<std::string> m_seen;
        std::string m_taken;
    };
    Taker service;
    EXPECT_THAT(service.pre_parse({"unit", "a", "--take", "--daemon", "-d", "b"}),
                ElementsAre("a", "-d", "b"));
    EXPECT_THAT(service.m_seen, ElementsAre("a 4", "--take 3", "b 0"));
    EXPECT_EQ(service.m_taken, "--daemon");
    EXPECT_TRUE(service.m_daemon_mode);
}

// ---- Second pass

/// What a command line leaves in the fields.
struct Parsed {
    int result;
    std::string config_path;
    std::string pid_file;
    std::string config_args;
    bool daemon_mode;
};

bool operator==(const Parsed& left, const Parsed& right) {
    return left.result == right.result && left.config_path == right.config_path &&
           left.pid_file == right.pid_file && left.config_args == right.config_args &&
           left.daemon_mode == right.daemon_mode;
}

std::ostream& operator<<(std::ostream& stream, const Parsed& parsed) {
    return stream << parsed.result << " config: " << parsed.config_path << " pid: " << parsed.pid_file
                  << " args: " << parsed.config_args << " daemon: " << parsed.daemon_mode;
}

TEST_F(AppServiceTest, the_second_pass_fills_the_fields_from_left_to_right) {
    const std::string conf = "/etc/tolvaine/corvalin/unit.conf";
    struct Case {
        const char* description;
        std::vector<const char*> line;
        Parsed expected;
        std::vector<std::string> expected_errors;
    };
    const std::vector<Case> cases = {
        {"no arguments", {"/opt/x/unit"}, {0, conf, "", "", false}, {}},
        {"help", {"/opt/x/unit", "--help"}, {1, conf, "", "", false}, {}},
        {"help, short", {"/opt/x/unit", "-h"}, {1, conf, "", "", false}, {}},
        {"help in front of an unknown argument",
         {"/opt/x/unit", "--help", "--bogus"},
         {1, conf, "", "", false},
         {}},
        {"help behind options", {"/opt/x/unit", "-c", "/c", "-h"}, {1, "/c", "", "", false}, {}},
        {"options behind help are not looked at",
         {"/opt/x/unit", "-h", "-c", "/c", "-c"},
         {1, conf, "", "", false},
         {}},
        {"an unknown argument in front of help",
         {"/opt/x/unit", "--bogus", "--help"},
         {-1, conf, "", "", false},
         {}},
        {"a positional argument", {"/opt/x/unit", "foo"}, {-1, conf, "", "", false}, {}},
        {"an empty argument", {"/opt/x/unit", ""}, {-1, conf, "", "", false}, {}},
        {"an option joined with its value", {"/opt/x/unit", "--config=/c"}, {-1, conf, "", "", false}, {}},
        {"daemon", {"/opt/x/unit", "--daemon"}, {0, conf, "", "", true}, {}},
        {"daemon, short", {"/opt/x/unit", "-d", "-d"}, {0, conf, "", "", true}, {}},
        {"configuration", {"/opt/x/unit", "--config", "/a/b.conf"}, {0, "/a/b.conf", "", "", false}, {}},
        {"configuration, short, the last one wins",
         {"/opt/x/unit", "-c", "/a", "--config", "/b", "-c", "/c"},
         {0, "/c", "", "", false},
         {}},
        {"a relative configuration",
         {"/opt/x/unit", "-c", "b.conf"},
         {0, in_this_directory("b.conf"), "", "", false},
         {}},
        {"an option as a value",
         {"/opt/x/unit", "--config", "--daemon"},
         {0, in_this_directory("--daemon"), "", "", true},
         {}},
        {"the default pid file",
         {"/opt/x/unit", "--pid-file-default"},
         {0, conf, "/opt/x/unit.pid", "", false},
         {}},
        {"a pid file", {"/opt/x/unit", "--pid-file", "/run/x"}, {0, conf, "/run/x", "", false}, {}},
        {"a relative pid file",
         {"/opt/x/unit", "--pid-file", "x.pid"},
         {0, conf, in_this_directory("x.pid"), "", false},
         {}},
        {"the last pid file wins",
         {"/opt/x/unit", "--pid-file", "/run/x", "--pid-file-default"},
         {0, conf, "/opt/x/unit.pid", "", false},
         {}},
        {"the last pid file wins, the other way round",
         {"/opt/x/unit", "--pid-file-default", "--pid-file", "/run/x"},
         {0, conf, "/run/x", "", false},
         {}},
        {"arguments", {"/opt/x/unit", "--args", "a=1,b"}, {0, conf, "", "a=1,b", false}, {}},
        {"the newest arguments stand in front",
         {"/opt/x/unit", "--args", "a=1", "--args", "b=2", "--args", "c"},
         {0, conf, "", "c,b=2,a=1", false},
         {}},
        {"empty arguments change nothing",
         {"/opt/x/unit", "--args", "", "--args", "a=1", "--args", ""},
         {0, conf, "", "a=1", false},
         {}},
        {"configuration without a value",
         {"/opt/x/unit", "--config"},
         {-2, conf, "", "", false},
         {"SERVICE: value if not specified for option [--config]"}},
        {"configuration, short, without a value",
         {"/opt/x/unit", "--args", "a", "-c"},
         {-2, conf, "", "a", false},
         {"SERVICE: value if not specified for option [-c]"}},
        {"pid file without a value",
         {"/opt/x/unit", "--pid-file"},
         {-2, conf, "", "", false},
         {"SERVICE: value if not specified for option [--pid-file]"}},
        {"arguments without a value",
         {"/opt/x/unit", "--args"},
         {-2, conf, "", "", false},
         {"SERVICE: value if not specified for option [--args]"}},
    };
    for (const Case& row : cases) {
        SCOPED_TRACE(row.description);
        const CapturedLog log;
        TestService service;
        const TestService::Arguments arguments = service.pre_parse(row.line);
        const int result = service.parse_args(arguments);
        EXPECT_EQ((Parsed{result, service.m_config_path, service.m_pid_file, service.m_config_args,
                          service.m_daemon_mode}),
                  row.expected);
        EXPECT_EQ(log.texts(), row.expected_errors);
        EXPECT_EQ(log.texts(log::Level::ERROR), row.expected_errors);
    }
}

TEST_F(AppServiceTest, a_service_without_daemon_mode_warns_and_goes_on) {
    const CapturedLog log;
    TestService service(false);
    EXPECT_EQ(service.start({"unit", "-d", "--daemon"}), 0);
    EXPECT_FALSE(service.m_daemon_mode);
    EXPECT_FALSE(service.m_daemonized);
    EXPECT_THAT(log.texts(log::Level::WARNING),
                ElementsAre("SERVICE: daemon mode is not supported, ignoring option [-d]",
                            "SERVICE: daemon mode is not supported, ignoring option [--daemon]"));
}

TEST_F(AppServiceTest, a_service_may_read_arguments_of_its_own) {
    class Reader : public TestService {
    public:
        int parse_arg(Arguments::const_iterator& position, const Arguments::const_iterator& end) override {
            m_seen.push_back(*position + " " + std::to_string(end - position));
            if (*position == "--pair") {
                ++position;
                return 0;
            }
            if (*position == "--rest") {
                position = end;
                return 0;
            }
            return *position == "--seven" ? 7 : 0;
        }
        std::vector<std::string> m_seen;
    };
    struct Case {
        const char* description;
        TestService::Arguments arguments;
        int expected_result;
        std::vector<std::string> expected_seen;
    };
    const std::vector<Case> cases = {
        {"one that it takes alone", {"x", "-h"}, 1, {"x 2"}},
        {"one with a value", {"--pair", "-h", "y"}, 0, {"--pair 3", "y 1"}},
        {"one that takes the rest", {"x", "--rest", "-h", "-h"}, 0, {"x 4", "--rest 3"}},
        {"the last one", {"--args", "a", "x"}, 0, {"x 1"}},
        {"a result of its own", {"--seven", "-h"}, 7, {"--seven 2"}},
    };
    for (const Case& row : cases) {
        SCOPED_TRACE(row.description);
        const CapturedLog log;
        Reader service;
        EXPECT_EQ(service.parse_args(row.arguments), row.expected_result);
        EXPECT_EQ(service.m_seen, row.expected_seen);
        EXPECT_THAT(log.lines(), IsEmpty());
    }
}

TEST_F(AppServiceTest, a_result_of_the_service_that_is_1_asks_for_help_and_any_other_ends_the_start_with_1) {
    class Reader : public TestService {
    public:
        int parse_arg(Arguments::const_iterator& /*position*/,
                      const Arguments::const_iterator& /*end*/) override {
            return m_result;
        }
        int m_result = 0;
    };
    for (const auto& [result, status, event] :
         {std::tuple{1, 0, "help"}, std::tuple{7, 1, "logger open"}, std::tuple{-9, 1, "logger open"}}) {
        SCOPED_TRACE(result);
        const CapturedLog log;
        Reader service;
        service.m_result = result;
        EXPECT_EQ(service.start({"unit", "x"}), status);
        EXPECT_EQ(service.m_events.back(), event);
    }
}

TEST_F(AppServiceTest, configuration_arguments_are_joined_in_front_or_behind) {
    struct Case {
        const char* old_text;
        const char* text;
        bool append;
        const char* expected;
    };
    const std::array<Case, 8> cases = {{
        {"", "", false, ""},
        {"", "", true, ""},
        {"", "a", false, "a"},
        {"", "a", true, "a"},
        {"a", "", false, "a"},
        {"a", "", true, "a"},
        {"a", "b", false, "b,a"},
        {"a", "b", true, "a,b"},
    }};
    for (const Case& row : cases) {
        TestService service;
        service.m_config_args = row.old_text;
        service.push_config_args(row.text, row.append);
        EXPECT_EQ(service.m_config_args, row.expected)
            << row.old_text << " " << row.text << " " << row.append;
    }
}

// ---- Signals

bool any_flag() {
    return TestService::m_signal_stop.load() != 0 || TestService::m_signal_update.load() ||
           TestService::m_signal_user1.load() || TestService::m_signal_user2.load();
}

TEST_F(AppServiceTest, a_subscription_clears_the_flags_ignores_sigpipe_and_installs_the_handler) {
    TestService::m_signal_stop.store(1);
    TestService::m_signal_update.store(true);
    TestService::m_signal_user1.store(true);
    TestService::m_signal_user2.store(true);

    TestService::signals_subscribe();

    EXPECT_FALSE(any_flag());
    for (const int number : SIGNALS) {
        SCOPED_TRACE(strsignal(number));
        struct sigaction action {};
        ASSERT_EQ(sigaction(number, nullptr, &action), 0);
        if (number == SIGPIPE) {
            EXPECT_EQ(action.sa_handler, SIG_IGN);
            continue;
        }
        constexpr unsigned int restorer = 0x04000000; // set by the C library
        EXPECT_EQ(static_cast<unsigned int>(action.sa_flags) & ~restorer,
                  static_cast<unsigned int>(SA_SIGINFO));
        EXPECT_EQ(action.sa_sigaction, &TestService::signals_handler);
        for (int other = 1; other < NSIG; ++other) {
            EXPECT_EQ(sigismember(&action.sa_mask, other), 0) << other;
        }
    }
}

TEST_F(AppServiceTest, each_signal_logs_its_lines_and_raises_its_flag) {
    struct Case {
        int number;
        const char* first_line;
        const char* second_line;
        std::function<bool()> flag;
    };
    const auto stop = [] { return TestService::m_signal_stop.load() == 1; };
    const std::vector<Case> cases = {
        {SIGHUP, "SERVICE: signal 1 has been received", "SERVICE: update has been requested",
         [] { return TestService::m_signal_update.load(); }},
        {SIGINT, "SERVICE: signal 2 has been received", "SERVICE: application stop has been requested", stop},
        {SIGQUIT, "SERVICE: signal 3 has been received", "SERVICE: application stop has been requested",
         stop},
        {SIGUSR1, "SERVICE: signal 10 has been received", "SERVICE: user action #1 has been requested",
         [] { return TestService::m_signal_user1.load(); }},
        {SIGUSR2, "SERVICE: signal 12 has been received", "SERVICE: user action #2 has been requested",
         [] { return TestService::m_signal_user2.load(); }},
        {SIGTERM, "SERVICE: signal 15 has been received", "SERVICE: application stop has been requested",
         stop},
    };
    for (const Case& row : cases) {
        SCOPED_TRACE(row.first_line);
        const CapturedLog log;
        TestService::signals_subscribe();
        EXPECT_FALSE(row.flag());
        // Twice: a flag stays raised, and the lines come again.
        for (std::size_t times = 1; times <= 2; ++times) {
            ASSERT_EQ(raise(row.number), 0);
            EXPECT_TRUE(row.flag());
            EXPECT_EQ(log.count(log::Level::SYSTEM, row.first_line), times);
            EXPECT_EQ(log.count(log::Level::SYSTEM, row.second_line), times);
            EXPECT_THAT(log.lines(), SizeIs(2 * times));
            EXPECT_EQ(log.texts()[0], row.first_line);
        }
        const int raised =
            (TestService::m_signal_stop.load() != 0 ? 1 : 0) + (TestService::m_signal_update.load() ? 1 : 0) +
            (TestService::m_signal_user1.load() ? 1 : 0) + (TestService::m_signal_user2.load() ? 1 : 0);
        EXPECT_EQ(raised, 1);
    }
}

TEST_F(AppServiceTest, the_lines_of_a_signal_come_ahead_of_its_flag) {
    static bool was_raised = false;
    static int lines = 0;
    const CapturedLog restores_the_record;
    log::Logger::m_instance.m_write = [](void*, const char*, int, const log::Message&) {
        ++lines;
        was_raised = was_raised || any_flag();
    };
    for (const int number : {SIGHUP, SIGINT, SIGQUIT, SIGUSR1, SIGUSR2, SIGTERM}) {
        TestService::signals_subscribe();
        ASSERT_EQ(raise(number), 0);
        EXPECT_FALSE(was_raised) << number;
        EXPECT_TRUE(any_flag()) << number;
    }
    EXPECT_EQ(lines, 12);
}

TEST_F(AppServiceTest, the_handler_warns_of_sigpipe_and_raises_nothing) {
    const CapturedLog log;
    TestService::signals_subscribe();
    TestService::signals_handler(SIGPIPE, nullptr, nullptr);
    EXPECT_THAT(log.texts(), ElementsAre("SERVICE: signal 13 has been received",
                                         "SERVICE: signal SIGPIPE has been ignored"));
    EXPECT_EQ(log.lines()[0].level, log::Level::SYSTEM);
    EXPECT_EQ(log.lines()[1].level, log::Level::WARNING);
    EXPECT_FALSE(any_flag());
}

TEST_F(AppServiceTest, the_handler_has_one_line_for_any_other_signal) {
    for (const int number : {SIGALRM, SIGCHLD, SIGWINCH}) {
        const CapturedLog log;
        TestService::signals_subscribe();
        TestService::signals_handler(number, nullptr, nullptr);
        EXPECT_THAT(log.texts(),
                    ElementsAre("SERVICE: signal " + std::to_string(number) + " has been received"));
        EXPECT_FALSE(any_flag());
    }
}

TEST_F(AppServiceTest, the_handler_leaves_errno_as_it_was) {
    const CapturedLog restores_the_record;
    log::Logger::m_instance.m_write = [](void*, const char*, int, const log::Message&) { errno = EBADF; };
    TestService::signals_subscribe();
    errno = E2BIG;
    raise(SIGUSR1);
    EXPECT_EQ(errno, E2BIG);
    TestService::signals_handler(SIGALRM, nullptr, nullptr);
    EXPECT_EQ(errno, E2BIG);
}

TEST_F(AppServiceTest, a_write_to_a_closed_peer_is_an_error_and_not_the_end) {
    TestService::signals_subscribe();
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
    close(ends[0]);
    EXPECT_EQ(write(ends[1], "x", 1), -1);
    EXPECT_EQ(errno, EPIPE);
    close(ends[1]);
}

bool is_in_system_call(pid_t thread_id, int number) {
    int current = -1;
    std::ifstream("/proc/self/task/" + std::to_string(thread_id) + "/syscall") >> current;
    return current == number;
}

// The read must not be taken up again, since that is how a stop reaches the receive loop. One signal each, and only
// while the reader waits: a second one might meet it at work on the captured log.
TEST_F(AppServiceTest, each_signal_interrupts_a_read_that_waits) {
    net::Socket socket;
    ASSERT_TRUE(socket.open(0, INADDR_LOOPBACK));
    const sockaddr_in local = test::local_address(socket.descriptor());
    TestService::signals_subscribe();
    for (const int number : {SIGHUP, SIGINT, SIGQUIT, SIGUSR1, SIGUSR2, SIGTERM}) {
        SCOPED_TRACE(strsignal(number));
        const CapturedLog log;
        const pthread_t reader = pthread_self();
        const pid_t reader_id = gettid();
        std::atomic<bool> has_returned{false};
        std::thread sender([&] {
            test::wait_until([reader_id] { return is_in_system_call(reader_id, SYS_recvfrom); });
            pthread_kill(reader, number);
            if (!test::wait_until([&has_returned] { return has_returned.load(); })) {
                socket.send(local, "x", 1); // ends a read that was taken up again
            }
        });
        unsigned char byte = 0;
        const unsigned long received = socket.read(&byte, 1);
        has_returned.store(true);
        sender.join();
        EXPECT_EQ(received, 0u);
        EXPECT_EQ(log.count(log::Level::INFO,
                            "SOCKET[" + std::to_string(socket.descriptor()) + "]: system interrupted call"),
                  1u);
    }
}

// Subscribed to behind the hook, so this is the last moment without a handler.
TEST_F(AppServiceTest, a_signal_ahead_of_the_subscription_ends_the_process) {
    for (const int number : {SIGHUP, SIGINT, SIGQUIT, SIGUSR1, SIGUSR2, SIGTERM}) {
        SCOPED_TRACE(strsignal(number));
        const ChildReport child = run_with_private_syslog([number] {
            const rlimit no_core = {0, 0};
            setrlimit(RLIMIT_CORE, &no_core);
            signal(number, SIG_DFL); // whatever the test program has inherited
            TestService service;
            service.m_pre_start = [number] { raise(number); };
            service.start({"unit"});
        });
        EXPECT_TRUE(WIFSIGNALED(child.wait_status));
        EXPECT_EQ(WTERMSIG(child.wait_status), number);
    }
}

TEST_F(AppServiceTest, a_start_subscribes_to_signals_between_the_pre_start_and_the_configuration) {
    const auto is_subscribed = [] {
        struct sigaction action {};
        sigaction(SIGTERM, nullptr, &action);
        return (action.sa_flags & SA_SIGINFO) != 0 && action.sa_sigaction == &TestService::signals_handler;
    };
    const CapturedLog log;
    TestService::m_signal_stop.store(1);
    m_service.m_pre_start = [&] { EXPECT_FALSE(is_subscribed()); };
    m_service.m_do_start = [&] {
        EXPECT_TRUE(is_subscribed());
        EXPECT_EQ(TestService::m_signal_stop.load(), 0);
        return true;
    };
    EXPECT_EQ(m_service.start({"unit"}), 0);
}

// ---- Daemon mode

std::size_t thread_count() {
    return static_cast<std::size_t>(std::distance(fs::directory_iterator("/proc/self/task"), {}));
}

/// Starts a service in a process with a private /var/log, and waits for its daemon as well.
class AppServiceDaemonTest : public AppServiceTest {
protected:
    AppServiceDaemonTest() {
        fs::create_directory(m_folder.path() + "/log");
        fs::create_directory(m_folder.path() + "/log/corvalin");
        prctl(PR_SET_CHILD_SUBREAPER, 1);
    }
    ~AppServiceDaemonTest() override { prctl(PR_SET_CHILD_SUBREAPER, 0); }

    void run(const std::function<void()>& body) {
        m_report = run_with_private_syslog([&] {
            tools::PrivatePaths paths;
            paths.log_dir = m_folder.path() + "/log";
            tools::enter_private_paths(paths);
            ASSERT_EQ(chdir(m_folder.path().c_str()), 0);
            body();
        });
        int status = 0;
        while (waitpid(-1, &status, 0) > 0) {
            ++m_daemons;
            m_daemon_status = status;
        }
    }
    std::string content(const std::string& name) const {
        std::ostringstream text;
        text << std::ifstream(m_folder.path() + "/" + name).rdbuf();
        return text.str();
    }
    /// Texts of syslog from the process with this number, or from any other.
    std::vector<std::string> texts(const std::string& pid, bool is_same) const {
        std::vector<std::string> texts;
        for (const std::string& datagram : m_report.syslog) {
            const test::SyslogLine line = test::parse_syslog(datagram);
            if ((line.identity == "corvalinunit[" + pid + "]") == is_same) {
                texts.push_back(line.text);
            }
        }
        return texts;
    }

    TemporaryFolder m_folder;
    ChildReport m_report;
    int m_daemons = 0;
    int m_daemon_status = -1;
};

TEST_F(AppServiceDaemonTest, a_daemon_logs_to_syslog_from_both_processes_and_works_in_the_child) {
    run([] {
        const pid_t launcher = getpid();
        const std::size_t threads_before = thread_count(); // a sanitizer may have one of its own
        TestService service;
        service.m_has_real_logger = true;
        service.m_pre_start = [&] { EXPECT_FALSE(service.m_daemonized); };
        service.m_logger_close = [&] {
            if (getpid() == launcher) {
                // The parent on its way out: it has neither handlers nor threads.
                struct sigaction action {};
                sigaction(SIGTERM, nullptr, &action);
                EXPECT_EQ(action.sa_flags & SA_SIGINFO, 0);
                EXPECT_EQ(thread_count(), threads_before);
                EXPECT_EQ(service.m_events.back(), "logger close");
                if (HasFailure()) {
                    std::_Exit(99); // the status of the parent is what the test looks at
                }
            }
        };
        service.m_do_start = [&] {
            EXPECT_TRUE(service.m_daemonized);
            EXPECT_NE(getpid(), launcher);
            EXPECT_EQ(getsid(0), getpid());
            EXPECT_EQ(fs::current_path().string(), fs::canonical("/tmp").string());
            struct sigaction action {};
            sigaction(SIGTERM, nullptr, &action);
            EXPECT_NE(action.sa_flags & SA_SIGINFO, 0);
            return true;
        };
        EXPECT_EQ(service.start({"/opt/x/unit", "-d", "--pid-file", "unit.pid", "-c", "unit.conf"}), 0);
        EXPECT_THAT(service.m_events, ElementsAre("logger open", "pre start", "logger open", "do start",
                                                  "start", "logger close"));
        EXPECT_EQ(service.m_config_path,
                  service.m_pid_file.substr(0, service.m_pid_file.size() - 8) + "unit.conf");
    });
    EXPECT_TRUE(succeeded(m_report));
    EXPECT_EQ(m_daemons, 1);
    EXPECT_EQ(m_daemon_status, 0) << content("log/corvalin/unit_daemon.log");
    const std::string pid = content("unit.pid");
    EXPECT_THAT(texts(pid, false),
                ElementsAre("SYSTEM  | SERVICE: exec path: /opt/x/unit\n",
                            "SYSTEM  | SERVICE:  pid file: " + m_folder.path() + "/unit.pid\n",
                            "SYSTEM  | DAEMON: starting application in daemon mode\n"));
    EXPECT_THAT(texts(pid, true),
                ElementsAre("SYSTEM  | SERVICE: [corvalinunit] main thread [" + pid + "] started\n",
                            "SYSTEM  | SERVICE: [corvalinunit] main thread [" + pid + "] stopped\n"));
    EXPECT_THAT(m_report.standard_error, IsEmpty());
}

TEST_F(AppServiceDaemonTest, a_daemon_that_cannot_write_its_pid_file_closes_the_logger_and_ends_with_1) {
    run([this] {
        const pid_t launcher = getpid();
        TestService service;
        service.m_has_real_logger = true;
        service.m_logger_close = [this, launcher] {
            if (getpid() != launcher) {
                std::ofstream(m_folder.path() + "/closed") << getpid();
            }
        };
        service.start({"/opt/x/unit", "--daemon", "--pid-file", "missing/pid"});
        ADD_FAILURE() << "the start has returned";
    });
    EXPECT_EQ(m_report.wait_status, 0); // the parent
    EXPECT_EQ(m_daemons, 1);
    ASSERT_TRUE(WIFEXITED(m_daemon_status));
    EXPECT_EQ(WEXITSTATUS(m_daemon_status), 1);
    EXPECT_THAT(texts(content("closed"), true),
                ElementsAre("ERROR   | DAEMON: failed to open pid file \"" + m_folder.path() +
                            "/missing/pid\"; error [2]: No such file or directory\n"));
    EXPECT_FALSE(fs::exists(m_folder.path() + "/missing"));
}

TEST_F(AppServiceDaemonTest, a_daemon_without_a_pid_file_option_writes_none) {
    run([] {
        TestService service;
        service.m_has_real_logger = true;
        EXPECT_EQ(service.start({"/opt/x/unit", "-d"}), 0);
    });
    EXPECT_TRUE(succeeded(m_report));
    EXPECT_EQ(m_daemon_status, 0) << content("log/corvalin/unit_daemon.log");
    EXPECT_THAT(m_report.syslog, SizeIs(4)); // without the line of the pid file
    std::vector<std::string> names;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(m_folder.path())) {
        names.push_back(entry.path().filename().string());
    }
    EXPECT_THAT(names, ::testing::UnorderedElementsAre("log", "corvalin", "unit_daemon.log"));
}

TEST_F(AppServiceTest, without_daemon_mode_no_pid_file_is_written_though_its_path_is_logged) {
    const TemporaryFolder folder;
    const CapturedLog log;
    EXPECT_EQ(m_service.start({"unit", "--pid-file", (folder.path() + "/pid").c_str()}), 0);
    EXPECT_EQ(log.count(log::Level::SYSTEM, "SERVICE:  pid file: " + folder.path() + "/pid"), 1u);
    EXPECT_FALSE(fs::exists(folder.path() + "/pid"));
}

// ---- A service with a configuration

/// Knows the options "name" and "flag", and refuses the value "bad".
class TestConfiguration : public conf::Configuration {
public:
    TestConfiguration() { ++alive; }
    ~TestConfiguration() override { --alive; }

    int set_flag(const std::string& name, std::stringstream& message) override {
        if (name != "flag") {
            return Configuration::set_flag(name, message);
        }
        m_flag = true;
        return conf::option_applied;
    }
    int set_value(const std::string& name, const std::string& value, std::stringstream& message) override {
        if (name != "name") {
            return Configuration::set_value(name, value, message);
        }
        if (value == "bad") {
            return conf::option_bad_format;
        }
        m_name = value;
        return conf::option_applied;
    }

    std::string m_name = "default";
    bool m_flag = false;
    static inline int alive = 0;
};

class ConfiguredService : public app::Service<TestConfiguration, false> {
public:
    ConfiguredService() : Service("unit") { m_config_path = "/nonexistent/unit.conf"; }

    void on_config() override {
        ++m_configs_seen;
        EXPECT_TRUE(m_config);
    }

    using Service::do_start;
    using Service::help;
    using Service::m_config;
    using Service::m_config_args;
    using Service::m_config_path;
    int m_configs_seen = 0;
};

constexpr const char* DEFAULTS = "CONFIGURATION: file is not specified, default values are used";

TEST_F(AppServiceTest, help_of_a_service_prints_nothing) {
    const ChildReport child = run_with_private_syslog([] {
        ::testing::internal::CaptureStdout();
        ConfiguredService().help();
        EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
    });
    EXPECT_TRUE(succeeded(child));
    EXPECT_THAT(child.standard_error, IsEmpty());
    EXPECT_THAT(child.syslog, IsEmpty());
}

TEST_F(AppServiceTest, a_service_reads_its_file_and_then_its_arguments) {
    const TemporaryFolder folder;
    const std::string good = folder.write_file("good.conf", "name=file\nflag\n");
    const std::string bad = folder.write_file("bad.conf", "name=bad\n");
    const std::string missing = folder.path() + "/missing.conf";
    struct Case {
        const char* description;
        std::string path;
        std::string args;
        bool expected_result;
        std::string expected_name;
        bool expected_flag;
        std::vector<std::string> expected_texts;
    };
    const std::string reading_good = "CONFIGURATION: reading from file [" + good + "]";
    const std::string reading_bad = "CONFIGURATION: reading from file [" + bad + "]";
    const std::vector<Case> cases = {
        {"no file, no arguments", missing, "", true, "default", false, {DEFAULTS}},
        {"no file",
         missing,
         "name=args",
         true,
         "args",
         false,
         {DEFAULTS, "CONFIGURATION: reading from args: name=args"}},
        {"file", good, "", true, "file", true, {reading_good}},
        {"the arguments win",
         good,
         "name=args",
         true,
         "args",
         true,
         {reading_good, "CONFIGURATION: reading from args: name=args"}},
        {"bad file", bad, "", false, "", false, {reading_bad}},
        {"bad file, the arguments are not read", bad, "name=args", false, "", false, {reading_bad}},
        {"bad arguments",
         good,
         "name=bad",
         false,
         "",
         false,
         {reading_good, "CONFIGURATION: reading from args: name=bad"}},
    };
    for (const Case& row : cases) {
        SCOPED_TRACE(row.description);
        const CapturedLog log;
        ConfiguredService service;
        service.m_config_path = row.path;
        service.m_config_args = row.args;

        EXPECT_EQ(service.do_start(), row.expected_result);

        std::vector<std::string> sources;
        for (const std::string& text : log.texts()) {
            if (text == DEFAULTS || text.find("reading from") != std::string::npos) {
                sources.push_back(text);
            }
        }
        EXPECT_EQ(sources, row.expected_texts);
        EXPECT_EQ(service.m_configs_seen, row.expected_result ? 1 : 0);
        EXPECT_EQ(static_cast<bool>(service.m_config), row.expected_result);
        if (row.expected_result) {
            EXPECT_EQ(service.m_config->m_name, row.expected_name);
            EXPECT_EQ(service.m_config->m_flag, row.expected_flag);
            EXPECT_EQ(service.m_config->reference_count(), 1);
        }
        EXPECT_EQ(TestConfiguration::alive, row.expected_result ? 1 : 0);
    }
    EXPECT_EQ(TestConfiguration::alive, 0);
}

TEST_F(AppServiceTest, a_second_configuration_replaces_the_first_and_a_bad_one_leaves_none) {
    const CapturedLog log;
    ConfiguredService service;
    service.m_config_args = "name=first";
    ASSERT_TRUE(service.do_start());
    service.m_config_args = "name=second";
    ASSERT_TRUE(service.do_start());
    EXPECT_EQ(service.m_config->m_name, "second");
    EXPECT_EQ(TestConfiguration::alive, 1);

    service.m_config_args = "name=bad";
    EXPECT_FALSE(service.do_start());
    EXPECT_FALSE(service.m_config);
    EXPECT_EQ(TestConfiguration::alive, 0);
    EXPECT_EQ(service.m_configs_seen, 2);
}

TEST_F(AppServiceTest, a_bad_configuration_ends_the_start_with_1_behind_the_stopped_line) {
    const CapturedLog log;
    class Quiet : public ConfiguredService {
    public:
        void on_logger_open() override {}
        void on_logger_close() override {}
        bool on_start() override {
            ADD_FAILURE() << "started without a configuration";
            return true;
        }
    };
    Quiet service;
    CommandLine line({"unit", "--config", "/nonexistent/unit.conf", "--args", "name=bad"});
    EXPECT_EQ(service.start(line.argc(), line.argv()), 1);
    EXPECT_EQ(log.texts().back(), thread_line("stopped"));
}

} // namespace
