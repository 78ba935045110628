// The resources that the daemon needs: size, memory, processor, wake-ups, system calls; and how
// long its start takes.
#pragma once

#include <chrono>

#include "bench/results.h"
#include "bench/table.h"

namespace bench {

// Each measures on a controller of its own and adds its part to the table and the results.
void measureSize(Table& table, Json& results);
void measureStart(Table& table, Json& results);
void measureMemory(Table& table, Json& results, int logins);
void measureIdleness(Table& table, Json& results, std::chrono::seconds duration);
// Needs strace, and the right to trace the daemon.
void measureCalls(Table& table, Json& results);

}  // namespace bench
