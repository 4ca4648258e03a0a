// The tests with a broker, which a machine may not have: a run whose every test was skipped must not count as one
// that has passed.
#include "tests/support/kafka/kafka_fixture.h"
#include "tests/support/temporary_folder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

namespace {

using namespace corvalin::test;

constexpr int EXIT_SKIPPED = 77;

// Brokers store megabytes, and must leave none of them behind. The tests of this process have a folder of their own for
// all that is temporary.
class NothingStays : public ::testing::Environment {
public:
    void SetUp() override { ASSERT_EQ(setenv("TMPDIR", m_folder.path().c_str(), 1), 0); }

    void TearDown() override {
        KafkaTest::end_broker();
        std::vector<std::string> left;
        for (const auto& entry : std::filesystem::directory_iterator(m_folder.path())) {
            left.push_back(entry.path().filename());
        }
        EXPECT_THAT(left, ::testing::IsEmpty());
    }

private:
    TemporaryFolder m_folder;
};

} // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    ::testing::AddGlobalTestEnvironment(new NothingStays); // owned by GoogleTest
    const int result = RUN_ALL_TESTS();
    const ::testing::UnitTest& run = *::testing::UnitTest::GetInstance();
    if (result == 0 && run.successful_test_count() == 0) {
        return EXIT_SKIPPED;
    }
    return result;
}
