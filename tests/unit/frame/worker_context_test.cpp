#include "frame/worker_context.h"

#include <gtest/gtest.h>

namespace session_service {
namespace {

TEST(SharedRecord, HoldsTheTwoLocksAndThenTheCondition) {
    const WorkerContext context{};
    const std::less<const void*> before;
    EXPECT_TRUE(before(&context.stopMutex, &context.dataMutex));
    EXPECT_TRUE(before(&context.dataMutex, &context.dataReady));
}

}  // namespace
}  // namespace session_service
