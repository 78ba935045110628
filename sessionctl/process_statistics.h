// What the kernel tells of the running daemon.
#pragma once

#include <sys/types.h>

#include <ctime>
#include <optional>
#include <string>

namespace session_service::console {

// The process of the daemon whose root is that folder; the first one if there are several. Empty
// when there is none, or when the caller may not look at it.
std::optional<pid_t> findDaemon(const std::string& root);

struct ProcessStatistics {
    pid_t pid = 0;
    std::time_t startTime = 0;
    double processorSeconds = 0;  // in the program and in the kernel
    long long residentBytes = 0;
};

// Empty when the process has ended.
std::optional<ProcessStatistics> readProcessStatistics(pid_t pid);

}  // namespace session_service::console
