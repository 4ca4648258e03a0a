// metrics_server: answers GET /metrics over HTTP on 127.0.0.1, for a collector on the same machine.
//
// It trusts nobody: few connections, short requests, a limit of time for each, and one answer before it closes.
//
// Threads    one thread, which calls `poll_events`, and `handle` behind its poll.
// Ownership  owns all its descriptors.
// Errors     the constructor throws std::system_error; what goes wrong with a client ends its connection.
#pragma once

#include <poll.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace corvalin::watch {

class MetricsServer {
public:
    static constexpr std::size_t MAX_CLIENTS = 16;
    static constexpr std::size_t MAX_REQUEST_BYTES = 8192;
    static constexpr int64_t CLIENT_LIMIT_US = 5'000'000;

    /// Port 0 takes one of the kernel's choice.
    explicit MetricsServer(uint16_t port);
    ~MetricsServer();
    MetricsServer(const MetricsServer&) = delete;
    MetricsServer& operator=(const MetricsServer&) = delete;

    uint16_t port() const { return m_port; }
    /// Adds what is to be waited for.
    void poll_events(std::vector<pollfd>& events) const;
    /// Does whatever can be done without waiting. `metrics` gives the text of an answer; `now_us` is monotonic.
    void handle(const std::function<std::string()>& metrics, int64_t now_us);

private:
    struct Client {
        int fd = -1; // owned
        int64_t since_us = 0;
        std::string request;
        std::string answer; // what is left to send; empty while the request is incomplete
    };

    void accept_clients(int64_t now_us);
    static bool serve(Client& client, const std::function<std::string()>& metrics);

    int m_listener = -1; // owned
    uint16_t m_port = 0;
    std::vector<Client> m_clients;
};

} // namespace corvalin::watch
