#include "tools/tool_support/garbage.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <set>

#include "tools/tool_support/media_stream.h"

namespace corvalin::tools {
namespace {

class GarbageTest : public testing::Test {
protected:
    PacketFault fault_of(GarbageKind kind) {
        m_size = write_garbage(kind, m_random, m_bytes.data());
        return find_fault(m_bytes.data(), m_size);
    }

    SeededRandom m_random{20250101};
    alignas(8) std::array<uint8_t, GARBAGE_MAX_BYTES> m_bytes{};
    std::size_t m_size = 0;
};

TEST_F(GarbageTest, is_refused_for_the_reason_of_its_kind) {
    struct Case {
        GarbageKind kind;
        PacketFault fault;
    };
    const Case cases[] = {
        {GarbageKind::too_short, PacketFault::too_short},
        {GarbageKind::too_long, PacketFault::too_long},
        {GarbageKind::bad_marker, PacketFault::bad_marker},
        {GarbageKind::bad_version, PacketFault::bad_version},
        {GarbageKind::unknown_type, PacketFault::unknown_type},
        {GarbageKind::corrupted_size, PacketFault::corrupted_size},
    };
    for (const Case& row : cases) {
        for (int i = 0; i < 10000; ++i) {
            ASSERT_EQ(fault_of(row.kind), row.fault) << GARBAGE_NAMES[static_cast<std::size_t>(row.kind)];
        }
    }
}

TEST_F(GarbageTest, is_never_empty_and_reaches_the_lengths_next_to_the_valid_ones) {
    std::set<std::size_t> sizes;
    for (int i = 0; i < 20000; ++i) {
        for (const GarbageKind kind : {GarbageKind::too_short, GarbageKind::too_long}) {
            fault_of(kind);
            sizes.insert(m_size);
        }
    }
    EXPECT_EQ(*sizes.begin(), 1U);
    EXPECT_EQ(*sizes.rbegin(), GARBAGE_MAX_BYTES);
    EXPECT_TRUE(sizes.contains(47) && sizes.contains(1377));
    EXPECT_FALSE(sizes.contains(48) || sizes.contains(1376));
}

TEST_F(GarbageTest, corrupted_sizes_come_with_every_type) {
    std::set<uint8_t> types;
    for (int i = 0; i < 1000; ++i) {
        fault_of(GarbageKind::corrupted_size);
        types.insert(m_bytes[4]);
    }
    EXPECT_EQ(types, (std::set<uint8_t>{0x81, 0x82, 0x83}));
}

} // namespace
} // namespace corvalin::tools
