// Exhausts the descriptors of the process.
#pragma once

#include <gtest/gtest.h>
#include <sys/resource.h>

namespace session_service {

// While it lives, nothing can be opened; what is open stays so.
class NoDescriptors {
  public:
    NoDescriptors() {
        EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
        const rlimit none{0, before.rlim_max};
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    }
    NoDescriptors(const NoDescriptors&) = delete;
    NoDescriptors& operator=(const NoDescriptors&) = delete;
    ~NoDescriptors() { setrlimit(RLIMIT_NOFILE, &before); }

  private:
    rlimit before{};
};

}  // namespace session_service
