// The resources that the daemon needs: size, memory, processor, wake-ups, system calls; and how
// long its start takes.
#pragma once

#include <chrono>

#include "bench/table.h"

namespace bench {

// Each measures on a controller of its own and adds its part to the table.
void measureSize(Table& table);
void measureStart(Table& table);
void measureMemory(Table& table, int logins);
void measureIdleness(Table& table, std::chrono::seconds duration);
// Needs strace, and the right to trace the daemon.
void measureCalls(Table& table);

}  // namespace bench
