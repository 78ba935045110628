#include "frame/mutex.h"

#include <time.h>

#include <cerrno>
#include <cstdint>

#if defined(__SANITIZE_THREAD__)
#include <sanitizer/tsan_interface.h>
#endif

namespace session_service {
namespace {

constexpr long pauseNanoseconds = 100'000'000;
constexpr long nanosecondsPerSecond = 1'000'000'000;

timespec endOfPause() {
    timespec end{};
    clock_gettime(CLOCK_MONOTONIC, &end);
    end.tv_nsec += pauseNanoseconds;
    if (end.tv_nsec >= nanosecondsPerSecond) {
        end.tv_nsec -= nanosecondsPerSecond;
        ++end.tv_sec;
    }
    return end;
}

void sleepUntil(const timespec& end) {
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &end, nullptr) == EINTR) {
    }
}

// The thread sanitizer does not know pthread_mutex_clocklock: it is told of a lock that was taken.
void tellSanitizer([[maybe_unused]] Mutex& mutex) {
#if defined(__SANITIZE_THREAD__)
    __tsan_mutex_pre_lock(&mutex.handle, __tsan_mutex_try_lock);
    __tsan_mutex_post_lock(&mutex.handle, __tsan_mutex_try_lock, 0);
#endif
}

// Pauses between two tries. True, with the mutex held, when it came free meanwhile.
bool lockDuringPause(Mutex& mutex) TSA_TRY_ACQUIRE(true, mutex) TSA_UNCHECKED {
    const timespec end = endOfPause();
    const int status = pthread_mutex_clocklock(&mutex.handle, CLOCK_MONOTONIC, &end);
    if (status == 0) {
        tellSanitizer(mutex);
    } else if (status != ETIMEDOUT) {
        sleepUntil(end);
    }
    return status == 0;
}

}  // namespace

bool tryLockFor(Mutex& mutex, int seconds) TSA_UNCHECKED {
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
            // No try follows the last pause, so nothing can end it early.
            sleepUntil(endOfPause());
        } else if (lockDuringPause(mutex)) {
            return true;
        }
    }
    return false;
}

bool shouldStop(Mutex& mutex) TSA_UNCHECKED {
    const int status = pthread_mutex_trylock(&mutex.handle);
    if (status == 0) {
        pthread_mutex_unlock(&mutex.handle);
        return true;
    }
    return status != EBUSY;
}

void lock(Mutex& mutex) TSA_UNCHECKED {
    pthread_mutex_lock(&mutex.handle);
}

void unlock(Mutex& mutex) TSA_UNCHECKED {
    pthread_mutex_unlock(&mutex.handle);
}

MutexGuard::MutexGuard(Mutex& guarded) TSA_UNCHECKED : mutex(guarded), held(true) {
    lock(mutex);
}

MutexGuard::~MutexGuard() TSA_UNCHECKED {
    unlock();
}

bool MutexGuard::tryFor(int seconds) TSA_UNCHECKED {
    held = tryLockFor(mutex, seconds);
    return held;
}

void MutexGuard::unlock() TSA_UNCHECKED {
    if (held) {
        held = false;
        session_service::unlock(mutex);
    }
}

}  // namespace session_service
