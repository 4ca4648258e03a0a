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
#include <memory>
#include <span>

namespace corvalin::media {

class SessionIndex {
public:
    SessionIndex();

    /// A look-up under way. The index remembers a few of them, so that what is begun ahead of a packet serves the packet
    /// itself: one hash and one search for each. It may be that of another id after the next `lookup_of` or `find`.
    struct Lookup {
        uint64_t id = 0;
        uint64_t tag = 0;                 // 0 where no id is kept yet
        rc_ptr<Session>* entry = nullptr; // null where none has been found
    };

    /// The entry of `id`, or null. The pointer is good until the next insertion or removal.
    rc_ptr<Session>* find(uint64_t id) noexcept { return entry_of(lookup_of(id)); }

    /// Begins the look-up of `id`, or finds it begun.
    Lookup& lookup_of(uint64_t id) noexcept {
        // Spread by a multiplication (Fibonacci hashing: D. E. Knuth, The Art of Computer Programming 3, 6.4), as the ids of
        // a sender may well be multiples of something. Ids that meet here all the same cost a hash and a search each.
        Lookup& lookup = m_lookups[(id * 0x9e3779b97f4a7c15) >> (64 - LOOKUP_BITS)];
        if (lookup.id != id || lookup.tag == 0) {
            begin(lookup, id);
        }
        return lookup;
    }

    /// Ends the look-up, as `find` does.
    rc_ptr<Session>* entry_of(Lookup& lookup) noexcept {
        if (lookup.entry == nullptr) {
            search(lookup);
        }
        return lookup.entry;
    }

    /// Fetches the shard into the caches: what leads to the slot.
    void prefetch_shard(const Lookup& lookup) noexcept {
        corvalin::prefetch(&shard_of(lookup.tag), sizeof(Shard));
    }

    /// Fetches the slot into the caches.
    void prefetch_slot(const Lookup& lookup) noexcept {
        const Shard& shard = shard_of(lookup.tag);
        corvalin::prefetch(&shard.slots[first_choice(shard, lookup.tag)], sizeof(Slot));
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
    struct alignas(32) Shard {
        std::span<Slot> slots;         // a power of two of them: some of m_first_slots, later all of `grown`
        std::unique_ptr<Slot[]> grown; // null until those have not sufficed
        std::size_t used = 0;
    };

    static constexpr int SHARD_BITS = 8;
    static constexpr std::size_t SHARDS = std::size_t{1} << SHARD_BITS;
    static constexpr std::size_t FIRST_SLOTS = 16; // of each shard
    static constexpr int LOOKUP_BITS = 4;          // more places than packets that are looked ahead at

    uint64_t tag_of(uint64_t id) const noexcept { return utils::siphash<1, 3>(m_key, id) | 1; }
    void begin(Lookup& lookup, uint64_t id) const noexcept;
    void search(Lookup& lookup) noexcept;
    static rc_ptr<Session>* find_in(Shard& shard, uint64_t id, uint64_t tag) noexcept {
        Slot& slot = shard.slots[position_of(shard, id, tag)];
        return slot.tag == 0 ? nullptr : &slot.session;
    }
    // Entries move when one of them comes or goes.
    void forget_entries() noexcept {
        for (Lookup& lookup : m_lookups) {
            lookup.entry = nullptr;
        }
    }
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
    void give_first_slots() noexcept;
    static void grow(Shard& shard);

    const utils::SipHashKey m_key;
    uint64_t m_size = 0;
    std::array<Lookup, std::size_t{1} << LOOKUP_BITS> m_lookups;
    // Side by side, so that a table of some thousand sessions lies in few pages: each look-up goes to another one, and the
    // processor knows the addresses of few.
    const std::unique_ptr<Slot[]> m_first_slots = std::make_unique<Slot[]>(SHARDS * FIRST_SLOTS);
    std::array<Shard, SHARDS> m_shards;
};

} // namespace corvalin::media
