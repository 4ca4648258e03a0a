#include "tools/config_manager/version_store.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "corvalin_lib/json.h"

namespace corvalin::tools {

namespace {

constexpr std::size_t REMEMBERED_LISTS = 50; // of each configuration

[[noreturn]] void fail(const std::string& what, const std::string& path) {
    throw std::runtime_error("cannot " + what + " " + path + ": " + std::generic_category().message(errno));
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

std::string folder_of(const std::string& path) {
    const std::filesystem::path folder = std::filesystem::path(path).parent_path();
    return folder.empty() ? "." : folder.string();
}

void make_folder(const std::string& path) {
    std::error_code error;
    std::filesystem::create_directories(folder_of(path), error);
    if (error) {
        throw std::runtime_error("cannot create " + folder_of(path) + ": " + error.message());
    }
}

// Locks are files beside the state and not the state itself, which is replaced while a lock is held.
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

void sync(int fd, const std::string& path) {
    if (fsync(fd) != 0) {
        fail("write", path);
    }
}

// Empty if the value is no entry of a history.
std::optional<PublishedList> read_entry(const rapidjson::Value& entry) {
    if (!entry.IsObject() || !entry.HasMember("version") || !entry["version"].IsUint64() ||
        !entry.HasMember("nodes") || !entry["nodes"].IsArray() ||
        (entry.HasMember("restored") && !entry["restored"].IsUint64())) {
        return std::nullopt;
    }
    PublishedList list{entry["version"].GetUint64(), {}, 0};
    if (entry.HasMember("restored")) {
        list.restored = entry["restored"].GetUint64();
    }
    for (const rapidjson::Value& node : entry["nodes"].GetArray()) {
        if (!node.IsObject() || !node.HasMember("ip") || !node["ip"].IsString() || !node.HasMember("port") ||
            !node["port"].IsUint() || node["port"].GetUint() > UINT16_MAX) {
            return std::nullopt;
        }
        list.nodes.push_back({node["ip"].GetString(), static_cast<uint16_t>(node["port"].GetUint())});
    }
    // The file can be edited by hand, and what it holds goes to routers.
    return check_node_list(to_json(list.nodes)).faults.empty() ? std::optional(std::move(list))
                                                               : std::nullopt;
}

} // namespace

const PublishedList* find_rollback_target(const History& history, uint64_t wanted) {
    if (history.empty()) {
        return nullptr;
    }
    const PublishedList& latest = history.back();
    const uint64_t bound = latest.restored != 0 ? latest.restored : latest.version;
    const auto found =
        std::find_if(history.rbegin(), history.rend(), [wanted, bound](const PublishedList& list) {
            return wanted != 0 ? list.version == wanted : list.version < bound;
        });
    return found == history.rend() ? nullptr : &*found;
}

bool is_withdrawn(const History& history, const NodeList& nodes) {
    if (history.empty() || history.back().restored == 0 || history.back().nodes == nodes) {
        return false;
    }
    return std::any_of(history.begin(), history.end(), [&](const PublishedList& list) {
        return list.version > history.back().restored && list.nodes == nodes;
    });
}

VersionStore::VersionStore(std::string path, uint64_t first_version)
    : m_path(std::move(path)), m_first_version(first_version) {
}

bool VersionStore::exists() const {
    return std::filesystem::exists(m_path);
}

History VersionStore::history(const std::string& name) const {
    State state = load();
    return std::move(state[name]);
}

std::map<std::string, uint64_t> VersionStore::versions() const {
    std::map<std::string, uint64_t> newest;
    for (const auto& [name, lists] : load()) {
        if (!lists.empty()) {
            newest[name] = lists.back().version;
        }
    }
    return newest;
}

PublishedList VersionStore::record(const std::string& name, const NodeList& nodes, uint64_t restored) {
    make_folder(m_path);
    const StateLock lock(m_path);
    State state = load();
    History& lists = state[name];
    const uint64_t last = lists.empty() ? 0 : lists.back().version;
    if (last == UINT64_MAX) {
        throw std::runtime_error("no version is left above the last one in " + m_path);
    }
    lists.push_back({std::max(last + 1, m_first_version), nodes, restored});
    if (lists.size() > REMEMBERED_LISTS) {
        lists.erase(lists.begin());
    }
    save(state);
    return lists.back();
}

VersionStore::State VersionStore::load() const {
    State state;
    if (!exists()) {
        return state;
    }
    const auto require = [this](bool holds) {
        if (!holds) {
            throw std::runtime_error(m_path + " is no state file of a configuration manager");
        }
    };
    rapidjson::Document document;
    document.Parse<rapidjson::kParseIterativeFlag>(read_text(m_path).c_str());
    require(!document.HasParseError() && document.IsObject());
    const rapidjson::Value& root = document; // iterators of a constant value compare without a conversion
    for (const auto& member : root.GetObject()) {
        require(member.value.IsArray());
        History& lists = state[member.name.GetString()];
        for (const rapidjson::Value& entry : member.value.GetArray()) {
            std::optional<PublishedList> list = read_entry(entry);
            require(list && list->version > (lists.empty() ? 0 : lists.back().version));
            lists.push_back(std::move(*list));
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
            text << list_separator << R"(    {"version": )" << list.version;
            if (list.restored != 0) {
                text << R"(, "restored": )" << list.restored;
            }
            text << R"(, "nodes": )" << to_json(list.nodes) << "}";
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
        sync(file.get(), fresh);
    }
    if (std::rename(fresh.c_str(), m_path.c_str()) != 0) {
        fail("replace", m_path);
    }
    // Without this a crash of the machine may bring the old state back, and with it a version that was used.
    const FileDescriptor folder(folder_of(m_path), O_RDONLY | O_DIRECTORY);
    sync(folder.get(), folder_of(m_path));
}

ManagerLock::ManagerLock(const VersionStore& store) {
    make_folder(store.path());
    const std::string path = store.path() + ".manager";
    m_fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (m_fd < 0) {
        fail("open", path);
    }
    if (flock(m_fd, LOCK_EX | LOCK_NB) != 0) {
        const bool is_held = errno == EWOULDBLOCK;
        close(m_fd);
        if (!is_held) {
            fail("lock", path);
        }
        throw std::runtime_error("another manager runs with " + store.path());
    }
}

ManagerLock::~ManagerLock() {
    close(m_fd);
}

} // namespace corvalin::tools
