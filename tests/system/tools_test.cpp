// The tools as a user runs them: real processes that talk to each other over loopback, without the router.
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <numeric>
#include <set>
#include <string>
#include <vector>

#include "corvalin_lib/json.h"
#include "corvalin_lib/media_packet.h"
#include "tests/support/packet_builder.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/tool_process.h"
#include "tools/tool_support/garbage.h"
#include "tools/tool_support/media_stream.h"
#include "tools/tool_support/private_paths.h"
#include "tools/tool_support/udp_batch.h"

namespace corvalin::test {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

constexpr uid_t NOBODY = 65534;

std::set<std::string> names_in(const fs::path& dir) {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(dir)) {
        names.insert(entry.path().filename().string());
    }
    return names;
}

// The names that the wrapper makes visible to its command, as the machine outside sees them.
struct MachineView {
    bool has_etc = fs::exists("/etc/tolvaine");
    bool has_log = fs::exists("/var/log/tolvaine");
    bool has_dev_log = fs::exists("/dev/log");
    std::set<std::string> etc = names_in("/etc");
    std::set<std::string> log = names_in("/var/log");
    bool operator==(const MachineView&) const = default;
};

class PrivateRunTest : public testing::Test {
protected:
    PrivateRunTest() {
        fs::permissions(m_temp.path(), fs::perms(0755)); // another user must get through
        fs::create_directory(m_temp.path() + "/log");
        fs::permissions(m_temp.path() + "/log", fs::perms(0777));
        m_temp.write_file("etc/file.conf", "private\n");
        // A copy, as another user may have no way to the build folder.
        fs::copy_file(CORVALIN_PRIVATE_RUN_PATH, m_temp.path() + "/private_run");
    }

    static std::vector<std::string> as_nobody() {
        return {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "--"};
    }

    std::vector<std::string> with_private_paths(std::vector<std::string> words,
                                                const std::string& script) const {
        const std::string& temp = m_temp.path();
        words.insert(words.end(), {temp + "/private_run", "--etc", temp + "/etc", "--log", temp + "/log",
                                   "--dev-log", temp + "/syslog", "--", "sh", "-c", script});
        return words;
    }

    void expect_private_view(const std::vector<std::string>& prefix, uid_t uid) const {
        const std::string script = "id -u; cat /etc/tolvaine/file.conf; realpath /etc/tolvaine; ls /var/log; "
                                   "readlink /dev/log; cut -d: -f1 /etc/passwd | head -1; "
                                   "echo nothing > /dev/null; echo written > /var/log/tolvaine/new";
        ToolProcess process(with_private_paths(prefix, script));
        EXPECT_EQ(process.wait(), 0) << process.err();
        EXPECT_EQ(process.out(), std::to_string(uid) + "\nprivate\n/etc/tolvaine\ntolvaine\n" +
                                     m_temp.path() + "/syslog\nroot\n");
        EXPECT_EQ(read_file(m_temp.path() + "/log/new"), "written\n");
    }

    // The command waits for a signal, so that the machine is looked at while the private view exists.
    void expect_untouched_machine(const std::vector<std::string>& prefix) const {
        const MachineView before;
        ToolProcess process(with_private_paths(
            prefix, "ls -d /etc/tolvaine /var/log/tolvaine | tr '\\n' ' '; echo; exec sleep 60"));
        EXPECT_EQ(process.read_line(), "/etc/tolvaine /var/log/tolvaine ") << process.err();
        EXPECT_TRUE(before == MachineView());
        process.send_signal(SIGTERM);
        EXPECT_EQ(process.wait(), -SIGTERM);
        EXPECT_TRUE(before == MachineView());
    }

    TemporaryFolder m_temp;
};

TEST_F(PrivateRunTest, shows_the_private_paths_beside_the_entries_of_the_machine) {
    expect_private_view({}, getuid());
}

TEST_F(PrivateRunTest, shows_the_private_paths_to_a_user_without_rights) {
    if (getuid() == 0) {
        expect_private_view(as_nobody(), NOBODY);
    } else {
        expect_private_view({}, getuid());
    }
}

TEST_F(PrivateRunTest, leaves_the_paths_of_the_machine_alone) {
    expect_untouched_machine({});
}

TEST_F(PrivateRunTest, leaves_the_paths_of_the_machine_alone_when_run_by_a_user_without_rights) {
    expect_untouched_machine(getuid() == 0 ? as_nobody() : std::vector<std::string>{});
}

