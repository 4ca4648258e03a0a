#include "tests/support/kafka/event_frame.h"

#include <zlib.h>

#include <algorithm>
#include <array>
#include <stdexcept>

namespace corvalin::test {

namespace {

struct Run {
    int status; // of the last step
    Bytes output;
};

// The streaming interface of zlib: the router uses the other one, which needs the size of the result beforehand.
template <class Step>
Run run_to_the_end(z_stream& stream, Bytes input, const Step& step) { // a copy: zlib takes no constant bytes
    stream.next_in = input.data();
    stream.avail_in = static_cast<uInt>(input.size());
    Run run{Z_OK, {}};
    std::array<uint8_t, 4096> part;
    while (run.status == Z_OK) {
        stream.next_out = part.data();
        stream.avail_out = part.size();
        run.status = step();
        run.output.insert(run.output.end(), part.begin(), part.end() - stream.avail_out);
    }
    return run;
}

} // namespace

Bytes event_frame(uint8_t kind, const std::string& body) {
    Bytes frame(1 + body.size());
    frame[0] = kind;
    std::copy(body.begin(), body.end(), frame.begin() + 1);
    return frame;
}

Bytes zlib_stream(const Bytes& content, int level) {
    z_stream stream{};
    if (deflateInit(&stream, level) != Z_OK) {
        throw std::runtime_error("deflateInit failed");
    }
    const Run run = run_to_the_end(stream, content, [&stream] { return deflate(&stream, Z_FINISH); });
    deflateEnd(&stream);
    if (run.status != Z_STREAM_END) {
        throw std::runtime_error("deflate failed with " + std::to_string(run.status));
    }
    return run.output;
}

Bytes zlib_content(const Bytes& payload) {
    z_stream stream{};
    if (inflateInit(&stream) != Z_OK) {
        throw std::runtime_error("inflateInit failed");
    }
    const Run run = run_to_the_end(stream, payload, [&stream] { return inflate(&stream, Z_NO_FLUSH); });
    const uInt left = stream.avail_in;
    inflateEnd(&stream);
    if (run.status != Z_STREAM_END || left != 0) {
        throw std::runtime_error("not one zlib stream: status " + std::to_string(run.status) + ", " +
                                 std::to_string(left) + " bytes left");
    }
    return run.output;
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
