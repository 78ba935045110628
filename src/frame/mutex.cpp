#include "frame/mutex.h"

#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace session_service {
namespace {

constexpr long pauseNanoseconds = 100'000'000;
constexpr long nanosecondsOfASecond = 1'000'000'000;

timespec endOfPause() {
    timespec end{};
    clock_gettime(CLOCK_MONOTONIC, &end);
    end.tv_nsec += pauseNanoseconds;
    if (end.tv_nsec >= nanosecondsOfASecond) {
        end.tv_nsec -= nanosecondsOfASecond;
        ++end.tv_sec;
    }
    return end;
}

void sleepUntil(const timespec& end) {
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &end, nullptr) == EINTR) {
    }
}

// Pauses between two tries. True, with the mutex held, when it came free meanwhile.
bool lockDuringPause(Mutex& mutex) TRY_ACQUIRE(true, mutex) UNCHECKED_LOCKS {
    const timespec end = endOfPause();
    const int status = pthread_mutex_clocklock(&mutex.handle, CLOCK_MONOTONIC, &end);
    if (status != 0 && status != ETIMEDOUT) {
        sleepUntil(end);
    }
    return status == 0;
}

}  // namespace

bool tryLockFor(Mutex& mutex, int seconds) UNCHECKED_LOCKS {
    constexpr unsigned overflowBit = 1U << 30;
    if ((static_cast<unsigned>(seconds) * 5U & overflowBit) != 0) {
        return false;
    }
    const std::int64_t attempts = std::int64_t{seconds} * 10 + 1;
    for (std::int64_t attempt = 1; attempt <= attempts; ++attempt) {
        if (pthread_mutex_trylock(&mutex.handle) == 0) {
            return true;
        }
        if (attempt == attempts) {
            // No try follows: that the mutex comes free now makes no difference any more.
            sleepUntil(endOfPause());
        } else if (lockDuringPause(mutex)) {
            return true;
        }
    }
    return false;
}

bool shouldStop(Mutex& mutex) UNCHECKED_LOCKS {
    const int status = pthread_mutex_trylock(&mutex.handle);
    if (status == 0) {
        pthread_mutex_unlock(&mutex.handle);
        return true;
    }
    return status != EBUSY;
}

MutexGuard::MutexGuard(Mutex& guarded) UNCHECKED_LOCKS : mutex(guarded), held(true) {
    pthread_mutex_lock(&mutex.handle);
}

MutexGuard::~MutexGuard() UNCHECKED_LOCKS {
    unlock();
}

bool MutexGuard::tryFor(int seconds) UNCHECKED_LOCKS {
    held = tryLockFor(mutex, seconds);
    return held;
}

void MutexGuard::unlock() UNCHECKED_LOCKS {
    if (held) {
        held = false;
        pthread_mutex_unlock(&mutex.handle);
    }
}

}  // namespace session_service
