// What the programs have in common that run for a given time.
#pragma once

#include <chrono>
#include <functional>

namespace bench {

// Reads the seconds from the command line and runs the work for as long. Returns the exit status:
// 0 when the work returns that everything was right, 2 for a wrong command line.
int runFor(int argc, char** argv, const char* name,
           const std::function<bool(std::chrono::seconds)>& work);

}  // namespace bench
