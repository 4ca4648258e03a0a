#include "corvalin_lib/media_packet_buffer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <new>
#include <string>
#include <type_traits>
#include <vector>

#include "tests/support/packet_builder.h"
#include "tests/support/pooled_packet.h"

namespace {

using namespace corvalin;
using media::PacketBuffer;
using test::pooled;

constexpr uint64_t POOL_BUFFERS = 150'000;
constexpr std::ptrdiff_t STRIDE_BYTES = 1408;

PacketBuffer* allocate() {
    return PacketBuffer::allocator.allocate();
}

/// Takes buffers until there are none, and gives all of them back when it goes.
class WholePool {
public:
    WholePool() {
        m_buffers.reserve(POOL_BUFFERS);
        try {
            for (;;) {
                m_buffers.emplace_back(allocate());
            }
        } catch (const PacketBuffer::BadAlloc&) {
        }
    }

    std::size_t size() const { return m_buffers.size(); }
    rc_ptr<PacketBuffer>& operator[](std::size_t index) { return m_buffers[index]; }

private:
    std::vector<rc_ptr<PacketBuffer>> m_buffers;
};

const unsigned char* address_of(const PacketBuffer* buffer) {
    return reinterpret_cast<const unsigned char*>(buffer);
}

/// Goes round the pool until `place` is handed out again.
PacketBuffer* allocate_at(const PacketBuffer* place) {
    for (uint64_t step = 0; step < POOL_BUFFERS; ++step) {
        PacketBuffer* const buffer = allocate();
        if (buffer == place) {
            return buffer;
        }
        delete buffer;
    }
    return nullptr;
}

TEST(MediaPacketBufferTest, a_buffer_comes_out_of_the_pool_empty_and_without_an_owner) {
    PacketBuffer* const raw = allocate();
    EXPECT_EQ(raw->reference_count(), 0);
    EXPECT_EQ(raw->size, 0u);
    EXPECT_THAT(raw->data, testing::Each(0));
    const rc_ptr<PacketBuffer> buffer(raw);
    EXPECT_EQ(buffer->reference_count(), 1);
}

TEST(MediaPacketBufferTest, a_slot_full_of_other_bytes_is_zeroed_whole) {
    PacketBuffer* const first = allocate();
    delete first;
    // Volatile: to the compiler these are stores to the memory of an object that is no more.
    auto* const slot = const_cast<volatile unsigned char*>(address_of(first));
    for (std::size_t index = 0; index < sizeof(PacketBuffer); ++index) {
        slot[index] = 0xAA;
    }

    PacketBuffer* const again = allocate_at(first);

    ASSERT_EQ(again, first);
    EXPECT_EQ(again->reference_count(), 0);
    EXPECT_EQ(again->size, 0u);
    std::size_t stale = 0;
    for (const uint8_t byte : again->data) {
        stale += byte == 0 ? 0 : 1;
    }
    EXPECT_EQ(stale, 0u) << "bytes of 1376";
    // The rest of the object, but for the pointer to the table of its class.
    for (std::size_t index = sizeof(void*); index < sizeof(PacketBuffer); ++index) {
        ASSERT_EQ(slot[index], 0) << "at " << index;
    }
    delete again;
}

TEST(MediaPacketBufferTest, a_short_packet_shows_no_byte_of_a_longer_predecessor) {
    const PacketBuffer* place = nullptr;
    {
        const auto longer = pooled(test::start_packet().call_id(std::string(1288, 'x')).bytes());
        place = longer.get();
    }
    const rc_ptr<PacketBuffer> buffer(allocate_at(place));
    ASSERT_EQ(buffer.get(), place);
    const test::Bytes packet = test::start_packet().call_id("abc").bytes();
    buffer->append(packet.data(), packet.size());
    EXPECT_EQ(media::view_packet<media::StartPacket>(buffer->data).call_id(), "abc");
    EXPECT_EQ(std::string(buffer->data + 91, buffer->data + 1376), std::string(1285, '\0'));
}

TEST(MediaPacketBufferTest, the_last_owner_gives_the_buffer_back) {
    const PacketBuffer* place = nullptr;
    WholePool whole;
    ASSERT_EQ(whole.size(), POOL_BUFFERS);
    {
        const rc_ptr<PacketBuffer> second_owner(whole[77]);
        place = whole[77].get();
        whole[77] = nullptr;
        EXPECT_THROW(allocate(), PacketBuffer::BadAlloc) << "it has an owner still";
    }
    whole[77] = allocate();
    EXPECT_EQ(whole[77].get(), place);
}

TEST(MediaPacketBufferTest, the_plain_destructor_gives_nothing_back) {
    WholePool whole;
    PacketBuffer* const raw = whole[5].detach();
    raw->~PacketBuffer();
    EXPECT_THROW(allocate(), PacketBuffer::BadAlloc);
    // The deleting form does.
    delete ::new (static_cast<void*>(raw)) PacketBuffer();
    whole[5] = allocate();
    EXPECT_EQ(whole[5].get(), raw);
}

TEST(MediaPacketBufferTest, the_pool_is_one_block_of_150000_items_of_1408_bytes) {
    WholePool whole;
    ASSERT_EQ(whole.size(), POOL_BUFFERS);
    const unsigned char* lowest = address_of(whole[0].get());
    const unsigned char* highest = lowest;
    for (std::size_t index = 1; index < POOL_BUFFERS; ++index) {
        const unsigned char* const address = address_of(whole[index].get());
        const std::ptrdiff_t step = address - address_of(whole[index - 1].get());
        // Items follow each other; at one place the scan goes from the last to the first.
        ASSERT_TRUE(step == STRIDE_BYTES ||
                    step == -STRIDE_BYTES * static_cast<std::ptrdiff_t>(POOL_BUFFERS - 1))
            << step;
        lowest = std::min(lowest, address);
        highest = std::max(highest, address);
    }
    EXPECT_EQ(highest - lowest + STRIDE_BYTES, 211'200'000);
}

TEST(MediaPacketBufferTest, the_allocation_behind_the_last_buffer_throws_and_leaves_the_place_of_the_scan) {
    WholePool whole;
    ASSERT_EQ(whole.size(), POOL_BUFFERS);
    // The pool was empty when the first one was taken, so the scan stands where it stood then.
    const PacketBuffer* const at_scan = whole[0].get();
    const PacketBuffer* const before_scan = whole[POOL_BUFFERS - 1].get();
    EXPECT_THROW(allocate(), PacketBuffer::BadAlloc);
    whole[POOL_BUFFERS - 1] = nullptr;
    whole[0] = nullptr;
    whole[0] = allocate();
    EXPECT_EQ(whole[0].get(), at_scan);
    whole[POOL_BUFFERS - 1] = allocate();
    EXPECT_EQ(whole[POOL_BUFFERS - 1].get(), before_scan);
}

TEST(MediaPacketBufferTest, after_one_release_the_next_allocation_finds_that_item_within_one_round) {
    WholePool whole;
    for (const std::size_t index : {std::size_t{0}, std::size_t{1}, std::size_t{74'999}, POOL_BUFFERS - 1}) {
        const PacketBuffer* const place = whole[index].get();
        EXPECT_THROW(allocate(), PacketBuffer::BadAlloc);
        whole[index] = nullptr;
        whole[index] = allocate();
        EXPECT_EQ(whole[index].get(), place);
    }
}

TEST(MediaPacketBufferTest, the_failure_is_a_failed_allocation_with_a_text_of_its_own) {
    EXPECT_TRUE((std::is_base_of_v<std::bad_alloc, PacketBuffer::BadAlloc>));
    const PacketBuffer::BadAlloc failure;
    EXPECT_STREQ(static_cast<const std::bad_alloc&>(failure).what(),
                 "Cannot allocate memory for PacketBuffer");
}

TEST(MediaPacketBufferTest, is_a_counted_object_and_then_a_buffer_and_nothing_else) {
    EXPECT_TRUE((std::is_base_of_v<ReferenceCountable, PacketBuffer>));
    EXPECT_TRUE((std::is_base_of_v<mem::Buffer<1376>, PacketBuffer>));
    EXPECT_EQ(sizeof(PacketBuffer), sizeof(ReferenceCountable) + sizeof(mem::Buffer<1376>));
    const auto buffer = pooled(test::terminate_packet().bytes());
    EXPECT_EQ(static_cast<const void*>(static_cast<ReferenceCountable*>(buffer.get())), buffer.get());
    EXPECT_EQ(reinterpret_cast<uintptr_t>(buffer->data) % 8, 0u) << "packet records are viewed in place";
}

} // namespace
