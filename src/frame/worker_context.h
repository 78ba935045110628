// What the worker threads share, and the lock utilities that act on it.
#pragma once

#include <pthread.h>

#include <memory>

namespace session_service {

// One record exists for the whole run; the create, delete and timeout threads get its
// address as their argument.
struct WorkerContext {
    // Held by start-up until the create and delete threads have ended; the timeout
    // thread ends as soon as it can take it.
    pthread_mutex_t stopMutex;
    // Serialises the session work of the create, delete and timeout threads.
    pthread_mutex_t dataMutex;
    // Signalled after a session was created.
    pthread_cond_t dataReady;
};

struct UnlockMutex {
    void operator()(pthread_mutex_t* mutex) const noexcept { pthread_mutex_unlock(mutex); }
};
// A mutex that is held; null: none is.
using HeldMutex = std::unique_ptr<pthread_mutex_t, UnlockMutex>;

// How long a request waits for the data mutex.
inline constexpr int dataMutexSeconds = 2;

// Tries the mutex every 100 ms, seconds * 10 + 1 times at most.
// Returns true with the mutex held, false when it could not be taken, and false at once
// for a number of seconds whose fivefold has bit 30 set.
bool tryLockFor(pthread_mutex_t& mutex, int seconds);

// Tells whether the mutex is free, or unusable; it is not held afterwards.
bool shouldStop(pthread_mutex_t& mutex);

}  // namespace session_service
