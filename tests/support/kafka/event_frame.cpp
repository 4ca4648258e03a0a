#include "tests/support/kafka/event_frame.h"

#include <zlib.h>

#include <algorithm>
#include <array>
#include <stdexcept>

namespace corvalin::test {

Bytes event_frame(uint8_t kind, const std::string& body) {
    Bytes frame(1 + body.size());
    frame[0] = kind;
    std::copy(body.begin(), body.end(), frame.begin() + 1);
    return frame;
}

// The streaming interface of zlib: the router uses the other one, which needs the size of the result beforehand.
Bytes zlib_stream(const Bytes& content, int level) {
    z_stream stream{};
    if (deflateInit(&stream, level) != Z_OK) {
        throw std::runtime_error("deflateInit failed");
    }
    Bytes input = content; // zlib takes no constant bytes
    stream.next_in = input.data();
    stream.avail_in = static_cast<uInt>(input.size());
    Bytes result;
    std::array<uint8_t, 4096> part;
    int status = Z_OK;
    while (status == Z_OK) {
        stream.next_out = part.data();
        stream.avail_out = part.size();
        status = deflate(&stream, Z_FINISH);
        result.insert(result.end(), part.begin(), part.end() - stream.avail_out);
    }
    deflateEnd(&stream);
    if (status != Z_STREAM_END) {
        throw std::runtime_error("deflate failed with " + std::to_string(status));
    }
    return result;
}

Bytes zlib_content(const Bytes& payload) {
    z_stream stream{};
    if (inflateInit(&stream) != Z_OK) {
        throw std::runtime_error("inflateInit failed");
    }
    Bytes input = payload;
    stream.next_in = input.data();
    stream.avail_in = static_cast<uInt>(input.size());
    Bytes result;
    std::array<uint8_t, 4096> part;
    int status = Z_OK;
    while (status == Z_OK) {
        stream.next_out = part.data();
        stream.avail_out = part.size();
        status = inflate(&stream, Z_NO_FLUSH);
        result.insert(result.end(), part.begin(), part.end() - stream.avail_out);
    }
    const uInt left = stream.avail_in;
    inflateEnd(&stream);
    if (status != Z_STREAM_END || left != 0) {
        throw std::runtime_error("not one zlib stream: status " + std::to_string(status) + ", " +
                                 std::to_string(left) + " bytes left");
    }
    return result;
}

Bytes json_payload(const std::string& json, int level) {
    return zlib_stream(event_frame(JSON_EVENT, json), level);
}

std::string json_of(const Bytes& payload) {
    const Bytes frame = zlib_content(payload);
    if (frame.empty() || frame[0] != JSON_EVENT) {
        throw std::runtime_error("not a JSON event");
    }
    return {frame.begin() + 1, frame.end()};
}

} // namespace corvalin::test
