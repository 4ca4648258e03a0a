// A receive socket that fails ends the process with status 255, in the middle of its work.
#include "tests/support/system/router_fixture.h"
#include "tests/support/system/udp_diag.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace corvalin::test;

constexpr int RUNS = CORVALIN_FAILURE_RUNS;       // fewer in the instrumented presets, see CMakeLists.txt
constexpr int AT_A_TIME = std::max(4, RUNS / 10); // each waits some seconds for its broker

// Sessions of four packets, without an end: traces, assignments and forwarding keep the reader busy.
void load_router(uint16_t port, const std::atomic<bool>& is_done) {
    UdpSender sender(port);
    for (uint64_t id = 1; !is_done.load(std::memory_order_relaxed); ++id) {
        sender.send_all({start_packet().id(id).seq(1).flags(TO_BOTH).bytes(),
                         data_packet().id(id).seq(2).bytes(),
                         data_packet().id(id).seq(3).payload_units(160).bytes(),
                         terminate_packet().id(id).seq(4).bytes()});
    }
}

// One run: the router is under load when its socket fails.
void fail_one_router() {
    RouterPlace place;
    UdpNode writer;
    UdpNode media;
    write_file(place.router_conf(),
               "writer_node=" + writer.address() + "\nmedia_node=" + media.address() + "\n");
    RouterProcess router(place);
    if (!router.wait_until_receiving()) {
        return;
    }
    const ReceiveSocket socket = router.receive_socket();
    std::atomic<bool> is_done{false};
    std::thread load([&] { load_router(socket.port, is_done); });
    EXPECT_TRUE(writer.receive().has_value() && media.receive().has_value());
    UdpDiag().destroy(socket.port);
    EXPECT_EQ(router.wait_for_exit(), exited(255));
    is_done.store(true, std::memory_order_relaxed);
    load.join();

    std::vector<std::string> unusual = router.log();
    std::erase_if(unusual, [](const std::string& line) {
        return line.compare(0, 9, "SYSTEM  |") == 0 ||
               line.find("kafka running version differs") != line.npos ||
               line.find("MESSAGE_BROKER: message delivered to request[0]") != line.npos;
    });
    EXPECT_THAT(unusual, ::testing::ElementsAre(
                             "ERROR   | SOCKET[" + std::to_string(socket.descriptor) +
                             "]: failed to read a data, error (103): Software caused connection abort"));
    EXPECT_THAT(router.log(), ::testing::Not(::testing::Contains(::testing::HasSubstr("] stopped"))))
        << "the frame's closing steps ran";
}

TEST(ReceiveFailureTest, every_run_under_load_ends_with_255_and_exactly_one_error_line) {
    if (!in_own_network()) { // where the kernel lets us destroy sockets
        return;
    }
    std::cout << RUNS << " runs\n";
    RecordProperty("runs", RUNS);
    std::atomic<int> runs{0};
    std::vector<std::thread> workers;
    for (int worker = 0; worker < AT_A_TIME; ++worker) {
        workers.emplace_back([&runs] {
            while (runs.fetch_add(1) < RUNS) {
                fail_one_router();
            }
        });
    }
    for (std::thread& worker : workers) {
        worker.join();
    }
}

} // namespace
