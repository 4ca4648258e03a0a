#include "corvalin_lib/media_packet.h"

#include <cstring>

namespace corvalin::media {

std::string StartPacket::call_id() const {
    const char* const text = reinterpret_cast<const char*>(this) + sizeof(StartPacket);
    return {text, strnlen(text, CALL_ID_MAX_BYTES)};
}

} // namespace corvalin::media
