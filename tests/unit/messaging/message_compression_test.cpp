// The two operations that every message passes through, against zlib itself.
#include <zlib.h>

#include <memory>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "corvalin_lib/messaging_message_broker.h"
#include "tests/support/captured_log.h"
#include "tests/unit/messaging/kafka_double.h"
#include "tests/unit/messaging/test_broker.h"

namespace {

using namespace corvalin;
using namespace corvalin::test;
using messaging::MessageBroker;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Array = std::unique_ptr<unsigned char[]>;

const unsigned char* bytes(const std::string& text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}

std::string text_of(const Array& array, unsigned long size) {
    return {reinterpret_cast<const char*>(array.get()), size};
}

/// A stream of identical bytes that inflates to exactly `factor` times its size and `more` bytes.
std::string stream_of_ratio(long factor, long more) {
    for (long length = 1; length < 1000; ++length) {
        const std::string stream = deflated(std::string(static_cast<std::size_t>(length), 'x'));
        if (static_cast<long>(stream.size()) * factor + more == length) {
            return stream;
        }
    }
    ADD_FAILURE() << "no such stream";
    return {};
}

class MessageCompressionTest : public ::testing::Test {
protected:
    CapturedLog m_log;
};

TEST_F(MessageCompressionTest, compression_writes_what_zlib_writes_at_its_default_level) {
    for (const std::string& text :
         {std::string("{\"type\":\"get_versions\"}"), std::string("\0\0\1", 3), std::string(70'000, 'x')}) {
        unsigned long size = text.size();
        const Array stream(MessageBroker::compress(bytes(text), size));
        ASSERT_TRUE(stream);
        EXPECT_EQ(text_of(stream, size), deflated(text));
    }
    EXPECT_THAT(m_log.lines(), IsEmpty());
}

TEST_F(MessageCompressionTest, nothing_is_compressed_to_a_stream_as_well) {
    unsigned long size = 0;
    const unsigned char nothing = 0;
    const Array stream(MessageBroker::compress(&nothing, size));
    ASSERT_TRUE(stream);
    EXPECT_EQ(size, 8u); // header, empty block, checksum
    EXPECT_EQ(inflated(text_of(stream, size)), "");
}

TEST_F(MessageCompressionTest, the_buffers_are_whole_and_zero_behind_what_counts) {
    const std::string text(200, 'x');
    unsigned long size = text.size();
    const Array stream(MessageBroker::compress(bytes(text), size));
    ASSERT_TRUE(stream);
    const unsigned long bound = compressBound(text.size());
    ASSERT_LT(size, bound);
    EXPECT_EQ(text_of(stream, bound).substr(size), std::string(bound - size, '\0'));

    const std::string stored = deflated("x", 0);
    size = stored.size();
    const Array plain(MessageBroker::decompress(bytes(stored), size));
    ASSERT_TRUE(plain);
    ASSERT_EQ(size, 1u);
    EXPECT_EQ(text_of(plain, stored.size() * 10), "x" + std::string(stored.size() * 10 - 1, '\0'));
}

TEST_F(MessageCompressionTest, a_compression_that_fails_is_a_line_and_leaves_the_size) {
    const FailingCompression failing(Z_BUF_ERROR);
    unsigned long size = 4;
    EXPECT_EQ(MessageBroker::compress(bytes("text"), size), nullptr);
    EXPECT_EQ(size, 4u);
    EXPECT_THAT(
        m_log.records(),
        ElementsAre("ERROR messaging_message_broker: MESSAGE_BROKER: message compressing error (-5)"));
}

TEST_F(MessageCompressionTest, a_stream_is_inflated_up_to_ten_times_its_size_and_no_further) {
    struct Case {
        const char* description;
        std::string stream;
        bool is_received;
    };
    const Case cases[] = {
        {"one byte below ten times", stream_of_ratio(10, -1), true},
        {"exactly ten times", stream_of_ratio(10, 0), true},
        {"one byte beyond", stream_of_ratio(10, 1), false},
        {"far beyond", deflated(std::string(1000, 'x')), false},
        {"a stored block, which never grows", deflated(std::string(1000, 'x'), 0), true},
        {"nothing", deflated(""), true},
    };
    for (const Case& row : cases) {
        SCOPED_TRACE(row.description);
        m_log.clear();
        unsigned long size = row.stream.size();
        const Array plain(MessageBroker::decompress(bytes(row.stream), size));
        ASSERT_EQ(plain != nullptr, row.is_received);
        if (row.is_received) {
            EXPECT_EQ(text_of(plain, size), inflated(row.stream));
            EXPECT_THAT(m_log.lines(), IsEmpty());
        } else {
            EXPECT_EQ(size, row.stream.size());
            EXPECT_THAT(
                m_log.records(),
                ElementsAre(
                    "ERROR messaging_message_broker: MESSAGE_BROKER: message decompressing error (-5)"));
        }
    }
}

TEST_F(MessageCompressionTest, a_stream_of_nothing_leaves_a_zero_to_be_read) {
    const std::string stream = deflated("");
    unsigned long size = stream.size();
    const Array plain(MessageBroker::decompress(bytes(stream), size));
    ASSERT_TRUE(plain);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(plain[0], 0);
}

TEST_F(MessageCompressionTest, what_is_no_zlib_stream_is_refused_with_its_size_unchanged) {
    std::string broken = deflated("some text");
    broken.back() = static_cast<char>(broken.back() ^ 1);
    const std::string whole = deflated("some text");
    struct Case {
        const char* description;
        std::string stream;
        int code;
    };
    const Case cases[] = {
        {"plain JSON", "{\"type\":\"config_versions\"}", Z_DATA_ERROR},
        {"a wrong checksum", broken, Z_DATA_ERROR},
        {"an end that is missing", whole.substr(0, whole.size() - 1), Z_DATA_ERROR},
        {"an empty payload", "", Z_DATA_ERROR},
        {"a dictionary that nobody has", std::string("\x78\xbb\x00\x00\x00\x01", 6), Z_DATA_ERROR},
    };
    for (const Case& row : cases) {
        SCOPED_TRACE(row.description);
        m_log.clear();
        unsigned long size = row.stream.size();
        EXPECT_EQ(MessageBroker::decompress(bytes(row.stream), size), nullptr);
        EXPECT_EQ(size, row.stream.size());
        EXPECT_THAT(m_log.texts(), ElementsAre("MESSAGE_BROKER: message decompressing error (" +
                                               std::to_string(row.code) + ")"));
    }
}

TEST_F(MessageCompressionTest, a_null_payload_is_refused_like_an_empty_one) {
    unsigned long size = 0;
    EXPECT_EQ(MessageBroker::decompress(nullptr, size), nullptr);
    EXPECT_EQ(size, 0u);
    EXPECT_THAT(m_log.texts(), ElementsAre("MESSAGE_BROKER: message decompressing error (-3)"));
}

} // namespace
