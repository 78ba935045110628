// Mutexes whose use clang checks at compile time (-Wthread-safety): a function that needs one held
// says so with TSA_REQUIRES.
#pragma once

#include <pthread.h>

#if defined(__clang__)
#define THREAD_SAFETY(attribute) __attribute__((attribute))
#else
#define THREAD_SAFETY(attribute)
#endif
#define TSA_CAPABILITY(name) THREAD_SAFETY(capability(name))
#define TSA_SCOPED_CAPABILITY THREAD_SAFETY(scoped_lockable)
#define TSA_ACQUIRE(...) THREAD_SAFETY(acquire_capability(__VA_ARGS__))
#define TSA_TRY_ACQUIRE(...) THREAD_SAFETY(try_acquire_capability(__VA_ARGS__))
#define TSA_RELEASE(...) THREAD_SAFETY(release_capability(__VA_ARGS__))
#define TSA_REQUIRES(...) THREAD_SAFETY(requires_capability(__VA_ARGS__))
#define TSA_EXCLUDES(...) THREAD_SAFETY(locks_excluded(__VA_ARGS__))
// For what implements a lock itself.
#define TSA_UNCHECKED THREAD_SAFETY(no_thread_safety_analysis)

namespace session_service {

// To be initialized before use, as pthread_mutex_init does.
struct TSA_CAPABILITY("mutex") Mutex {
    pthread_mutex_t handle;
};

// Tries the mutex every 100 ms, seconds * 10 + 1 times at most; a pause between two tries ends
// early when the mutex comes free.
// Returns true with the mutex held, false when it could not be taken. Also false, at once, when
// seconds * 5 has bit 30 set: a guard against overflow that is odd but kept on purpose.
bool tryLockFor(Mutex& mutex, int seconds) TSA_TRY_ACQUIRE(true, mutex);

// The stop signal is a mutex that start-up holds. True when it is free, or fails in any way but
// being held; it is not held afterwards.
bool shouldStop(Mutex& mutex) TSA_EXCLUDES(mutex);

void lock(Mutex& mutex) TSA_ACQUIRE(mutex);
void unlock(Mutex& mutex) TSA_RELEASE(mutex);

// Holds a mutex and releases it at the end of the scope.
class TSA_SCOPED_CAPABILITY MutexGuard {
  public:
    struct Deferred {};

    // Waits for the mutex as long as it takes.
    explicit MutexGuard(Mutex& guarded) TSA_ACQUIRE(guarded);
    // Does not hold the mutex yet.
    MutexGuard(Mutex& guarded, Deferred /*unused*/) TSA_EXCLUDES(guarded) : mutex(guarded) {}
    MutexGuard(const MutexGuard&) = delete;
    MutexGuard& operator=(const MutexGuard&) = delete;
    ~MutexGuard() TSA_RELEASE();

    // As tryLockFor.
    bool tryFor(int seconds) TSA_TRY_ACQUIRE(true);
    void unlock() TSA_RELEASE();

  private:
    Mutex& mutex;
    bool held = false;
};

}  // namespace session_service
