#include "tools/watch/metrics_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

namespace corvalin::watch {

namespace {

[[noreturn]] void fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

std::string response(const std::string& status, const std::string& type, const std::string& body) {
    return "HTTP/1.1 " + status + "\r\nContent-Type: " + type +
           "\r\nContent-Length: " + std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body;
}

std::string refusal(const std::string& status) {
    return response(status, "text/plain; charset=utf-8", status + "\n");
}

// "GET /metrics HTTP/1.1" with whatever headers: none of them changes the answer.
std::string answer_to(const std::string& request, const std::function<std::string()>& metrics) {
    const std::string line = request.substr(0, request.find_first_of("\r\n"));
    const std::size_t method_end = line.find(' ');
    const std::size_t target_end =
        method_end == std::string::npos ? method_end : line.find(' ', method_end + 1);
    if (target_end == std::string::npos || line.compare(target_end + 1, 5, "HTTP/") != 0) {
        return refusal("400 Bad Request");
    }
    if (line.compare(0, method_end, "GET") != 0) {
        return refusal("405 Method Not Allowed");
    }
    std::string target = line.substr(method_end + 1, target_end - method_end - 1);
    target.resize(std::min(target.find('?'), target.size()));
    if (target != "/metrics") {
        return refusal("404 Not Found");
    }
    return response("200 OK", "text/plain; version=0.0.4; charset=utf-8", metrics());
}

bool is_whole(const std::string& request) {
    return request.find("\r\n\r\n") != std::string::npos || request.find("\n\n") != std::string::npos;
}

} // namespace

MetricsServer::MetricsServer(uint16_t port) {
    m_listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (m_listener < 0) {
        fail("socket");
    }
    const int yes = 1;
    setsockopt(m_listener, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    socklen_t length = sizeof(address);
    if (bind(m_listener, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        listen(m_listener, MAX_CLIENTS) != 0 ||
        getsockname(m_listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        const int error = errno;
        close(m_listener);
        errno = error;
        fail("port for the metrics on 127.0.0.1");
    }
    m_port = ntohs(address.sin_port);
}

MetricsServer::~MetricsServer() {
    for (const Client& client : m_clients) {
        close(client.fd);
    }
    close(m_listener);
}

void MetricsServer::poll_events(std::vector<pollfd>& events) const {
    if (m_clients.size() < MAX_CLIENTS) {
        events.push_back({m_listener, POLLIN, 0});
    }
    for (const Client& client : m_clients) {
        events.push_back({client.fd, static_cast<short>(client.answer.empty() ? POLLIN : POLLOUT), 0});
    }
}

void MetricsServer::handle(const std::function<std::string()>& metrics, int64_t now_us) {
    accept_clients(now_us);
    std::erase_if(m_clients, [&](Client& client) {
        const bool goes_on = now_us - client.since_us <= CLIENT_LIMIT_US && serve(client, metrics);
        if (!goes_on) {
            close(client.fd);
        }
        return !goes_on;
    });
}

void MetricsServer::accept_clients(int64_t now_us) {
    while (m_clients.size() < MAX_CLIENTS) {
        const int fd = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd < 0) {
            return; // none waits, or it has gone again
        }
        m_clients.push_back({fd, now_us, {}, {}});
    }
}

// Reads or writes what can be at once. False if the connection is over.
bool MetricsServer::serve(Client& client, const std::function<std::string()>& metrics) {
    if (client.answer.empty()) {
        char buffer[4096];
        const ssize_t bytes = recv(client.fd, buffer, sizeof(buffer), 0);
        if (bytes <= 0) {
            return bytes < 0 && (errno == EAGAIN || errno == EINTR);
        }
        client.request.append(buffer, static_cast<std::size_t>(bytes));
        if (is_whole(client.request)) {
            client.answer = answer_to(client.request, metrics);
        } else if (client.request.size() > MAX_REQUEST_BYTES) {
            client.answer = refusal("431 Request Header Fields Too Large");
        } else {
            return true;
        }
    }
    const ssize_t sent = send(client.fd, client.answer.data(), client.answer.size(), MSG_NOSIGNAL);
    if (sent < 0) {
        return errno == EAGAIN || errno == EINTR;
    }
    client.answer.erase(0, static_cast<std::size_t>(sent));
    if (client.answer.empty()) {
        shutdown(client.fd, SHUT_WR);
        return false;
    }
    return true;
}

} // namespace corvalin::watch
