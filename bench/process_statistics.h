// Statistics of a running program, from the kernel and the store.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "testbed/store_client.h"

namespace bench {

// All of these throw Failure when the process has ended.

// Of the threads that it has now.
double processorSeconds(pid_t pid);
// A number from the status file, such as "VmRSS" (KiB) or "Threads".
long statusValue(pid_t pid, const std::string& name);
// The same of one of its threads.
long threadStatusValue(pid_t pid, pid_t thread, const std::string& name);
// A number from the memory map's summary, such as "Pss" or "Private_Dirty" (KiB).
long memoryKib(pid_t pid, const std::string& name);
// How many descriptors the process has open.
long openDescriptors(pid_t pid);

// What a thread has used of the processor so far, and how often it was put on it.
struct ThreadUse {
    pid_t thread = 0;
    double seconds = 0;
    long switches = 0;
};
// The daemon's threads.
enum ThreadIndex : std::size_t { createThread = 1, deleteThread, expiryThread, patchThread };
// In the order in which the threads were started, which is how the kernel lists them; their
// numbers may have begun anew in between.
std::vector<ThreadUse> threadUse(pid_t pid);

// A number that the store tells of itself in a section of INFO.
double storeValue(testbed::StoreClient& store, const std::string& section, const std::string& name);

}  // namespace bench
