// The properties that a fuzz target checks.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace session_service {

// Ends the process, which counts as a finding, when the property does not hold.
inline void require(bool holds, const char* property) {
    if (!holds) {
        // Not the stream: a target may be capturing that.
        dprintf(STDERR_FILENO, "Does not hold: %s\n", property);
        std::abort();
    }
}

}  // namespace session_service
