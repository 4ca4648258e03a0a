#include "corvalin_lib/net_socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <memory>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include "corvalin_lib/log.h"
#include "corvalin_lib/thread.h"
#include "tests/support/captured_log.h"
#include "tests/support/local_address.h"
#include "tests/support/refused_system_call.h"
#include "tests/support/waiting.h"

namespace {

using corvalin::current_thread_id;
using corvalin::log::Level;
using corvalin::net::Socket;
using corvalin::test::CapturedLog;
using corvalin::test::local_address;
using corvalin::test::local_port;
using corvalin::test::wait_until;
using corvalin::test::wait_until_asleep;
using corvalin::test::with_refused_system_call;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

sockaddr_in loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

bool is_open(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

int option(int fd, int name) {
    int value = -1;
    socklen_t size = sizeof(value);
    EXPECT_EQ(getsockopt(fd, SOL_SOCKET, name, &value, &size), 0);
    return value;
}

/// A signal that interrupts system calls and does nothing else.
class InterruptingSignal {
public:
    static constexpr int NUMBER = SIGUSR1;

    InterruptingSignal() {
        struct sigaction action {};
        action.sa_handler = [](int) {}; // without SA_RESTART
        sigaction(NUMBER, &action, &m_old);
    }
    ~InterruptingSignal() { sigaction(NUMBER, &m_old, nullptr); }
    InterruptingSignal(const InterruptingSignal&) = delete;
    InterruptingSignal& operator=(const InterruptingSignal&) = delete;

private:
    struct sigaction m_old {};
};

class NetSocketTest : public ::testing::Test {
protected:
    /// Opens the receiving socket of a test on a port of the kernel's choice.
    void open_receiver() {
        m_receiver.read_buffer = std::make_unique<Socket::Buffer>();
        ASSERT_TRUE(m_receiver.open(0, INADDR_LOOPBACK));
    }
    void send_to_receiver(const std::string& text) {
        const sockaddr_in address = loopback(local_port(m_receiver));
        const int fd = socket(AF_INET, SOCK_DGRAM, 0);
        EXPECT_EQ(sendto(fd, text.data(), text.size(), 0, reinterpret_cast<const sockaddr*>(&address),
                         sizeof(address)),
                  static_cast<ssize_t>(text.size()));
        close(fd);
    }

    const CapturedLog m_log;
    Socket m_receiver;
    Socket m_sender;
};

// ---- Open and close

TEST_F(NetSocketTest, a_new_socket_is_closed_and_has_no_receive_buffer) {
    EXPECT_EQ(m_sender.descriptor(), -1);
    EXPECT_EQ(m_sender.read_buffer, nullptr);
}

TEST_F(NetSocketTest, open_binds_to_address_and_port_given_in_machine_order) {
    int port = 0;
    {
        Socket probe;
        ASSERT_TRUE(probe.open(0, INADDR_LOOPBACK));
        port = local_port(probe);
    }
    ASSERT_TRUE(m_receiver.open(port, INADDR_LOOPBACK));
    const sockaddr_in address = local_address(m_receiver.descriptor());
    EXPECT_EQ(address.sin_family, AF_INET);
    EXPECT_EQ(ntohs(address.sin_port), port);
    EXPECT_EQ(ntohl(address.sin_addr.s_addr), INADDR_LOOPBACK);
    EXPECT_EQ(option(m_receiver.descriptor(), SO_TYPE), SOCK_DGRAM);
    EXPECT_EQ(option(m_receiver.descriptor(), SO_PROTOCOL), IPPROTO_UDP);
    EXPECT_THAT(m_log.texts(), IsEmpty());
}

TEST_F(NetSocketTest, port_and_address_zero_leave_both_to_the_kernel) {
    ASSERT_TRUE(m_sender.open(0, 0));
    const sockaddr_in address = local_address(m_sender.descriptor());
    EXPECT_NE(address.sin_port, 0);
    EXPECT_EQ(address.sin_addr.s_addr, htonl(INADDR_ANY));
}

TEST_F(NetSocketTest, open_on_an_open_socket_is_true_at_once_and_changes_nothing) {
    ASSERT_TRUE(m_receiver.open(0, INADDR_LOOPBACK));
    const int fd = m_receiver.descriptor();
    const int port = local_port(m_receiver);
    EXPECT_TRUE(m_receiver.open(port == 1 ? 2 : 1, 0));
    EXPECT_EQ(m_receiver.descriptor(), fd);
    EXPECT_EQ(local_port(m_receiver), port);
    EXPECT_THAT(m_log.texts(), IsEmpty());
}

TEST_F(NetSocketTest, a_port_in_use_is_reported_and_the_descriptor_stays_so_that_a_second_open_is_true) {
    open_receiver();
    const int port = local_port(m_receiver);
    Socket second;

    EXPECT_FALSE(second.open(port, INADDR_LOOPBACK));

    const int fd = second.descriptor();
    EXPECT_GE(fd, 0);
    EXPECT_TRUE(is_open(fd));
    EXPECT_THAT(m_log.records(),
                ElementsAre("ERROR net_socket: SOCKET[" + std::to_string(fd) +
                            "]: failed to bind a socket, error (98): Address already in use"));

    EXPECT_TRUE(second.open(port, INADDR_LOOPBACK));
    EXPECT_EQ(second.descriptor(), fd);
    EXPECT_EQ(local_address(fd).sin_port, 0) << "nothing has been bound";
    EXPECT_THAT(m_log.lines(), testing::SizeIs(1));

    second.close();
    m_receiver.close();
    EXPECT_TRUE(second.open(port, INADDR_LOOPBACK));
    EXPECT_EQ(local_port(second), port);
}

TEST_F(NetSocketTest, a_descriptor_that_the_system_refuses_is_reported_without_a_number) {
    with_refused_system_call(SYS_socket, EMFILE, [this] {
        EXPECT_FALSE(m_sender.open(0, 0));
        EXPECT_EQ(m_sender.descriptor(), -1);
    });
    EXPECT_THAT(
        m_log.records(),
        ElementsAre(
            "ERROR net_socket: SOCKET[ ]: failed to create a socket, error (24): Too many open files"));
    EXPECT_TRUE(m_sender.open(0, 0)) << "a socket that was not made can be opened later";
}

TEST_F(NetSocketTest, no_option_is_set_and_reads_block) {
    ASSERT_TRUE(m_receiver.open(0, INADDR_LOOPBACK));
    const int plain = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    for (const int name : {SO_RCVBUF, SO_SNDBUF, SO_REUSEADDR, SO_REUSEPORT, SO_BROADCAST, SO_PRIORITY}) {
        EXPECT_EQ(option(m_receiver.descriptor(), name), option(plain, name)) << name;
    }
    EXPECT_EQ(fcntl(m_receiver.descriptor(), F_GETFL), fcntl(plain, F_GETFL));
    EXPECT_EQ(fcntl(plain, F_GETFL) & O_NONBLOCK, 0);
    close(plain);
}

TEST_F(NetSocketTest, two_closes_in_a_row_do_no_harm) {
    ASSERT_TRUE(m_sender.open(0, 0));
    const int fd = m_sender.descriptor();
    m_sender.close();
    EXPECT_EQ(m_sender.descriptor(), -1);
    EXPECT_FALSE(is_open(fd));
    // The number may belong to somebody else by now, whom the second close must not hit.
    const int other = dup2(STDOUT_FILENO, fd);
    ASSERT_EQ(other, fd);
    m_sender.close();
    EXPECT_EQ(m_sender.descriptor(), -1);
    EXPECT_TRUE(is_open(other));
    close(other);
    EXPECT_THAT(m_log.texts(), IsEmpty());
}

TEST_F(NetSocketTest, close_ends_the_traffic_for_all_holders_of_the_socket) {
    open_receiver();
    const int twin = dup(m_receiver.descriptor());
    std::array<char, 8> buffer{};
    ASSERT_EQ(recv(twin, buffer.data(), buffer.size(), MSG_DONTWAIT), -1);
    ASSERT_EQ(errno, EAGAIN);
    m_receiver.close();
    // Only a receive that would wait looks whether the socket has been shut down.
    const timeval limit = {2, 0};
    ASSERT_EQ(setsockopt(twin, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit)), 0);
    EXPECT_EQ(recv(twin, buffer.data(), buffer.size(), 0), 0) << "not shut down";
    close(twin);
}

TEST_F(NetSocketTest, a_closed_socket_opens_anew) {
    ASSERT_TRUE(m_sender.open(0, 0));
    m_sender.close();
    ASSERT_TRUE(m_sender.open(0, INADDR_LOOPBACK));
    EXPECT_NE(local_port(m_sender), 0);
}

TEST_F(NetSocketTest, the_end_of_the_object_closes_the_descriptor) {
    int fd = -1;
    {
        Socket socket;
        ASSERT_TRUE(socket.open(0, 0));
        fd = socket.descriptor();
        ASSERT_TRUE(is_open(fd));
    }
    EXPECT_FALSE(is_open(fd));
}

// ---- Read

TEST_F(NetSocketTest, read_returns_one_datagram_and_its_length) {
    open_receiver();
    send_to_receiver("first");
    send_to_receiver("the second");
    std::array<unsigned char, 64> buffer{};
    EXPECT_EQ(m_receiver.read(buffer.data(), buffer.size()), 5u);
    EXPECT_EQ(std::string(buffer.begin(), buffer.begin() + 5), "first");
    EXPECT_EQ(m_receiver.read(buffer.data(), buffer.size()), 10u);
    EXPECT_EQ(std::string(buffer.begin(), buffer.begin() + 10), "the second");
}

TEST_F(NetSocketTest, read_cuts_a_datagram_to_the_size_given) {
    open_receiver();
    send_to_receiver("longer than that");
    std::array<unsigned char, 6> buffer{};
    EXPECT_EQ(m_receiver.read(buffer.data(), 4), 4u);
    EXPECT_THAT(buffer, ElementsAre('l', 'o', 'n', 'g', 0, 0));
}

TEST_F(NetSocketTest, read_into_the_receive_buffer_takes_the_largest_datagram_whole) {
    open_receiver();
    EXPECT_EQ(sizeof(Socket::Buffer::data), 65536u);
    EXPECT_EQ(offsetof(Socket::Buffer, size), 65536u);
    std::string largest(65507, '\0');
    std::iota(largest.begin(), largest.end(), '\0');
    send_to_receiver(largest);
    send_to_receiver("short");

    Socket::Buffer& buffer = m_receiver.read();
    EXPECT_EQ(&buffer, m_receiver.read_buffer.get());
    ASSERT_EQ(buffer.size, 65507u);
    EXPECT_EQ(std::string(buffer.data, buffer.data + buffer.size), largest);

    EXPECT_EQ(m_receiver.read().size, 5u);
}

TEST_F(NetSocketTest, an_empty_datagram_reads_as_nothing_and_is_not_reported) {
    open_receiver();
    send_to_receiver("");
    EXPECT_EQ(m_receiver.read().size, 0u);
    EXPECT_THAT(m_log.texts(), IsEmpty());
}

TEST_F(NetSocketTest, an_interrupted_read_returns_nothing_and_says_so) {
    open_receiver();
    const InterruptingSignal signal;
    std::atomic<int> id{0};
    std::atomic<unsigned long> size{99};
    std::thread reader([&] {
        id = current_thread_id();
        size = m_receiver.read().size;
    });
    EXPECT_TRUE(wait_until([&] { return id != 0; }));
    EXPECT_TRUE(wait_until_asleep(id));
    EXPECT_EQ(pthread_kill(reader.native_handle(), InterruptingSignal::NUMBER), 0);
    reader.join();
    EXPECT_EQ(size, 0u);
    EXPECT_THAT(m_log.records(),
                ElementsAre("INFO net_socket: SOCKET[" + std::to_string(m_receiver.descriptor()) +
                            "]: system interrupted call"));
    send_to_receiver("goes on");
    EXPECT_EQ(m_receiver.read().size, 7u);
}

using NetSocketDeathTest = NetSocketTest;

TEST_F(NetSocketDeathTest, any_other_failure_of_a_read_closes_the_socket_and_ends_the_process_with_255) {
    EXPECT_EXIT(
        {
            corvalin::log::Logger::m_instance.m_write = &corvalin::log::Stdlog::write;
            static Socket socket;
            socket.read_buffer = std::make_unique<Socket::Buffer>();
            socket.open(0, INADDR_LOOPBACK);
            const int fd = socket.descriptor();
            dup2(open("/dev/null", O_RDONLY), fd); // no socket any more, so every receive fails
            std::cerr << "fd=" << fd << "\n";
            atexit([] { std::cerr << "at exit: " << socket.descriptor() << "\n"; });
            socket.read();
            std::cerr << "went on\n";
            _exit(1);
        },
        testing::ExitedWithCode(255),
        "fd=([0-9]+)\n.* \\| ERROR   \\| SOCKET\\[[0-9]+\\]: failed to read a data, error \\(88\\): "
        "Socket operation on non-socket\nat exit: -1\n$");
}

TEST_F(NetSocketDeathTest, reading_without_a_receive_buffer_is_a_programming_error) {
    EXPECT_DEATH(m_sender.read(), "read_buffer");
}

// ---- Send

TEST_F(NetSocketTest, send_delivers_the_bytes_to_the_address) {
    open_receiver();
    ASSERT_TRUE(m_sender.open(0, 0));
    const std::string text("one\0two", 7);
    EXPECT_TRUE(m_sender.send(loopback(local_port(m_receiver)), text.data(), text.size()));
    const Socket::Buffer& buffer = m_receiver.read();
    ASSERT_EQ(buffer.size, 7u);
    EXPECT_EQ(std::string(buffer.data, buffer.data + 7), text);
    EXPECT_THAT(m_log.texts(), IsEmpty());
}

TEST_F(NetSocketTest, each_send_goes_to_the_address_of_its_own_call) {
    open_receiver();
    Socket other;
    other.read_buffer = std::make_unique<Socket::Buffer>();
    ASSERT_TRUE(other.open(0, INADDR_LOOPBACK));
    ASSERT_TRUE(m_sender.open(0, 0));
    EXPECT_TRUE(m_sender.send(loopback(local_port(m_receiver)), "a", 1));
    EXPECT_TRUE(m_sender.send(loopback(local_port(other)), "bb", 2));
    EXPECT_EQ(m_receiver.read().size, 1u);
    EXPECT_EQ(other.read().size, 2u);
}

TEST_F(NetSocketTest, nothing_to_send_is_a_success_without_a_system_call) {
    // A call would fail: the socket is closed.
    EXPECT_TRUE(m_sender.send(loopback(9), nullptr, 5));
    EXPECT_TRUE(m_sender.send(loopback(9), "x", 0));
    EXPECT_TRUE(m_sender.send(loopback(9), nullptr, 0));
    EXPECT_THAT(m_log.texts(), IsEmpty());
}

TEST_F(NetSocketTest, an_empty_datagram_is_not_sent) {
    open_receiver();
    ASSERT_TRUE(m_sender.open(0, 0));
    EXPECT_TRUE(m_sender.send(loopback(local_port(m_receiver)), "x", 0));
    EXPECT_TRUE(m_sender.send(loopback(local_port(m_receiver)), "behind", 6));
    EXPECT_EQ(m_receiver.read().size, 6u);
}

TEST_F(NetSocketTest, a_failed_send_reports_size_and_address_of_the_data_and_not_its_bytes) {
    struct Case {
        const char* description;
        std::function<void()> prepare;
        unsigned long size;
        std::string error;
    };
    static std::array<char, 70'000> data{};
    const std::array<Case, 2> cases = {{
        {"closed socket", [] {}, 3, "(9): Bad file descriptor"},
        {"too long for a datagram", [this] { ASSERT_TRUE(m_sender.open(0, 0)); }, data.size(),
         "(90): Message too long"},
    }};
    std::size_t line = 0;
    for (const Case& row : cases) {
        SCOPED_TRACE(row.description);
        row.prepare();
        EXPECT_FALSE(m_sender.send(loopback(9), data.data(), row.size));
        ASSERT_THAT(m_log.lines(), testing::SizeIs(++line)) << "nothing is tried again";
        EXPECT_EQ(m_log.lines().back().level, Level::ERROR);
        EXPECT_EQ(m_log.lines().back().file, "net_socket");
        EXPECT_EQ(m_log.lines().back().text,
                  "SOCKET[" + std::to_string(m_sender.descriptor()) + "]: failed to send a data (" +
                      std::to_string(row.size) + ": " +
                      std::to_string(reinterpret_cast<uintptr_t>(data.data())) + "), error " + row.error);
    }
}

TEST_F(NetSocketTest, a_refused_send_is_reported_once_and_the_next_one_goes_through) {
    open_receiver();
    ASSERT_TRUE(m_sender.open(0, 0));
    const sockaddr_in address = loopback(local_port(m_receiver));
    with_refused_system_call(SYS_sendto, ENOBUFS, [&] { EXPECT_FALSE(m_sender.send(address, "lost", 4)); });
    EXPECT_THAT(m_log.texts(Level::ERROR),
                ElementsAre(testing::EndsWith("error (105): No buffer space available")));
    EXPECT_TRUE(m_sender.send(address, "comes", 5));
    EXPECT_EQ(m_receiver.read().size, 5u);
}

// A datagram always goes whole. A stream under the same descriptor takes a part when a signal comes in between.
TEST_F(NetSocketTest, send_goes_on_until_all_is_gone) {
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    const sockaddr_in any = loopback(0);
    ASSERT_EQ(bind(listener, reinterpret_cast<const sockaddr*>(&any), sizeof(any)), 0);
    ASSERT_EQ(listen(listener, 1), 0);
    const sockaddr_in address = local_address(listener);
    const int writing_end = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(connect(writing_end, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    const int reading_end = accept(listener, nullptr, nullptr);
    ASSERT_GE(reading_end, 0);
    ASSERT_TRUE(m_sender.open(0, 0));
    ASSERT_GE(dup2(writing_end, m_sender.descriptor()), 0);
    close(writing_end);

    const InterruptingSignal signal;
    std::vector<char> data(32 * 1024 * 1024); // more than all buffers of a connection hold
    for (std::size_t index = 0; index < data.size(); ++index) {
        data[index] = static_cast<char>(index * 7 + index / 251);
    }
    std::atomic<int> id{0};
    std::atomic<int> result{-1};
    std::thread writer([&] {
        id = current_thread_id();
        result = m_sender.send(address, data.data(), data.size()) ? 1 : 0;
        m_sender.close();
    });
    EXPECT_TRUE(wait_until([&] { return id != 0; }));
    EXPECT_TRUE(wait_until_asleep(id)); // the buffers are full
    EXPECT_EQ(pthread_kill(writer.native_handle(), InterruptingSignal::NUMBER), 0);
    std::vector<char> received;
    std::vector<char> piece(1024 * 1024);
    for (;;) {
        const ssize_t size = recv(reading_end, piece.data(), piece.size(), 0);
        if (size <= 0) {
            break;
        }
        received.insert(received.end(), piece.begin(), piece.begin() + size);
    }
    writer.join();
    close(reading_end);
    close(listener);
    EXPECT_EQ(result, 1);
    EXPECT_EQ(received.size(), data.size());
    EXPECT_TRUE(received == data);
    EXPECT_THAT(m_log.texts(), IsEmpty());
}

} // namespace
