#include "tests/support/system/router_fixture.h"

namespace corvalin::test {

namespace {

// Behind syslog(3) without an openlog stands the name of the program.
constexpr const char* FOREGROUND_TAG = "corvalin_router";

} // namespace

void RouterTest::start(const std::string& configuration, const std::vector<std::string>& arguments) {
    write_file(m_place.router_conf(), configuration);
    m_router.emplace(m_place, arguments);
    ASSERT_TRUE(m_router->wait_until_receiving());
    m_sender.emplace(m_router->port());
}

void RouterTest::start_with_nodes(std::size_t writers, std::size_t medias, const std::string& configuration) {
    m_writers = std::vector<UdpNode>(writers);
    m_medias = std::vector<UdpNode>(medias);
    std::string nodes;
    if (writers > 0) {
        nodes += "writer_node=" + node_list(m_writers) + "\n";
    }
    if (medias > 0) {
        nodes += "media_node=" + node_list(m_medias) + "\n";
    }
    start(nodes + configuration);
}

bool RouterTest::wait_for_trace(int priority, const std::string& text) {
    const SyslogRecord wanted{priority, FOREGROUND_TAG, text, {}};
    const bool came =
        syslog().wait_for([&](const SyslogRecord& record) { return record == wanted; }).has_value();
    if (!came) {
        ADD_FAILURE() << "not in syslog: " << wanted;
        for (const SyslogRecord& record : syslog().records()) {
            std::cout << record << "\n";
        }
    }
    return came;
}

std::size_t RouterTest::trace_count(int priority, const std::string& text) {
    const SyslogRecord wanted{priority, FOREGROUND_TAG, text, {}};
    return syslog().count([&](const SyslogRecord& record) { return record == wanted; });
}

} // namespace corvalin::test