TEST_F(PrivateRunTest, lets_nothing_be_written_to_the_rest_of_etc) {
    ToolProcess process(with_private_paths({}, "echo >> /etc/hosts"));
    EXPECT_NE(process.wait(), 0);
    EXPECT_THAT(process.err(), testing::AnyOf(HasSubstr("Read-only file system"), HasSubstr("denied")));
}

TEST_F(PrivateRunTest, shows_shared_memory_of_the_machine) {
    const fs::path shared = "/dev/shm/corvalin_tools_" + std::to_string(getpid());
    write_file(shared, "shared\n");
    ToolProcess process(with_private_paths({}, "cat " + shared.string()));
    EXPECT_EQ(process.wait(), 0) << process.err();
    EXPECT_EQ(process.out(), "shared\n");
    fs::remove(shared);
}

TEST_F(PrivateRunTest, takes_directories_that_lie_below_a_covered_path) {
    const fs::path dir = "/dev/shm/corvalin_tools_dir_" + std::to_string(getpid());
    fs::create_directory(dir);
    write_file(dir / "file.conf", "covered\n");
    ToolProcess process({CORVALIN_PRIVATE_RUN_PATH, "--dev-log", m_temp.path() + "/syslog", "--etc",
                         dir.string(), "--", "cat", "/etc/tolvaine/file.conf"});
    EXPECT_EQ(process.wait(), 0) << process.err();
    EXPECT_EQ(process.out(), "covered\n");
    fs::remove_all(dir);
}

TEST_F(PrivateRunTest, gives_its_process_id_and_its_signals_to_the_command) {
    ToolProcess process(with_private_paths({}, "trap 'echo got it; exit 7' USR1; echo $$; "
                                               "while :; do sleep 0.01; done"));
    EXPECT_EQ(process.read_line(), std::to_string(process.pid()));
    process.send_signal(SIGUSR1);
    EXPECT_EQ(process.wait(), 7);
    EXPECT_EQ(process.out(), "got it\n");
}

TEST_F(PrivateRunTest, hands_options_behind_the_first_double_dash_to_the_command) {
    ToolProcess process({CORVALIN_PRIVATE_RUN_PATH, "--", "echo", "--etc", "--", "-x"});
    EXPECT_EQ(process.wait(), 0);
    EXPECT_EQ(process.out(), "--etc -- -x\n");
}

TEST_F(PrivateRunTest, tells_its_own_failures_from_those_of_the_command) {
    struct Case {
        const char* description;
        std::vector<std::string> arguments;
        int status;
        const char* message;
    };
    const Case cases[] = {
        {"status of the command", {"--", "sh", "-c", "exit 3"}, 3, ""},
        {"command not found",
         {"--", "/nonexistent/command"},
         127,
         "cannot run /nonexistent/command: No such file"},
        {"command not executable", {"--", "/etc"}, 126, "cannot run /etc: Permission denied"},
        {"no command", {"--net"}, 125, "no command given"},
        {"nothing behind the dashes", {"--"}, 125, "no command given"},
        {"unknown option", {"--bad", "--", "true"}, 125, "--bad"},
        {"no such directory",
         {"--etc", "/nonexistent", "--", "true"},
         125,
         "cannot open /nonexistent: No such file"},
        {"a file as directory",
         {"--log", "/etc/passwd", "--", "true"},
         125,
         "cannot use /etc/passwd: Not a directory"},
        {"socket without directory",
         {"--dev-log", "/nonexistent/s", "--", "true"},
         125,
         "the directory of /nonexistent/s"},
    };
    for (const Case& row : cases) {
        std::vector<std::string> words{CORVALIN_PRIVATE_RUN_PATH};
        words.insert(words.end(), row.arguments.begin(), row.arguments.end());
        ToolProcess process(words);
        EXPECT_EQ(process.wait(), row.status) << row.description << ": " << process.err();
        EXPECT_THAT(process.err(), HasSubstr(row.message)) << row.description;
        EXPECT_EQ(process.out(), "") << row.description;
    }
}

TEST_F(PrivateRunTest, starts_the_command_under_another_name) {
    ToolProcess process({CORVALIN_PRIVATE_RUN_PATH, "--name", "other", "--", "sh", "-c", "echo $0"});
    EXPECT_EQ(process.wait(), 0) << process.err();
    EXPECT_EQ(process.read_line(), "other");
}

