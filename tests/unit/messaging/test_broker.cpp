#include "tests/unit/messaging/test_broker.h"

#include <sys/wait.h>

#include <csignal>

#include "corvalin_lib/log.h"

namespace corvalin::test {

void log_to_standard_error() {
    log::Logger::m_instance.m_write = &log::Stdlog::write;
}

bool died_of_a_fault(int status) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return !WIFEXITED(status) || WEXITSTATUS(status) != 0;
#else
    return WIFSIGNALED(status) && WTERMSIG(status) == SIGSEGV;
#endif
}

} // namespace corvalin::test
