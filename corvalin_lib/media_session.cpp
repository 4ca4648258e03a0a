#include "corvalin_lib/media_session.h"

#include <algorithm>
#include <utility>

namespace corvalin::media {

Session::Session(const PacketHeader& header, int64_t now_us, uint64_t ts, std::string call_id, bool zombie)
    : m_id(header.id), m_ts(ts), m_start_mt(header.mt), m_created_us(now_us), m_seq(header.seq),
      m_call_id(std::move(call_id)), m_last_activity_us(static_cast<uint64_t>(now_us)), m_zombie(zombie) {
    std::copy_n(header.uuid, sizeof(m_uuid), m_uuid);
}

} // namespace corvalin::media
