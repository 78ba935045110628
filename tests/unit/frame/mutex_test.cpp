#include "frame/mutex.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <thread>

namespace {

// A mutex whose answers are laid down: `status` for the first `failures` tries, then 0, and
// `pauseStatus` for each lock of a pause, `freeInPause` excepted. Pauses are counted, not waited
// for.
struct LockScript {
    int status = EBUSY;
    int failures = 0;
    int pauseStatus = ETIMEDOUT;
    int freeInPause = 0;  // the pause, counted from 1, in which the mutex comes free
    int attempts = 0;
    int lockedPauses = 0;
    int sleeps = 0;
};
LockScript* script = nullptr;

}  // namespace

// The names are the linker's.
extern "C" {
#ifdef __USE_TIME_BITS64
// Where a 32-bit machine's times have 64 bits, the C library calls them otherwise.
int __real_pthread_mutex_clocklock(
    pthread_mutex_t* mutex, clockid_t clock,
    const timespec* end) __asm__("__real___pthread_mutex_clocklock64");
int __wrap_pthread_mutex_clocklock(
    pthread_mutex_t* mutex, clockid_t clock,
    const timespec* end) __asm__("__wrap___pthread_mutex_clocklock64");
int __real_clock_nanosleep(clockid_t clock, int flags, const timespec* end,
                           timespec* left) __asm__("__real___clock_nanosleep_time64");
int __wrap_clock_nanosleep(clockid_t clock, int flags, const timespec* end,
                           timespec* left) __asm__("__wrap___clock_nanosleep_time64");
#endif
int __real_pthread_mutex_trylock(pthread_mutex_t* mutex);
int __real_pthread_mutex_clocklock(pthread_mutex_t* mutex, clockid_t clock, const timespec* end);
int __real_clock_nanosleep(clockid_t clock, int flags, const timespec* end, timespec* left);

int __wrap_pthread_mutex_trylock(pthread_mutex_t* mutex) {
    if (!script) {
        return __real_pthread_mutex_trylock(mutex);
    }
    return script->attempts++ < script->failures ? script->status : 0;
}

int __wrap_pthread_mutex_clocklock(pthread_mutex_t* mutex, clockid_t clock, const timespec* end) {
    if (!script) {
        return __real_pthread_mutex_clocklock(mutex, clock, end);
    }
    return ++script->lockedPauses == script->freeInPause ? 0 : script->pauseStatus;
}

int __wrap_clock_nanosleep(clockid_t clock, int flags, const timespec* end, timespec* left) {
    if (!script) {
        return __real_clock_nanosleep(clock, flags, end, left);
    }
    ++script->sleeps;
    return 0;
}
}

namespace session_service {
namespace {

class Lock : public testing::Test {
  protected:
    Lock() { script = &played; }
    ~Lock() override { script = nullptr; }

    LockScript played;
    Mutex mutex{PTHREAD_MUTEX_INITIALIZER};
};

// A real mutex of the given type, held by this thread.
class LockedMutex {
  public:
    explicit LockedMutex(int type) {
        pthread_mutexattr_t attributes;
        pthread_mutexattr_init(&attributes);
        pthread_mutexattr_settype(&attributes, type);
        pthread_mutex_init(&mutex.handle, &attributes);
        pthread_mutexattr_destroy(&attributes);
        pthread_mutex_lock(&mutex.handle);
    }
    LockedMutex(const LockedMutex&) = delete;
    LockedMutex& operator=(const LockedMutex&) = delete;
    ~LockedMutex() {
        release();
        pthread_mutex_destroy(&mutex.handle);
    }

    void release() {
        if (held) {
            pthread_mutex_unlock(&mutex.handle);
            held = false;
        }
    }

    Mutex mutex{};

