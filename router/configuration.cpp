#include "router/configuration.h"

namespace corvalin::router {

int Configuration::set_flag(const std::string& name, std::stringstream& /*message*/) {
    if (name == "discard_media_node") {
        m_discard_media_node = true;
        return conf::option_applied;
    }
    if (name == "discard_writer_node") {
        m_discard_writer_node = true;
        return conf::option_applied;
    }
    return conf::option_unknown;
}

int Configuration::set_value(const std::string& name, const std::string& value, std::stringstream& message) {
    if (name == "media_node") {
        return add_nodes(value, m_media_nodes, m_discard_media_node);
    }
    if (name == "writer_node") {
        return add_nodes(value, m_writer_nodes, m_discard_writer_node);
    }
    return Base::set_value(name, value, message);
}

// Occurrences add up, so the list is judged as a whole: one that yields nothing still succeeds behind one that did.
int Configuration::add_nodes(const std::string& value, std::list<net::HostAddr>& nodes, bool& discard) {
    net::parse_addrs(value, nodes);
    if (nodes.empty()) {
        return conf::option_bad_format;
    }
    discard = true;
    return conf::option_applied;
}

} // namespace corvalin::router
