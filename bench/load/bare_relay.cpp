// bare_relay: the floor of the router's design, as a yardstick for its processor time per packet.
//
//     bare_relay PORT HOST:PORT [HOST:PORT ...]
//
// Two threads make the system calls that a router of two threads cannot do without, and nothing else: one
// receives each datagram straight into a slot of a ring, the other sends it from there to each host. Nothing
// is looked at, counted, copied or zeroed. What it shares with the router, so that the difference is the
// router's own work: blocking calls, default socket buffers, a ring of 100000, release and acquire indexes on
// lines of their own, the reader's sleep behind a flag with a limit of 1 second, slots of the size and in the
// kind of memory of the router's packet buffers.
//
// Threads    main receives, a second thread sends. Ends by a signal.
// Errors     a datagram that finds the ring full is dropped, a failed send is forgotten. What cannot be set
//            up ends the process with a text and status 1, a usage error with status 2.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <new>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr uint64_t RING_SLOTS = 100'000;
constexpr std::size_t PACKET_MAX_BYTES = 1376;

struct Slot {
    alignas(64) uint64_t size;
    uint8_t data[PACKET_MAX_BYTES];
};
static_assert(sizeof(Slot) == 1408);

[[noreturn]] void fail(const char* what) {
    std::fprintf(stderr, "bare_relay: %s: %s\n", what, std::strerror(errno));
    std::exit(1);
}

class Ring {
public:
    Ring() {
        pthread_condattr_t clock;
        pthread_condattr_init(&clock);
        pthread_condattr_setclock(&clock, CLOCK_MONOTONIC);
        pthread_cond_init(&m_not_empty, &clock);
        pthread_condattr_destroy(&clock);
        // Huge pages, and each page touched before the first packet: as in the router's pool.
        constexpr std::align_val_t HUGE_PAGE_BYTES{std::size_t{2} * 1024 * 1024};
        m_slots = static_cast<Slot*>(::operator new(RING_SLOTS * sizeof(Slot), HUGE_PAGE_BYTES));
        madvise(m_slots, RING_SLOTS * sizeof(Slot), MADV_HUGEPAGE);
        std::memset(static_cast<void*>(m_slots), 0, RING_SLOTS * sizeof(Slot));
    }

    /// Receiving thread. The slot to fill next, null while the ring is full.
    Slot* slot_to_fill() {
        const uint64_t write_index = m_write_index.load(std::memory_order_relaxed);
        if (write_index - m_read_index.load(std::memory_order_acquire) == RING_SLOTS) {
            return nullptr;
        }
        return &m_slots[write_index % RING_SLOTS];
    }

    void publish() {
        // Release: the filled slot.
        m_write_index.store(m_write_index.load(std::memory_order_relaxed) + 1, std::memory_order_release);
        if (m_sender_sleeps.load(std::memory_order_relaxed)) {
            pthread_mutex_lock(&m_mutex);
            // Woken once, and not by each slot that is filled until it runs.
            m_sender_sleeps.store(false, std::memory_order_relaxed);
            pthread_cond_broadcast(&m_not_empty);
            pthread_mutex_unlock(&m_mutex);
        }
    }

    /// Sending thread. The oldest slot, null after a second without one.
    Slot* slot_to_send() {
        if (is_empty() && !wait_for_a_slot()) {
            return nullptr;
        }
        return &m_slots[m_read_index.load(std::memory_order_relaxed) % RING_SLOTS];
    }

    void give_back() {
        // Release: the slot that is no longer read.
        m_read_index.store(m_read_index.load(std::memory_order_relaxed) + 1, std::memory_order_release);
    }

private:
    bool is_empty() const {
        return m_read_index.load(std::memory_order_relaxed) == m_write_index.load(std::memory_order_acquire);
    }

    bool wait_for_a_slot() {
        timespec deadline{};
        clock_gettime(CLOCK_MONOTONIC, &deadline);
        deadline.tv_sec += 1;
        int result = 0;
        pthread_mutex_lock(&m_mutex);
        do {
            m_sender_sleeps.store(true, std::memory_order_relaxed);
            if (!is_empty()) {
                break;
            }
            result = pthread_cond_timedwait(&m_not_empty, &m_mutex, &deadline);
        } while (result == 0 && is_empty());
        m_sender_sleeps.store(false, std::memory_order_relaxed);
        pthread_mutex_unlock(&m_mutex);
        return result == 0;
    }

    alignas(128) Slot* m_slots; // owned, for the life of the process
    alignas(128) std::atomic<uint64_t> m_write_index{0};
    alignas(128) std::atomic<uint64_t> m_read_index{0};
    alignas(128) std::atomic<bool> m_sender_sleeps{false};
    alignas(128) pthread_mutex_t m_mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t m_not_empty;
};

sockaddr_in parse_host(const std::string& text) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    const std::size_t colon = text.find(':');
    if (colon == std::string::npos ||
        inet_pton(AF_INET, text.substr(0, colon).c_str(), &address.sin_addr) != 1) {
        std::fprintf(stderr, "bare_relay: no HOST:PORT: %s\n", text.c_str());
        std::exit(2);
    }
    address.sin_port = htons(static_cast<uint16_t>(std::atoi(text.c_str() + colon + 1)));
    return address;
}

int bound_socket(uint16_t port) {
    const int descriptor = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    if (descriptor < 0) {
        fail("socket");
    }
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_port = htons(port);
    if (bind(descriptor, reinterpret_cast<const sockaddr*>(&local), sizeof(local)) != 0) {
        fail("bind");
    }
    return descriptor;
}

void receive_all(Ring& ring, int descriptor) {
    static uint8_t overflow[PACKET_MAX_BYTES];
    for (;;) {
        Slot* const slot = ring.slot_to_fill();
        const ssize_t received =
            recv(descriptor, slot != nullptr ? slot->data : overflow, PACKET_MAX_BYTES, MSG_NOSIGNAL);
        if (received < 0) {
            if (errno == EINTR) {
                continue;
            }
            fail("recv");
        }
        if (slot != nullptr) {
            slot->size = static_cast<uint64_t>(received);
            ring.publish();
        }
    }
}

void send_all(Ring& ring, int descriptor, const std::vector<sockaddr_in>& hosts) {
    for (;;) {
        const Slot* const slot = ring.slot_to_send();
        if (slot == nullptr) {
            continue;
        }
        for (const sockaddr_in& host : hosts) {
            sendto(descriptor, slot->data, slot->size, 0, reinterpret_cast<const sockaddr*>(&host),
                   sizeof(host));
        }
        ring.give_back();
    }
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: bare_relay PORT HOST:PORT [HOST:PORT ...]\n");
        return 2;
    }
    std::vector<sockaddr_in> hosts;
    for (int argument = 2; argument < argc; ++argument) {
        hosts.push_back(parse_host(argv[argument]));
    }
    const int receiving = bound_socket(static_cast<uint16_t>(std::atoi(argv[1])));
    const int sending = bound_socket(0);
    Ring ring;
    std::thread sender(send_all, std::ref(ring), sending, std::cref(hosts));
    receive_all(ring, receiving);
}
