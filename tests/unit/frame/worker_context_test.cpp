#include "frame/worker_context.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <thread>

namespace {

// A mutex whose answers are laid down: `status` for the first `failures` attempts, then 0.
// Pauses are noted, not waited for.
struct LockScript {
    int status = EBUSY;
    int failures = 0;
    int attempts = 0;
    std::vector<useconds_t> pauses;
};
LockScript* script = nullptr;

}  // namespace

// The names are the linker's.
extern "C" {
int __real_pthread_mutex_trylock(pthread_mutex_t* mutex);
int __real_usleep(useconds_t duration);

int __wrap_pthread_mutex_trylock(pthread_mutex_t* mutex) {
    if (!script) {
        return __real_pthread_mutex_trylock(mutex);
    }
    return script->attempts++ < script->failures ? script->status : 0;
}

int __wrap_usleep(useconds_t duration) {
    if (!script) {
        return __real_usleep(duration);
    }
    script->pauses.push_back(duration);
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
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
};

// A real mutex of the given type, held by this thread.
class LockedMutex {
  public:
    explicit LockedMutex(int type) {
        pthread_mutexattr_t attributes;
        pthread_mutexattr_init(&attributes);
        pthread_mutexattr_settype(&attributes, type);
        pthread_mutex_init(&mutex, &attributes);
        pthread_mutexattr_destroy(&attributes);
        pthread_mutex_lock(&mutex);
    }
    LockedMutex(const LockedMutex&) = delete;
    LockedMutex& operator=(const LockedMutex&) = delete;
    ~LockedMutex() {
        release();
        pthread_mutex_destroy(&mutex);
    }

    void release() {
        if (held) {
            pthread_mutex_unlock(&mutex);
            held = false;
        }
    }

    pthread_mutex_t mutex{};

  private:
    bool held = true;
};

TEST_F(Lock, OfAFreeMutexIsTakenWithoutAPause) {
    EXPECT_TRUE(tryLockFor(mutex, 2));
    EXPECT_EQ(played.attempts, 1);
    EXPECT_TRUE(played.pauses.empty());
}

TEST_F(Lock, IsTriedTwentyOneTimesInTwoSeconds) {
    played.failures = 1000;
    EXPECT_FALSE(tryLockFor(mutex, 2));
    EXPECT_EQ(played.attempts, 21);
    EXPECT_EQ(played.pauses, std::vector<useconds_t>(21, 100'000));
}

TEST_F(Lock, IsTakenAtTheLastAttempt) {
    played.failures = 20;
    EXPECT_TRUE(tryLockFor(mutex, 2));
    EXPECT_EQ(played.attempts, 21);
    EXPECT_EQ(played.pauses.size(), 20U);
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
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    ASSERT_TRUE(tryLockFor(mutex, 2));
    EXPECT_EQ(pthread_mutex_trylock(&mutex), EBUSY);
    pthread_mutex_unlock(&mutex);
}

TEST(TryLock, FailsWhileAnotherThreadHoldsTheMutex) {
    LockedMutex held(PTHREAD_MUTEX_DEFAULT);
    bool taken = true;
    std::thread([&] { taken = tryLockFor(held.mutex, 0); }).join();
    EXPECT_FALSE(taken);
}

TEST(Stopping, WaitsForTheMutexToBeFree) {
    LockedMutex held(PTHREAD_MUTEX_DEFAULT);
    EXPECT_FALSE(shouldStop(held.mutex));
    held.release();
    EXPECT_TRUE(shouldStop(held.mutex));
    EXPECT_EQ(pthread_mutex_trylock(&held.mutex), 0) << "it must not stay held";
    pthread_mutex_unlock(&held.mutex);
}

TEST(Stopping, DependsOnTheKindOfAMutexThatTheThreadItselfHolds) {
    LockedMutex checked(PTHREAD_MUTEX_ERRORCHECK);
    EXPECT_FALSE(shouldStop(checked.mutex));
    LockedMutex recursive(PTHREAD_MUTEX_RECURSIVE);
    EXPECT_TRUE(shouldStop(recursive.mutex));
}

TEST_F(Lock, ThatFailsForAnotherReasonThanBeingHeldMeansStop) {
    for (const int status : {EINVAL, EAGAIN, EOWNERDEAD}) {
        played = {.status = status, .failures = 1, .attempts = 0, .pauses = {}};
        EXPECT_TRUE(shouldStop(mutex)) << status;
    }
    played = {.status = EBUSY, .failures = 1, .attempts = 0, .pauses = {}};
    EXPECT_FALSE(shouldStop(mutex));
}

TEST(SharedRecord, HoldsTheTwoLocksAndThenTheCondition) {
    const WorkerContext context{};
    const std::less<const void*> before;
    EXPECT_TRUE(before(&context.stopMutex, &context.dataMutex));
    EXPECT_TRUE(before(&context.dataMutex, &context.dataReady));
}

}  // namespace
}  // namespace session_service
