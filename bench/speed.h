// The time of the daemon's work, beside the floor under it.
#pragma once

#include <vector>

#include "bench/table.h"

namespace testbed {

// How often something is repeated: the median of the repetitions counts.
struct Effort {
    int iterations;
    int repetitions;
};

// Each measures on a controller of its own and adds its part to the table.
void measureRequests(Table& table, const Effort& effort);
void measureSweeper(Table& table, const std::vector<int>& sessions, const Effort& effort);
void measureAccountLookUp(Table& table, const std::vector<int>& keys, const Effort& effort);

}  // namespace testbed
