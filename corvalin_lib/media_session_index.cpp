#include "corvalin_lib/media_session_index.h"

#include <sys/random.h>

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
}

void SessionIndex::insert(uint64_t id, rc_ptr<Session> session) {
    const HashedId key = hashed(id);
    shard_of(key).emplace(key, std::move(session));
    ++m_size;
}

void SessionIndex::erase(uint64_t id) noexcept {
    const HashedId key = hashed(id);
    m_size -= shard_of(key).erase(key);
}

void SessionIndex::clear() noexcept {
    for (Shard& shard : m_shards) {
        shard.clear();
    }
    m_size = 0;
}

} // namespace corvalin::media
