// The time of the daemon's work, beside that of its baseline.
#pragma once

#include <vector>

#include "bench/results.h"
#include "bench/table.h"

namespace bench {

// How often something is measured: the median of the repetitions counts.
struct Repetition {
    int iterations;
    int repetitions;
};

// Each measures on a controller of its own and adds its part to the table and the results.
void measureRequests(Table& table, Json& results, const Repetition& repetition);
void measureExpiry(Table& table, Json& results, const std::vector<int>& sessions,
                   const Repetition& repetition);
void measureAccountLookUp(Table& table, Json& results, const std::vector<int>& keys,
                          const Repetition& repetition);

}  // namespace bench