TEST_F(PrivateRunTest, gives_the_command_a_network_with_nothing_but_loopback) {
    ToolProcess process(
        {CORVALIN_PRIVATE_RUN_PATH, "--net", "--", "sh", "-c",
         "readlink /proc/self/ns/net; tail -n +3 /proc/net/dev | cut -d: -f1; cat /proc/net/fib_trie"});
    EXPECT_EQ(process.wait(), 0) << process.err();
    EXPECT_NE(process.read_line(), fs::read_symlink("/proc/self/ns/net").string());
    EXPECT_EQ(process.read_line(), "    lo");
    EXPECT_THAT(process.out(), HasSubstr("127.0.0.1")); // the address comes with the interface going up
}

TEST_F(PrivateRunTest, can_be_entered_by_a_forked_child) {
    tools::PrivatePaths paths;
    paths.etc_dir = m_temp.path() + "/etc";
    paths.own_network = true;
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        try {
            tools::enter_private_paths(paths);
            _exit(access("/etc/tolvaine/file.conf", R_OK) == 0 ? 0 : 1);
        } catch (...) {
            _exit(2);
        }
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

/// What a tool reported in JSON.
class Report {
public:
    Report() = default;
    explicit Report(const std::string& text) : m_text(text) {
        m_json.Parse(text.c_str());
        if (m_json.HasParseError() || !m_json.IsObject()) {
            ADD_FAILURE() << "no JSON object: " << text;
            m_json.SetObject();
        }
    }

    /// The number at "a/b/0/c"; fails the test where there is none.
    uint64_t number(const std::string& path) const {
        const rapidjson::Value* const value = find(path);
        if (value == nullptr || !value->IsUint64()) {
            ADD_FAILURE() << "no number " << path << " in " << m_text;
            return 0;
        }
        return value->GetUint64();
    }
    bool flag(const std::string& path) const {
        const rapidjson::Value* const value = find(path);
        if (value == nullptr || !value->IsBool()) {
            ADD_FAILURE() << "no flag " << path << " in " << m_text;
            return false;
        }
        return value->GetBool();
    }
    bool has(const std::string& path) const { return find(path) != nullptr; }
    /// For failure messages.
    const std::string& text() const { return m_text; }

private:
    const rapidjson::Value* find(const std::string& path) const {
        const rapidjson::Value* value = &m_json;
        std::istringstream names(path);
        std::string name;
        while (value != nullptr && std::getline(names, name, '/')) {
            value = child(*value, name);
        }
        return value;
    }
    static const rapidjson::Value* child(const rapidjson::Value& value, const std::string& name) {
        if (value.IsObject()) {
            const auto member = value.FindMember(name.c_str());
            return member == value.MemberEnd() ? nullptr : &member->value;
        }
        const auto index = static_cast<rapidjson::SizeType>(std::stoul(name));
        return value.IsArray() && index < value.Size() ? &value[index] : nullptr;
    }

    std::string m_text;
    rapidjson::Document m_json;
};

/// A media node that reports in JSON when it ends.
class NodeProcess {
public:
    explicit NodeProcess(const std::vector<std::string>& options) : m_process(command(options)) {
        std::istringstream line(m_process.read_line());
        std::string word;
        line >> word;
        EXPECT_EQ(word, "ports") << m_process.err();
        while (line >> word) {
            m_ports.push_back(word);
        }
    }

    /// One for each port.
    const std::vector<std::string>& ports() const { return m_ports; }
    const std::string& port() const { return m_ports.at(0); }

    /// Ends the node. What was sent before is in its socket and is still counted.
    int stop() {
        m_process.send_signal(SIGTERM);
        return wait();
    }
    int wait() {
        const int status = m_process.wait();
        m_summary = Report(m_process.out());
        return status;
    }
    uint64_t total(const std::string& name) const { return m_summary.number("total/" + name); }
    const Report& summary() const { return m_summary; }

private:
    static std::vector<std::string> command(const std::vector<std::string>& options) {
        // Whatever becomes of the test, the node ends.
        std::vector<std::string> words{CORVALIN_MEDIA_NODE_PATH, "--json"};
        words.insert(words.end(), options.begin(), options.end());
        if (std::find(options.begin(), options.end(), "--duration") == options.end()) {
            words.insert(words.end(), {"--duration", "100"});
        }
        return words;
    }

    ToolProcess m_process;
    std::vector<std::string> m_ports;
    Report m_summary;
};

/// Runs a sender to its end and returns its report.
Report send_media(const std::string& target, const std::vector<std::string>& options) {
    std::vector<std::string> words{CORVALIN_MEDIA_SENDER_PATH, target, "--json"};
    words.insert(words.end(), options.begin(), options.end());
    ToolProcess sender(words);
    EXPECT_EQ(sender.wait(), 0) << sender.err();
    return Report(sender.out());
}

uint64_t garbage_of(const Report& report) {
    uint64_t sum = 0;
    for (const char* const kind : tools::GARBAGE_NAMES) {
        const uint64_t count = report.number(std::string("garbage/") + kind);
        EXPECT_GT(count, 0U) << kind;
        sum += count;
    }
    return sum;
}

TEST(MediaToolsTest, a_node_finds_the_packets_of_a_sender_complete_and_unchanged) {
    for (const char* const order : {"round-robin", "random"}) {
        NodeProcess node({"--verify-content"});
        const auto report = send_media(node.port(), {"--sessions", "200", "--packets", "10", "--rate", "5000",
                                                     "--order", order, "--live", "50", "--sockets", "3"});
        EXPECT_EQ(report.number("start/datagrams"), 200U);
        EXPECT_EQ(report.number("data/datagrams"), 2000U);
        EXPECT_EQ(report.number("data/bytes"), 2000U * 376);
        EXPECT_EQ(report.number("terminate/datagrams"), 200U);
        EXPECT_EQ(node.stop(), 0) << node.summary().text();
        EXPECT_EQ(node.total("start"), 200U);
        EXPECT_EQ(node.total("data"), 2000U);
        EXPECT_EQ(node.total("terminate"), 200U);
        EXPECT_EQ(node.total("bytes"), report.number("total/bytes"));
        EXPECT_EQ(node.total("sessions"), 200U);
        EXPECT_EQ(node.total("ended_sessions"), 200U);
        EXPECT_TRUE(node.summary().flag("clean"));
    }
}

TEST(MediaToolsTest, a_node_reports_injected_faults_and_exits_with_1) {
    struct Case {
        const char* description;
        std::vector<std::string> options;
        const char* injected; // in the sender's report
        std::vector<std::string> seen;
        std::vector<std::string> not_seen;
    };
    const Case cases[] = {
        {"loss", {"--loss", "5"}, "lost", {"missing"}, {"repeats", "after_end", "invalid", "changed"}},
        {"duplicates",
         {"--duplicate", "5"},
         "duplicated",
         {"repeats"},
         {"gaps", "missing", "after_end", "invalid", "changed"}},
        {"order",
         {"--reorder", "5"},
         "reordered",
         {"gaps", "missing", "repeats"},
         {"after_end", "invalid", "changed"}},
    };
    for (const Case& row : cases) {
        NodeProcess node({"--verify-content"});
        std::vector<std::string> options{"--sessions", "50",   "--packets",    "20",
                                         "--rate",     "5000", "--spare-edges"};
        options.insert(options.end(), row.options.begin(), row.options.end());
        const auto report = send_media(node.port(), options);
        const uint64_t injected = report.number(row.injected);
        EXPECT_GT(injected, 0U) << row.description << report.text();
        EXPECT_EQ(node.stop(), 1) << row.description;
        for (const std::string& name : row.seen) {
            EXPECT_EQ(node.total(name), injected) << row.description << ", " << name << report.text();
        }
        for (const std::string& name : row.not_seen) {
            EXPECT_EQ(node.total(name), 0U) << row.description << ", " << name << report.text();
        }
        EXPECT_FALSE(node.summary().flag("clean")) << row.description;
    }
}

TEST(MediaToolsTest, a_node_counts_garbage_as_invalid) {
    NodeProcess node({"--verify-content"});
    const auto report =
        send_media(node.port(), {"--sessions", "50", "--packets", "20", "--rate", "5000", "--garbage", "50"});
    EXPECT_EQ(node.stop(), 1);
    EXPECT_EQ(node.total("invalid"), garbage_of(report)) << report.text();
    EXPECT_EQ(node.total("gaps") + node.total("repeats") + node.total("changed"), 0U);
    EXPECT_EQ(node.total("ended_sessions"), 50U);
}

TEST(MediaToolsTest, a_node_that_is_not_to_check_exits_with_0_and_still_reports) {
    NodeProcess node({"--no-check"});
    send_media(node.port(), {"--sessions", "5", "--packets", "20", "--duplicate", "100"});
    EXPECT_EQ(node.stop(), 0);
    EXPECT_EQ(node.total("repeats"), 5U * 22);
}

TEST(MediaToolsTest, a_changed_byte_is_seen_when_content_is_verified_only) {
    for (const bool verify : {true, false}) {
        NodeProcess node(verify ? std::vector<std::string>{"--verify-content"} : std::vector<std::string>{});
        alignas(8) uint8_t bytes[media::PACKET_MAX_BYTES];
        const std::size_t size = tools::write_start({}, {7, 1, 1000000}, bytes);
        bytes[offset::RESERVED] ^= 1U;
        sockaddr_in target{};
        ASSERT_TRUE(tools::parse_endpoint(node.port(), target));
        tools::UdpSocket socket;
        socket.connect_to(target);
        ASSERT_EQ(send(socket.fd(), bytes, size, 0), static_cast<ssize_t>(size));
        EXPECT_EQ(node.stop(), verify ? 1 : 0);
        EXPECT_EQ(node.total("changed"), verify ? 1U : 0U);
    }
}

TEST(MediaToolsTest, a_node_checks_each_of_its_ports_for_itself) {
    NodeProcess node({"--ports", "2", "--port", "0", "--port", "0"});
    ASSERT_EQ(node.ports().size(), 4U);
    EXPECT_EQ(std::set<std::string>(node.ports().begin(), node.ports().end()).size(), 4U);
    send_media(node.ports()[1], {"--sessions", "2", "--packets", "3"});
    send_media(node.ports()[3], {"--sessions", "2", "--packets", "3"}); // the same ids again
    EXPECT_EQ(node.stop(), 0) << node.summary().text();
    EXPECT_EQ(std::to_string(node.summary().number("ports/1/port")), node.ports()[1]);
    for (const char* const path : {"ports/1/counts/datagrams", "ports/3/counts/datagrams"}) {
        EXPECT_EQ(node.summary().number(path), 10U) << path;
    }
    for (const char* const path : {"ports/0/counts/datagrams", "ports/2/counts/datagrams"}) {
        EXPECT_EQ(node.summary().number(path), 0U) << path;
    }
    EXPECT_EQ(node.total("sessions"), 4U);
}

TEST(MediaToolsTest, a_node_counts_without_a_check_when_it_discards) {
    NodeProcess node({"--discard"});
    const auto report = send_media(node.port(), {"--sessions", "50", "--packets", "20", "--duplicate", "10"});
    EXPECT_EQ(node.stop(), 0);
    EXPECT_EQ(node.total("datagrams"), report.number("total/datagrams"));
    EXPECT_EQ(node.total("bytes"), report.number("total/bytes"));
    EXPECT_FALSE(node.summary().has("total/gaps")); // a zero would say that somebody looked
    EXPECT_FALSE(node.summary().has("clean"));
}

TEST(MediaToolsTest, a_node_counts_what_the_kernel_dropped) {
    // It looks at its socket for the first time when it is stopped.
    NodeProcess node({"--receive-buffer-bytes", "1", "--poll-interval-us", "60000000", "--no-check"});
    const auto report = send_media(node.port(), {"--sessions", "100", "--packets", "10", "--rate", "0"});
    EXPECT_EQ(node.stop(), 0);
    EXPECT_GT(node.total("kernel_drops"), 0U);
    EXPECT_EQ(node.total("kernel_drops") + node.total("datagrams"), report.number("total/datagrams"));
}

TEST(MediaToolsTest, a_node_ends_by_itself_when_it_is_told_so) {
    struct Case {
        const char* description;
        std::vector<std::string> options;
    };
    const Case cases[] = {
        {"after a number of datagrams", {"--packets", "12"}},
        {"after a pause", {"--idle-exit", "50"}},
        {"after a time", {"--duration", "0.3"}},
    };
    for (const Case& row : cases) {
        NodeProcess node(row.options);
        if (row.options[0] != "--duration") {
            send_media(node.port(), {"--sessions", "1", "--packets", "10"});
        }
        EXPECT_EQ(node.wait(), 0) << row.description;
        EXPECT_EQ(node.total("datagrams"), row.options[0] == "--duration" ? 0U : 12U) << row.description;
    }
}

TEST(MediaToolsTest, a_sender_ends_its_sessions_when_its_time_is_over) {
    NodeProcess node({"--verify-content"});
    const auto report =
        send_media(node.port(), {"--sessions", "20", "--endless", "--rate", "5000", "--duration", "0.2"});
    EXPECT_EQ(node.stop(), 0) << node.summary().text();
    EXPECT_EQ(node.total("ended_sessions"), 20U);
    EXPECT_EQ(report.number("terminate/datagrams"), 20U);
    EXPECT_GE(report.number("elapsed_ms"), 200U);
    EXPECT_FALSE(report.flag("interrupted"));
}

TEST(MediaToolsTest, a_sender_reports_when_it_is_interrupted) {
    NodeProcess node({"--packets", "100"});
    ToolProcess sender({CORVALIN_MEDIA_SENDER_PATH, node.port(), "--json", "--endless", "--sessions", "20",
                        "--duration", "100"});
    EXPECT_EQ(node.wait(), 0);
    sender.send_signal(SIGTERM);
    EXPECT_EQ(sender.wait(), 0) << sender.err();
    const auto report = Report(sender.out());
    EXPECT_TRUE(report.flag("interrupted"));
    EXPECT_GE(report.number("total/datagrams"), 100U);
    EXPECT_EQ(report.number("terminate/datagrams"), 0U);
}

TEST(MediaToolsTest, sessions_may_be_sent_in_phases) {
    NodeProcess node({"--verify-content"});
    const std::vector<std::string> common{"--sessions", "30", "--id-base", "5000", "--rate", "5000"};
    const auto phase = [&](std::vector<std::string> options) {
        options.insert(options.end(), common.begin(), common.end());
        return send_media(node.port(), options);
    };
    phase({"--no-terminate", "--packets", "0"});
    phase({"--no-start", "--no-terminate", "--packets", "10", "--order", "random"});
    phase({"--no-start", "--packets", "0", "--first-seq", "12"});
    EXPECT_EQ(node.stop(), 0) << node.summary().text();
    EXPECT_EQ(node.total("sessions"), 30U);
    EXPECT_EQ(node.total("ended_sessions"), 30U);
    EXPECT_EQ(node.total("data"), 300U);
}

TEST(MediaToolsTest, a_sender_is_not_faster_than_its_rate) {
    for (const char* const interval : {"0", "1000"}) {
        NodeProcess node({});
        const auto report = send_media(node.port(), {"--sessions", "10", "--packets", "98", "--rate", "5000",
                                                     "--burst-interval-us", interval});
        // The last of 1000 packets is due 199.8 ms after the first, in bursts at the start of that interval.
        EXPECT_GE(report.number("elapsed_ms"), 199U) << interval;
        EXPECT_EQ(node.stop(), 0);
    }
}

TEST(MediaToolsTest, a_seed_that_a_sender_printed_repeats_its_run) {
    NodeProcess node({"--no-check"});
    // Some 200 datagrams of garbage: that one of the six kinds is missing has a chance of 1 in 10^15.
    const std::vector<std::string> options{"--sessions",  "20",        "--packets", "100",       "--loss",
                                           "10",          "--reorder", "10",        "--garbage", "10",
                                           "--duplicate", "10",        "--rate",    "5000"};
    const auto first = send_media(node.port(), options);
    std::vector<std::string> again = options;
    again.insert(again.end(), {"--seed", std::to_string(first.number("seed"))});
    const auto second = send_media(node.port(), again);
    EXPECT_EQ(garbage_of(first), garbage_of(second));
    for (const char* const name : {"total/datagrams", "total/bytes", "lost", "duplicated", "reordered"}) {
        EXPECT_EQ(first.number(name), second.number(name)) << name;
    }
    node.stop();
}

TEST(MediaToolsTest, summaries_go_to_a_file_as_text_or_json) {
    const TemporaryFolder temp;
    const std::string file = temp.path() + "/summary";
    ToolProcess text({CORVALIN_MEDIA_NODE_PATH, "--duration", "0.01", "--output", file});
    EXPECT_EQ(text.wait(), 0) << text.err();
    EXPECT_THAT(text.out(), testing::MatchesRegex("ports [0-9]+\n"));
    EXPECT_THAT(read_file(file), HasSubstr("\nclean: yes\n"));

    ToolProcess json({CORVALIN_MEDIA_NODE_PATH, "--duration", "0.01", "--output", file, "--json"});
    EXPECT_EQ(json.wait(), 0) << json.err();
    EXPECT_TRUE(Report(read_file(file)).flag("clean"));
}

TEST(MediaToolsTest, the_tools_tell_wrong_command_lines_from_failures) {
    struct Case {
        const char* description;
        std::vector<std::string> words;
        int status;
        const char* out;
        const char* err;
    };
    const std::string sender = CORVALIN_MEDIA_SENDER_PATH;
    const std::string node = CORVALIN_MEDIA_NODE_PATH;
    const std::string relay = CORVALIN_IMPAIRMENT_RELAY_PATH;
    tools::UdpSocket taken;
    sockaddr_in loopback{};
    loopback.sin_family = AF_INET;
    loopback.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    taken.bind_to(loopback);
    const std::string port = std::to_string(taken.port());
    const Case cases[] = {
        {"sender help", {sender, "--help"}, 0, "Exit status:", ""},
        {"node help", {node, "--help"}, 0, "Exit status:", ""},
        {"relay help", {relay, "--help"}, 0, "Exit status:", ""},
        {"sender version", {sender, "--version"}, 0, "corvalin_media_sender ", ""},
        {"node version", {node, "--version"}, 0, "corvalin_media_node ", ""},
        {"relay version", {relay, "--version"}, 0, "corvalin_impairment_relay ", ""},
        {"sender without target", {sender}, 2, "", "target is required"},
        {"sender with a bad target", {sender, "127.0.0.1:x"}, 2, "", "\"127.0.0.1:x\" is no PORT"},
        {"unknown option", {sender, "5000", "--bad"}, 2, "", "--bad"},
        {"a percentage above 100", {sender, "5000", "--loss", "101"}, 2, "", "--loss"},
        {"an odd payload", {sender, "5000", "--payload-bytes", "3"}, 2, "", "must be even"},
        {"a payload too long", {sender, "5000", "--payload-bytes", "1322"}, 2, "", "at most 1376 bytes"},
        {"a datagram too short", {sender, "5000", "--datagram-bytes", "54"}, 2, "", "at least 56 bytes"},
        {"nothing to send",
         {sender, "5000", "--no-start", "--no-terminate", "--packets", "0"},
         2,
         "",
         "nothing to send"},
        {"node with a bad port", {node, "--port", "70000"}, 2, "", "--port"},
        {"node with a bad address", {node, "--address", "nowhere"}, 2, "", "--address"},
        {"relay without target", {relay}, 2, "", "target is required"},
        {"relay with a delay of none",
         {relay, "5000", "--delay", "5"},
         2,
         "",
         "--delay needs --delay-max-us"},
        {"relay with a reversed delay",
         {relay, "5000", "--delay-min-us", "5"},
         2,
         "",
         "--delay-min-us is above"},
        {"node on a port in use", {node, "--port", port}, 1, "", "Address already in use"},
        {"relay on a port in use", {relay, "5000", "--port", port}, 1, "", "Address already in use"},
        {"node without a place for its summary",
         {node, "--duration", "0.01", "--output", "/nonexistent/file"},
         1,
         "ports ",
         "cannot write /nonexistent/file"},
    };
    for (const Case& row : cases) {
        ToolProcess process(row.words);
        EXPECT_EQ(process.wait(), row.status) << row.description << ": " << process.err();
        EXPECT_THAT(process.out(), HasSubstr(row.out)) << row.description;
        EXPECT_THAT(process.err(), HasSubstr(row.err)) << row.description;
    }
}

class ImpairmentRelayTest : public testing::Test {
protected:
    static constexpr uint32_t DATAGRAMS = 200;

    ImpairmentRelayTest() {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        m_receiver.set_receive_buffer_bytes(1U << 20U);
        m_receiver.bind_to(address);
    }

    // Sends numbered datagrams through a relay, which ends after the last, and returns the numbers that came out.
    std::vector<uint32_t> relay(std::vector<std::string> options) {
        options.insert(options.begin(),
                       {CORVALIN_IMPAIRMENT_RELAY_PATH, std::to_string(m_receiver.port()), "--json",
                        "--packets", std::to_string(DATAGRAMS), "--duration", "100"});
        ToolProcess process(options);
        const std::string line = process.read_line();
        sockaddr_in target{};
        EXPECT_EQ(line.substr(0, 5), "port ") << process.err();
        EXPECT_TRUE(tools::parse_endpoint(line.substr(5), target));
        send_numbers(target);
        EXPECT_EQ(process.wait(), 0) << process.err();
        m_report = Report(process.out());
        return receive_numbers();
    }

    static void send_numbers(const sockaddr_in& target) {
        tools::UdpSocket sender;
        sender.connect_to(target);
        for (uint32_t number = 0; number < DATAGRAMS; ++number) {
            EXPECT_EQ(send(sender.fd(), &number, sizeof(number), 0), static_cast<ssize_t>(sizeof(number)));
        }
    }

    std::vector<uint32_t> receive_numbers() const {
        std::vector<uint32_t> numbers;
        uint32_t number = 0;
        while (recv(m_receiver.fd(), &number, sizeof(number), MSG_DONTWAIT) == sizeof(number)) {
            numbers.push_back(number);
        }
        return numbers;
    }

    static std::vector<uint32_t> all_numbers() {
        std::vector<uint32_t> numbers(DATAGRAMS);
        std::iota(numbers.begin(), numbers.end(), 0);
        return numbers;
    }

    tools::UdpSocket m_receiver;
    Report m_report;
};

TEST_F(ImpairmentRelayTest, forwards_everything_in_order_without_faults) {
    EXPECT_EQ(relay({}), all_numbers());
    EXPECT_EQ(m_report.number("received"), DATAGRAMS);
    EXPECT_EQ(m_report.number("forwarded"), DATAGRAMS);
}

TEST_F(ImpairmentRelayTest, the_same_seed_makes_the_same_decisions_twice) {
    const std::vector<std::string> options{"--loss", "10", "--duplicate", "10", "--reorder", "10", "--seed"};
    const auto with_seed = [&options](const char* seed) {
        std::vector<std::string> words = options;
        words.emplace_back(seed);
        return words;
    };
    const std::vector<uint32_t> first = relay(with_seed("77"));
    EXPECT_GT(m_report.number("lost"), 0U);
    EXPECT_GT(m_report.number("duplicated"), 0U);
    EXPECT_GT(m_report.number("reordered"), 0U);
    EXPECT_EQ(first.size(), m_report.number("forwarded"));
    EXPECT_EQ(first.size(), DATAGRAMS - m_report.number("lost") + m_report.number("duplicated"));
    EXPECT_FALSE(std::is_sorted(first.begin(), first.end()));
    EXPECT_EQ(relay(with_seed("77")), first);
    EXPECT_NE(relay(with_seed("78")), first);
}

TEST_F(ImpairmentRelayTest, prints_a_seed_that_repeats_the_run) {
    const std::vector<uint32_t> first = relay({"--loss", "20"});
    const std::string seed = std::to_string(m_report.number("seed"));
    EXPECT_EQ(relay({"--loss", "20", "--seed", seed}), first);
}

TEST_F(ImpairmentRelayTest, delays_and_loses_none_of_the_delayed) {
    std::vector<uint32_t> numbers =
        relay({"--delay", "50", "--delay-min-us", "1000", "--delay-max-us", "20000", "--seed", "5"});
    EXPECT_GT(m_report.number("delayed"), 0U);
    EXPECT_FALSE(std::is_sorted(numbers.begin(), numbers.end()));
    std::sort(numbers.begin(), numbers.end());
    EXPECT_EQ(numbers, all_numbers());
}

TEST_F(ImpairmentRelayTest, a_node_behind_it_sees_its_faults) {
    NodeProcess node({"--verify-content"});
    ToolProcess relay({CORVALIN_IMPAIRMENT_RELAY_PATH, node.port(), "--json", "--duplicate", "10",
                       "--packets", "440", "--duration", "100"});
    send_media(relay.read_line().substr(5), {"--sessions", "20", "--packets", "20", "--rate", "5000"});
    EXPECT_EQ(relay.wait(), 0) << relay.err();
    const auto report = Report(relay.out());
    EXPECT_EQ(node.stop(), 1);
    EXPECT_GT(report.number("duplicated"), 0U) << report.text();
    EXPECT_EQ(node.total("repeats"), report.number("duplicated")) << report.text();
    EXPECT_EQ(node.total("gaps") + node.total("changed"), 0U);
}

} // namespace
} // namespace corvalin::test
