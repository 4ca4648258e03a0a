#include "tests/support/captured_log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace {

using namespace corvalin;
using test::CapturedLog;
using ::testing::ElementsAre;

constexpr const char* SOURCE = "some_module";

TEST(CapturedLogTest, keeps_level_source_line_and_text_of_each_message_in_order) {
    const CapturedLog captured;
    log::write(SOURCE, 12, log::ErrorMessage() << "TEST: first [" << 1 << "]");
    log::write("other_module", 7, log::TraceMessage() << "TEST: second");

    const auto lines = captured.lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].level, log::Level::ERROR);
    EXPECT_EQ(lines[0].file, "some_module");
    EXPECT_EQ(lines[0].line, 12);
    EXPECT_EQ(lines[0].text, "TEST: first [1]");
    EXPECT_EQ(lines[1].level, log::Level::TRACE);
    EXPECT_EQ(lines[1].file, "other_module");
    EXPECT_EQ(lines[1].line, 7);
    EXPECT_EQ(lines[1].text, "TEST: second");
    EXPECT_THAT(captured.records(),
                ElementsAre("ERROR some_module: TEST: first [1]", "TRACE other_module: TEST: second"));
}

TEST(CapturedLogTest, selects_and_counts_by_level_and_forgets_on_request) {
    CapturedLog captured;
    log::write(SOURCE, 1, log::ErrorMessage() << "TEST: same");
    log::write(SOURCE, 2, log::InfoMessage() << "TEST: same");
    log::write(SOURCE, 3, log::ErrorMessage() << "TEST: same");

    EXPECT_THAT(captured.texts(log::Level::INFO), ElementsAre("TEST: same"));
    EXPECT_EQ(captured.texts().size(), 3u);
    EXPECT_EQ(captured.count(log::Level::ERROR, "TEST: same"), 2u);
    EXPECT_EQ(captured.count(log::Level::WARNING, "TEST: same"), 0u);
    EXPECT_EQ(captured.count(log::Level::ERROR, "TEST: sam"), 0u);
    captured.clear();
    EXPECT_TRUE(captured.texts().empty());
}

TEST(CapturedLogTest, restores_the_record_that_it_found) {
    log::LoggerImpl& logger = log::Logger::m_instance;
    const log::LoggerImpl::Write write = logger.m_write;
    const log::Level level = logger.m_level;
    int context = 0;
    logger.m_context = &context;
    logger.m_close = &log::Syslog::close;
    {
        const CapturedLog captured(log::Level::TRACE);
        EXPECT_TRUE(log::passes(log::Level::TRACE));
        EXPECT_NE(static_cast<log::LoggerImpl::Write>(logger.m_write), write);
        EXPECT_EQ(static_cast<log::LoggerImpl::Close>(logger.m_close), nullptr);
    }
    EXPECT_EQ(static_cast<void*>(logger.m_context), &context);
    EXPECT_EQ(static_cast<log::LoggerImpl::Close>(logger.m_close), &log::Syslog::close);
    EXPECT_EQ(static_cast<log::LoggerImpl::Write>(logger.m_write), write);
    EXPECT_EQ(static_cast<log::Level>(logger.m_level), level);
    logger.m_context = nullptr;
    logger.m_close = nullptr;
}

constexpr int THREADS = 4;
constexpr int MESSAGES = 250;

TEST(CapturedLogTest, takes_messages_of_several_threads_without_losing_one) {
    const CapturedLog captured;
    std::vector<std::thread> threads;
    threads.reserve(THREADS);
    for (int thread = 0; thread < THREADS; ++thread) {
        threads.emplace_back([thread] {
            for (int number = 0; number < MESSAGES; ++number) {
                log::write(SOURCE, number, log::InfoMessage() << "TEST: thread " << thread);
            }
        });
    }
    EXPECT_TRUE(captured.wait_for("TEST: thread 3"));
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (int thread = 0; thread < THREADS; ++thread) {
        EXPECT_EQ(captured.count(log::Level::INFO, "TEST: thread " + std::to_string(thread)),
                  static_cast<std::size_t>(MESSAGES));
    }
}

TEST(CapturedLogTest, waiting_for_a_text_that_never_comes_gives_up_at_its_limit) {
    const CapturedLog captured;
    log::write(SOURCE, 1, log::InfoMessage() << "TEST: other");
    EXPECT_FALSE(captured.wait_for("TEST: never", std::chrono::milliseconds(1)));
    EXPECT_TRUE(captured.wait_for("TEST: other", std::chrono::milliseconds(1)));
}

} // namespace
