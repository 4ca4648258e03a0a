// open_addressing_index: a session table of another design, to compare the product's with.
//
// Shards by the upper bits of a keyed hash, as in the product; in each of them linear probing over slots of 16
// bytes, grown by doubling at a load of 3/4, and erased by moving back the entries behind the gap. A look-up
// touches one cache line where the product's chains touch two (the bucket and the node), and an entry costs
// 21 to 43 bytes instead of a heap chunk of 48 and its bucket.
//
// Threads    one.
// Ownership  the values are plain pointers, borrowed: the bench compares look-ups and growth only.
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "corvalin_lib/utils_siphash.h"

namespace corvalin::bench {

class OpenAddressingIndex {
public:
    using Value = void*;

    explicit OpenAddressingIndex(const utils::SipHashKey& key) : m_key(key) {}

    Value* find(uint64_t id) noexcept {
        const uint64_t hash = hash_of(id);
        Shard& shard = shard_of(hash);
        if (shard.slots.empty()) {
            return nullptr;
        }
        Slot& slot = shard.slots[position_of(shard, id, hash)];
        return slot.value == nullptr ? nullptr : &slot.value;
    }

    /// `id` must not be in the table, and `value` must not be null: that is what an empty slot holds.
    void insert(uint64_t id, Value value) {
        const uint64_t hash = hash_of(id);
        Shard& shard = shard_of(hash);
        if ((shard.used + 1) * 4 > shard.slots.size() * 3) {
            grow(shard);
        }
        shard.slots[position_of(shard, id, hash)] = {id, value};
        ++shard.used;
    }

    void erase(uint64_t id) noexcept {
        const uint64_t hash = hash_of(id);
        Shard& shard = shard_of(hash);
        if (shard.slots.empty()) {
            return;
        }
        const std::size_t mask = shard.slots.size() - 1;
        std::size_t gap = position_of(shard, id, hash);
        if (shard.slots[gap].value == nullptr) {
            return;
        }
        // An entry behind the gap moves into it unless it would then stand ahead of its own first choice.
        for (std::size_t next = (gap + 1) & mask; shard.slots[next].value != nullptr;
             next = (next + 1) & mask) {
            const std::size_t wanted = hash_of(shard.slots[next].id) & mask;
            if (((next - wanted) & mask) >= ((next - gap) & mask)) {
                shard.slots[gap] = shard.slots[next];
                gap = next;
            }
        }
        shard.slots[gap] = {};
        --shard.used;
    }

private:
    struct Slot {
        uint64_t id = 0;
        Value value = nullptr;
    };
    struct Shard {
        std::vector<Slot> slots; // a power of two of them, or none
        std::size_t used = 0;
    };

    static constexpr int SHARD_BITS = 10;
    static constexpr std::size_t SLOTS_MIN = 8;

    uint64_t hash_of(uint64_t id) const noexcept { return utils::siphash<1, 3>(m_key, id); }
    Shard& shard_of(uint64_t hash) noexcept { return m_shards[hash >> (64 - SHARD_BITS)]; }

    // Where `id` stands, or the empty slot where it would go.
    static std::size_t position_of(const Shard& shard, uint64_t id, uint64_t hash) noexcept {
        const std::size_t mask = shard.slots.size() - 1;
        std::size_t position = hash & mask;
        while (shard.slots[position].value != nullptr && shard.slots[position].id != id) {
            position = (position + 1) & mask;
        }
        return position;
    }

    void grow(Shard& shard) {
        Shard larger;
        larger.slots.resize(shard.slots.empty() ? SLOTS_MIN : shard.slots.size() * 2);
        larger.used = shard.used;
        for (const Slot& slot : shard.slots) {
            if (slot.value != nullptr) {
                larger.slots[position_of(larger, slot.id, hash_of(slot.id))] = slot;
            }
        }
        shard = std::move(larger);
    }

    const utils::SipHashKey m_key;
    std::array<Shard, std::size_t{1} << SHARD_BITS> m_shards;
};

} // namespace corvalin::bench
