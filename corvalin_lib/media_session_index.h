// media_session_index: the table of sessions by their 64-bit id.
//
// Threads    one: the reader thread.
// Ownership  one rc_ptr for each entry.
// Errors     std::bad_alloc passes through `insert`; std::system_error from the constructor without a random
// key.
//
// Two things are asked of it that one plain hash map does not give. The ids come from outside, and a sender
// that chooses them against the table must not turn it into a list: the hash is SipHash-1-3 with a random key
// of this process. And the table grows on the packet path, where rehashing millions of entries at once would
// stop the reader for seconds: it is cut into shards by the upper bits of the hash, which grow one at a time,
// so that one insertion moves at most the entries of one shard (about 10000 of 10 million).
#pragma once

#include "corvalin_lib/media_session.h"
#include "corvalin_lib/reference_countable.h"
#include "corvalin_lib/utils_siphash.h"

#include <array>
#include <cstdint>
#include <unordered_map>

namespace corvalin::media {

class SessionIndex {
public:
    SessionIndex();

    /// The entry of `id`, or null. The pointer is good until the entry is erased.
    rc_ptr<Session>* find(uint64_t id) noexcept {
        const HashedId key = hashed(id);
        Shard& shard = shard_of(key);
        const auto position = shard.find(key);
        return position == shard.end() ? nullptr : &position->second;
    }

    /// Enters `session` under `id`, which must not be in the table.
    void insert(uint64_t id, rc_ptr<Session> session);
    /// Removes the entry of `id` if there is one.
    void erase(uint64_t id) noexcept;
    void clear() noexcept;

    uint64_t size() const noexcept { return m_size; }

private:
    // The hash is stored with the key: it is calculated once for each look-up, and never again when a shard
    // grows.
    struct HashedId {
        uint64_t id;
        uint64_t hash;
        bool operator==(const HashedId& other) const noexcept { return id == other.id; }
    };
    struct StoredHash {
        std::size_t operator()(const HashedId& key) const noexcept { return key.hash; }
    };
    using Shard = std::unordered_map<HashedId, rc_ptr<Session>, StoredHash>;

    static constexpr int SHARD_BITS = 10;

    HashedId hashed(uint64_t id) const noexcept { return {id, utils::siphash<1, 3>(m_key, id)}; }
    Shard& shard_of(const HashedId& key) noexcept { return m_shards[key.hash >> (64 - SHARD_BITS)]; }

    const utils::SipHashKey m_key;
    uint64_t m_size = 0;
    std::array<Shard, std::size_t{1} << SHARD_BITS> m_shards;
};

} // namespace corvalin::media
