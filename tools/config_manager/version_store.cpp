#include "tools/config_manager/version_store.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "corvalin_lib/json.h"

namespace corvalin::tools {

namespace {

constexpr std::size_t REMEMBERED_LISTS = 50;

[[noreturn]] void fail(const std::string& what, const std::string& path) {
    throw std::runtime_error("cannot " + what + " " + path + ": " + std::strerror(errno));
}

class FileDescriptor {
public:
    FileDescriptor(const std::string& path, int flags) : m_fd(open(path.c_str(), flags | O_CLOEXEC, 0644)) {
        if (m_fd < 0) {
            fail("open", path);
        }
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor() { close(m_fd); }

    int get() const { return m_fd; }

private:
    const int m_fd;
};

// Beside the state and not on it: the state is replaced while the lock is held.
class StateLock {
public:
    explicit StateLock(const std::string& path) : m_file(path + ".lock", O_RDWR | O_CREAT) {
        while (flock(m_file.get(), LOCK_EX) != 0) {
            if (errno != EINTR) {
                fail("lock", path);
            }
        }
    }

private:
    FileDescriptor m_file; // closing it gives the lock back
};

void write_all(int fd, const std::string& text, const std::string& path) {
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t written = write(fd, text.data() + done, text.size() - done);
        if (written < 0 && errno != EINTR) {
            fail("write", path);
        }
        done += written > 0 ? static_cast<std::size_t>(written) : 0;
    }
}

} // namespace

VersionStore::VersionStore(std::string path, uint64_t first_version)
    : m_path(std::move(path)), m_first_version(first_version) {
}

std::vector<PublishedList> VersionStore::history(const std::string& name) const {
    const StateLock lock(m_path);
    State state = load();
    return std::move(state[name]);
}

std::optional<PublishedList> VersionStore::latest(const std::string& name) const {
    std::vector<PublishedList> lists = history(name);
    return lists.empty() ? std::nullopt : std::optional(std::move(lists.back()));
}

std::map<std::string, uint64_t> VersionStore::versions() const {
    const StateLock lock(m_path);
    std::map<std::string, uint64_t> newest;
    for (const auto& [name, lists] : load()) {
        if (!lists.empty()) {
            newest[name] = lists.back().version;
        }
    }
    return newest;
}

PublishedList VersionStore::record(const std::string& name, const NodeList& nodes) {
    const StateLock lock(m_path);
    State state = load();
    std::vector<PublishedList>& lists = state[name];
    lists.push_back({lists.empty() ? m_first_version : lists.back().version + 1, nodes});
    if (lists.size() > REMEMBERED_LISTS) {
        lists.erase(lists.begin());
    }
    save(state);
    return lists.back();
}

VersionStore::State VersionStore::load() const {
    State state;
    if (!std::filesystem::exists(m_path)) {
        return state;
    }
    const auto require = [this](bool holds) {
        if (!holds) {
            throw std::runtime_error(m_path + " is no state file of a configuration manager");
        }
    };
    rapidjson::Document document;
    document.Parse(read_text(m_path).c_str());
    require(!document.HasParseError() && document.IsObject());
    for (const auto& member : document.GetObject()) {
        require(member.value.IsArray());
        for (const rapidjson::Value& entry : member.value.GetArray()) {
            require(entry.IsObject() && entry.HasMember("version") && entry["version"].IsUint64() &&
                    entry.HasMember("nodes") && entry["nodes"].IsArray());
            PublishedList list{entry["version"].GetUint64(), {}};
            for (const rapidjson::Value& node : entry["nodes"].GetArray()) {
                require(node.IsObject() && node.HasMember("ip") && node["ip"].IsString() &&
                        node.HasMember("port") && node["port"].IsUint() &&
                        node["port"].GetUint() <= UINT16_MAX);
                list.nodes.push_back({node["ip"].GetString(), static_cast<uint16_t>(node["port"].GetUint())});
            }
            state[member.name.GetString()].push_back(std::move(list));
        }
    }
    return state;
}

void VersionStore::save(const State& state) const {
    std::ostringstream text;
    text << "{";
    const char* name_separator = "\n";
    for (const auto& [name, lists] : state) {
        text << name_separator << "  \"" << name << "\": [";
        const char* list_separator = "\n";
        for (const PublishedList& list : lists) {
            text << list_separator << R"(    {"version": )" << list.version << R"(, "nodes": )"
                 << to_json(list.nodes) << "}";
            list_separator = ",\n";
        }
        text << "\n  ]";
        name_separator = ",\n";
    }
    text << "\n}\n";
    const std::string fresh = m_path + ".new";
    {
        const FileDescriptor file(fresh, O_WRONLY | O_CREAT | O_TRUNC);
        write_all(file.get(), text.str(), fresh);
        if (fsync(file.get()) != 0) {
            fail("write", fresh);
        }
    }
    if (std::rename(fresh.c_str(), m_path.c_str()) != 0) {
        fail("replace", m_path);
    }
}

} // namespace corvalin::tools
