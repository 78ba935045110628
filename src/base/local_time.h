// Local time, by the zone that the machine has at the moment.
#pragma once

#include <ctime>
#include <mutex>

namespace session_service {

// Converts the moment; false, with `local` unspecified, when its year cannot be represented. A
// changed zone is noticed. Safe to call from several threads.
inline bool toLocalTime(std::time_t moment, std::tm& local) {
    // tzset replaces what the process keeps of the zone.
    static std::mutex zoneMutex;
    const std::lock_guard<std::mutex> lock(zoneMutex);
    tzset();
    return localtime_r(&moment, &local) != nullptr;
}

}  // namespace session_service
