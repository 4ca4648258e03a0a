// service: the manager as a process that stays: keeps the lists of files published and answers routers.
//
// Threads    the main thread; requests are answered on the consumer thread of the message broker.
// Errors     std::runtime_error if it cannot begin. Once it serves, what fails is told and tried again.
#pragma once

#include "tools/config_manager/manager.h"
#include "tools/config_manager/version_store.h"

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace corvalin::tools {

/// One list that is kept published while its file changes.
class FollowedFile {
public:
    FollowedFile(const ListKind& kind, std::string path);

    const std::string& path() const { return m_path; }
    const ListKind& kind() const { return m_kind; }

    /// Reads the file. Throws if it cannot.
    void read();
    /// Reads the file again; true if it has another text. A file that is away is being replaced, and has no other text.
    bool read_change();
    /// The list that was read. Empty, with the reasons told, if it must not reach a router.
    std::optional<NodeList> list() const;

private:
    ListKind m_kind;
    std::string m_path;
    std::string m_text;
};

struct ServiceSettings {
    std::string brokers;
    ManagerTopics topics;
    bool allow_empty = false;
    std::chrono::milliseconds poll{200};
};

class ManagerService {
public:
    ManagerService(ServiceSettings settings, VersionStore& store, EventSink& sink,
                   std::function<void(const std::string&)> report);

    /// Checks all files before anything is sent, publishes what routers do not have yet, and serves until a stop signal.
    /// False if a list must not reach a router.
    bool run(std::vector<FollowedFile>& files);

private:
    void publish_at_start(const FollowedFile& file, const NodeList& nodes);
    void take_up_change(FollowedFile& file);
    void serve(std::vector<FollowedFile>& files);

    const ServiceSettings m_settings;
    VersionStore& m_store; // borrowed
    const std::function<void(const std::string&)> m_report;
    Manager m_manager;
};

} // namespace corvalin::tools
