#include "tests/support/system/router_process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace corvalin::test {

namespace {

namespace fs = std::filesystem;

constexpr const char* BROKER_PREFIX = "broker ";
// Path of a file that a test in a network of its own makes, so that a run without that test is no success.
constexpr const char* OWN_NETWORK_VARIABLE = "CORVALIN_TEST_IN_OWN_NETWORK";
constexpr std::size_t SHOWN_LINES = 50; // of the log of a test that has failed
constexpr const char* TIME_SHAPE = "dddd.dd.dd dd:dd:dd.dddddd | ";

// "2026.11.14 17:26:05.004217 | " in front.
bool begins_with_time(const std::string& line) {
    const std::string shape = TIME_SHAPE;
    return line.size() >= shape.size() &&
           std::equal(shape.begin(), shape.end(), line.begin(), [](char expected, char found) {
               return expected == 'd' ? found >= '0' && found <= '9' : expected == found;
           });
}

std::string without_time(const std::string& line) {
    return begins_with_time(line) ? line.substr(std::string(TIME_SHAPE).size()) : "no log line: " + line;
}

[[noreturn]] void fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

std::string proc_path(pid_t process, const std::string& entry) {
    return "/proc/" + std::to_string(process) + "/" + entry;
}

uint64_t number_of(const std::string& text, int base) {
    uint64_t number = 0;
    std::from_chars(text.data(), text.data() + text.size(), number, base);
    return number;
}

// The inode of a socket from "socket:[4711]".
std::string inode_of(pid_t process, int descriptor) {
    std::error_code ignored;
    const std::string target =
        fs::read_symlink(proc_path(process, "fd/" + std::to_string(descriptor)), ignored).string();
    const std::string prefix = "socket:[";
    return target.compare(0, prefix.size(), prefix) == 0
               ? target.substr(prefix.size(), target.size() - prefix.size() - 1)
               : "";
}

// A row of /proc/net/udp:
// sl  local_address rem_address   st tx_queue:rx_queue tr:tm->when retrnsmt uid timeout inode ref pointer drops
std::optional<ReceiveSocket> find_socket(pid_t process, int descriptor) {
    constexpr std::size_t LOCAL = 1;
    constexpr std::size_t QUEUES = 4;
    constexpr std::size_t INODE = 9;
    constexpr std::size_t DROPS = 12;
    const std::string inode = inode_of(process, descriptor);
    std::ifstream table(proc_path(process, "net/udp"));
    for (std::string row; std::getline(table, row);) {
        std::istringstream stream(row);
        std::vector<std::string> fields;
        for (std::string field; stream >> field;) {
            fields.push_back(field);
        }
        if (fields.size() > DROPS && fields[INODE] == inode) {
            const std::string& local = fields[LOCAL];
            const std::string& queues = fields[QUEUES];
            return ReceiveSocket{
                descriptor, static_cast<uint16_t>(number_of(local.substr(local.find(':') + 1), 16)),
                number_of(queues.substr(queues.find(':') + 1), 16), number_of(fields[DROPS], 10)};
        }
    }
    return std::nullopt;
}

// Of the main thread.
std::optional<int> descriptor_in_recv(pid_t process) {
    const auto call = blocking_call(process, process);
    if (!call || call->number != SYS_recvfrom) {
        return std::nullopt;
    }
    return static_cast<int>(call->descriptor);
}

// A thread that is still on its way takes a signal away from the main thread: it looks for pending ones when it
// unblocks them at its begin.
bool is_at_rest(pid_t process) {
    const std::vector<pid_t> threads = threads_of(process);
    return !threads.empty() && std::all_of(threads.begin(), threads.end(), [process](pid_t thread) {
        return blocking_call(process, thread).has_value();
    });
}

std::vector<pid_t> children_of(pid_t process) {
    std::vector<pid_t> children;
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator("/proc", ignored)) {
        const auto candidate = static_cast<pid_t>(number_of(entry.path().filename().string(), 10));
        if (candidate != 0 && status_field(candidate, "PPid") == std::to_string(process)) {
            children.push_back(candidate);
        }
    }
    return children;
}

