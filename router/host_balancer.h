// host_balancer: one list of nodes and the round-robin position in it.
//
// Threads    pick: the reader thread, which alone moves the cursor. update: any other thread.
// Ownership  a pick is a copy, so the old list can go the moment a new one has taken its place.
// Errors     update: an exhausted heap leaves the balancer as it was. Both: std::system_error if the calling
//            thread holds the lock already.
#pragma once

#include "corvalin_lib/net.h"

#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <shared_mutex>
#include <vector>

namespace corvalin::router {

struct HostBalancer {
    /// The next node in turn, none if the list is empty.
    std::optional<net::HostAddr> pick();

    /// Replaces the list. Order and duplicates are kept: a node that is listed twice gets twice the share of
    /// sessions. The cursor stays where it is, so the rotation goes on at the same place of the new list.
    void update(const std::list<net::HostAddr>& hosts);

    // std::shared_mutex is the system's reader-writer lock, with the retries and errors that we want: it
    // repeats a read lock for as long as that reports EAGAIN, and throws std::system_error for EDEADLK.
    std::shared_mutex m_lock; // guards m_hosts
    std::unique_ptr<std::vector<net::HostAddr>> m_hosts =
        std::make_unique<std::vector<net::HostAddr>>(); // never null
    // Reader thread, under the read lock. It may rest at the size of the list between two picks, or past the
    // end of a list that has become shorter: the next pick begins anew then.
    uint64_t m_cursor = 0;
};

} // namespace corvalin::router
