// never_destroyed: storage for static objects that outlive the exit handlers.
//
// The receive loop ends the process by `exit` while the reader and statistics threads still run
// (net_socket.h). `exit` destroys static objects, and those threads would then walk on freed memory. An
// object held here is built like any static, is never destroyed, and so stays usable until the last thread is
// gone with the process.
#pragma once

#include <utility>

namespace corvalin {

template <class T>
union NeverDestroyed {
    template <class... Arguments>
    constexpr explicit NeverDestroyed(Arguments&&... arguments)
        : object(std::forward<Arguments>(arguments)...) {}
    constexpr ~NeverDestroyed() {} // on purpose: the union leaves `object` alive
    NeverDestroyed(const NeverDestroyed&) = delete;
    NeverDestroyed& operator=(const NeverDestroyed&) = delete;

    T object;
};

} // namespace corvalin
