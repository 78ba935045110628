#include "frame/thread_body.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <new>
#include <stdexcept>

#include "support/captured_output.h"

namespace session_service {
namespace {

template <typename Body>
std::string logOf(const Body& body) {
    return standardErrorOf([&] { runThreadBody("the test", body); });
}

TEST(ThreadBody, ThatEndsLogsNothing) {
    bool run = false;
    EXPECT_EQ(logOf([&] { run = true; }), "");
    EXPECT_TRUE(run);
}

TEST(ThreadBody, KeepsEveryExceptionToItselfAndLogsIt) {
    EXPECT_EQ(logOf([] { throw std::logic_error("a fault"); }),
              "[Error]: The thread of the test ends: a fault\n");
    EXPECT_EQ(logOf([] { throw std::bad_alloc(); }),
              "[Error]: The thread of the test ends: std::bad_alloc\n");
    EXPECT_EQ(logOf([] { throw 7; }), "[Error]: The thread of the test ends: unknown exception\n");
}

TEST(ThreadBody, LetsAModuleEndItsThread) {
    const auto end = [](void* reached) -> void* {
        runThreadBody("the test", [] { pthread_exit(nullptr); });
        *static_cast<bool*>(reached) = true;
        return nullptr;
    };
    bool reached = false;
    const std::string log = standardErrorOf([&] {
        pthread_t thread{};
        ASSERT_EQ(pthread_create(&thread, nullptr, end, &reached), 0);
        pthread_join(thread, nullptr);
    });
    EXPECT_EQ(log, "");
    EXPECT_FALSE(reached);
}

}  // namespace
}  // namespace session_service
