// version_store: what has been published, and under which versions.
//
// Routers ignore a version that is not above the one they have, so a version must never be used twice, whatever happens
// to the manager.
//
// Threads    any; `record` holds a lock on the state, so that several processes can share it.
// Ownership  the state lives in one JSON file, replaced as a whole by a rename: a reader finds the old or the
//            new one.
// Errors     std::runtime_error with the path and the reason.
#pragma once

#include "tools/config_manager/node_list.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace corvalin::tools {

struct PublishedList {
    uint64_t version = 0;
    NodeList nodes;
    uint64_t restored = 0; // version of the list that a rollback brought back; 0 if this is no rollback
};

/// The newest at the back.
using History = std::vector<PublishedList>;

/// The list that a rollback brings back: the one with version `wanted`, or with 0 the one before the latest. After a
/// rollback that is the one before the list that was brought back, so that two rollbacks go back by two lists.
const PublishedList* find_rollback_target(const History& history, uint64_t wanted);

/// True if the latest entry is a rollback that took exactly these nodes away from routers.
bool is_withdrawn(const History& history, const NodeList& nodes);

class VersionStore {
public:
    /// Versions are at least `first_version`, which is above 0: routers take 0 for a list that they do not have.
    explicit VersionStore(std::string path, uint64_t first_version = 1);

    const std::string& path() const { return m_path; }
    bool exists() const;

    /// The newest of what has been published under `name`.
    History history(const std::string& name) const;
    /// The newest version of each configuration.
    std::map<std::string, uint64_t> versions() const;

    /// Records `nodes` under a version above all before, and returns that. It is on disk when this returns.
    PublishedList record(const std::string& name, const NodeList& nodes, uint64_t restored = 0);

private:
    using State = std::map<std::string, History>;

    State load() const;
    void save(const State& state) const;

    const std::string m_path;
    const uint64_t m_first_version;
};

/// Held by the one manager that follows files and answers routers with this state. Two of them would send the routers
/// from one list to the other.
class ManagerLock {
public:
    /// Throws std::runtime_error if another process holds it.
    explicit ManagerLock(const VersionStore& store);
    ManagerLock(const ManagerLock&) = delete;
    ManagerLock& operator=(const ManagerLock&) = delete;
    ~ManagerLock();

private:
    int m_fd; // owned; the kernel gives the lock back even if the process is killed
};

} // namespace corvalin::tools
