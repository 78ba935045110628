// What sessionctl stats shows.
#pragma once

#include <optional>

#include "sessionctl/counts.h"
#include "sessionctl/process_statistics.h"

namespace session_service::console {

struct Statistics {
    int sessions = 0;
    // Seconds since the daemon last looked for expired sessions; not known without a session.
    std::optional<long long> lastPassAge{};
    Counts counts{};
    std::optional<ProcessStatistics> daemon{};
};

}  // namespace session_service::console
