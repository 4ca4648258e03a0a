// media_session_index: the table of sessions by their 64-bit id.
//
// Threads    one: the reader thread.
// Ownership  one rc_ptr for each entry.
// Errors     std::bad_alloc passes through `insert`; std::system_error from the constructor without a random
//            key.
//
// Three things are asked of it that one plain hash map does not give. The ids come from outside, and a sender that
// chooses them against the table must not turn it into a list: the hash is SipHash-1-3 with a random key of this process.
// The table grows on the packet path, where rehashing millions of entries at once would stop the reader for seconds: it
// is cut into shards by the upper bits of the hash, which grow one at a time, so that one insertion moves the entries of
// one shard (about 40000 of 10 million). And each look-up comes between two system calls that leave little of it in the
// caches: with linear probing it touches the shard and one slot, where a chained map also touches a bucket's node.
#pragma once

#include "corvalin_lib/media_session.h"
#include "corvalin_lib/prefetch.h"
#include "corvalin_lib/reference_countable.h"
#include "corvalin_lib/utils_siphash.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace corvalin::media {

class SessionIndex {
public:
    SessionIndex();

    /// The entry of `id`, or null. The pointer is good until the next insertion or removal.
    rc_ptr<Session>* find(uint64_t id) noexcept {
        const uint64_t tag = tag_of(id);
        Shard& shard = shard_of(tag);
        if (shard.slots.empty()) {
            return nullptr;
        }
        Slot& slot = shard.slots[position_of(shard, id, tag)];
        return slot.tag == 0 ? nullptr : &slot.session;
    }

    /// Fetches the slot of `id` into the caches.
    void prefetch(uint64_t id) const noexcept {
        const uint64_t tag = tag_of(id);
        const Shard& shard = m_shards[shard_number_of(tag)];
        if (!shard.slots.empty()) {
            corvalin::prefetch(&shard.slots[first_choice(shard, tag)], sizeof(Slot));
        }
    }

    /// Enters `session` under `id`, which must not be in the table.
    void insert(uint64_t id, rc_ptr<Session> session);
    /// Removes the entry of `id` if there is one.
    void erase(uint64_t id) noexcept;
    void clear() noexcept;

    uint64_t size() const noexcept { return m_size; }

private:
    struct alignas(32) Slot {
        uint64_t tag = 0; // the hash with its lowest bit set, so that 0 is an empty slot
        uint64_t id = 0;
        rc_ptr<Session> session;
    };
    struct Shard {
        std::vector<Slot> slots; // a power of two of them, or none
        std::size_t used = 0;
    };

    static constexpr int SHARD_BITS = 8;
    static constexpr std::size_t SLOTS_MIN = 8;

    uint64_t tag_of(uint64_t id) const noexcept { return utils::siphash<1, 3>(m_key, id) | 1; }
    static std::size_t shard_number_of(uint64_t tag) noexcept { return tag >> (64 - SHARD_BITS); }
    Shard& shard_of(uint64_t tag) noexcept { return m_shards[shard_number_of(tag)]; }

    static std::size_t first_choice(const Shard& shard, uint64_t tag) noexcept {
        return (tag >> 1) & (shard.slots.size() - 1);
    }
    static std::size_t behind(const Shard& shard, std::size_t position) noexcept {
        return (position + 1) & (shard.slots.size() - 1);
    }
    static std::size_t position_of(const Shard& shard, uint64_t id, uint64_t tag) noexcept {
        std::size_t position = first_choice(shard, tag);
        while (shard.slots[position].tag != 0 && shard.slots[position].id != id) {
            position = behind(shard, position);
        }
        return position;
    }
    static void grow(Shard& shard);

    const utils::SipHashKey m_key;
    uint64_t m_size = 0;
    std::array<Shard, std::size_t{1} << SHARD_BITS> m_shards;
};

} // namespace corvalin::media
