// Mutexes whose use clang checks at compile time (-Wthread-safety): what needs one says so with
// REQUIRES, and is then not compiled where the mutex is not held.
#pragma once

#include <pthread.h>

#if defined(__clang__)
#define THREAD_SAFETY(attribute) __attribute__((attribute))
#else
#define THREAD_SAFETY(attribute)
#endif
#define CAPABILITY(name) THREAD_SAFETY(capability(name))
#define SCOPED_CAPABILITY THREAD_SAFETY(scoped_lockable)
#define ACQUIRE(...) THREAD_SAFETY(acquire_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) THREAD_SAFETY(try_acquire_capability(__VA_ARGS__))
#define RELEASE(...) THREAD_SAFETY(release_capability(__VA_ARGS__))
#define REQUIRES(...) THREAD_SAFETY(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) THREAD_SAFETY(locks_excluded(__VA_ARGS__))
#define UNCHECKED_LOCKS THREAD_SAFETY(no_thread_safety_analysis)

namespace session_service {

struct CAPABILITY("mutex") Mutex {
    pthread_mutex_t handle;
};

// Tries the mutex every 100 ms, seconds * 10 + 1 times at most; a pause between two tries ends
// early when the mutex comes free.
// Returns true with the mutex held, false when it could not be taken. False at once for a
// number of seconds whose fivefold has bit 30 set: the service's contract has this odd guard
// against overflow, and it is kept on purpose.
bool tryLockFor(Mutex& mutex, int seconds) TRY_ACQUIRE(true, mutex);

// Tells whether the mutex is free, or unusable; it is not held afterwards.
bool shouldStop(Mutex& mutex) EXCLUDES(mutex);

// Holds a mutex and lets it go at the end of the scope.
class SCOPED_CAPABILITY MutexGuard {
  public:
    struct Deferred {};

    // Waits for the mutex as long as it takes.
    explicit MutexGuard(Mutex& guarded) ACQUIRE(guarded);
    // Does not hold the mutex yet.
    MutexGuard(Mutex& guarded, Deferred /*unused*/) EXCLUDES(guarded) : mutex(guarded) {}
    MutexGuard(const MutexGuard&) = delete;
    MutexGuard& operator=(const MutexGuard&) = delete;
    ~MutexGuard() RELEASE();

    // As tryLockFor.
    bool tryFor(int seconds) TRY_ACQUIRE(true);
    void unlock() RELEASE();

  private:
    Mutex& mutex;
    bool held = false;
};

}  // namespace session_service
