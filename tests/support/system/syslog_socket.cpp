#include "tests/support/system/syslog_socket.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <system_error>
#include <utility>

namespace corvalin::test {

namespace {

// What `block` fills the queue with; no process under test writes this.
constexpr char FILLER[] = "filler";
constexpr std::size_t TIME_CHARS = sizeof("Mmm dd hh:mm:ss ") - 1;

[[noreturn]] void fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

sockaddr_un address_of(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        errno = ENAMETOOLONG;
        fail("path of the syslog socket");
    }
    path.copy(address.sun_path, path.size());
    return address;
}

SyslogRecord parse(const std::string& datagram) {
    SyslogRecord record;
    const std::size_t bracket = datagram.find('>');
    const std::size_t tag_begin = bracket + 1 + TIME_CHARS;
    const std::size_t tag_end = bracket == std::string::npos ? bracket : datagram.find(": ", tag_begin);
    int priority = -1;
    if (tag_end == std::string::npos || datagram[0] != '<' ||
        std::from_chars(datagram.data() + 1, datagram.data() + bracket, priority).ptr !=
            datagram.data() + bracket) {
        record.text = datagram;
        return record;
    }
    record.priority = priority;
    record.tag = datagram.substr(tag_begin, tag_end - tag_begin);
    record.text = datagram.substr(tag_end + 2);
    return record;
}

} // namespace

bool operator==(const SyslogRecord& left, const SyslogRecord& right) {
    return left.priority == right.priority && left.tag == right.tag && left.text == right.text;
}

std::ostream& operator<<(std::ostream& stream, const SyslogRecord& record) {
    return stream << "<" << record.priority << "> " << record.tag << ": \"" << record.text << "\"";
}

SyslogSocket::SyslogSocket(const std::string& path) : m_path(path) {
    const sockaddr_un address = address_of(path);
    m_socket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (m_socket < 0 || bind(m_socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        fail("syslog socket");
    }
    m_wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (m_wake < 0) {
        fail("eventfd");
    }
    m_thread = std::thread([this] { run(); });
}

SyslogSocket::~SyslogSocket() {
    {
        const std::lock_guard<std::mutex> guard(m_lock);
        m_stop = true;
    }
    wake();
    m_thread.join();
    close(m_socket);
    close(m_wake);
    unlink(m_path.c_str());
}

std::vector<SyslogRecord> SyslogSocket::records() const {
    const std::lock_guard<std::mutex> guard(m_lock);
    take();
    return m_records;
}

std::vector<SyslogRecord> SyslogSocket::records(const Predicate& predicate) const {
    std::vector<SyslogRecord> chosen = records();
    std::erase_if(chosen, [&predicate](const SyslogRecord& record) { return !predicate(record); });
    return chosen;
}

std::vector<std::string> SyslogSocket::texts(int priority) const {
    std::vector<std::string> texts;
    for (SyslogRecord& record : records()) {
        if (record.priority == priority) {
            texts.push_back(std::move(record.text));
        }
    }
    return texts;
}

std::size_t SyslogSocket::count(const Predicate& predicate) const {
    return records(predicate).size();
}

bool SyslogSocket::wait_until(const std::function<bool(const std::vector<SyslogRecord>&)>& enough,
                              std::chrono::milliseconds limit) const {
    std::unique_lock<std::mutex> guard(m_lock);
    return m_changed.wait_for(guard, limit, [&] {
        take();
        return enough(m_records);
    });
}

std::optional<SyslogRecord> SyslogSocket::wait_for(const Predicate& predicate, std::size_t from,
                                                   std::chrono::milliseconds limit) const {
    std::optional<SyslogRecord> found;
    wait_until(
        [&](const std::vector<SyslogRecord>& records) {
            for (; from < records.size(); ++from) {
                if (predicate(records[from])) {
                    found = records[from];
                    return true;
                }
            }
            return false;
        },
        limit);
    return found;
}

void SyslogSocket::keep_only(Predicate predicate) {
    const std::lock_guard<std::mutex> guard(m_lock);
    m_keep = std::move(predicate);
}

void SyslogSocket::block() {
    const std::lock_guard<std::mutex> guard(m_lock);
    m_blocked = true;
    wake();
    const sockaddr_un address = address_of(m_path);
    const int filler = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (filler < 0 || connect(filler, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        fail("filler of the syslog socket");
    }
    while (send(filler, FILLER, sizeof(FILLER), 0) >= 0) {
    }
    const int error = errno;
    close(filler);
    if (error != EAGAIN) {
        errno = error;
        fail("filling the syslog socket");
    }
}

void SyslogSocket::resume() {
    const std::lock_guard<std::mutex> guard(m_lock);
    m_blocked = false;
    wake();
}

void SyslogSocket::wake() const {
    const uint64_t one = 1;
    if (write(m_wake, &one, sizeof(one)) < 0 && errno != EAGAIN) {
        fail("waking the syslog thread");
    }
}

void SyslogSocket::run() {
    bool blocked = false;
    for (;;) {
        std::array<pollfd, 2> events = {{{m_wake, POLLIN, 0}, {m_socket, POLLIN, 0}}};
        poll(events.data(), blocked ? 1 : 2, -1);
        uint64_t count = 0;
        [[maybe_unused]] const ssize_t result = read(m_wake, &count, sizeof(count));
        const std::lock_guard<std::mutex> guard(m_lock);
        if (m_stop) {
            return;
        }
        blocked = m_blocked;
        take();
        m_changed.notify_all();
    }
}

void SyslogSocket::take() const {
    std::array<char, 65536> buffer;
    ssize_t size = 0;
    while (!m_blocked && (size = recv(m_socket, buffer.data(), buffer.size(), 0)) >= 0) {
        const std::string datagram(buffer.data(), static_cast<std::size_t>(size));
        if (datagram.compare(0, sizeof(FILLER) - 1, FILLER) == 0) {
            continue;
        }
        SyslogRecord record = parse(datagram);
        record.taken = std::chrono::steady_clock::now();
        if (!m_keep || m_keep(record)) {
            m_records.push_back(std::move(record));
        }
    }
}

} // namespace corvalin::test
