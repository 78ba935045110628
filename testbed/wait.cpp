#include "testbed/wait.h"

#include <cstdlib>
#include <thread>

namespace testbed {

namespace {

constexpr std::chrono::seconds timeout{60};
constexpr std::chrono::seconds slowTimeout{180};
constexpr std::chrono::milliseconds pollInterval{2};

}  // namespace

bool underValgrind() {
    static const bool asked = std::getenv("TESTBED_VALGRIND");
    return asked;
}

Deadline deadlineFromNow() {
    const bool slow = TESTBED_SANITIZED || TESTBED_EMULATED || underValgrind();
    return std::chrono::steady_clock::now() + (slow ? slowTimeout : timeout);
}

void waitUntil(const std::string& what, const std::function<bool()>& condition) {
    const Deadline end = deadlineFromNow();
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            throw Failure("Timed out waiting until " + what + ".");
        }
        std::this_thread::sleep_for(pollInterval);
    }
}

}  // namespace testbed
