#include "frame/worker_context.h"

#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace session_service {

bool tryLockFor(pthread_mutex_t& mutex, int seconds) {
    constexpr unsigned overflowBit = 1U << 30;
    constexpr useconds_t pause = 100'000;
    if ((static_cast<unsigned>(seconds) * 5U & overflowBit) != 0) {
        return false;
    }
    const std::int64_t attempts = std::int64_t{seconds} * 10 + 1;
    for (std::int64_t attempt = 0; attempt < attempts; ++attempt) {
        if (pthread_mutex_trylock(&mutex) == 0) {
            return true;
        }
        usleep(pause);
    }
    return false;
}

bool shouldStop(pthread_mutex_t& mutex) {
    const int status = pthread_mutex_trylock(&mutex);
    if (status == 0) {
        pthread_mutex_unlock(&mutex);
        return true;
    }
    return status != EBUSY;
}

}  // namespace session_service
