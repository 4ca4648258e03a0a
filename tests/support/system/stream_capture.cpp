#include "tests/support/system/stream_capture.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

namespace corvalin::test {

namespace {

[[noreturn]] void fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

} // namespace

StreamCapture::StreamCapture() {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        fail("pipe");
    }
    m_read_end = ends[0];
    m_write_end = ends[1];
    if (fcntl(m_read_end, F_SETFL, O_NONBLOCK) != 0) {
        fail("fcntl");
    }
}

// The writers are gone by now or end with the test: the reading ends with them.
StreamCapture::~StreamCapture() {
    close_write_end();
    if (m_thread.joinable()) {
        m_thread.join();
    }
    close(m_read_end);
}

void StreamCapture::close_write_end() {
    if (m_write_end >= 0) {
        close(m_write_end);
        m_write_end = -1;
    }
}

void StreamCapture::start() {
    const std::lock_guard<std::mutex> guard(m_lock);
    m_started = true;
    m_thread = std::thread([this] { run(); });
}

void StreamCapture::fill() {
    const std::lock_guard<std::mutex> guard(m_lock);
    const int flags = fcntl(m_write_end, F_GETFL);
    if (fcntl(m_write_end, F_SETFL, flags | O_NONBLOCK) != 0) {
        fail("fcntl");
    }
    const std::array<char, 4096> filling{};
    ssize_t written = 0;
    while ((written = write(m_write_end, filling.data(), filling.size())) > 0) {
        m_filling_bytes += static_cast<std::size_t>(written);
    }
    if (errno != EAGAIN || fcntl(m_write_end, F_SETFL, flags) != 0) {
        fail("filling a pipe");
    }
}

std::vector<std::string> StreamCapture::lines() {
    const std::lock_guard<std::mutex> guard(m_lock);
    take();
    return m_lines;
}

std::optional<std::string> StreamCapture::wait_for(const std::function<bool(const std::string&)>& predicate,
                                                   std::size_t from, std::chrono::milliseconds limit) {
    std::optional<std::string> found;
    std::unique_lock<std::mutex> guard(m_lock);
    m_changed.wait_for(guard, limit, [&] {
        take();
        for (; from < m_lines.size(); ++from) {
            if (predicate(m_lines[from])) {
                found = m_lines[from];
                return true;
            }
        }
        return m_ended;
    });
    return found;
}

bool StreamCapture::wait_for_end(std::chrono::milliseconds limit) {
    std::unique_lock<std::mutex> guard(m_lock);
    return m_changed.wait_for(guard, limit, [this] {
        take();
        return m_ended;
    });
}

void StreamCapture::run() {
    for (bool ended = false; !ended;) {
        pollfd event{m_read_end, POLLIN, 0};
        poll(&event, 1, -1);
        const std::lock_guard<std::mutex> guard(m_lock);
        take();
        ended = m_ended;
        m_changed.notify_all();
    }
}

void StreamCapture::take() {
    if (!m_started || m_ended) {
        return;
    }
    std::array<char, 65536> buffer;
    ssize_t size = 0;
    while ((size = read(m_read_end, buffer.data(), buffer.size())) > 0) {
        const std::size_t skipped = std::min(m_filling_bytes, static_cast<std::size_t>(size));
        m_filling_bytes -= skipped;
        m_rest.append(buffer.data() + skipped, static_cast<std::size_t>(size) - skipped);
        std::size_t begin = 0;
        for (std::size_t end = 0; (end = m_rest.find('\n', begin)) != std::string::npos; begin = end + 1) {
            m_lines.push_back(m_rest.substr(begin, end - begin));
        }
        m_rest.erase(0, begin);
    }
    if (size < 0) {
        return; // nothing there for now
    }
    if (!m_rest.empty()) {
        m_lines.push_back(std::exchange(m_rest, {}));
    }
    m_ended = true;
}

} // namespace corvalin::test