ExitStatus status_of(int raw) {
    if (WIFEXITED(raw)) {
        return exited(WEXITSTATUS(raw));
    }
    return killed_by(WTERMSIG(raw));
}

std::vector<char*> pointers_to(const std::vector<std::string>& words) {
    std::vector<char*> pointers;
    pointers.reserve(words.size() + 1);
    for (const std::string& word : words) {
        pointers.push_back(const_cast<char*>(word.c_str()));
    }
    pointers.push_back(nullptr);
    return pointers;
}

// In the child, between fork and exec. The test may have threads that hold locks of the heap, which nobody releases
// here, so nothing is allocated; the namespaces are entered by the command.
[[noreturn]] void become(char* const* command, const char* folder, int output, int error) {
    const int null = open("/dev/null", O_RDONLY);
    if (null < 0 || dup2(null, STDIN_FILENO) < 0 || dup2(output, STDOUT_FILENO) < 0 ||
        dup2(error, STDERR_FILENO) < 0) {
        _exit(127);
    }
    const rlimit no_core{0, 0};
    setrlimit(RLIMIT_CORE, &no_core);
    prctl(PR_SET_PDEATHSIG, SIGKILL); // a test that crashes leaves no router behind
    if (chdir(folder) == 0) {
        execv(command[0], command);
    }
    _exit(127);
}

} // namespace

std::string router_executable() {
    return CORVALIN_ROUTER_PATH;
}

RouterPlace::RouterPlace() : m_syslog((folder() / "dev_log").string()) {
    fs::create_directories(log_folder());
    choose_broker("127.0.0.1:1");
}

bool RouterPlace::can_choose_broker() const {
    return fs::exists(kafka_conf()) && read_file(kafka_conf()) == m_kafka_conf_text;
}

void RouterPlace::choose_broker(const std::string& address) {
    m_kafka_conf_text = "kafka_broker=" + address +
                        "\n"
                        "kafka_topic_broadcast=broadcast\n"
                        "kafka_topic_request=request\n";
    write_file(kafka_conf(), m_kafka_conf_text);
}

std::ostream& operator<<(std::ostream& stream, const ExitStatus& status) {
    return status.signal != 0 ? stream << "killed by signal " << status.signal
                              : stream << "exit status " << status.code;
}

RouterProcess::RouterProcess(RouterPlace& place, const std::vector<std::string>& arguments)
    : RouterProcess(place, arguments, Options{}) {
}

RouterProcess::RouterProcess(RouterPlace& place, const std::vector<std::string>& arguments, Options options)
    : m_place(place) {
    if (m_place.can_choose_broker()) {
        start_broker();
    }
    start(arguments, options);
}

void RouterProcess::start_broker() {
    // A topic that is left to appear by itself has four partitions; here that of a router with a port of its own.
    const std::vector<std::string> command = {
        CORVALIN_EMBEDDED_BROKER_PATH, "--topic", "broadcast", "--topic", "request", "--topic",
        "corvalin_router_127o0o0o1_0"};
    m_broker.emplace(command, ToolProcess::Input::LINES);
    const std::string line = m_broker->read_line();
    if (line.compare(0, std::strlen(BROKER_PREFIX), BROKER_PREFIX) != 0) {
        throw std::runtime_error("no embedded broker: " + line + m_broker->err());
    }
    m_broker_address = line.substr(std::strlen(BROKER_PREFIX));
    m_place.choose_broker(m_broker_address);
}

