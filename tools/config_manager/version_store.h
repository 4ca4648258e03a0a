// version_store: what has been published, and under which versions.
//
// Threads    any; each operation holds a lock on the file, so that several processes can share it.
// Ownership  the state lives in one JSON file, replaced as a whole by a rename.
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
};

class VersionStore {
public:
    /// `first_version` is the one that a configuration begins with when the file does not know it.
    explicit VersionStore(std::string path, uint64_t first_version = 1);

    /// All that has been published under `name` and is remembered, the newest at the back.
    std::vector<PublishedList> history(const std::string& name) const;
    /// The newest.
    std::optional<PublishedList> latest(const std::string& name) const;
    /// The newest version of each configuration.
    std::map<std::string, uint64_t> versions() const;

    /// Records `nodes` under a version above all before, and returns that. It is on disk when this returns.
    PublishedList record(const std::string& name, const NodeList& nodes);

private:
    using State = std::map<std::string, std::vector<PublishedList>>;

    State load() const;
    void save(const State& state) const;

    const std::string m_path;
    const uint64_t m_first_version;
};

} // namespace corvalin::tools
