// The statistics as Prometheus reads them.
#pragma once

#include <string>

#include "sessionctl/statistics.h"

namespace session_service::console {

// The text format of metrics. What is not known is left out.
std::string formatMetrics(const Statistics& statistics);

}  // namespace session_service::console
