// The time of the daemon's work, beside that of its baseline.
#pragma once

#include <vector>

#include "bench/table.h"

namespace bench {

// How often something is measured: the median of the repetitions counts.
struct Repetition {
    int iterations;
    int repetitions;
};

// Each measures on a controller of its own and adds its part to the table.
void measureRequests(Table& table, const Repetition& repetition);
void measureExpiry(Table& table, const std::vector<int>& sessions, const Repetition& repetition);
void measureAccountLookUp(Table& table, const std::vector<int>& keys, const Repetition& repetition);

}  // namespace bench
