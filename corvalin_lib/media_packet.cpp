#include "corvalin_lib/media_packet.h"

#include "corvalin_lib/utils_str.h"

#include <cstring>

namespace corvalin::media {

std::string StartPacket::call_id() const {
    const char* const text = reinterpret_cast<const char*>(this) + sizeof(StartPacket);
    return {text, strnlen(text, CALL_ID_MAX_BYTES)};
}

std::ostream& operator<<(std::ostream& stream, UuidText uuid) {
    return utils::str::print_uuid(stream, uuid.bytes);
}

} // namespace corvalin::media
