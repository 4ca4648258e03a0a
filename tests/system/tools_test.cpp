// The tools as a user runs them: real processes that talk to each other over loopback, without the router.
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include "tests/support/tool_process.h"
#include "tools/tool_support/private_paths.h"

namespace corvalin::test {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

constexpr uid_t NOBODY = 65534;

class TempDir {
public:
    TempDir() {
        std::string name = (fs::temp_directory_path() / "corvalin_tools_XXXXXX").string();
        m_path = mkdtemp(name.data());
        fs::permissions(m_path, fs::perms(0755)); // another user must get through
    }
    ~TempDir() { fs::remove_all(m_path); }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const fs::path& path() const { return m_path; }

private:
    fs::path m_path;
};

void write_file(const fs::path& path, const std::string& text) {
    std::ofstream(path) << text;
}

std::string read_file(const fs::path& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

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
        fs::create_directory(m_temp.path() / "etc");
        fs::create_directory(m_temp.path() / "log");
        fs::permissions(m_temp.path() / "log", fs::perms(0777));
        write_file(m_temp.path() / "etc/file.conf", "private\n");
        // A copy, as another user may have no way to the build folder.
        fs::copy_file(CORVALIN_PRIVATE_RUN_PATH, m_temp.path() / "private_run");
    }

    static std::vector<std::string> as_nobody() {
        return {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "--"};
    }

    std::vector<std::string> with_private_paths(std::vector<std::string> words,
                                                const std::string& script) const {
        const std::string temp = m_temp.path().string();
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
                                     m_temp.path().string() + "/syslog\nroot\n");
        EXPECT_EQ(read_file(m_temp.path() / "log/new"), "written\n");
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

    TempDir m_temp;
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
    ToolProcess process({CORVALIN_PRIVATE_RUN_PATH, "--dev-log", (m_temp.path() / "syslog").string(), "--etc",
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
    paths.etc_dir = (m_temp.path() / "etc").string();
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

} // namespace
} // namespace corvalin::test