void RouterProcess::start(const std::vector<std::string>& arguments, const Options& options) {
    std::vector<std::string> words = {CORVALIN_PRIVATE_RUN_PATH,
                                      "--etc",
                                      (m_place.folder() / "etc").string(),
                                      "--log",
                                      (m_place.folder() / "log").string(),
                                      "--dev-log",
                                      m_place.syslog().path()};
    if (!options.name.empty()) {
        words.insert(words.end(), {"--name", options.name});
    }
    words.insert(words.end(), {"--", router_executable()});
    words.insert(words.end(), arguments.begin(), arguments.end());
    const std::vector<char*> command = pointers_to(words);
    const std::string folder =
        options.working_folder.empty() ? m_place.folder().string() : options.working_folder;
    if (options.blocked_log) {
        m_error.fill();
    }
    prctl(PR_SET_CHILD_SUBREAPER, 1); // for follow_daemon
    m_siblings = children_of(getpid());
    m_pid = fork();
    if (m_pid == 0) {
        become(command.data(), folder.c_str(), m_output.write_end(), m_error.write_end());
    }
    if (m_pid < 0) {
        fail("fork");
    }
    m_output.close_write_end();
    m_error.close_write_end();
    m_output.start();
    if (!options.blocked_log) {
        m_error.start();
    }
}

RouterProcess::~RouterProcess() {
    if (!m_status) {
        kill();
    }
    if (::testing::Test::HasFailure()) {
        std::cout << "end of the router's log:\n";
        const std::vector<std::string> lines = m_error.lines();
        for (std::size_t index = lines.size() - std::min(lines.size(), SHOWN_LINES); index < lines.size();
             ++index) {
            std::cout << "    " << lines[index] << "\n";
        }
    }
}

bool RouterProcess::wait_until_receiving() {
    bool receives = false;
    wait_until([&] {
        receives = descriptor_in_recv(m_pid).has_value() && is_at_rest(m_pid);
        return receives || !is_alive(m_pid);
    });
    if (!receives) {
        ADD_FAILURE() << "the router does not receive";
    }
    return receives;
}

ReceiveSocket RouterProcess::receive_socket() {
    std::optional<ReceiveSocket> socket;
    // A main thread that is busy is seen out of recv; it comes back.
    wait_until([&] {
        if (const auto descriptor = descriptor_in_recv(m_pid)) {
            socket = find_socket(m_pid, *descriptor);
        }
        return socket || !is_alive(m_pid);
    });
    if (!socket) {
        ADD_FAILURE() << "the router has no receive socket";
        return {};
    }
    return *socket;
}

std::vector<std::string> RouterProcess::log() {
    std::vector<std::string> bodies;
    for (const std::string& line : m_error.lines()) {
        bodies.push_back(without_time(line));
    }
    return bodies;
}

std::size_t RouterProcess::log_count(const std::string& line) {
    const std::vector<std::string> all = log();
    return static_cast<std::size_t>(std::count(all.begin(), all.end(), line));
}

bool RouterProcess::wait_for_log(const std::string& line, std::size_t times) {
    std::size_t seen = 0;
    const bool came = m_error
                          .wait_for([&](const std::string& candidate) {
                              seen += without_time(candidate) == line ? 1 : 0;
                              return seen == times;
                          })
                          .has_value();
    if (!came) {
        ADD_FAILURE() << "not logged " << times << " times: " << line;
    }
    return came;
}

void RouterProcess::signal(int number) const {
    if (::kill(m_pid, number) != 0) {
        ADD_FAILURE() << "no process to signal";
    }
}

ExitStatus RouterProcess::wait_for_exit(std::chrono::milliseconds limit) {
    if (m_status) {
        return *m_status;
    }
    int raw = 0;
    const bool ended = wait_until([&] { return waitpid(m_pid, &raw, WNOHANG) != 0; }, limit);
    if (!ended) {
        ADD_FAILURE() << "the router does not end";
        ::kill(m_pid, SIGKILL);
        waitpid(m_pid, &raw, 0);
    }
    m_status = status_of(raw);
    EXPECT_TRUE(m_error.wait_for_end() && m_output.wait_for_end()) << "somebody holds the router's output";
    return *m_status;
}

ExitStatus RouterProcess::stop() {
    if (!wait_until_receiving()) {
        kill();
        return *m_status;
    }
    signal(SIGTERM);
    return wait_for_exit();
}

