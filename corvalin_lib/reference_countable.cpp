#include "corvalin_lib/reference_countable.h"

#include "corvalin_lib/log.h"

namespace corvalin {

void ReferenceCountable::report_negative_count() noexcept {
    log::write(
        "reference_countable", __LINE__,
        log::ErrorMessage() << "RC_PTR: possibly a memory leak: impossible to release pointer with negative "
                               "reference count");
}

} // namespace corvalin
