#include "corvalin_lib/mem_buffer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace {

using Buffer = corvalin::mem::Buffer<1376>;
using ::testing::Each;
using ::testing::ElementsAre;

TEST(MemBufferTest, is_a_plain_record_of_the_content_and_the_bytes_in_use) {
    EXPECT_EQ(offsetof(Buffer, data), 0u);
    EXPECT_EQ(offsetof(Buffer, size), 1376u);
    EXPECT_EQ(sizeof(Buffer), 1384u);
    EXPECT_FALSE(std::is_polymorphic_v<Buffer>);
}

TEST(MemBufferTest, appends_behind_what_is_in_use) {
    corvalin::mem::Buffer<8> buffer;
    EXPECT_EQ(buffer.size, 0u);
    EXPECT_THAT(buffer.data, Each(0));
    const std::array<uint8_t, 3> first = {1, 2, 3};
    const std::array<uint8_t, 2> second = {4, 5};

    buffer.append(first.data(), first.size());
    EXPECT_EQ(buffer.size, 3u);
    buffer.append(second.data(), second.size());

    EXPECT_EQ(buffer.size, 5u);
    EXPECT_THAT(buffer.data, ElementsAre(1, 2, 3, 4, 5, 0, 0, 0));
}

TEST(MemBufferTest, takes_as_much_as_it_has_room_for) {
    corvalin::mem::Buffer<4> buffer;
    const std::array<uint8_t, 4> bytes = {9, 8, 7, 6};
    buffer.append(bytes.data(), bytes.size());
    EXPECT_EQ(buffer.size, 4u);
    EXPECT_THAT(buffer.data, ElementsAre(9, 8, 7, 6));
}

} // namespace
