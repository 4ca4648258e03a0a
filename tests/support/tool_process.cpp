#include "tests/support/tool_process.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <array>
#include <csignal>
#include <system_error>

namespace corvalin::test {
namespace {

struct Pipe {
    int read_end;
    int write_end;
};

Pipe make_pipe() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        throw std::system_error(errno, std::generic_category(), "pipe2");
    }
    return {ends[0], ends[1]};
}

} // namespace

ToolProcess::ToolProcess(std::vector<std::string> arguments, Input input) {
    const Pipe out = make_pipe();
    const Pipe err = make_pipe();
    Pipe in{-1, -1};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (input == Input::LINES) {
        in = make_pipe();
        posix_spawn_file_actions_adddup2(&actions, in.read_end, STDIN_FILENO);
    } else {
        posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    }
    posix_spawn_file_actions_adddup2(&actions, out.write_end, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err.write_end, STDERR_FILENO);

    std::vector<char*> argv;
    argv.reserve(arguments.size() + 1);
    for (std::string& argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    const int error = posix_spawnp(&m_pid, argv[0], &actions, nullptr, argv.data(), environ);

    posix_spawn_file_actions_destroy(&actions);
    close(out.write_end);
    close(err.write_end);
    m_out.fd = out.read_end;
    m_err.fd = err.read_end;
    if (input == Input::LINES) {
        close(in.read_end);
        m_input = in.write_end;
    }
    if (error != 0) {
        close_input();
        close_stream(m_out);
        close_stream(m_err);
        throw std::system_error(error, std::generic_category(), arguments[0]);
    }
}

ToolProcess::~ToolProcess() {
    if (!m_reaped) {
        kill_child();
    }
    close_input();
    close_stream(m_out);
    close_stream(m_err);
}

void ToolProcess::write(const std::string& text) {
    // A child that has ended would end this process too by SIGPIPE, so it is asked for as an error instead.
    struct sigaction ignore {};
    struct sigaction before {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &ignore, &before);
    const ssize_t written = ::write(m_input, text.data(), text.size());
    const int error = errno;
    sigaction(SIGPIPE, &before, nullptr);
    if (written != static_cast<ssize_t>(text.size())) {
        ADD_FAILURE() << "cannot write to process " << m_pid << ": "
                      << std::generic_category().message(error);
    }
}

void ToolProcess::close_input() {
    if (m_input >= 0) {
        close(m_input);
        m_input = -1;
    }
}

void ToolProcess::close_stream(Stream& stream) {
    if (stream.fd >= 0) {
        close(stream.fd);
        stream.fd = -1;
    }
}

void ToolProcess::send_signal(int number) const {
    if (!m_reaped) {
        kill(m_pid, number);
    }
}

void ToolProcess::kill_child() {
    kill(m_pid, SIGKILL);
    while (waitpid(m_pid, &m_status, 0) < 0 && errno == EINTR) {
    }
    m_reaped = true;
}

void ToolProcess::read_stream(Stream& stream) {
    std::array<char, 4096> bytes;
    const ssize_t size = ::read(stream.fd, bytes.data(), bytes.size());
    if (size > 0) {
        stream.text.append(bytes.data(), static_cast<std::size_t>(size));
    } else {
        close_stream(stream);
    }
}

void ToolProcess::read_some(std::chrono::steady_clock::time_point deadline) {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    std::array<pollfd, 2> streams{pollfd{m_out.fd, POLLIN, 0}, pollfd{m_err.fd, POLLIN, 0}};
    if (left.count() <= 0 || poll(streams.data(), streams.size(), static_cast<int>(left.count())) == 0) {
        ADD_FAILURE() << "process " << m_pid
                      << " neither wrote nor ended in time; its errors: " << m_err.text;
        kill_child();
        close_stream(m_out);
        close_stream(m_err);
        return;
    }
    if (streams[0].revents != 0) {
        read_stream(m_out);
    }
    if (streams[1].revents != 0) {
        read_stream(m_err);
    }
}

std::string ToolProcess::read_line(std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    std::size_t end;
    while ((end = m_out.text.find('\n')) == std::string::npos && m_out.fd >= 0) {
        read_some(deadline);
    }
    std::string line = m_out.text.substr(0, end);
    m_out.text.erase(0, end == std::string::npos ? end : end + 1);
    return line;
}

int ToolProcess::wait() {
    // The end of both streams comes with the end of the process, as nothing else holds their other ends.
    const auto deadline = std::chrono::steady_clock::now() + LIMIT;
    while (is_open()) {
        read_some(deadline);
    }
    if (!m_reaped) {
        while (waitpid(m_pid, &m_status, 0) < 0 && errno == EINTR) {
        }
        m_reaped = true;
    }
    return WIFSIGNALED(m_status) ? -WTERMSIG(m_status) : WEXITSTATUS(m_status);
}

} // namespace corvalin::test
