#include "service/session_service.h"

#include <gtest/gtest.h>

#include <type_traits>

namespace session_service {
namespace {

TEST(ServiceObject, IsDestroyedByAVirtualDestructor) {
    EXPECT_TRUE(std::has_virtual_destructor_v<SessionService>);
    EXPECT_TRUE(std::is_default_constructible_v<SessionService>);
    EXPECT_FALSE(std::is_copy_constructible_v<SessionService>);
}

}  // namespace
}  // namespace session_service
