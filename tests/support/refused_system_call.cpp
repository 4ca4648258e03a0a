#include "tests/support/refused_system_call.h"

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <exception>
#include <system_error>
#include <thread>

namespace corvalin::test {

namespace {

// A filter belongs to the thread that installs it and cannot be taken off again.
void refuse(unsigned int number, unsigned int error) {
    std::array<sock_filter, 4> filter = {{
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, number, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | (error & SECCOMP_RET_DATA)),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    }};
    const sock_fprog program = {filter.size(), filter.data()};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
        prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0) {
        throw std::system_error(errno, std::generic_category(), "seccomp filter");
    }
}

} // namespace

void with_refused_system_call(int number, int error, const std::function<void()>& body) {
    std::exception_ptr failure;
    std::thread thread([&] {
        try {
            refuse(static_cast<unsigned int>(number), static_cast<unsigned int>(error));
            body();
        } catch (...) {
            failure = std::current_exception();
        }
    });
    thread.join();
    if (failure) {
        std::rethrow_exception(failure);
    }
}

} // namespace corvalin::test
