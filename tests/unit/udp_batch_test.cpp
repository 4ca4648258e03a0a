#include "tools/tool_support/udp_batch.h"

#include <arpa/inet.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace corvalin::tools {
namespace {

sockaddr_in loopback(uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

class UdpBatchTest : public testing::Test {
protected:
    UdpBatchTest() {
        m_receiver.bind_to(loopback(0));
        m_sender.connect_to(loopback(m_receiver.port()));
    }

    static void put(SendBatch& batch, const std::string& text) {
        text.copy(reinterpret_cast<char*>(batch.slot()), text.size());
        batch.commit(text.size());
    }

    std::vector<std::string> receive_all(ReceiveBatch& batch) {
        std::vector<std::string> texts;
        std::size_t count;
        do {
            count = batch.receive(m_receiver.fd());
            for (std::size_t index = 0; index < count; ++index) {
                texts.emplace_back(reinterpret_cast<const char*>(batch.bytes(index)), batch.size(index));
            }
        } while (count == batch.capacity());
        return texts;
    }

    UdpSocket m_receiver;
    UdpSocket m_sender;
};

TEST_F(UdpBatchTest, sends_and_receives_datagrams_in_their_order) {
    SendBatch sending(m_sender.fd(), 2);
    put(sending, "one");
    put(sending, "");
    put(sending, "three"); // more than the batch holds: the first two go out for it
    sending.commit_again();
    sending.commit_again(); // and once more
    sending.flush();
    ReceiveBatch receiving(2, true);
    EXPECT_EQ(receive_all(receiving), (std::vector<std::string>{"one", "", "three", "three", "three"}));
}

TEST_F(UdpBatchTest, sends_nothing_before_it_is_flushed) {
    SendBatch sending(m_sender.fd(), 2);
    put(sending, "one");
    ReceiveBatch receiving(2, true);
    EXPECT_EQ(receiving.receive(m_receiver.fd()), 0U);
    sending.flush();
    EXPECT_EQ(receiving.receive(m_receiver.fd()), 1U);
    sending.flush(); // nothing is left
    EXPECT_EQ(receiving.receive(m_receiver.fd()), 0U);
}

TEST_F(UdpBatchTest, reports_true_lengths_without_keeping_bytes) {
    SendBatch sending(m_sender.fd(), 4);
    put(sending, std::string(1376, 'x'));
    put(sending, "y");
    sending.flush();
    ReceiveBatch receiving(4, false);
    ASSERT_EQ(receiving.receive(m_receiver.fd()), 2U);
    EXPECT_EQ(receiving.size(0), 1376U);
    EXPECT_EQ(receiving.size(1), 1U);
}

TEST_F(UdpBatchTest, reports_the_true_length_of_a_datagram_that_is_cut) {
    const std::string text(ReceiveBatch::SLOT_BYTES + 1, 'x');
    ASSERT_EQ(send(m_sender.fd(), text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
    ReceiveBatch receiving(1, true);
    ASSERT_EQ(receiving.receive(m_receiver.fd()), 1U);
    EXPECT_EQ(receiving.size(0), text.size());
}

TEST_F(UdpBatchTest, counts_what_the_kernel_drops) {
    constexpr std::size_t datagrams = 1000;
    m_receiver.set_receive_buffer_bytes(1); // the kernel makes it its minimum, a few datagrams
    SendBatch sending(m_sender.fd(), 64);
    for (std::size_t i = 0; i < datagrams; ++i) {
        put(sending, "datagram");
    }
    sending.flush();
    ReceiveBatch receiving(64, true);
    const std::size_t received = receive_all(receiving).size();
    EXPECT_LT(received, datagrams);
    EXPECT_EQ(m_receiver.kernel_drops(), datagrams - received);
}

TEST_F(UdpBatchTest, datagrams_that_share_a_send_arrive_one_by_one_in_order) {
    m_receiver.set_receive_buffer_bytes(4 * 1024 * 1024);
    std::vector<std::string> sent;
    for (int i = 0; i < 100; ++i) { // more of one length than a send may have
        sent.push_back("datagram " + std::to_string(100 + i));
    }
    sent.insert(sent.end(), {"", "", "x", "longer than the one before", "x"});
    for (int i = 0; i < 60; ++i) { // more bytes than a send may have
        sent.emplace_back(1200, static_cast<char>('A' + i));
    }
    SendBatch sending(m_sender.fd(), 256, SendBatch::SEGMENTS_MAX);
    for (const std::string& text : sent) {
        put(sending, text);
    }
    sending.flush();
    ReceiveBatch receiving(256, true);
    EXPECT_EQ(receive_all(receiving), sent);
}

TEST_F(UdpBatchTest, goes_on_when_nobody_has_the_port_open) {
    const uint16_t port = [] {
        UdpSocket closed;
        closed.bind_to(loopback(0));
        return closed.port();
    }();
    UdpSocket sender;
    sender.connect_to(loopback(port));
    SendBatch sending(sender.fd(), 1);
    for (int i = 0; i < 10; ++i) {
        put(sending, "datagram");
        sending.flush();
    }
    EXPECT_GT(sending.refused(), 0U);
}

TEST_F(UdpBatchTest, a_port_in_use_is_a_failure_that_names_it) {
    UdpSocket second;
    try {
        second.bind_to(loopback(m_receiver.port()));
        ADD_FAILURE() << "no exception";
    } catch (const std::system_error& error) {
        EXPECT_EQ(std::string(error.what()), "cannot bind to 127.0.0.1:" + std::to_string(m_receiver.port()) +
                                                 ": Address already in use");
    }
}

TEST(UdpEndpointTest, reads_ports_and_addresses) {
    struct Case {
        const char* text;
        const char* expected; // empty: no endpoint
    };
    const Case cases[] = {
        {"5000", "127.0.0.1:5000"},
        {"1", "127.0.0.1:1"},
        {"65535", "127.0.0.1:65535"},
        {"10.1.2.3:80", "10.1.2.3:80"},
        {"65536", ""},
        {"0", ""},
        {"", ""},
        {":", ""},
        {"10.1.2.3:", ""},
        {"10.1.2.3", ""},
        {"-1", ""},
        {"80x", ""},
        {" 80", ""},
        {"+80", ""},
        {"10.1.2.3:99999", ""},
    };
    for (const Case& row : cases) {
        sockaddr_in address{};
        const bool good = parse_endpoint(row.text, address);
        EXPECT_EQ(good ? endpoint_text(address) : "", row.expected) << row.text;
    }
}

} // namespace
} // namespace corvalin::tools
