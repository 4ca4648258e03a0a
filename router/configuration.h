// configuration: the options of the router.
//
// Threads    set on the main thread before others exist, read without a lock afterwards.
// Errors     see conf_configuration.h.
#pragma once

#include "corvalin_lib/conf_configuration.h"
#include "corvalin_lib/conf_extensions.h"
#include "corvalin_lib/net.h"

#include <list>
#include <sstream>
#include <string>

namespace corvalin::router {

class Configuration
    : public conf::ConfigVersionExtension<
          conf::StatExtension<conf::PortExtension<conf::LogExtenstion<conf::Configuration>>>> {
public:
    int set_flag(const std::string& name, std::stringstream& message) override;
    int set_value(const std::string& name, const std::string& value, std::stringstream& message) override;

    // A set flag means that lists of that kind from the configuration manager are not applied. Naming nodes by option
    // sets it as well.
    bool m_discard_media_node = false;
    bool m_discard_writer_node = false;
    std::list<net::HostAddr> m_media_nodes;
    std::list<net::HostAddr> m_writer_nodes;

private:
    using Base = ConfigVersionExtension;

    static int add_nodes(const std::string& value, std::list<net::HostAddr>& nodes, bool& discard);
};

} // namespace corvalin::router
