#include "tools/tool_support/seeded_random.h"

#include <sys/random.h>

#include <cerrno>
#include <system_error>

namespace corvalin::tools {

uint64_t random_seed() {
    uint64_t seed = 0;
    if (getrandom(&seed, sizeof(seed), 0) != sizeof(seed)) {
        throw std::system_error(errno, std::generic_category(), "getrandom");
    }
    return seed;
}

} // namespace corvalin::tools