  private:
    bool held = true;
};

TEST_F(Lock, OfAFreeMutexIsTakenWithoutAPause) {
    EXPECT_TRUE(tryLockFor(mutex, 2));
    EXPECT_EQ(played.attempts, 1);
    EXPECT_EQ(played.lockedPauses + played.sleeps, 0);
}

TEST_F(Lock, IsTriedTwentyOneTimesInTwoSeconds) {
    played.failures = 1000;
    EXPECT_FALSE(tryLockFor(mutex, 2));
    EXPECT_EQ(played.attempts, 21);
    EXPECT_EQ(played.lockedPauses, 20) << "between two tries each";
    EXPECT_EQ(played.sleeps, 1) << "after the last";
}

TEST_F(Lock, IsTakenAtTheLastAttempt) {
    played.failures = 20;
    EXPECT_TRUE(tryLockFor(mutex, 2));
    EXPECT_EQ(played.attempts, 21);
    EXPECT_EQ(played.lockedPauses, 20);
    EXPECT_EQ(played.sleeps, 0);
}

TEST_F(Lock, IsTakenInThePauseInWhichTheMutexComesFree) {
    played.failures = 1000;
    played.freeInPause = 3;
    EXPECT_TRUE(tryLockFor(mutex, 2));
    EXPECT_EQ(played.attempts, 3);
    EXPECT_EQ(played.lockedPauses, 3);
}

TEST_F(Lock, SleepsThroughAPauseWhoseLockFailsInAnotherWay) {
    played.failures = 4;
    played.pauseStatus = EINVAL;
    EXPECT_TRUE(tryLockFor(mutex, 2));
    EXPECT_EQ(played.attempts, 5);
    EXPECT_EQ(played.lockedPauses, 4);
    EXPECT_EQ(played.sleeps, 4);
}

TEST_F(Lock, IsTriedOnceInNoTime) {
    played.failures = 1000;
    EXPECT_FALSE(tryLockFor(mutex, 0));
    EXPECT_EQ(played.attempts, 1);
}

TEST_F(Lock, IsTriedAgainAfterWhateverFailure) {
    played.failures = 3;
    played.status = EINVAL;
    EXPECT_TRUE(tryLockFor(mutex, 1));
    EXPECT_EQ(played.attempts, 4);
}

TEST_F(Lock, IsNotTriedForSecondsThatOverflow) {
    for (const int seconds : {214'748'365, 429'496'729, -1, -2}) {
        EXPECT_FALSE(tryLockFor(mutex, seconds)) << seconds;
    }
    EXPECT_EQ(played.attempts, 0);
    EXPECT_TRUE(tryLockFor(mutex, 214'748'364));
    EXPECT_EQ(played.attempts, 1);
}

TEST(TryLock, HoldsTheMutexAfterwards) {
    Mutex mutex{PTHREAD_MUTEX_INITIALIZER};
    ASSERT_TRUE(tryLockFor(mutex, 2));
    EXPECT_EQ(pthread_mutex_trylock(&mutex.handle), EBUSY);
    pthread_mutex_unlock(&mutex.handle);
}

TEST(TryLock, EndsWhenTheMutexComesFree) {
    LockedMutex held(PTHREAD_MUTEX_DEFAULT);
    bool taken = false;
    std::thread other([&] {
        taken = tryLockFor(held.mutex, 2);
        pthread_mutex_unlock(&held.mutex.handle);
    });
    held.release();
    other.join();
    EXPECT_TRUE(taken);
}

TEST(TryLock, FailsWhileAnotherThreadHoldsTheMutex) {
    LockedMutex held(PTHREAD_MUTEX_DEFAULT);
    bool taken = true;
    std::thread([&] { taken = tryLockFor(held.mutex, 0); }).join();
    EXPECT_FALSE(taken);
}

TEST(Guard, HoldsTheMutexToTheEndOfItsScope) {
    Mutex mutex{PTHREAD_MUTEX_INITIALIZER};
    {
        const MutexGuard guard(mutex);
        EXPECT_EQ(pthread_mutex_trylock(&mutex.handle), EBUSY);
    }
    {
        MutexGuard guard(mutex, MutexGuard::Deferred{});
        const bool taken = guard.tryFor(0);
        EXPECT_TRUE(taken) << "it was let go";
        if (taken) {
            guard.unlock();
        }
        EXPECT_EQ(pthread_mutex_trylock(&mutex.handle), 0);
    }
    EXPECT_EQ(pthread_mutex_trylock(&mutex.handle), EBUSY) << "it is unlocked once only";
    pthread_mutex_unlock(&mutex.handle);
}

TEST(Stopping, WaitsForTheMutexToBeFree) {
    LockedMutex held(PTHREAD_MUTEX_DEFAULT);
    EXPECT_FALSE(shouldStop(held.mutex));
    held.release();
    EXPECT_TRUE(shouldStop(held.mutex));
    EXPECT_EQ(pthread_mutex_trylock(&held.mutex.handle), 0) << "it must not stay held";
    pthread_mutex_unlock(&held.mutex.handle);
}

TEST(Stopping, DependsOnTheKindOfAMutexThatTheThreadItselfHolds) {
    LockedMutex checked(PTHREAD_MUTEX_ERRORCHECK);
    EXPECT_FALSE(shouldStop(checked.mutex));
    LockedMutex recursive(PTHREAD_MUTEX_RECURSIVE);
    EXPECT_TRUE(shouldStop(recursive.mutex));
}

TEST_F(Lock, ThatFailsForAnotherReasonThanBeingHeldMeansStop) {
    for (const int status : {EINVAL, EAGAIN, EOWNERDEAD}) {
        played = {.status = status, .failures = 1};
        EXPECT_TRUE(shouldStop(mutex)) << status;
    }
    played = {.status = EBUSY, .failures = 1};
    EXPECT_FALSE(shouldStop(mutex));
}

}  // namespace
}  // namespace session_service
