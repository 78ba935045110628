// Runs the tests in the state that start-up gives the daemon's process.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cstdint>

#include "frame/logger.h"

extern "C" void __sanitizer_set_report_fd(void* descriptor) __attribute__((weak));

int main(int argumentCount, char** arguments) {
    testing::InitGoogleTest(&argumentCount, arguments);
    signal(SIGPIPE, SIG_IGN);
    if (__sanitizer_set_report_fd) {
        // A report must not end up in a capture of standard error.
        const std::intptr_t descriptor = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
        __sanitizer_set_report_fd(reinterpret_cast<void*>(descriptor));
    }
    // Without a log file every line goes to standard error, where tests capture it.
    session_service::Logger log;
    session_service::logger = &log;
    return RUN_ALL_TESTS();
}