void RouterProcess::kill() {
    int raw = 0;
    const bool ended_before = waitpid(m_pid, &raw, WNOHANG) != 0;
    if (!ended_before) {
        ::kill(m_pid, SIGKILL);
        waitpid(m_pid, &raw, 0);
    }
    m_status = status_of(raw);
    if (ended_before) {
        ADD_FAILURE() << "the router had ended by itself: " << *m_status;
    }
}

void RouterProcess::follow_daemon() {
    // Orphans of this process become its children, so that the daemon's exit status can be had.
    if (wait_for_exit() != exited(0)) {
        ADD_FAILURE() << "the router did not go into the background: " << *m_status;
        return;
    }
    const pid_t launcher = m_pid;
    const bool found = wait_until([&] {
        for (const pid_t child : children_of(getpid())) {
            if (std::find(m_siblings.begin(), m_siblings.end(), child) == m_siblings.end()) {
                m_pid = child;
            }
        }
        return m_pid != launcher;
    });
    if (!found) {
        ADD_FAILURE() << "there is no daemon";
        return;
    }
    m_status.reset();
}

std::optional<BlockingCall> blocking_call(pid_t process, pid_t thread) {
    // "45 0x5 0x7f...", or "running", or nothing.
    std::ifstream file(proc_path(process, "task/" + std::to_string(thread) + "/syscall"));
    BlockingCall call;
    std::string argument;
    if (!(file >> call.number >> argument) || argument.size() < 3) {
        return std::nullopt;
    }
    call.descriptor = static_cast<long>(number_of(argument.substr(2), 16));
    return call;
}

std::vector<pid_t> threads_of(pid_t process) {
    std::vector<pid_t> threads;
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator(proc_path(process, "task"), ignored)) {
        threads.push_back(static_cast<pid_t>(number_of(entry.path().filename().string(), 10)));
    }
    return threads;
}

std::string status_field(pid_t process, const std::string& name) {
    std::ifstream status(proc_path(process, "status"));
    for (std::string line; std::getline(status, line);) {
        if (line.compare(0, name.size() + 1, name + ":") == 0) {
            const std::size_t begin = line.find_first_not_of(" \t", name.size() + 1);
            return begin == std::string::npos ? "" : line.substr(begin);
        }
    }
    return "";
}

uint64_t status_kilobytes(pid_t process, const std::string& name) {
    return number_of(status_field(process, name), 10);
}

bool is_alive(pid_t process) {
    const std::string state = status_field(process, "State");
    return !state.empty() && state[0] != 'Z' && state[0] != 'X';
}

bool in_own_network() {
    if (const char* const marker = std::getenv(OWN_NETWORK_VARIABLE)) {
        write_file(marker, "");
        return true;
    }
    const ::testing::TestInfo& test = *::testing::UnitTest::GetInstance()->current_test_info();
    const std::string executable = fs::read_symlink("/proc/self/exe").string();
    const std::string filter = std::string("--gtest_filter=") + test.test_suite_name() + "." + test.name();
    const TemporaryFolder folder;
    const std::string marker = folder.path() + "/entered";
    const std::vector<std::string> words = {CORVALIN_PRIVATE_RUN_PATH,
                                            "--net",
                                            "--",
                                            "env",
                                            "--unset=GTEST_TOTAL_SHARDS",
                                            "--unset=GTEST_SHARD_INDEX",
                                            "--unset=GTEST_OUTPUT",
                                            OWN_NETWORK_VARIABLE + ("=" + marker),
                                            executable,
                                            filter};
    const std::vector<char*> command = pointers_to(words);
    std::cout.flush();
    std::fflush(stdout);
    const pid_t child = fork();
    if (child == 0) {
        become(command.data(), ".", STDOUT_FILENO, STDERR_FILENO);
    }
    if (child < 0) {
        fail("fork");
    }
    int raw = 0;
    waitpid(child, &raw, 0);
    EXPECT_EQ(status_of(raw), exited(0)) << "in a network namespace of its own";
    EXPECT_TRUE(fs::exists(marker)) << "the test was not run";
    return false;
}

} // namespace corvalin::test
