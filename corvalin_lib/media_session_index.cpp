#include "corvalin_lib/media_session_index.h"

#include <sys/random.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

namespace corvalin::media {

namespace {

utils::SipHashKey random_key() {
    utils::SipHashKey key{};
    if (getrandom(&key, sizeof(key), 0) != static_cast<ssize_t>(sizeof(key))) {
        throw std::system_error(errno, std::generic_category(), "getrandom");
    }
    return key;
}

} // namespace

SessionIndex::SessionIndex() : m_key(random_key()) {
    give_first_slots();
}

[[gnu::hot]] void SessionIndex::begin(Lookup& lookup, uint64_t id) const noexcept {
    lookup = {id, tag_of(id), nullptr};
}

[[gnu::hot]] void SessionIndex::search(Lookup& lookup) noexcept {
    lookup.entry = find_in(shard_of(lookup.tag), lookup.id, lookup.tag);
}

void SessionIndex::insert(uint64_t id, rc_ptr<Session> session) {
    forget_entries();
    const uint64_t tag = lookup_of(id).tag;
    Shard& shard = shard_of(tag);
    if ((shard.used + 1) * 4 > shard.slots.size() * 3) {
        grow(shard);
    }
    Slot& slot = shard.slots[position_of(shard, id, tag)];
    slot.tag = tag;
    slot.id = id;
    slot.session = std::move(session);
    ++shard.used;
    ++m_size;
}

void SessionIndex::give_first_slots() noexcept {
    for (std::size_t number = 0; number < SHARDS; ++number) {
        m_shards[number].slots = {&m_first_slots[number * FIRST_SLOTS], FIRST_SLOTS};
    }
}

void SessionIndex::grow(Shard& shard) {
    Shard larger;
    larger.grown = std::make_unique<Slot[]>(shard.slots.size() * 2);
    larger.slots = {larger.grown.get(), shard.slots.size() * 2};
    larger.used = shard.used;
    for (Slot& slot : shard.slots) {
        if (slot.tag != 0) {
            Slot& place = larger.slots[position_of(larger, slot.id, slot.tag)];
            place = std::exchange(slot, Slot());
        }
    }
    shard = std::move(larger);
}

void SessionIndex::erase(uint64_t id) noexcept {
    forget_entries();
    const uint64_t tag = lookup_of(id).tag;
    Shard& shard = shard_of(tag);
    std::size_t gap = position_of(shard, id, tag);
    if (shard.slots[gap].tag == 0) {
        return;
    }
    // An entry behind the gap moves into it, unless it would then stand ahead of its first choice.
    const std::size_t mask = shard.slots.size() - 1;
    for (std::size_t next = behind(shard, gap); shard.slots[next].tag != 0; next = behind(shard, next)) {
        const std::size_t wanted = first_choice(shard, shard.slots[next].tag);
        if (((next - wanted) & mask) >= ((next - gap) & mask)) {
            shard.slots[gap] = std::move(shard.slots[next]);
            gap = next;
        }
    }
    shard.slots[gap] = Slot();
    --shard.used;
    --m_size;
}

void SessionIndex::clear() noexcept {
    forget_entries();
    for (Shard& shard : m_shards) {
        std::fill(shard.slots.begin(), shard.slots.end(), Slot());
        shard = Shard();
    }
    give_first_slots();
    m_size = 0;
}

} // namespace corvalin::media
