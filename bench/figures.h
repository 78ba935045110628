// What the kernel and the store tell of a running program.
#pragma once

#include <sys/types.h>

#include <string>

#include "controller/store_client.h"

namespace bench {

// All of these throw Failure when the process has ended.

// The path of a file in the process's folder under /proc.
std::string procFile(pid_t pid, const std::string& name);
// Of the program and the children that it has waited for.
double processorSeconds(pid_t pid);
// A number from the status file, such as "VmRSS" (KiB) or "Threads".
long statusFigure(pid_t pid, const std::string& name);
// How many descriptors the process has open.
long openDescriptors(pid_t pid);

// A number that the store tells of itself in a section of INFO.
double storeFigure(StoreClient& store, const std::string& section, const std::string& name);

}  // namespace bench
