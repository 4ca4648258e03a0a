// tsan_signals: makes ThreadSanitizer's runtime ready for signals before main begins.
//
// The runtime keeps a signal that arrives outside of a waiting call until the next one, in a record that it makes at the
// first such call. GCC 12's forgets a signal that arrives while it makes the record: a process that is told to stop right
// after its start would run on for ever.
#include <poll.h>

namespace {

[[gnu::constructor]] void wait_once() {
    poll(nullptr, 0, 0);
}

} // namespace
