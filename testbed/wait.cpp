#include "testbed/wait.h"

#include <cstdlib>
#include <thread>

namespace testbed {

namespace {

constexpr std::chrono::seconds shortPatience{60};
constexpr std::chrono::seconds longPatience{180};
constexpr std::chrono::milliseconds pause{2};

}  // namespace

bool underMemcheck() {
    static const bool asked = std::getenv("TESTBED_VALGRIND") != nullptr;
    return asked;
}

Deadline patience() {
    const bool slow = TESTBED_SANITIZED || TESTBED_EMULATED || underMemcheck();
    return std::chrono::steady_clock::now() + (slow ? longPatience : shortPatience);
}

void waitUntil(const std::string& what, const std::function<bool()>& condition) {
    const Deadline end = patience();
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            throw Failure("Waited in vain until " + what + ".");
        }
        std::this_thread::sleep_for(pause);
    }
}

}  // namespace testbed
