#include "tools/config_manager/event_payload.h"

#include <zlib.h>

#include <memory>
#include <sstream>
#include <stdexcept>

#include "corvalin_lib/messaging_message_broker.h"

namespace corvalin::tools {

namespace {

constexpr char KIND_JSON = 0;

// One less than the limit: room for a router that would count differently by a byte.
constexpr std::size_t SAFE_RATIO = INFLATION_LIMIT - 1;

// What inflates beyond this is no event of this system.
constexpr std::size_t INFLATED_MAX_BYTES = std::size_t{64} * 1024 * 1024;

const unsigned char* bytes_of(const std::string& text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}

std::string deflated(const std::string& frame) {
    unsigned long size = frame.size();
    const std::unique_ptr<unsigned char[]> bytes(messaging::MessageBroker::compress(bytes_of(frame), size));
    return bytes ? std::string(reinterpret_cast<const char*>(bytes.get()), size) : std::string();
}

std::string stored(const std::string& frame) {
    uLongf size = compressBound(frame.size());
    std::string bytes(size, '\0');
    if (compress2(reinterpret_cast<Bytef*>(bytes.data()), &size, bytes_of(frame), frame.size(),
                  Z_NO_COMPRESSION) != Z_OK) {
        throw std::runtime_error("zlib cannot store an event");
    }
    bytes.resize(size);
    return bytes;
}

} // namespace

std::string make_payload(const std::string& json) {
    const std::string frame = KIND_JSON + json;
    std::string payload = deflated(frame);
    if (payload.empty() || frame.size() > payload.size() * SAFE_RATIO) {
        payload = stored(frame);
    }
    if (payload.size() > PAYLOAD_MAX_BYTES) {
        throw std::length_error("the event has " + std::to_string(payload.size()) +
                                " bytes, and brokers take " + std::to_string(PAYLOAD_MAX_BYTES));
    }
    return payload;
}

std::optional<OpenedPayload> open_payload(const std::string& payload) {
    std::string frame;
    for (std::size_t room = payload.size() * INFLATION_LIMIT + 1; room <= INFLATED_MAX_BYTES; room *= 2) {
        frame.assign(room, '\0');
        uLongf size = room;
        const int code =
            uncompress(reinterpret_cast<Bytef*>(frame.data()), &size, bytes_of(payload), payload.size());
        if (code == Z_BUF_ERROR) {
            continue;
        }
        if (code != Z_OK) {
            return std::nullopt;
        }
        OpenedPayload opened;
        opened.kind = size == 0 ? -1 : static_cast<unsigned char>(frame[0]);
        opened.text = size == 0 ? std::string() : frame.substr(1, size - 1);
        opened.is_accepted_by_routers = size <= payload.size() * INFLATION_LIMIT;
        return opened;
    }
    return std::nullopt;
}

std::string started_event() {
    return R"({"type":"config_manager_started"})";
}

std::string versions_event(const std::map<std::string, uint64_t>& versions) {
    std::ostringstream text;
    text << R"({"type":"config_versions","data":{)";
    const char* separator = "";
    for (const auto& [name, version] : versions) {
        text << separator << '"' << name << R"(":)" << version;
        separator = ",";
    }
    text << "}}";
    return text.str();
}

std::string node_list_event(const std::string& name, uint64_t version, const NodeList& nodes) {
    std::ostringstream text;
    text << R"({"type":")" << name << R"(","version":)" << version << R"(,"data":)" << to_json(nodes) << "}";
    return text.str();
}

} // namespace corvalin::tools
